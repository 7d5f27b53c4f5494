// SPDX-License-Identifier: Apache-2.0
// The stacks message workers run on: reused, guarded, and kept for a thread
// that still runs on one.
#include "client/WorkerStacks.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <fstream>
#include <string>

using tavren::internal::WorkerStacks;

namespace {

// The sanitizers refuse thread stacks below about 1 MiB.
#ifdef TAVREN_SANITIZED
const size_t kSize = 1024 * 1024;
#else
const size_t kSize = 64 * 1024;
#endif

// The protection of the mapping that holds address, as /proc/self/maps shows it ("rw-p", "---p").
std::string protectionAt(const void* address) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    const uintptr_t at = reinterpret_cast<uintptr_t>(address);
    while (std::getline(maps, line)) {
        uintptr_t low = 0, high = 0;
        char perms[5] = {};
        if (sscanf(line.c_str(), "%lx-%lx %4s", &low, &high, perms) == 3 && low <= at && at < high) return perms;
    }
    return "";
}

TEST(WorkerStacks, AGivenBackStackIsTakenAgain) {
    WorkerStacks stacks;
    WorkerStacks::Stack first, second;
    ASSERT_TRUE(stacks.take(kSize, &first));
    EXPECT_EQ(first.size, kSize);
    stacks.give(first);
    ASSERT_TRUE(stacks.take(kSize, &second));
    EXPECT_EQ(second.base, first.base);
    stacks.give(second);
}

TEST(WorkerStacks, AStackIsWritableAndHasAGuardPageBelowIt) {
    WorkerStacks stacks;
    WorkerStacks::Stack stack;
    ASSERT_TRUE(stacks.take(kSize, &stack));
    static_cast<char*>(stack.base)[0] = 1;
    static_cast<char*>(stack.base)[kSize - 1] = 1;
    EXPECT_EQ(protectionAt(stack.base).substr(0, 2), "rw");
    EXPECT_EQ(protectionAt(static_cast<char*>(stack.base) - 1).substr(0, 3), "---");
    stacks.give(stack);
}

TEST(WorkerStacks, AStackOfAnotherSizeIsNotReused) {
    WorkerStacks stacks;
    WorkerStacks::Stack small, large;
    ASSERT_TRUE(stacks.take(kSize, &small));
    stacks.give(small);
    ASSERT_TRUE(stacks.take(2 * kSize, &large));
    EXPECT_EQ(large.size, 2 * kSize);
    static_cast<char*>(large.base)[2 * kSize - 1] = 1;
    stacks.give(large);
}

void* waitForRelease(void* arg) {
    auto* release = static_cast<std::atomic<bool>*>(arg);
    while (!*release) usleep(1000);
    return nullptr;
}

TEST(WorkerStacks, AnAdoptedThreadKeepsItsStackUntilItHasEnded) {
    WorkerStacks stacks;
    WorkerStacks::Stack stack;
    ASSERT_TRUE(stacks.take(kSize, &stack));
    std::atomic<bool> release{false};
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack.base, stack.size);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, &waitForRelease, &release), 0);
    pthread_attr_destroy(&attributes);
    stacks.adopt(thread, stack);

    // While it runs, its stack is neither handed out nor unmapped.
    WorkerStacks::Stack other;
    ASSERT_TRUE(stacks.take(kSize, &other));
    EXPECT_NE(other.base, stack.base);
    EXPECT_EQ(protectionAt(stack.base).substr(0, 2), "rw");
    stacks.give(other);

    release = true;
    // Once it has ended, a later take joins it and unmaps its stack.
    for (int i = 0; i < 5000 && protectionAt(stack.base) != ""; ++i) {
        WorkerStacks::Stack again;
        ASSERT_TRUE(stacks.take(kSize, &again));
        stacks.give(again);
        usleep(1000);
    }
    EXPECT_EQ(protectionAt(stack.base), "");
}

} // namespace
