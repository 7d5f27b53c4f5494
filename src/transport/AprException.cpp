// SPDX-License-Identifier: Apache-2.0
#include "transport/AprException.h"

namespace tavren {
namespace internal {

AprException::AprException(int status) : reason(status) { apr_strerror(status, message, sizeof message); }

AprException::~AprException() noexcept {}

const char* AprException::what() const noexcept { return message; }

} // namespace internal
} // namespace tavren
