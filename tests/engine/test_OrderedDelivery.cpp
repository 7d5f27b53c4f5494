// SPDX-License-Identifier: Apache-2.0
// enableOrderedDelivery: the messages of one destination reach its listener
// one at a time, in the broker's order, and are answered in that order;
// other destinations go on meanwhile. With a thread per message and with
// the worker pool.
#include "support/ConcurrencyListener.h"
#include "support/EngineFixture.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <vector>

using tavren::HeaderMap;
using tavren::test::ConcurrencyListener;
using tavren::test::EngineTest;
using tavren::test::RecordedFrame;

namespace {

// The bound each ordered subscription asks the broker for.
const size_t kBound = 512;

// The parameter: the pool's threads, 0 for a thread per message.
class OrderedDelivery : public EngineTest, public ::testing::WithParamInterface<int> {
protected:
    void connectOrdered() {
        makeClient().enableOrderedDelivery();
        if (GetParam() > 0) client->useWorkerPool(GetParam());
        connect();
    }
    // The ids of the frames with command for messages of ids, in the order they were sent.
    std::vector<std::string> answered(const std::string& command, const std::vector<std::string>& ids) {
        std::vector<std::string> out;
        for (const RecordedFrame& frame : sent(command)) {
            const std::string& id = frame.headers.at("id");
            for (const std::string& wanted : ids) {
                if (wanted == id) {
                    out.push_back(id);
                    break;
                }
            }
        }
        return out;
    }
    static std::vector<std::string> bodies(const std::string& prefix, int from, int to) {
        std::vector<std::string> out;
        for (int i = from; i < to; ++i) out.push_back(prefix + std::to_string(i));
        return out;
    }
};

TEST_P(OrderedDelivery, EachSubscribeAsksBothBrokersForTheBound) {
    connectOrdered();
    ConcurrencyListener listener;
    listen("q", &listener);
    const RecordedFrame subscribe = sent("SUBSCRIBE").at(0);
    const HeaderMap expected = {{"ack", "client-individual"}, {"activemq.prefetchSize", "512"},
                                {"destination", "/queue/q"},  {"id", subscribe.headers.at("id")},
                                {"prefetch-count", "512"},    {"receipt", subscribe.headers.at("receipt")}};
    EXPECT_EQ(subscribe.headers, expected);
    // The application cannot give the bound a value of its own.
    EXPECT_THROW(client->listenOnQueue("r", &listener, HeaderMap{{"prefetch-count", "1"}}), std::invalid_argument);
    EXPECT_THROW(client->listenOnQueue("r", &listener, HeaderMap{{"activemq.prefetchSize", "1"}}),
                 std::invalid_argument);
}

TEST_P(OrderedDelivery, TenThousandMessagesOverTwoDestinationsKeepTheirOrderAndTheirAcksTheirs) {
    connectOrdered();
    ConcurrencyListener a, b;
    listen("a", &a);
    listen("b", &b);
    std::vector<std::string> idsA, idsB;
    for (int i = 0; i < 5000; ++i) {
        std::string id;
        ASSERT_TRUE(broker.pushMessage("/queue/a", "a" + std::to_string(i), {}, &id));
        idsA.push_back(id);
        ASSERT_TRUE(broker.pushMessage("/queue/b", "b" + std::to_string(i), {}, &id));
        idsB.push_back(id);
    }
    ASSERT_TRUE(broker.waitForFrames("ACK", 10000, 60000));
    EXPECT_EQ(a.received(), bodies("a", 0, 5000));
    EXPECT_EQ(b.received(), bodies("b", 0, 5000));
    EXPECT_EQ(a.most(), 1); // one call at a time per destination
    EXPECT_EQ(b.most(), 1);
    EXPECT_EQ(answered("ACK", idsA), idsA); // answered in the broker's order
    EXPECT_EQ(answered("ACK", idsB), idsB);
    EXPECT_EQ(log.countStartingWith("ERROR: "), 0u);
}

TEST_P(OrderedDelivery, ABusyDestinationDoesNotHoldBackAnother) {
    connectOrdered();
    ConcurrencyListener slow, quick;
    slow.closeGate();
    listen("slow", &slow);
    listen("quick", &quick);
    // A broker that keeps to the bound sends the slow queue no more than it.
    std::vector<std::string> slowIds;
    for (size_t i = 0; i < kBound; ++i) {
        std::string id;
        ASSERT_TRUE(broker.pushMessage("/queue/slow", "s" + std::to_string(i), {}, &id));
        slowIds.push_back(id);
    }
    ASSERT_TRUE(slow.waitEntered(1));
    std::vector<std::string> quickIds;
    for (int i = 0; i < 5000; ++i) {
        std::string id;
        ASSERT_TRUE(broker.pushMessage("/queue/quick", "q" + std::to_string(i), {}, &id));
        quickIds.push_back(id);
    }
    ASSERT_TRUE(broker.waitForFrames("ACK", 5000, 60000));
    EXPECT_EQ(quick.received(), bodies("q", 0, 5000));
    EXPECT_EQ(answered("ACK", quickIds), quickIds);
    EXPECT_EQ(slow.count(), 1u); // still in its first call

    slow.openGate();
    ASSERT_TRUE(broker.waitForFrames("ACK", 5000 + kBound, 20000));
    EXPECT_EQ(slow.received(), bodies("s", 0, static_cast<int>(kBound)));
    EXPECT_EQ(answered("ACK", slowIds), slowIds);
}

TEST_P(OrderedDelivery, ABrokerThatIgnoresTheBoundIsReadOnlyUpToIt) {
    connectOrdered();
    ConcurrencyListener slow, other;
    slow.closeGate();
    listen("slow", &slow);
    listen("other", &other);
    // One call runs, the bound waits behind it; the rest stays in the socket.
    const int pushed = static_cast<int>(kBound) + 172;
    for (int i = 0; i < pushed; ++i) ASSERT_TRUE(broker.pushMessage("/queue/slow", "s" + std::to_string(i)));
    ASSERT_TRUE(slow.waitEntered(1));
    ASSERT_TRUE(log.waitFor("INFO: A destination has 512 messages waiting for its listener, more than it asked the "
                            "broker for: reading from the broker pauses until its listener takes one."));
    ASSERT_TRUE(broker.pushMessage("/queue/other", "o"));
    usleep(200 * 1000);
    EXPECT_EQ(other.count(), 0u); // behind the slow queue's messages in the socket

    slow.openGate();
    ASSERT_TRUE(other.waitFinished(1));
    ASSERT_TRUE(broker.waitForFrames("ACK", pushed + 1, 20000));
    EXPECT_EQ(slow.received(), bodies("s", 0, pushed));
    EXPECT_EQ(log.countStartingWith("INFO: A destination has"), 1u); // once a connection
}

TEST_P(OrderedDelivery, AnswersLeaveInOrderWhetherAckOrNack) {
    connectOrdered();
    ConcurrencyListener listener;
    listen("q", &listener);
    std::vector<std::string> ids;
    const std::vector<std::string> sequence = {"m0", "throw", "m2", "throw", "m4"};
    for (const std::string& body : sequence) {
        std::string id;
        ASSERT_TRUE(broker.pushMessage("/queue/q", body, {}, &id));
        ids.push_back(id);
    }
    ASSERT_TRUE(broker.waitForFrames("ACK", 3));
    ASSERT_TRUE(broker.waitForFrames("NACK", 2));
    std::vector<std::string> answers;
    for (const RecordedFrame& frame : broker.frames()) {
        if (frame.command == "ACK" || frame.command == "NACK")
            answers.push_back(frame.command + " " + frame.headers.at("id"));
    }
    const std::vector<std::string> expected = {"ACK " + ids[0], "NACK " + ids[1], "ACK " + ids[2], "NACK " + ids[3],
                                               "ACK " + ids[4]};
    EXPECT_EQ(answers, expected);
    EXPECT_EQ(listener.received(), sequence);
}

TEST_P(OrderedDelivery, MessagesWaitingWhenTheConnectionEndsStayUnacknowledged) {
    connectOrdered();
    ConcurrencyListener slow;
    slow.closeGate();
    listen("slow", &slow);
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(broker.pushMessage("/queue/slow", "s" + std::to_string(i)));
    ASSERT_TRUE(slow.waitEntered(1));
    usleep(100 * 1000); // the other four are read and wait in order
    client.reset();
    EXPECT_EQ(log.count("INFO: 4 received messages had no listener call started before the connection ended; they "
                        "are left unacknowledged."),
              1u);
    slow.openGate();
    ASSERT_TRUE(slow.waitFinished(1));
    usleep(50 * 1000);
    EXPECT_EQ(slow.count(), 1u);
    EXPECT_TRUE(sent("ACK").empty());
}

INSTANTIATE_TEST_SUITE_P(ThreadPerMessageAndPool, OrderedDelivery, ::testing::Values(0, 4),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return info.param == 0 ? std::string("ThreadPerMessage") : std::string("Pool4");
                         });

