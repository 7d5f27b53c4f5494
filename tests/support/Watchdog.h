// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_WATCHDOG_H
#define TAVREN_TEST_WATCHDOG_H

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace tavren {
namespace test {

/**
 * Ends the process if a test runs longer than its limit, so that a deadlock
 * fails with a message instead of hanging.
 */
class Watchdog {
public:
    explicit Watchdog(int seconds) : done(false) {
        thread = std::thread([this, seconds] {
            std::unique_lock<std::mutex> lock(mutex);
            if (!cond.wait_for(lock, std::chrono::seconds(seconds), [this] { return done; })) {
                const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
                std::fprintf(stderr, "watchdog: %s.%s still runs after %d s: deadlock?\n",
                             info ? info->test_suite_name() : "?", info ? info->name() : "?", seconds);
                std::abort();
            }
        });
    }
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            done = true;
        }
        cond.notify_all();
        thread.join();
    }

private:
    std::mutex mutex;
    std::condition_variable cond;
    bool done;
    std::thread thread;
};

} // namespace test
} // namespace tavren

#endif
