// SPDX-License-Identifier: Apache-2.0
// A worker pool with in-order delivery against real brokers: a listener
// that sleeps on one queue does not slow another queue's messages, because
// each subscription asks its broker for a bound.

#include "support/BrokerFixture.h"
#include "support/ConcurrencyListener.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tavren {
namespace test {
namespace {

class BrokerOrderedPool : public BrokerTest {};

// One version each: the brokers hold the bound per subscription alike on
// every version, and ActiveMQ answers the library's ACKs only up to 1.1.
std::vector<BrokerVersion> oneVersionEach() {
    return {BrokerVersion{RealBroker::rabbitmq(), "1.2"}, BrokerVersion{RealBroker::activemq(), "1.1"}};
}

TEST_P(BrokerOrderedPool, AListenerAsleepOnOneQueueDoesNotSlowAnothersTenThousandMessages) {
    ConcurrencyListener sleepy, busy;
    CapturingLogger senderLog, log;
    const std::string slowQueue = freshQueue("asleep"), fastQueue = freshQueue("flowing");
    const int fastCount = 10000, slowCount = 1000;
    {
        auto sender = newClient(senderLog);
        ASSERT_TRUE(open(*sender));
        for (int i = 0; i < slowCount; ++i) sender->sendToQueue(slowQueue, ("s" + std::to_string(i)).c_str(), nullptr);
        for (int i = 0; i < fastCount; ++i) sender->sendToQueue(fastQueue, ("f" + std::to_string(i)).c_str(), nullptr);
        sender->closeConnection();
    }
    sleepy.closeGate(); // asleep in its first call until the other queue is done
    auto client =
        std::unique_ptr<StompClient>(new StompClient("127.0.0.1", broker().port(), "guest", "guest", &log, nullptr));
    client->useWorkerPool(4);
    client->enableOrderedDelivery();
    ASSERT_TRUE(open(*client));
    client->listenOnQueue(slowQueue, &sleepy);
    ASSERT_TRUE(sleepy.waitEntered(1, 30000));
    client->listenOnQueue(fastQueue, &busy);

    ASSERT_TRUE(busy.waitFinished(fastCount, 120000)) << "received " << busy.count() << " of " << fastCount;
    std::vector<std::string> expected;
    for (int i = 0; i < fastCount; ++i) expected.push_back("f" + std::to_string(i));
    EXPECT_EQ(busy.received(), expected);
    EXPECT_EQ(busy.most(), 1);
    EXPECT_EQ(sleepy.count(), 1u);
    // The broker kept to the bound: reading never paused for the asleep queue.
    EXPECT_EQ(log.countStartingWith("INFO: A destination has"), 0u);

    sleepy.openGate();
    ASSERT_TRUE(sleepy.waitFinished(slowCount, 120000)) << "received " << sleepy.count() << " of " << slowCount;
    std::vector<std::string> slowExpected;
    for (int i = 0; i < slowCount; ++i) slowExpected.push_back("s" + std::to_string(i));
    EXPECT_EQ(sleepy.received(), slowExpected);
    client->closeConnection();
}

INSTANTIATE_TEST_SUITE_P(RealBrokers, BrokerOrderedPool, ::testing::ValuesIn(oneVersionEach()), caseName);

} // namespace
} // namespace test
} // namespace tavren
