// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_FOOTPRINT_H
#define TAVREN_TEST_FOOTPRINT_H

#include "support/Memory.h"

#include <dirent.h>

#include <string>

namespace tavren {
namespace test {

/** What the process holds: descriptors, threads, resident memory and heap. */
struct Footprint {
    long fds, threads, rssKiB, heapKiB;

    /** The entries of a /proc/self folder; the folder's own descriptor, open while /proc/self/fd is read, is not
     * counted. */
    static long entriesOf(const char* path, bool ownDescriptor) {
        long n = 0;
        DIR* dir = opendir(path);
        if (!dir) return -1;
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') ++n;
        }
        closedir(dir);
        return ownDescriptor ? n - 1 : n;
    }

    static Footprint now() {
        return Footprint{entriesOf("/proc/self/fd", true), entriesOf("/proc/self/task", false), residentKiB(),
                         heapInUseKiB()};
    }

    /** False under valgrind, whose allocator and shadow memory make the resident figure meaningless. */
    static bool residentMemoryMeaningful() { return !underValgrind(); }

    std::string describe() const {
        return "fds " + std::to_string(fds) + ", threads " + std::to_string(threads) + ", RSS " +
               std::to_string(rssKiB) + " KiB, heap " + std::to_string(heapKiB) + " KiB";
    }
};

} // namespace test
} // namespace tavren

#endif
