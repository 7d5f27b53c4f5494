// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_WAKECOUNTER_H
#define TAVREN_INTERNAL_WAKECOUNTER_H

#include <unistd.h>

#include <cstdint>

namespace tavren {
namespace internal {

/**
 * Adds one to the counter of the eventfd fd (non-blocking), which wakes a
 * thread that polls it. A counter that is full already wakes it, so a write
 * that fails changes nothing.
 */
inline void addWake(int fd) {
    const uint64_t one = 1;
    ssize_t ignored = ::write(fd, &one, sizeof one);
    (void)ignored;
}

/**
 * Takes the whole count of the eventfd fd (non-blocking) in one read,
 * which sets it to zero. Nothing to read (EAGAIN) is what an empty counter
 * says.
 */
inline void takeWakes(int fd) {
    uint64_t count;
    ssize_t ignored = ::read(fd, &count, sizeof count);
    (void)ignored;
}

} // namespace internal
} // namespace tavren

#endif
