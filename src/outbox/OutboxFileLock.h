// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_OUTBOXFILELOCK_H
#define TAVREN_INTERNAL_OUTBOXFILELOCK_H

#include <string>

namespace tavren {
namespace internal {

/**
 * Keeps an outbox file to one store: a write lock on the file's first byte,
 * held for the store's life, refuses a second store in any process. It is an
 * open file description lock (F_OFD_SETLK), which closing another descriptor
 * of the file does not drop, on a byte SQLite never locks (SQLite's locks are
 * at 1 GiB). Within one process a second store is refused before it opens a
 * descriptor of its own, since closing any descriptor of a file drops the
 * process's POSIX locks on it, which SQLite holds.
 */
class OutboxFileLock {
public:
    /** Takes the lock, making the file when missing; throws OutboxException when another store holds it. */
    explicit OutboxFileLock(const std::string& path);
    ~OutboxFileLock();
    OutboxFileLock(const OutboxFileLock&) = delete;
    OutboxFileLock& operator=(const OutboxFileLock&) = delete;

private:
    int fd = -1;
    unsigned long long device = 0, inode = 0;
};

} // namespace internal
} // namespace tavren

#endif
