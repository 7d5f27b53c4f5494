#ifndef KELVRA_THREADS_SCOPEDLOCK_H
#define KELVRA_THREADS_SCOPEDLOCK_H

#include <pthread.h>

namespace kelvra {
namespace threads {

/** Locks a POSIX mutex for the lifetime of the object. */
class ScopedLock {
public:
    explicit ScopedLock(pthread_mutex_t* mutex);
    ~ScopedLock();
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    pthread_mutex_t* mutex;
};

} // namespace threads
} // namespace kelvra

#endif
