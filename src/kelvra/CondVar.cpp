// SPDX-License-Identifier: Apache-2.0
#include <kelvra/threads/CondVar.h>

#include <cerrno>
#include <ctime>

namespace kelvra {
namespace threads {

CondVar::CondVar() {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&cond, &attr);
    pthread_condattr_destroy(&attr);
}

CondVar::~CondVar() { pthread_cond_destroy(&cond); }

void CondVar::wait(pthread_mutex_t* mutex) { pthread_cond_wait(&cond, mutex); }

struct timespec CondVar::deadlineIn(long timeoutMs) {
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    if (timeoutMs < 0) timeoutMs = 0;
    deadline.tv_sec += timeoutMs / 1000;
    deadline.tv_nsec += (timeoutMs % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    return deadline;
}

bool CondVar::waitFor(pthread_mutex_t* mutex, long timeoutMs) { return waitUntil(mutex, deadlineIn(timeoutMs)); }

bool CondVar::waitUntil(pthread_mutex_t* mutex, const struct timespec& deadline) {
    return pthread_cond_timedwait(&cond, mutex, &deadline) != ETIMEDOUT;
}

void CondVar::signal() { pthread_cond_signal(&cond); }

void CondVar::broadcast() { pthread_cond_broadcast(&cond); }

} // namespace threads
} // namespace kelvra
