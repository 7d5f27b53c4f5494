// SPDX-License-Identifier: Apache-2.0
#include <tavren/SystemException.h>

#include <cstring>

namespace tavren {

SystemException::SystemException(int errorNumber, std::string detail) : message(strerror(errorNumber)) {
    if (!detail.empty()) message += " " + detail;
}

SystemException::~SystemException() noexcept {}

const char* SystemException::what() const noexcept { return message.c_str(); }

} // namespace tavren
