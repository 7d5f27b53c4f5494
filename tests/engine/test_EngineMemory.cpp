// SPDX-License-Identifier: Apache-2.0
// A client runs for months: messages, their workers and reconnects must not
// leave memory or threads behind. The process's resident memory and thread
// count after a warm-up are compared with those after many times more work.

#include "support/EngineFixture.h"
#include "support/Memory.h"

#include <unistd.h>

#include <cstdio>

namespace {

using tavren::test::EngineTest;
using tavren::test::residentKiB;
using tavren::test::threadCount;

// A listener that only counts: a recording one would grow by itself.
class Counting : public tavren::Listener {
public:
    int onMessage(kelvra::SharedPtr<tavren::Message>) override {
        ++count;
        return 0;
    }
    std::atomic<int> count{0};
};

class EngineMemory : public EngineTest {
protected:
    // Pushes n messages and waits for every ACK; the test's own records are
    // emptied afterwards, so that only the library's memory is left.
    void exchange(int n) {
        const int before = listener.count;
        for (int i = 0; i < n; ++i) ASSERT_TRUE(broker.pushMessage("/queue/mem", "body " + std::to_string(i)));
        ASSERT_TRUE(broker.waitFor([&] { return listener.count >= before + n; }, 30000));
        ASSERT_TRUE(broker.waitForFrames("ACK", static_cast<size_t>(n), 30000));
        broker.clearFrames();
        log.clear();
    }

    void reconnect() {
        const int connections = broker.connectionCount();
        broker.dropConnection();
        ASSERT_TRUE(broker.waitForConnections(connections + 1));
        ASSERT_TRUE(broker.waitForSubscription("/queue/mem"));
        ASSERT_TRUE(log.waitFor("INFO: Resolving remaining message handlers..."));
        broker.clearFrames();
        log.clear();
    }

    Counting listener;
};

TEST_F(EngineMemory, ManyMessagesDoNotGrowMemory) {
    SKIP_UNDER_SANITIZERS();
    connect();
    listen("mem", &listener);
    for (int i = 0; i < 5; ++i) exchange(200);
    const long rssWarm = residentKiB();
    const int threadsWarm = threadCount();
    for (int i = 0; i < 50; ++i) exchange(200);
    const long rssAfter = residentKiB();
    std::printf("resident: %ld KiB after 1,000 messages, %ld KiB after 11,000\n", rssWarm, rssAfter);
    EXPECT_LT(rssAfter - rssWarm, 512);
    EXPECT_LE(threadCount(), threadsWarm);
}

TEST_F(EngineMemory, ManyReconnectsDoNotGrowMemoryOrThreads) {
    SKIP_UNDER_SANITIZERS();
    connect();
    listen("mem", &listener);
    for (int i = 0; i < 5; ++i) {
        reconnect();
        exchange(20);
    }
    const long rssWarm = residentKiB();
    const int threadsWarm = threadCount();
    for (int i = 0; i < 100; ++i) {
        reconnect();
        exchange(20);
    }
    const long rssAfter = residentKiB();
    std::printf("resident: %ld KiB after 5 reconnects, %ld KiB after 105\n", rssWarm, rssAfter);
    std::printf("threads: %d after 5 reconnects, %d after 105\n", threadsWarm, threadCount());
    EXPECT_LT(rssAfter - rssWarm, 512);
    EXPECT_LE(threadCount(), threadsWarm);
}

} // namespace
