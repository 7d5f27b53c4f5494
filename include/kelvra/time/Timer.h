// SPDX-License-Identifier: Apache-2.0
#ifndef KELVRA_TIME_TIMER_H
#define KELVRA_TIME_TIMER_H

#include <memory>

namespace kelvra {
namespace time {

/**
 * A periodic timer. While it runs, onTimeout() is called on the timer's own
 * thread each time the period (in milliseconds) elapses. The thread is made
 * at the first start() and lives as long as the timer.
 *
 * Guarantees that the reconnect logic relies on:
 *  - stop() never waits for a callback, so it may be called from inside
 *    onTimeout();
 *  - the object may be destroyed from inside its own onTimeout(), on the
 *    timer's thread: the thread notices and ends without touching it again;
 *  - destroying the timer from any other thread waits until a callback
 *    that is running has returned. A derived class whose onTimeout() uses its
 *    own members must call stopAndWait() first in its own destructor, since
 *    those members are gone by the time ~Timer runs.
 */
class Timer {
public:
    /**
     * A stopped timer; no thread is made yet.
     * @param period milliseconds between ticks (a value below 1 is taken as 1)
     */
    explicit Timer(int period);
    /**
     * Stops the timer and ends its thread. From any other thread than the
     * timer's own, waits until a callback that is running has returned.
     */
    virtual ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    /**
     * Starts ticking; the first tick comes one period from now. No effect while running.
     * @throws std::runtime_error when the timer's thread cannot be created
     *         (the first start only); the timer then stays stopped
     */
    void start();

    /** Stops ticking. Does not wait for a callback that is running. */
    void stop();

    /**
     * Stops and starts again: the next tick comes one full period from now.
     * May be called from inside onTimeout().
     * @throws std::runtime_error as start()
     */
    void restart();

    /**
     * As restart(), but the next tick comes delayMs from now (0 or less: at
     * once); the ticks after it come a period apart. May be called from
     * inside onTimeout().
     * @throws std::runtime_error as start()
     */
    void restartIn(int delayMs);

    /**
     * Stops and, unless called from the timer's own thread, waits until a
     * callback that is running has returned.
     */
    void stopAndWait();

    /** True between start() (or restart()) and stop(). */
    bool isRunning() const;
    /** Milliseconds between ticks, as the constructor took it. */
    int period() const { return periodMs; }

protected:
    /**
     * Called on the timer's thread at every tick, never on two threads at
     * once. Does nothing by default. An override must not throw.
     */
    virtual void onTimeout();

private:
    struct State;
    static void* threadMain(void* arg);
    void ensureThread();

    int periodMs;
    std::shared_ptr<State> state;
};

} // namespace time
} // namespace kelvra

#endif
