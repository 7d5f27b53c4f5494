// SPDX-License-Identifier: Apache-2.0
#ifndef KELVRA_THREADS_SCOPEDLOCK_H
#define KELVRA_THREADS_SCOPEDLOCK_H

#include <pthread.h>

namespace kelvra {
namespace threads {

/**
 * Locks a POSIX mutex for the lifetime of the object: the constructor locks
 * it, the destructor unlocks it, also when an exception leaves the scope.
 * The mutex must outlive the lock, and the lock is released on the thread
 * that took it.
 */
class ScopedLock {
public:
    /** Locks mutex (not null), waiting as long as another thread holds it. */
    explicit ScopedLock(pthread_mutex_t* mutex);
    /** Unlocks the mutex. */
    ~ScopedLock();
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    pthread_mutex_t* mutex;
};

} // namespace threads
} // namespace kelvra

#endif
