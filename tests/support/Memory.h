// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_MEMORY_H
#define TAVREN_TEST_MEMORY_H

#include "support/Emulation.h"

#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tavren {
namespace test {

/** The process's resident memory, in KiB; -1 if it cannot be read. */
inline long residentKiB() {
    long pages = 0, resident = 0;
    FILE* f = std::fopen("/proc/self/statm", "r");
    if (!f) return -1;
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = -1;
    std::fclose(f);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

/** Heap bytes in use in the main arena, in KiB. */
inline long heapInUseKiB() { return static_cast<long>(mallinfo2().uordblks / 1024); }

/**
 * The most resident memory the process has had, in KiB: since it started,
 * or since the last resetPeakResident(). -1 if it cannot be read.
 */
inline long peakResidentKiB() {
    FILE* f = std::fopen("/proc/self/status", "r");
    if (!f) return -1;
    long peak = -1;
    char line[256];
    while (std::fgets(line, sizeof line, f)) {
        if (std::sscanf(line, "VmHWM: %ld kB", &peak) == 1) break;
    }
    std::fclose(f);
    return peak;
}

/** Starts the peak of peakResidentKiB() over from the memory resident now; false if the system refuses. */
inline bool resetPeakResident() {
    FILE* f = std::fopen("/proc/self/clear_refs", "w");
    if (!f) return false;
    const bool written = std::fputs("5", f) >= 0;
    return std::fclose(f) == 0 && written;
}

} // namespace test
} // namespace tavren

// Under valgrind the memory is valgrind's, and everything runs some fifty
// times slower: tests that measure, or that only repeat for long what other
// tests cover, leave memcheck's run.
#define SKIP_UNDER_VALGRIND()                                                                                          \
    if (tavren::test::underValgrind()) GTEST_SKIP() << "measured, and run at length, outside valgrind"

#ifdef TAVREN_SANITIZED
// Sanitizers keep freed memory in quarantine and add shadow memory: the
// process's memory says nothing about the library's there.
#define SKIP_UNDER_SANITIZERS() GTEST_SKIP() << "memory is measured in the plain build"
#else
#define SKIP_UNDER_SANITIZERS() (void)0
#endif

#endif
