// SPDX-License-Identifier: Apache-2.0
#include "client/EngineMutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <pthread.h>
#include <unistd.h>

namespace {

using kelvra::threads::CondVar;
using tavren::internal::EngineLock;
using tavren::internal::EngineMutex;

TEST(EngineMutex, SameThreadTakesItAgainWithoutBlocking) {
    EngineMutex mutex;
    EngineLock outer(mutex);
    EngineLock inner(mutex);
    SUCCEED();
}

struct Shared {
    EngineMutex mutex;
    CondVar cond;
    bool answered = false;
    std::atomic<bool> gotLock{false};
};

void* answerer(void* arg) {
    Shared* s = static_cast<Shared*>(arg);
    EngineLock lock(s->mutex); // blocks for good unless the waiter released every level
    s->gotLock = true;
    s->answered = true;
    s->cond.signal();
    return nullptr;
}

TEST(EngineMutex, WaitReleasesEveryLevelTheWaiterHolds) {
    Shared s;
    EngineLock one(s.mutex);
    EngineLock two(s.mutex);
    EngineLock three(s.mutex);
    pthread_t thread;
    pthread_create(&thread, nullptr, answerer, &s);
    while (!s.answered) s.mutex.wait(s.cond);
    EXPECT_TRUE(s.gotLock);
    pthread_join(thread, nullptr);
}

void* holdBriefly(void* arg) {
    Shared* s = static_cast<Shared*>(arg);
    // Takes the lock only after the waiter is back at full depth, which
    // shows that the depth was restored.
    EngineLock lock(s->mutex);
    s->gotLock = true;
    return nullptr;
}

TEST(EngineMutex, LockUnlessGivesUpWhenAskedTo) {
    EngineMutex mutex;
    std::atomic<bool> giveUp{false};
    mutex.lock();
    pthread_t thread;
    struct Arg {
        EngineMutex* mutex;
        std::atomic<bool>* giveUp;
        std::atomic<int> result{-1};
    } arg{&mutex, &giveUp};
    pthread_create(
        &thread, nullptr,
        [](void* p) -> void* {
            Arg* a = static_cast<Arg*>(p);
            const bool got = a->mutex->lockUnless([a] { return a->giveUp->load(); });
            a->result = got ? 1 : 0;
            if (got) a->mutex->unlock();
            return nullptr;
        },
        &arg);
    usleep(30 * 1000);
    EXPECT_EQ(arg.result, -1); // still waiting
    giveUp = true;
    pthread_join(thread, nullptr); // would hang if it never gave up
    EXPECT_EQ(arg.result, 0);
    mutex.unlock();
}

TEST(EngineMutex, LockUnlessTakesAFreeLock) {
    EngineMutex mutex;
    EXPECT_TRUE(mutex.lockUnless([] { return false; }));
    EXPECT_TRUE(mutex.lockUnless([] { return false; })); // again, on the same thread
    mutex.unlock();
    mutex.unlock();
    Shared s;
    pthread_t thread;
    pthread_create(&thread, nullptr, holdBriefly, &s);
    pthread_join(thread, nullptr);
    EXPECT_TRUE(s.gotLock);
}

} // namespace
