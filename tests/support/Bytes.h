// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_BYTES_H
#define TAVREN_TEST_BYTES_H

#include <cstddef>
#include <string>

namespace tavren {
namespace test {

/** The bytes of a string literal, NULs included (without the literal's own terminator). */
template <size_t N>
std::string bytes(const char (&literal)[N]) {
    return std::string(literal, N - 1);
}

} // namespace test
} // namespace tavren

#endif
