// SPDX-License-Identifier: Apache-2.0
// Sending, subscribing, receiving, and answering each message with ACK or NACK.

#include "support/EngineFixture.h"
#include "support/UuidText.h"

#include <algorithm>
#include <set>
#include <string>
#include <thread>

namespace {

using tavren::HeaderMap;
using tavren::test::EngineTest;
using tavren::test::FakeBroker;
using tavren::test::RecordedFrame;
using tavren::test::RecordingListener;

using Messaging = EngineTest;

TEST_F(Messaging, SendToQueueWritesTheSendFrame) {
    connect();
    HeaderMap extra{{"priority", "4"}, {"destination", "/queue/elsewhere"}, {"content-type", "x/y"}};
    client->sendToQueue("orders", "two apples", &extra);
    ASSERT_TRUE(broker.waitForFrames("SEND", 1));
    const RecordedFrame frame = sent("SEND")[0];
    EXPECT_EQ(frame.headers, (HeaderMap{{"content-length", "10"},
                                        {"content-type", "text/plain"},
                                        {"destination", "/queue/orders"},
                                        {"priority", "4"}}));
    EXPECT_EQ(frame.body, "two apples");
}

TEST_F(Messaging, SendWithoutExtraHeadersAndWithEmptyText) {
    connect();
    client->sendToQueue("q", "", nullptr);
    ASSERT_TRUE(broker.waitForFrames("SEND", 1));
    EXPECT_EQ(sent("SEND")[0].headers,
              (HeaderMap{{"content-length", "0"}, {"content-type", "text/plain"}, {"destination", "/queue/q"}}));
}

TEST_F(Messaging, ListenOnQueueSubscribesWithAReceipt) {
    connect();
    RecordingListener listener;
    client->listenOnQueue("orders", &listener);
    const RecordedFrame frame = sent("SUBSCRIBE").at(0);
    EXPECT_EQ(frame.headers.size(), 4u);
    EXPECT_EQ(frame.headers.at("ack"), "client-individual");
    EXPECT_EQ(frame.headers.at("destination"), "/queue/orders");
    EXPECT_EQ(frame.headers.at("id").rfind("subscription/", 0), 0u);
    EXPECT_EQ(frame.headers.at("receipt").rfind("SUBSCRIBE/", 0), 0u);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"INFO: Attempting to connect...", "INFO: Connected.",
                                                     "INFO: Resuming all listeners...",
                                                     "INFO: Registering listener on /queue/orders",
                                                     "INFO: Subscribed to destination /queue/orders successfully."}));
}

TEST_F(Messaging, MessageIsHandedToItsListenerAndAcked) {
    connect();
    RecordingListener listener(0);
    listen("orders", &listener);
    std::string id;
    ASSERT_TRUE(broker.pushMessage("/queue/orders", "hello", HeaderMap{{"custom", "x"}}, &id));
    ASSERT_TRUE(listener.waitEntered(1));
    ASSERT_TRUE(broker.waitForFrames("ACK", 1));
    const auto got = listener.received();
    EXPECT_EQ(got[0].text, "hello");
    EXPECT_EQ(got[0].headers.at("message-id"), id);
    EXPECT_EQ(got[0].headers.at("destination"), "/queue/orders");
    EXPECT_EQ(got[0].headers.at("subscription"), sent("SUBSCRIBE")[0].headers.at("id"));
    EXPECT_EQ(got[0].headers.at("custom"), "x");
    EXPECT_EQ(sent("ACK")[0].headers, (HeaderMap{{"id", id}}));
    EXPECT_TRUE(sent("NACK").empty());
}

TEST_F(Messaging, NonZeroAnswerIsNacked) {
    connect();
    RecordingListener listener(3);
    listen("orders", &listener);
    std::string id;
    ASSERT_TRUE(broker.pushMessage("/queue/orders", "x", {}, &id));
    ASSERT_TRUE(broker.waitForFrames("NACK", 1));
    EXPECT_EQ(sent("NACK")[0].headers, (HeaderMap{{"id", id}}));
    EXPECT_TRUE(sent("ACK").empty());
}

struct AckCase {
    const char* name;
    const char* server;
    const char* version;
    HeaderMap (*expected)(const std::string& id, const std::string& subscription);
};

