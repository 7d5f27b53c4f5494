// SPDX-License-Identifier: Apache-2.0
#include <kelvra/time/Timer.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

using kelvra::time::Timer;

namespace {

using Clock = std::chrono::steady_clock;

// Counts its ticks; a test can wait for a number of them.
class CountingTimer : public Timer {
public:
    explicit CountingTimer(int period) : Timer(period) {}
    ~CountingTimer() override { stopAndWait(); }

    bool waitForTicks(int n, int timeoutMs = 5000) {
        std::unique_lock<std::mutex> lock(m);
        return cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return ticks >= n; });
    }
    int count() {
        std::lock_guard<std::mutex> lock(m);
        return ticks;
    }
    std::thread::id tickThread() {
        std::lock_guard<std::mutex> lock(m);
        return thread;
    }

protected:
    void onTimeout() override {
        std::lock_guard<std::mutex> lock(m);
        ++ticks;
        thread = std::this_thread::get_id();
        cv.notify_all();
    }

private:
    std::mutex m;
    std::condition_variable cv;
    int ticks = 0;
    std::thread::id thread;
};

} // namespace

TEST(Timer, DoesNotTickBeforeStart) {
    CountingTimer t(10);
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_EQ(0, t.count());
    EXPECT_FALSE(t.isRunning());
}

TEST(Timer, TicksEveryPeriodOnItsOwnThread) {
    CountingTimer t(20);
    const Clock::time_point start = Clock::now();
    t.start();
    EXPECT_TRUE(t.isRunning());
    ASSERT_TRUE(t.waitForTicks(3));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(58)) << "three periods of 20 ms";
    EXPECT_NE(std::this_thread::get_id(), t.tickThread());
}

TEST(Timer, PeriodIsInMilliseconds) {
    CountingTimer t(300);
    t.start();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(0, t.count());
    ASSERT_TRUE(t.waitForTicks(1));
}

TEST(Timer, StopEndsTheTicks) {
    CountingTimer t(10);
    t.start();
    ASSERT_TRUE(t.waitForTicks(2));
    t.stopAndWait();
    const int after = t.count();
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_EQ(after, t.count());
    EXPECT_FALSE(t.isRunning());
}

TEST(Timer, RestartWaitsAFullPeriodAgain) {
    CountingTimer t(200);
    t.start();
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    t.restart();
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    EXPECT_EQ(0, t.count()) << "restart pushed the tick out to 200 ms after it";
    ASSERT_TRUE(t.waitForTicks(1));
}

TEST(Timer, CanBeStartedAgainAfterStop) {
    CountingTimer t(10);
    t.start();
    ASSERT_TRUE(t.waitForTicks(1));
    t.stop();
    t.start();
    ASSERT_TRUE(t.waitForTicks(3));
}

namespace {

// Stops itself from inside its callback and starts again, as a retrying connector does.
class SelfStopping : public Timer {
public:
    SelfStopping() : Timer(10) {}
    ~SelfStopping() override { stopAndWait(); }
    std::atomic<int> ticks{0};
    std::atomic<bool> stoppedInside{false};

protected:
    void onTimeout() override {
        stop(); // must not wait for this very callback
        stoppedInside = !isRunning();
        if (++ticks < 3) restart();
    }
};

// Deletes itself from inside its callback, as a connector whose retry succeeded does.
class SelfDeleting : public Timer {
public:
    explicit SelfDeleting(std::atomic<bool>* done) : Timer(10), done(done) {}
    ~SelfDeleting() override { stopAndWait(); }

protected:
    void onTimeout() override {
        std::atomic<bool>* flag = done;
        delete this;
        *flag = true;
    }

private:
    std::atomic<bool>* done;
};

// A callback that takes a while, to be destroyed from another thread meanwhile.
class SlowCallback : public Timer {
public:
    SlowCallback(std::atomic<int>* entered, std::atomic<int>* left) : Timer(5), entered(entered), left(left) {}
    ~SlowCallback() override { stopAndWait(); }

protected:
    void onTimeout() override {
        ++*entered;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ++*left;
    }

private:
    std::atomic<int>* entered;
    std::atomic<int>* left;
};

} // namespace

TEST(Timer, StopFromInsideTheCallbackDoesNotWaitForItself) {
    SelfStopping t;
    t.start();
    const Clock::time_point start = Clock::now();
    while (t.ticks < 3 && Clock::now() - start < std::chrono::seconds(5))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(3, t.ticks.load());
    EXPECT_TRUE(t.stoppedInside.load());
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(3, t.ticks.load()) << "stopped for good after the third";
}

TEST(Timer, OwnerMayBeDeletedFromInsideTheCallback) {
    std::atomic<bool> done{false};
    SelfDeleting* t = new SelfDeleting(&done);
    t->start();
    const Clock::time_point start = Clock::now();
    while (!done && Clock::now() - start < std::chrono::seconds(5))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(done.load());
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // the thread ends by itself
}

TEST(Timer, DestroyingFromAnotherThreadWaitsForARunningCallback) {
    std::atomic<int> entered{0};
    std::atomic<int> left{0};
    {
        SlowCallback t(&entered, &left);
        t.start();
        const Clock::time_point start = Clock::now();
        while (entered == 0 && Clock::now() - start < std::chrono::seconds(5))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ASSERT_EQ(1, entered.load());
    } // destroyed while its callback sleeps
    EXPECT_EQ(entered.load(), left.load()) << "the callback had returned before the timer was gone";
}

TEST(Timer, ManyTimersComeAndGo) {
    for (int i = 0; i < 50; ++i) {
        CountingTimer t(1);
        t.start();
        if (i % 2) {
            ASSERT_TRUE(t.waitForTicks(1));
        }
    }
}