using WithoutOrderedDelivery = EngineTest;

TEST_F(WithoutOrderedDelivery, TheSubscribeOfAPoolCarriesNoBound) {
    makeClient().useWorkerPool(2); // the pool alone asks for no bound
    connect();
    ConcurrencyListener listener;
    listen("q", &listener);
    const RecordedFrame subscribe = sent("SUBSCRIBE").at(0);
    const HeaderMap expected = {{"ack", "client-individual"},
                                {"destination", "/queue/q"},
                                {"id", subscribe.headers.at("id")},
                                {"receipt", subscribe.headers.at("receipt")}};
    EXPECT_EQ(subscribe.headers, expected);
}

// "subscription/" and digits: the short id of a pool's or an ordered
// subscription; a UUID follows the prefix otherwise.
bool hasShortId(const RecordedFrame& subscribe) {
    const std::string& id = subscribe.headers.at("id");
    return id.size() > 13 && id.rfind("subscription/", 0) == 0 &&
           id.find_first_not_of("0123456789", 13) == std::string::npos;
}

// Two subscriptions whose ids are short and differ.
void expectDistinctShortIds(const RecordedFrame& first, const RecordedFrame& second) {
    EXPECT_TRUE(hasShortId(first)) << first.headers.at("id");
    EXPECT_TRUE(hasShortId(second)) << second.headers.at("id");
    EXPECT_NE(first.headers.at("id"), second.headers.at("id"));
}

