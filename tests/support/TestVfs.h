// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_TESTVFS_H
#define TAVREN_TEST_TESTVFS_H

#include <cstddef>
#include <string>

namespace tavren {
namespace test {

/**
 * An SQLite VFS over the default one, for the tests of file outboxes: it can
 * fail writes once a number of bytes was written (a disk that fills up), and
 * it can keep every write in memory until the file is synced and then lose
 * power (what was not synced is gone; the files hold only synced bytes).
 * One at a time in a process; register() makes it available under name().
 */
class TestVfs {
public:
    /** Registers the VFS (not as the default) and starts it over: no failure, nothing held back. */
    static void install();
    static const char* name() { return "tavren-test"; }

    /** Writes fail with this SQLite result code once this many more bytes were written; -1: never. */
    static void failWritesAfter(long long bytes, int code);
    /** From now on writes wait in memory for their file's sync. */
    static void holdUnsyncedWrites();
    /** Drops every write not synced; from now on nothing reaches the files. */
    static void losePower();
    /** Syncs seen since install(). */
    static long syncs();
};

} // namespace test
} // namespace tavren

#endif