class AckHeaders : public EngineTest, public ::testing::WithParamInterface<AckCase> {};

TEST_P(AckHeaders, AckAndNackCarryTheHeaderOfTheNegotiatedVersion) {
    const AckCase c = GetParam();
    broker.setConnectedHeaders(
        HeaderMap{{"server", c.server}, {"version", c.version}, {"heart-beat", "0,0"}, {"session", "s-1"}});
    connect(c.version);
    RecordingListener acking(0), nacking(1);
    listen("yes", &acking);
    listen("no", &nacking);
    std::string yesId, noId;
    ASSERT_TRUE(broker.pushMessage("/queue/yes", "a", {}, &yesId));
    ASSERT_TRUE(broker.waitForFrames("ACK", 1));
    ASSERT_TRUE(broker.pushMessage("/queue/no", "b", {}, &noId));
    ASSERT_TRUE(broker.waitForFrames("NACK", 1));
    const std::string yesSub = sent("SUBSCRIBE")[0].headers.at("id");
    const std::string noSub = sent("SUBSCRIBE")[1].headers.at("id");
    EXPECT_EQ(sent("ACK")[0].headers, c.expected(yesId, yesSub));
    EXPECT_EQ(sent("NACK")[0].headers, c.expected(noId, noSub));
}

INSTANTIATE_TEST_SUITE_P(Versions, AckHeaders,
                         ::testing::Values(AckCase{"Stomp10", "FakeBroker/1.0", "1.0",
                                                   [](const std::string& id, const std::string&) {
                                                       return HeaderMap{{"message-id", id}};
                                                   }},
                                           AckCase{"Stomp11", "FakeBroker/1.0", "1.1",
                                                   [](const std::string& id, const std::string& sub) {
                                                       return HeaderMap{{"message-id", id}, {"subscription", sub}};
                                                   }},
                                           AckCase{"Stomp12", "FakeBroker/1.0", "1.2",
                                                   [](const std::string& id, const std::string&) {
                                                       return HeaderMap{{"id", id}};
                                                   }},
                                           AckCase{"ActiveMQ12", "ActiveMQ/5.17.2", "1.2",
                                                   [](const std::string& id, const std::string&) {
                                                       return HeaderMap{{"ack", id}};
                                                   }}),
                         [](const ::testing::TestParamInfo<AckCase>& info) { return std::string(info.param.name); });

// Brokers hand a queue's waiting messages out as soon as the subscription
// stands, often in the same packet as its RECEIPT: such a message reaches the
// listener even when the listen thread reads it before the subscriber has
// taken the lock back.
TEST_F(Messaging, MessageRightBehindTheSubscriptionReceiptReachesTheListener) {
    connect();
    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        broker.setSubscribeReply(FakeBroker::ReceiptReply::Silence);
        RecordingListener listener;
        const std::string queue = "waiting" + std::to_string(round);
        std::thread subscriber([&] { client->listenOnQueue(queue, &listener); });
        ASSERT_TRUE(broker.waitForFrames("SUBSCRIBE", static_cast<size_t>(round) + 1));
        const RecordedFrame subscribe = sent("SUBSCRIBE")[static_cast<size_t>(round)];
        const std::string frames = "RECEIPT\nreceipt-id:" + subscribe.headers.at("receipt") + "\n\n" +
                                   std::string(1, '\0') + "MESSAGE\ndestination:/queue/" + queue + "\nmessage-id:m" +
                                   std::to_string(round) + "\nsubscription:" + subscribe.headers.at("id") +
                                   "\n\nwaiting" + std::string(1, '\0');
        ASSERT_TRUE(broker.sendRaw(frames));
        subscriber.join();
        ASSERT_TRUE(listener.waitFinished(1));
        EXPECT_EQ(listener.received()[0].text, "waiting");
        ASSERT_TRUE(broker.waitForFrames("ACK", static_cast<size_t>(round) + 1));
        client->stopListeningOnQueue(queue);
    }
}

