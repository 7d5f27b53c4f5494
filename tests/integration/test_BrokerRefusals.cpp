// SPDX-License-Identifier: Apache-2.0
// SUBSCRIBE headers, the virtual host and refusals against real brokers:
// RabbitMQ quorum queues (with the header, through a restart; through a
// virtual host whose default queue type is quorum; refused without the
// header) and ActiveMQ selectors.

#include "support/BrokerFixture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tavren {
namespace test {
namespace {

const HeaderMap kQuorum = {{"x-queue-type", "quorum"}};
// A virtual host whose queues are quorum queues unless declared otherwise.
const char kQuorumHost[] = "tavren-quorum";

class BrokerRefusals : public BrokerTest {
protected:
    /** Whether list_queues (in vhost, when given) shows queue with type. */
    bool queueHasType(const std::string& queue, const std::string& type, const std::string& vhost = "") {
        std::string out;
        const std::string where = vhost.empty() ? "" : "-p " + vhost + " ";
        if (!broker().control(where + "list_queues name type", &out)) return false;
        return out.find(queue + "\t" + type) != std::string::npos;
    }

    void sendAll(StompClient& client, const std::string& queue, const std::vector<std::string>& texts,
                 HeaderMap* headers) {
        for (const std::string& text : texts) client.sendToQueue(queue, text.c_str(), headers);
    }
};

using RabbitQuorum = BrokerRefusals;
using ActiveSelector = BrokerRefusals;

TEST_P(RabbitQuorum, AQuorumQueueWithTheHeaderIsConsumedThroughARestart) {
    BrokerRestarter restarter(broker());
    RecordingListener listener;
    CapturingLogger log, senderLog;
    const std::string queue = freshQueue("quorum");
    auto client = newClient(log);
    ASSERT_TRUE(open(*client, 1000));
    client->listenOnQueue(queue, &listener, kQuorum);
    ASSERT_TRUE(log.waitFor("INFO: Subscribed to destination /queue/" + queue + " successfully.", 1, 10000));
    EXPECT_TRUE(queueHasType(queue, "quorum"));

    HeaderMap headers = kQuorum;
    const std::vector<std::string> before = {"before 0", "before 1", "before 2"};
    sendAll(*client, queue, before, &headers);
    ASSERT_TRUE(listener.waitFinished(3, 10000));
    usleep(500 * 1000); // the ACKs go out

    ASSERT_TRUE(broker().stop());
    ASSERT_TRUE(eventually([&] { return !client->isConnected(); }, 30000));
    ASSERT_TRUE(broker().start());
    // Back by itself, the listener subscribed again with its header.
    ASSERT_TRUE(log.waitFor("INFO: Subscribed to destination /queue/" + queue + " successfully.", 2, 60000));
    {
        auto sender = newClient(senderLog);
        ASSERT_TRUE(open(*sender));
        sendAll(*sender, queue, {"after 0", "after 1", "after 2"}, &headers);
        sender->closeConnection();
    }
    ASSERT_TRUE(listener.waitFinished(6, 30000)) << listener.count();
    EXPECT_EQ(texts(listener.received()),
              (std::vector<std::string>{"after 0", "after 1", "after 2", "before 0", "before 1", "before 2"}));
    EXPECT_EQ(log.countStartingWith("ERROR: The broker refused"), 0u);
}

TEST_P(RabbitQuorum, AListenerInAQuorumVirtualHostNeedsNoHeader) {
    broker().control(std::string("add_vhost ") + kQuorumHost + " --default-queue-type quorum");
    ASSERT_TRUE(broker().control(std::string("set_permissions -p ") + kQuorumHost + " guest '.*' '.*' '.*'"));
    RecordingListener listener;
    CapturingLogger log;
    const std::string queue = freshQueue("vhost");
    auto client = newClient(log);
    client->setVirtualHost(kQuorumHost);
    ASSERT_TRUE(open(*client, 1000));
    client->listenOnQueue(queue, &listener);
    ASSERT_TRUE(log.waitFor("INFO: Subscribed to destination /queue/" + queue + " successfully.", 1, 10000));
    EXPECT_TRUE(queueHasType(queue, "quorum", kQuorumHost));
    sendAll(*client, queue, {"one", "two"}, nullptr);
    ASSERT_TRUE(listener.waitFinished(2, 10000));
    EXPECT_EQ(texts(listener.received()), (std::vector<std::string>{"one", "two"}));
}

TEST_P(RabbitQuorum, ARefusedSubscriptionIsRetriedOnADoublingSchedule) {
    CapturingLogger log, declarerLog;
    RecordingListener listener;
    const std::string queue = freshQueue("refused");
    {
        auto declarer = newClient(declarerLog);
        ASSERT_TRUE(open(*declarer));
        HeaderMap headers = kQuorum;
        declarer->sendToQueue(queue, "waiting", &headers);
        ASSERT_TRUE(eventually([&] { return queueHasType(queue, "quorum"); }, 10000));
        declarer->closeConnection();
    }
    auto client = newClient(log);
    ASSERT_TRUE(open(*client, 1000));
    const auto start = std::chrono::steady_clock::now();
    client->listenOnQueue(queue, &listener);
    const std::string refused =
        "ERROR: The broker refused the subscription to /queue/" + queue + " (precondition_failed";
    ASSERT_TRUE(log.waitForPrefix(refused, 1, 10000));
    usleep(9000 * 1000);
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    const size_t connections = log.count("INFO: Connected.");
    // Attempts after 1, 2 and 4 s more (and jitter): four connections in 9 s, not nine.
    std::printf("%zu connections and %zu lines in %lld ms\n", connections, log.lines().size(),
                static_cast<long long>(elapsed));
    EXPECT_GE(connections, 3u);
    EXPECT_LE(connections, 5u);
    EXPECT_EQ(log.countStartingWith(refused), connections);
    EXPECT_FALSE(log.contains("INFO: Subscribed to destination /queue/" + queue + " successfully."));
    EXPECT_LE(log.lines().size(), 10 * connections);
    EXPECT_EQ(listener.count(), 0);
}

TEST_P(RabbitQuorum, ASubscriptionRefusedByPermissionsIsRetriedOnADoublingSchedule) {
    // A user who may not declare, read or write any queue.
    broker().control("add_user tavren-limited limited");
    ASSERT_TRUE(broker().control("set_permissions -p / tavren-limited '^$' '^$' '^$'"));
    CapturingLogger log;
    RecordingListener listener;
    const std::string queue = freshQueue("forbidden");
    std::unique_ptr<StompClient> client(
        new StompClient("127.0.0.1", broker().port(), "tavren-limited", "limited", &log, nullptr));
    ASSERT_TRUE(open(*client, 1000));
    client->listenOnQueue(queue, &listener);
    const std::string refused = "ERROR: The broker refused the subscription to /queue/" + queue + " (access_refused";
    ASSERT_TRUE(log.waitForPrefix(refused, 1, 10000));
    usleep(5000 * 1000);
    // Attempts after 1 and 2 s more (and jitter): three connections in 5 s.
    const size_t connections = log.count("INFO: Connected.");
    EXPECT_GE(connections, 2u);
    EXPECT_LE(connections, 4u);
    EXPECT_EQ(log.countStartingWith(refused), connections);
    EXPECT_FALSE(log.contains("INFO: Subscribed to destination /queue/" + queue + " successfully."));
}

TEST_P(ActiveSelector, ASelectorLetsOnlyMatchingMessagesThrough) {
    RecordingListener listener;
    CapturingLogger log;
    const std::string queue = freshQueue("selector");
    auto client = newClient(log);
    ASSERT_TRUE(open(*client, 1000));
    client->listenOnQueue(queue, &listener, {{"selector", "colour = 'red'"}});
    ASSERT_TRUE(log.waitFor("INFO: Subscribed to destination /queue/" + queue + " successfully.", 1, 10000));
    HeaderMap red = {{"colour", "red"}}, blue = {{"colour", "blue"}};
    sendAll(*client, queue, {"blue 0"}, &blue);
    sendAll(*client, queue, {"red 0"}, &red);
    sendAll(*client, queue, {"blue 1"}, &blue);
    sendAll(*client, queue, {"red 1"}, &red);
    ASSERT_TRUE(listener.waitFinished(2, 10000));
    usleep(1000 * 1000); // no blue one follows
    EXPECT_EQ(texts(listener.received()), (std::vector<std::string>{"red 0", "red 1"}));
}

INSTANTIATE_TEST_SUITE_P(Brokers, RabbitQuorum, ::testing::Values(BrokerVersion{RealBroker::rabbitmq(), "1.2"}),
                         caseName);
INSTANTIATE_TEST_SUITE_P(Brokers, ActiveSelector, ::testing::Values(BrokerVersion{RealBroker::activemq(), "1.1"}),
                         caseName);

} // namespace
} // namespace test
} // namespace tavren
