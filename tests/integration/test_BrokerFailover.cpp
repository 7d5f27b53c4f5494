// SPDX-License-Identifier: Apache-2.0
// Failover between two real brokers: RabbitMQ first, ActiveMQ to fall back
// on. When the broker in use stops, the client moves to the other one,
// subscribes its listener there and gets the messages sent there; when that
// one stops in turn (and the first is back), it moves back.

#include "support/BrokerFixture.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace tavren {
namespace test {
namespace {

class BrokerFailover : public ::testing::Test {
protected:
    BrokerFailover() : watchdog(280), rabbitmq(RealBroker::rabbitmq()), activemq(RealBroker::activemq()) {}

    void SetUp() override {
        ASSERT_TRUE(rabbitmq.answers()) << rabbitmq.howToStart();
        ASSERT_TRUE(activemq.answers()) << activemq.howToStart();
    }

    void TearDown() override {
        client.reset();
        // The tests after this one find both brokers running.
        if (!rabbitmq.answers()) rabbitmq.start();
        if (!activemq.answers()) activemq.start();
    }

    /** Sends text to queue through broker with a client of its own. */
    void sendThrough(const RealBroker& broker, const std::string& queue, const std::string& text) {
        CapturingLogger producerLog;
        StompClient producer("127.0.0.1", broker.port(), "guest", "guest", &producerLog, nullptr);
        producer.openConnection(1000, kelvra::utility::Version("1.1"));
        ASSERT_TRUE(producer.isConnected()) << broker.name();
        producer.sendToQueue(queue, text.c_str(), nullptr);
        producer.closeConnection();
    }

    /** The client's connection number connection stands on broker, with the listener subscribed, and text sent there
     * arrives. */
    void expectMovedTo(const RealBroker& broker, const std::string& queue, int connection, const std::string& text) {
        ASSERT_TRUE(log.waitFor(tryingLine(broker), 1, 60000));
        ASSERT_TRUE(log.waitFor("INFO: Connected.", connection, 60000));
        ASSERT_TRUE(
            log.waitFor("INFO: Subscribed to destination /queue/" + queue + " successfully.", connection, 30000));
        sendThrough(broker, queue, text);
        ASSERT_TRUE(listener.waitFinished(connection, 20000)) << listener.count();
    }

    std::string tryingLine(const RealBroker& broker) const {
        return "INFO: Trying the broker 127.0.0.1:" + std::to_string(broker.port()) + ".";
    }

    Watchdog watchdog;
    RealBroker rabbitmq, activemq;
    CapturingLogger log;
    RecordingListener listener;          // outlives the client
    std::unique_ptr<StompClient> client; // ended in TearDown
};

TEST_F(BrokerFailover, TheClientMovesToTheOtherBrokerAndBack) {
    client.reset(new StompClient("127.0.0.1", rabbitmq.port(), "guest", "guest", &log, nullptr));
    client->addFailoverBroker("127.0.0.1", activemq.port());
    client->openConnection(1000, kelvra::utility::Version("1.1"));
    ASSERT_TRUE(client->isConnected());
    EXPECT_EQ(log.count(tryingLine(rabbitmq)), 1u);
    const std::string queue = "tavren-it-failover-" + kelvra::utility::generateUuid().substr(0, 8);
    client->listenOnQueue(queue, &listener);
    sendThrough(rabbitmq, queue, "through RabbitMQ");
    ASSERT_TRUE(listener.waitFinished(1, 20000));

    // RabbitMQ goes: the client tries it once more, then moves on to ActiveMQ.
    ASSERT_TRUE(rabbitmq.stop());
    expectMovedTo(activemq, queue, 2, "through ActiveMQ");
    // RabbitMQ is back and ActiveMQ goes: back to RabbitMQ.
    ASSERT_TRUE(rabbitmq.start());
    ASSERT_TRUE(activemq.stop());
    expectMovedTo(rabbitmq, queue, 3, "back through RabbitMQ");
    // texts() sorts: each message once, from whichever broker it went through.
    EXPECT_EQ(texts(listener.received()),
              (std::vector<std::string>{"back through RabbitMQ", "through ActiveMQ", "through RabbitMQ"}));
}

} // namespace
} // namespace test
} // namespace tavren
