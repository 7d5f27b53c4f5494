#ifndef KELVRA_THREADS_CONDVAR_H
#define KELVRA_THREADS_CONDVAR_H

#include <pthread.h>
#include <time.h>

namespace kelvra {
namespace threads {

/**
 * A POSIX condition variable. Timed waits run on the monotonic clock, so a
 * change of the wall clock neither shortens nor stretches them.
 */
class CondVar {
public:
    CondVar();
    ~CondVar();
    CondVar(const CondVar&) = delete;
    CondVar& operator=(const CondVar&) = delete;

    /** Releases mutex (which the caller holds), waits for a signal, takes it again. */
    void wait(pthread_mutex_t* mutex);

    /**
     * As wait, but gives up after timeoutMs milliseconds.
     * Returns false when the time ran out, true when woken earlier
     * (which may be spurious: callers test their condition again).
     */
    bool waitFor(pthread_mutex_t* mutex, long timeoutMs);

    /**
     * As wait, but gives up at deadline, a time on CLOCK_MONOTONIC.
     * Returns false when the deadline passed, true when woken earlier.
     */
    bool waitUntil(pthread_mutex_t* mutex, const struct timespec& deadline);

    /** Wakes one waiter. */
    void signal();

    /** Wakes every waiter. */
    void broadcast();

private:
    pthread_cond_t cond;
};

} // namespace threads
} // namespace kelvra

#endif