TEST_F(Messaging, MessagesWithoutListenerOrDestinationAreDroppedUnacknowledged) {
    connect();
    RecordingListener listener;
    listen("known", &listener);
    ASSERT_TRUE(broker.pushMessage("/queue/unknown", "nobody"));
    ASSERT_TRUE(broker.pushMessage("/queue/known", "nowhere", HeaderMap{{"destination", "<omit>"}}));
    ASSERT_TRUE(broker.pushMessage("/queue/known", "somebody"));
    ASSERT_TRUE(broker.waitForFrames("ACK", 1));
    ASSERT_TRUE(listener.waitEntered(1));
    EXPECT_EQ(listener.received().size(), 1u);
    EXPECT_EQ(listener.received()[0].text, "somebody");
    EXPECT_EQ(sent("ACK").size(), 1u);
    EXPECT_TRUE(sent("NACK").empty());
}

TEST_F(Messaging, MessageWithoutMessageIdIsHandledButCannotBeAcked) {
    connect();
    RecordingListener listener;
    listen("q", &listener);
    ASSERT_TRUE(broker.pushMessage("/queue/q", "anonymous", HeaderMap{{"message-id", "<omit>"}}));
    ASSERT_TRUE(listener.waitEntered(1));
    ASSERT_TRUE(log.waitFor("ERROR: Failed to ACK message: "));
    ASSERT_TRUE(broker.pushMessage("/queue/q", "next"));
    ASSERT_TRUE(broker.waitForFrames("ACK", 1)); // the connection goes on
    EXPECT_TRUE(client->isConnected());
}

TEST_F(Messaging, ManyMessagesAreEachAnsweredOnce) {
    connect();
    RecordingListener listener;
    listen("bulk", &listener);
    for (int i = 0; i < 50; ++i) ASSERT_TRUE(broker.pushMessage("/queue/bulk", "m" + std::to_string(i)));
    ASSERT_TRUE(broker.waitForFrames("ACK", 50, 15000));
    std::set<std::string> ids;
    for (const auto& f : sent("ACK")) ids.insert(f.headers.at("id"));
    EXPECT_EQ(ids.size(), 50u);
    EXPECT_EQ(listener.count(), 50);
}

