// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_ENGINEMUTEX_H
#define TAVREN_INTERNAL_ENGINEMUTEX_H

#include <kelvra/threads/CondVar.h>

#include <pthread.h>

#include <functional>

namespace tavren {
namespace internal {

/**
 * The engine's lock. It is recursive: a thread that holds it may take it
 * again (a first connect attempt made under the lock subscribes every
 * listener, and each subscription takes the lock too). The holder counts its
 * depth, so that a wait for the broker's receipt releases the lock
 * completely, however deep, and the listen thread can deliver that receipt.
 */
class EngineMutex {
public:
    EngineMutex();
    ~EngineMutex();
    EngineMutex(const EngineMutex&) = delete;
    EngineMutex& operator=(const EngineMutex&) = delete;

    void lock();
    void unlock();

    /**
     * Takes the lock, unless giveUp() turns true while it waits: then, and
     * only then, returns false without it. giveUp is asked every few
     * milliseconds, so a thread that is being stopped by the lock's holder
     * never blocks on it.
     */
    bool lockUnless(const std::function<bool()>& giveUp);

    /**
     * Waits for cond with the lock released at every depth that the caller
     * holds it, then takes it back to the same depth. The caller holds it.
     */
    void wait(kelvra::threads::CondVar& cond);

    /**
     * As wait, but gives up at deadline (CLOCK_MONOTONIC). False when the
     * deadline passed, true when woken earlier (perhaps spuriously).
     */
    bool waitUntil(kelvra::threads::CondVar& cond, const struct timespec& deadline);

private:
    bool waitReleased(const std::function<bool()>& waitOnce);

    pthread_mutex_t mutex;
    int depth; // how often the holder has taken it; touched only by the holder
};

/** Holds the engine lock for a scope. */
class EngineLock {
public:
    explicit EngineLock(EngineMutex& m) : mutex(m) { mutex.lock(); }
    ~EngineLock() { mutex.unlock(); }
    EngineLock(const EngineLock&) = delete;
    EngineLock& operator=(const EngineLock&) = delete;

private:
    EngineMutex& mutex;
};

} // namespace internal
} // namespace tavren

#endif
