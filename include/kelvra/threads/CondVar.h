// SPDX-License-Identifier: Apache-2.0
#ifndef KELVRA_THREADS_CONDVAR_H
#define KELVRA_THREADS_CONDVAR_H

#include <pthread.h>
#include <time.h>

namespace kelvra {
namespace threads {

/**
 * A POSIX condition variable. Timed waits run on the monotonic clock, so a
 * change of the wall clock neither shortens nor stretches them.
 *
 * Every wait takes the mutex that guards the waited-for condition, held by
 * the calling thread; a wait may end without a signal (a spurious wake-up),
 * so callers wait in a loop that tests their condition. signal() and
 * broadcast() may be called from any thread, with or without that mutex.
 * Nobody may wait on it when it is destroyed.
 */
class CondVar {
public:
    /** A condition variable whose timed waits use CLOCK_MONOTONIC. */
    CondVar();
    /** Destroys it; no thread may still wait on it. */
    ~CondVar();
    CondVar(const CondVar&) = delete;
    CondVar& operator=(const CondVar&) = delete;

    /**
     * Releases mutex (which the caller holds), waits for a signal, takes it again.
     * @param mutex the mutex that guards the condition, locked by the caller
     */
    void wait(pthread_mutex_t* mutex);

    /**
     * As wait, but gives up after timeoutMs milliseconds.
     * Returns false when the time ran out, true when woken earlier
     * (which may be spurious: callers test their condition again).
     * @param mutex the mutex that guards the condition, locked by the caller
     * @param timeoutMs how long to wait at most; a negative value counts as 0
     */
    bool waitFor(pthread_mutex_t* mutex, long timeoutMs);

    /**
     * As wait, but gives up at deadline, a time on CLOCK_MONOTONIC.
     * Returns false when the deadline passed, true when woken earlier.
     * @param mutex the mutex that guards the condition, locked by the caller
     * @param deadline an absolute time read from clock_gettime(CLOCK_MONOTONIC)
     */
    bool waitUntil(pthread_mutex_t* mutex, const struct timespec& deadline);

    /**
     * The time on CLOCK_MONOTONIC timeoutMs milliseconds from now, for waitUntil.
     * @param timeoutMs milliseconds from now; a negative value counts as 0
     */
    static struct timespec deadlineIn(long timeoutMs);

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
