// SPDX-License-Identifier: Apache-2.0
#include <kelvra/threads/CondVar.h>
#include <kelvra/threads/ScopedLock.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using kelvra::threads::CondVar;
using kelvra::threads::ScopedLock;

TEST(ScopedLock, HoldsTheMutexForItsScope) {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    {
        ScopedLock lock(&m);
        EXPECT_EQ(EBUSY, pthread_mutex_trylock(&m));
    }
    EXPECT_EQ(0, pthread_mutex_trylock(&m));
    pthread_mutex_unlock(&m);
    pthread_mutex_destroy(&m);
}

TEST(CondVar, WaitReleasesTheMutexUntilSignalled) {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    CondVar cv;
    bool ready = false;
    std::thread signaller([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ScopedLock lock(&m); // possible only while the waiter has released it
        ready = true;
        cv.signal();
    });
    {
        ScopedLock lock(&m);
        while (!ready) ASSERT_TRUE(cv.waitFor(&m, 5000)) << "signal never came";
        EXPECT_EQ(EBUSY, pthread_mutex_trylock(&m)) << "held again after the wait";
    }
    signaller.join();
    pthread_mutex_destroy(&m);
}

TEST(CondVar, TimedWaitGivesUp) {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    CondVar cv;
    ScopedLock lock(&m);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(cv.waitFor(&m, 50));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(49));
}

TEST(CondVar, BroadcastWakesEveryWaiter) {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    CondVar cv;
    bool go = false;
    std::atomic<int> woke{0};
    std::thread a([&] {
        ScopedLock lock(&m);
        while (!go) cv.wait(&m);
        ++woke;
    });
    std::thread b([&] {
        ScopedLock lock(&m);
        while (!go) cv.wait(&m);
        ++woke;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    {
        ScopedLock lock(&m);
        go = true;
        cv.broadcast();
    }
    a.join();
    b.join();
    EXPECT_EQ(2, woke.load());
}
