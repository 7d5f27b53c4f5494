// SPDX-License-Identifier: Apache-2.0
#include <tavren/OutboxException.h>

#include <utility>

namespace tavren {

OutboxException::OutboxException(std::string message) : text(std::move(message)) {}

OutboxException::~OutboxException() noexcept {}

const char* OutboxException::what() const noexcept { return text.c_str(); }

} // namespace tavren
