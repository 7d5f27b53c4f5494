// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_UUIDTEXT_H
#define TAVREN_TEST_UUIDTEXT_H

#include <string>

namespace tavren {
namespace test {

/** True for the 36-character lower-case form of a random (version 4) UUID. */
inline bool isUuid(const std::string& text) {
    if (text.size() != 36) return false;
    for (std::string::size_type i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (c != '-') return false;
        } else if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return text[14] == '4' && std::string("89ab").find(text[19]) != std::string::npos;
}

} // namespace test
} // namespace tavren

#endif