TEST_F(Messaging, RefusedSubscriptionIsLoggedAndLeavesTheListenerOut) {
    connect();
    broker.setSubscribeReply(FakeBroker::ReceiptReply::Error);
    broker.setReceiptError("Subscription refused", "Destination is not allowed");
    RecordingListener listener;
    client->listenOnQueue("secret", &listener);
    EXPECT_EQ(log.lines().back(), "ERROR: Failed to subscribe to destination /queue/secret. "
                                  "Broker replied: Subscription refused\nMore detail: Destination is not allowed");
    ASSERT_TRUE(broker.pushMessage("/queue/secret", "x"));
    client->sendToQueue("sync", "barrier", nullptr); // one round trip later nothing was dispatched
    ASSERT_TRUE(broker.waitForFrames("SEND", 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(listener.count(), 0);
    EXPECT_TRUE(sent("ACK").empty());
}

TEST_F(Messaging, StopListeningUnsubscribesWithTheSubscriptionId) {
    connect();
    RecordingListener listener;
    listen("orders", &listener);
    client->stopListeningOnQueue("orders");
    const RecordedFrame frame = sent("UNSUBSCRIBE").at(0);
    EXPECT_EQ(frame.headers.size(), 2u);
    EXPECT_EQ(frame.headers.at("id"), sent("SUBSCRIBE")[0].headers.at("id"));
    EXPECT_EQ(frame.headers.at("receipt").rfind("UNSUBSCRIBE/", 0), 0u);
    const auto lines = log.linesFrom("INFO: Deregistering listener on /queue/orders");
    EXPECT_EQ(lines, (std::vector<std::string>{"INFO: Deregistering listener on /queue/orders",
                                               "INFO: Unsubscribed from destination /queue/orders successfully."}));
}

TEST_F(Messaging, RefusedUnsubscriptionStillForgetsTheListener) {
    connect();
    RecordingListener listener;
    listen("orders", &listener);
    broker.setUnsubscribeReply(FakeBroker::ReceiptReply::Error);
    broker.setReceiptError("No such subscription", "Unknown id");
    client->stopListeningOnQueue("orders");
    EXPECT_EQ(log.lines().back(), "ERROR: Failed to unsubscribe from destination /queue/orders. "
                                  "Broker replied: No such subscription\nMore detail: Unknown id");
    ASSERT_TRUE(broker.pushMessage("/queue/orders", "late"));
    client->sendToQueue("sync", "barrier", nullptr);
    ASSERT_TRUE(broker.waitForFrames("SEND", 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(listener.count(), 0);
}

TEST_F(Messaging, StopListeningOnAnUnknownQueueLogsAndSendsNothing) {
    connect();
    client->stopListeningOnQueue("never");
    EXPECT_TRUE(sent("UNSUBSCRIBE").empty());
    EXPECT_EQ(log.linesFrom("INFO: Deregistering listener on /queue/never"),
              (std::vector<std::string>{"INFO: Deregistering listener on /queue/never",
                                        "ERROR: No listener is registered on /queue/never; nothing to unsubscribe."}));
    EXPECT_TRUE(client->isConnected());
}

TEST_F(Messaging, SecondListenerOnTheSameQueueSubscribesButTheFirstKeepsTheMessages) {
    connect();
    RecordingListener first, second;
    listen("q", &first);
    client->listenOnQueue("q", &second);
    EXPECT_EQ(sent("SUBSCRIBE").size(), 2u);
    ASSERT_TRUE(broker.pushMessage("/queue/q", "x"));
    ASSERT_TRUE(first.waitEntered(1));
    EXPECT_EQ(second.count(), 0);
}

TEST_F(Messaging, PauseUnsubscribesAndResumeSubscribesEveryQueueAgain) {
    connect();
    RecordingListener a, b;
    listen("a", &a);
    listen("b", &b);
    log.clear();
    client->pauseAllListeners();
    EXPECT_EQ(sent("UNSUBSCRIBE").size(), 2u);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"INFO: Pausing all listeners...", "INFO: De-registering listener for: /queue/a",
                                        "INFO: Deregistering listener on /queue/a",
                                        "INFO: Unsubscribed from destination /queue/a successfully.",
                                        "INFO: De-registering listener for: /queue/b",
                                        "INFO: Deregistering listener on /queue/b",
                                        "INFO: Unsubscribed from destination /queue/b successfully."}));
    log.clear();
    client->resumeAllListeners();
    EXPECT_EQ(sent("SUBSCRIBE").size(), 4u);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "INFO: Resuming all listeners...", "INFO: Re-registering listener for: /queue/a",
                  "INFO: Registering listener on /queue/a", "INFO: Subscribed to destination /queue/a successfully.",
                  "INFO: Re-registering listener for: /queue/b", "INFO: Registering listener on /queue/b",
                  "INFO: Subscribed to destination /queue/b successfully."}));
    ASSERT_TRUE(broker.pushMessage("/queue/b", "again"));
    ASSERT_TRUE(b.waitEntered(1));
    // A second resume subscribes each queue once more, not twice.
    client->resumeAllListeners();
    EXPECT_EQ(sent("SUBSCRIBE").size(), 6u);
}

TEST_F(Messaging, StrayReceiptIsLoggedOnceWithTheFrame) {
    connect();
    ASSERT_TRUE(broker.sendRaw(std::string("RECEIPT\nreceipt-id:nobody-waits\n\n\0\n", 34)));
    ASSERT_TRUE(log.waitForPrefix("ERROR: We received a result frame"));
    const std::string line = log.lines().back();
    EXPECT_EQ(line.rfind("ERROR: We received a result frame (RECEIPT or ERROR) from the broker, but we do not "
                         "remember sending a frame that required it. Frame read: \n",
                         0),
              0u);
    EXPECT_NE(line.find("receipt-id"), std::string::npos);
    EXPECT_NE(line.find("nobody-waits"), std::string::npos);
    EXPECT_EQ(log.countStartingWith("ERROR: We received a result frame"), 1u);
    EXPECT_TRUE(client->isConnected());
}

TEST_F(Messaging, ErrorWithoutReceiptIdIsLoggedAndIgnored) {
    connect();
    RecordingListener listener;
    listen("q", &listener);
    // What a broker sends when it rejects an ACK: no receipt-id.
    ASSERT_TRUE(broker.sendRaw(std::string("ERROR\nmessage:bad ack\n\nno such message\0\n", 40)));
    ASSERT_TRUE(log.waitFor("ERROR: Ther broker sent a frame without a receipt-id header!"));
    // Nobody waits any more, so nothing is delivered; the client carries on.
    ASSERT_TRUE(broker.pushMessage("/queue/q", "still here"));
    ASSERT_TRUE(broker.waitForFrames("ACK", 1));
    EXPECT_TRUE(client->isConnected());
}

