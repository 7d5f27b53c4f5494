// SPDX-License-Identifier: Apache-2.0
// Heart-beats with RabbitMQ, which enforces them: a client that asks for
// them and sends them stays connected while idle; one that asks for them
// without enableHeartbeats() sends none and is dropped by the broker.

#include "support/BrokerFixture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

namespace tavren {
namespace test {
namespace {

class BrokerHeartbeats : public ::testing::Test {
protected:
    BrokerHeartbeats() : watchdog(120), broker(RealBroker::rabbitmq()) {}

    void SetUp() override { ASSERT_TRUE(broker.answers()) << broker.howToStart(); }

    /** A client of RabbitMQ asking for heart-beats every second both ways. */
    std::unique_ptr<StompClient> newClient() {
        return std::unique_ptr<StompClient>(
            new StompClient("127.0.0.1", broker.port(), "guest", "guest", &log, &figures));
    }

    Watchdog watchdog;
    RealBroker broker;
    CapturingLogger log;
    std::pair<std::string, std::string> figures{"1000", "1000"};
};

TEST_F(BrokerHeartbeats, AnIdleClientThatSendsHeartBeatsStaysConnectedFor30Seconds) {
    auto client = newClient();
    client->enableHeartbeats();
    client->openConnection(1000, kelvra::utility::Version("1.2"));
    ASSERT_TRUE(client->isConnected());
    std::this_thread::sleep_for(std::chrono::seconds(30));
    EXPECT_TRUE(client->isConnected());
    EXPECT_EQ(log.count("INFO: Connected."), 1u);
    EXPECT_EQ(log.count("ERROR: Disconnected!"), 0u);
    EXPECT_EQ(log.countStartingWith("ERROR: No data from the broker for "), 0u);
}

TEST_F(BrokerHeartbeats, WithoutEnableHeartbeatsTheBrokerDropsAnIdleClient) {
    auto client = newClient();
    client->openConnection(60000, kelvra::utility::Version("1.2"));
    ASSERT_TRUE(client->isConnected());
    // RabbitMQ closes a connection whose client sent nothing for a few
    // intervals; the client sees the end of the stream.
    ASSERT_TRUE(log.waitFor("ERROR: Disconnected!", 1, 30000));
    EXPECT_EQ(log.countStartingWith("ERROR: No data from the broker for "), 0u);
}

} // namespace
} // namespace test
} // namespace tavren