class ShortIds : public tavren::test::EngineTest {
protected:
    // A message pushed to /queue/q is acknowledged by its id, as any.
    void expectAnswered() {
        std::string id;
        ASSERT_TRUE(broker.pushMessage("/queue/q", "m", {}, &id));
        ASSERT_TRUE(broker.waitForFrames("ACK", 1));
        EXPECT_EQ(id, sent("ACK").at(0).headers.at("id"));
    }
};

TEST_F(ShortIds, APoolSubscribesWithShortIdsAndTheDefaultWithUuids) {
    makeClient().useWorkerPool(2);
    connect();
    ConcurrencyListener listener;
    listen("q", &listener);
    listen("r", &listener);
    const std::vector<RecordedFrame> pooled = sent("SUBSCRIBE");
    ASSERT_EQ(2u, pooled.size());
    expectDistinctShortIds(pooled[0], pooled[1]);
    expectAnswered();
    client.reset();

    makeClient();
    connect();
    listen("q", &listener);
    const RecordedFrame plain = sent("SUBSCRIBE").back();
    EXPECT_FALSE(hasShortId(plain));
    EXPECT_EQ(13u + 36u, plain.headers.at("id").size()) << plain.headers.at("id");
}

TEST_F(ShortIds, APoolSubscribesAgainWithANewShortIdOnTheNextConnection) {
    makeClient().useWorkerPool(2);
    connect();
    ConcurrencyListener listener;
    listen("q", &listener);
    letReconnectPeriodPass();
    broker.dropConnection();
    ASSERT_TRUE(broker.waitForConnections(2));
    ASSERT_TRUE(broker.waitForSubscription("/queue/q"));
    const std::vector<RecordedFrame> subscribes = sent("SUBSCRIBE");
    ASSERT_EQ(2u, subscribes.size());
    expectDistinctShortIds(subscribes[0], subscribes[1]);
    expectAnswered();
}

TEST_P(OrderedDelivery, SubscribesWithShortIds) {
    connectOrdered();
    ConcurrencyListener listener;
    listen("q", &listener);
    EXPECT_TRUE(hasShortId(sent("SUBSCRIBE").at(0))) << sent("SUBSCRIBE").at(0).headers.at("id");
}

} // namespace