TEST_F(Messaging, RepeatedErrorsOnAConnectionKeptOpenAreLoggedWithTheirReasonOnce) {
    connect();
    RecordingListener listener;
    listen("q", &listener);
    // A broker that refuses every ACK and keeps the connection (ActiveMQ on 1.2).
    const std::string error("ERROR\nmessage:ACK received without a ack id for acknowledge!\n\n\0\n", 64);
    ASSERT_TRUE(broker.sendRaw(error));
    ASSERT_TRUE(log.waitFor("ERROR: Ther broker sent a frame without a receipt-id header!", 1));
    // The first alone may be a refusal whose reason goes into its own line.
    EXPECT_EQ(log.countStartingWith("ERROR: The broker answered"), 0u);
    ASSERT_TRUE(broker.sendRaw(error + error + error));
    ASSERT_TRUE(log.waitFor("ERROR: Ther broker sent a frame without a receipt-id header!", 4));
    // One line with the reason for the second, none for the next within a minute.
    EXPECT_EQ(log.countStartingWith("ERROR: The broker answered"), 1u);
    EXPECT_EQ(log.count("ERROR: The broker answered 2 frames with an error and keeps the connection open (2 on this "
                        "connection), the last: ACK received without a ack id for acknowledge!"),
              1u);
    const std::vector<std::string> lines = log.lines();
    const auto reason = std::find(lines.begin(), lines.end(),
                                  "ERROR: The broker answered 2 frames with an error and keeps the connection open (2 "
                                  "on this connection), the last: ACK received without a ack id for acknowledge!");
    ASSERT_NE(reason, lines.begin());
    EXPECT_EQ(*(reason - 1), "ERROR: Ther broker sent a frame without a receipt-id header!");
    EXPECT_TRUE(client->isConnected());
}

TEST_F(Messaging, ErrorWithoutReceiptIdAnsweringASubscriptionDoesNotCrash) {
    connect();
    broker.setSubscribeReply(FakeBroker::ReceiptReply::ErrorWithoutReceiptId);
    RecordingListener listener;
    std::thread subscriber([&] { client->listenOnQueue("q", &listener); });
    ASSERT_TRUE(log.waitFor("ERROR: Ther broker sent a frame without a receipt-id header!"));
    // The waiter never matched anything: it waits until the connection goes.
    broker.dropConnection();
    subscriber.join();
    EXPECT_TRUE(log.waitForPrefix("ERROR: The broker's answer to the subscription to /queue/q never came"));
}

TEST_F(Messaging, UnknownCommandIsLogged) {
    connect();
    ASSERT_TRUE(broker.sendRaw(std::string("FOO\n\n\0\n", 7)));
    ASSERT_TRUE(log.waitFor("ERROR: Broker sent a frame that is an unrecognized server frame with COMMAND = FOO"));
    EXPECT_TRUE(client->isConnected());
}

TEST_F(Messaging, HeartBeatsAreIgnored) {
    connect();
    RecordingListener listener;
    listen("q", &listener);
    ASSERT_TRUE(broker.sendRaw("\n\n\n"));
    ASSERT_TRUE(broker.pushMessage("/queue/q", "after beats"));
    ASSERT_TRUE(listener.waitEntered(1));
    EXPECT_EQ(listener.received()[0].text, "after beats");
}

TEST_F(Messaging, QueueNamesGetThePrefixInAllThreeCalls) {
    connect();
    RecordingListener listener;
    client->listenOnQueue("orders", &listener);
    client->sendToQueue("orders", "x", nullptr);
    client->stopListeningOnQueue("orders");
    ASSERT_TRUE(broker.waitForFrames("SEND", 1));
    EXPECT_EQ(sent("SUBSCRIBE")[0].headers.at("destination"), "/queue/orders");
    EXPECT_EQ(sent("SEND")[0].headers.at("destination"), "/queue/orders");
    EXPECT_TRUE(log.contains("INFO: Unsubscribed from destination /queue/orders successfully."));
}

} // namespace
