// SPDX-License-Identifier: Apache-2.0
#include "client/EngineMutex.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace tavren {
namespace internal {

namespace {

// How long lockUnless waits before it asks again whether to give up.
const long kGiveUpPollNs = 5 * 1000 * 1000;

// The monotonic clock, so that a change of the wall clock cannot stretch a
// wait. ThreadSanitizer does not know pthread_mutex_clocklock, so under it
// the same wait is timed on the wall clock with pthread_mutex_timedlock.
#if defined(__SANITIZE_THREAD__)
const clockid_t kLockClock = CLOCK_REALTIME;
int lockUntil(pthread_mutex_t* m, const struct timespec* until) { return pthread_mutex_timedlock(m, until); }
#else
const clockid_t kLockClock = CLOCK_MONOTONIC;
int lockUntil(pthread_mutex_t* m, const struct timespec* until) {
    return pthread_mutex_clocklock(m, CLOCK_MONOTONIC, until);
}
#endif

struct timespec lockClockIn(long ns) {
    struct timespec t;
    clock_gettime(kLockClock, &t);
    t.tv_nsec += ns;
    if (t.tv_nsec >= 1000000000L) {
        t.tv_sec += 1;
        t.tv_nsec -= 1000000000L;
    }
    return t;
}

} // namespace

EngineMutex::EngineMutex() : depth(0) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

EngineMutex::~EngineMutex() { pthread_mutex_destroy(&mutex); }

void EngineMutex::lock() {
    pthread_mutex_lock(&mutex);
    ++depth;
}

void EngineMutex::unlock() {
    --depth;
    pthread_mutex_unlock(&mutex);
}

bool EngineMutex::lockUnless(const std::function<bool()>& giveUp) {
    for (;;) {
        if (giveUp()) return false;
        const struct timespec until = lockClockIn(kGiveUpPollNs);
        const int rc = lockUntil(&mutex, &until);
        if (rc == 0) {
            ++depth;
            return true;
        }
        // Only giving up returns false: any other failure is tried again.
        if (rc != ETIMEDOUT) usleep(1000);
    }
}

void EngineMutex::wait(kelvra::threads::CondVar& cond) {
    waitReleased([&] {
        cond.wait(&mutex);
        return true;
    });
}

bool EngineMutex::waitUntil(kelvra::threads::CondVar& cond, const struct timespec& deadline) {
    return waitReleased([&] { return cond.waitUntil(&mutex, deadline); });
}

bool EngineMutex::waitReleased(const std::function<bool()>& waitOnce) {
    // A condition wait on a recursive mutex releases one level only; the
    // other levels are released here and taken back afterwards.
    const int held = depth;
    for (int i = 1; i < held; ++i) pthread_mutex_unlock(&mutex);
    depth = 0;
    const bool woken = waitOnce();
    for (int i = 1; i < held; ++i) pthread_mutex_lock(&mutex);
    depth = held;
    return woken;
}

} // namespace internal
} // namespace tavren
