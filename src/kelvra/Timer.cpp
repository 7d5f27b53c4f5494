// SPDX-License-Identifier: Apache-2.0
#include <kelvra/time/Timer.h>

#include <kelvra/threads/CondVar.h>
#include <kelvra/threads/ScopedLock.h>

#include <pthread.h>
#include <stdexcept>
#include <time.h>

namespace kelvra {
namespace time {

namespace {

struct timespec monotonicNow() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

struct timespec addMs(struct timespec t, long ms) {
    t.tv_sec += ms / 1000;
    t.tv_nsec += (ms % 1000) * 1000000L;
    if (t.tv_nsec >= 1000000000L) {
        t.tv_sec += 1;
        t.tv_nsec -= 1000000000L;
    }
    return t;
}

bool before(const struct timespec& a, const struct timespec& b) {
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

} // namespace

// Everything the timer's thread touches lives here, not in the Timer: the
// thread holds its own reference, so it can still look at the state after
// its owner has been destroyed from inside onTimeout().
struct Timer::State {
    State() { pthread_mutex_init(&mutex, nullptr); }
    ~State() { pthread_mutex_destroy(&mutex); }

    pthread_mutex_t mutex;
    threads::CondVar changed; // running, deadline, quit or inCallback changed
    Timer* owner = nullptr;   // null once the owner is gone
    bool running = false;
    bool quit = false;
    bool inCallback = false;
    bool threadStarted = false;
    pthread_t thread{};
    struct timespec deadline {}; // next tick, on CLOCK_MONOTONIC
};

Timer::Timer(int period) : periodMs(period < 1 ? 1 : period), state(std::make_shared<State>()) { state->owner = this; }

Timer::~Timer() {
    pthread_mutex_lock(&state->mutex);
    state->running = false;
    state->quit = true;
    state->owner = nullptr;
    const bool started = state->threadStarted;
    const pthread_t thread = state->thread;
    state->changed.broadcast();
    pthread_mutex_unlock(&state->mutex);
    if (!started) return;
    if (pthread_equal(thread, pthread_self())) {
        // Destroyed from inside onTimeout(): the thread ends by itself once
        // the callback returns, and nobody is left to join it.
        pthread_detach(thread);
    } else {
        // Waits for a callback that is running to return.
        pthread_join(thread, nullptr);
    }
}

void Timer::onTimeout() {}

void* Timer::threadMain(void* arg) {
    std::shared_ptr<State>* handed = static_cast<std::shared_ptr<State>*>(arg);
    std::shared_ptr<State> st = *handed;
    delete handed;

    threads::ScopedLock lock(&st->mutex);
    while (!st->quit) {
        if (!st->running) {
            st->changed.wait(&st->mutex);
            continue;
        }
        const struct timespec now = monotonicNow();
        if (before(now, st->deadline)) {
            st->changed.waitUntil(&st->mutex, st->deadline);
            continue; // look at running, quit and the deadline again
        }
        // A tick. The next one is one period after this one was due; a late
        // tick does not cause a burst of catch-up ticks.
        st->deadline = addMs(st->deadline, st->owner->periodMs);
        if (before(st->deadline, now)) st->deadline = addMs(now, st->owner->periodMs);
        st->inCallback = true;
        Timer* owner = st->owner;
        pthread_mutex_unlock(&st->mutex);
        owner->onTimeout(); // may stop, restart or destroy the owner
        pthread_mutex_lock(&st->mutex);
        st->inCallback = false;
        st->changed.broadcast();
    }
    return nullptr;
}

void Timer::ensureThread() {
    // Called with the state's mutex held.
    if (state->threadStarted) return;
    std::shared_ptr<State>* handed = new std::shared_ptr<State>(state);
    if (pthread_create(&state->thread, nullptr, &Timer::threadMain, handed) != 0) {
        delete handed;
        state->running = false;
        throw std::runtime_error("kelvra::time::Timer: cannot create the timer thread");
    }
    state->threadStarted = true;
}

void Timer::start() {
    threads::ScopedLock lock(&state->mutex);
    if (state->running) return;
    state->deadline = addMs(monotonicNow(), periodMs);
    state->running = true;
    ensureThread();
    state->changed.broadcast();
}

void Timer::stop() {
    threads::ScopedLock lock(&state->mutex);
    state->running = false;
    state->changed.broadcast();
}

void Timer::restart() { restartIn(periodMs); }

void Timer::restartIn(int delayMs) {
    threads::ScopedLock lock(&state->mutex);
    state->deadline = addMs(monotonicNow(), delayMs < 0 ? 0 : delayMs);
    state->running = true;
    ensureThread();
    state->changed.broadcast();
}

void Timer::stopAndWait() {
    threads::ScopedLock lock(&state->mutex);
    state->running = false;
    state->changed.broadcast();
    if (state->threadStarted && pthread_equal(state->thread, pthread_self())) return;
    while (state->inCallback) state->changed.wait(&state->mutex);
}

bool Timer::isRunning() const {
    threads::ScopedLock lock(&state->mutex);
    return state->running;
}

} // namespace time
} // namespace kelvra
