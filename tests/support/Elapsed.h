// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_ELAPSED_H
#define TAVREN_TEST_ELAPSED_H

#include <chrono>

namespace tavren {
namespace test {

using Clock = std::chrono::steady_clock;

/** Milliseconds from start until now. */
inline long long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

} // namespace test
} // namespace tavren

#endif
