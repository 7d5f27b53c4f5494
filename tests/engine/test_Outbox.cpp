// SPDX-License-Identifier: Apache-2.0
// The outbox against the scripted broker: every message kept until its
// RECEIPT, sent again in order on the next connection, refused ones dropped
// with a line, and the window of unconfirmed messages respected.

#include "client/StompClientImpl.h"
#include "support/EngineFixture.h"
#include "support/TempFolder.h"

#include <tavren/OutboxException.h>

#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using tavren::HeaderMap;
using tavren::OutboxOptions;
using tavren::test::EngineTest;
using tavren::test::FakeBroker;
using tavren::test::RecordedFrame;

class Outbox : public EngineTest {
protected:
    Outbox() { broker.setSendReply(FakeBroker::ReceiptReply::Receipt); }

    tavren::StompClient& clientWithOutbox(const OutboxOptions& options = OutboxOptions()) {
        makeClient();
        client->useOutbox(options);
        return *client;
    }

    /** An engine of its own, for the tests that change the outbox's bounds; connected. */
    tavren::internal::Outbox& engineWithOutbox() {
        engine.reset(new tavren::internal::StompClientImpl(&log, "Corvath-test"));
        engine->setupSocketDetails("127.0.0.1", broker.port());
        engine->useOutbox(OutboxOptions());
        return *engine->outboxForTests();
    }

    void openEngine() {
        engine->setupRobustConnection(100, kelvra::utility::Version("1.2"), "Corvath-test", "");
        ASSERT_TRUE(engine->isConnected());
    }

    void TearDown() override {
        engine.reset();
        EngineTest::TearDown();
    }

    std::unique_ptr<tavren::internal::StompClientImpl> engine;

    std::vector<std::string> bodiesOn(int connection) {
        std::vector<std::string> bodies;
        for (const RecordedFrame& f : sent("SEND")) {
            if (f.connection == connection) bodies.push_back(f.body);
        }
        return bodies;
    }

    std::vector<std::string> idsOf(const std::vector<RecordedFrame>& frames) {
        std::vector<std::string> ids;
        for (const RecordedFrame& f : frames) ids.push_back(f.headers.at("tavren-id"));
        return ids;
    }
};

TEST_F(Outbox, EachSendAsksForAReceiptAndCarriesPersistentAndItsId) {
    clientWithOutbox();
    connect();
    HeaderMap extra{{"priority", "4"}, {"destination", "/queue/elsewhere"}};
    client->sendToQueue("orders", "two apples", &extra);
    ASSERT_TRUE(client->waitForConfirmations(5000));
    EXPECT_EQ(client->pendingMessages(), 0u);
    const RecordedFrame frame = sent("SEND").at(0);
    const std::string id = frame.headers.at("tavren-id");
    EXPECT_EQ(frame.headers, (HeaderMap{{"content-length", "10"},
                                        {"content-type", "text/plain"},
                                        {"destination", "/queue/orders"},
                                        {"persistent", "true"},
                                        {"priority", "4"},
                                        {"receipt", "outbox/1"},
                                        {"tavren-id", id}}));
    EXPECT_EQ(frame.body, "two apples");
    // The outbox's id, a dash and the message's number.
    EXPECT_EQ(id.size(), 36u + 2u);
    EXPECT_EQ(id.substr(36), "-1");
}

TEST_F(Outbox, TheApplicationsPersistentHeaderIsKept) {
    clientWithOutbox();
    connect();
    HeaderMap extra{{"persistent", "false"}};
    client->sendToQueue("q", "x", &extra);
    ASSERT_TRUE(client->waitForConfirmations(5000));
    EXPECT_EQ(sent("SEND").at(0).headers.at("persistent"), "false");
}

TEST_F(Outbox, WithoutAnOutboxTheSendFrameIsAsAlways) {
    connect();
    client->sendToQueue("q", "plain", nullptr);
    ASSERT_TRUE(broker.waitForFrames("SEND", 1));
    EXPECT_EQ(sent("SEND")[0].headers,
              (HeaderMap{{"content-length", "5"}, {"content-type", "text/plain"}, {"destination", "/queue/q"}}));
    EXPECT_EQ(client->pendingMessages(), 0u);
    EXPECT_TRUE(client->waitForConfirmations(0));
}

TEST_F(Outbox, UseOutboxAfterOpenConnectionIsALogicError) {
    connect();
    try {
        client->useOutbox(OutboxOptions());
        FAIL() << "no exception";
    } catch (std::logic_error& e) {
        EXPECT_STREQ(e.what(), "useOutbox must be called before openConnection.");
    }
}

TEST_F(Outbox, MessagesSentWhileNoConnectionStandsAreKeptAndSentInOrder) {
    broker.refuseConnections();
    clientWithOutbox();
    client->openConnection(100, kelvra::utility::Version("1.2"));
    ASSERT_FALSE(client->isConnected());
    for (int i = 0; i < 50; ++i) client->sendToQueue("q", std::to_string(i).c_str(), nullptr);
    EXPECT_EQ(client->pendingMessages(), 50u);
    EXPECT_FALSE(client->waitForConfirmations(50));
    ASSERT_TRUE(broker.acceptConnections());
    ASSERT_TRUE(client->waitForConfirmations(10000));
    std::vector<std::string> expected;
    for (int i = 0; i < 50; ++i) expected.push_back(std::to_string(i));
    EXPECT_EQ(bodiesOn(1), expected);
}

TEST_F(Outbox, UnconfirmedMessagesAreSentAgainInOrderWithTheSameIds) {
    clientWithOutbox();
    connect();
    broker.setSendReply(FakeBroker::ReceiptReply::Silence);
    for (int i = 0; i < 5; ++i) client->sendToQueue("q", ("m" + std::to_string(i)).c_str(), nullptr);
    ASSERT_TRUE(broker.waitForFrames("SEND", 5));
    EXPECT_EQ(client->pendingMessages(), 5u);
    const std::vector<std::string> firstIds = idsOf(sent("SEND"));

    broker.setSendReply(FakeBroker::ReceiptReply::Receipt);
    broker.dropConnection();
    ASSERT_TRUE(client->waitForConfirmations(10000));
    std::vector<RecordedFrame> again;
    for (const RecordedFrame& f : sent("SEND")) {
        if (f.connection == 2) again.push_back(f);
    }
    EXPECT_EQ(idsOf(again), firstIds);
    EXPECT_EQ(bodiesOn(2), (std::vector<std::string>{"m0", "m1", "m2", "m3", "m4"}));
    // The receipts asked for on the new connection are the same too.
    EXPECT_EQ(again.at(0).headers.at("receipt"), "outbox/1");
}

TEST_F(Outbox, OlderMessagesGoOutBeforeNewerOnesAfterAReconnect) {
    clientWithOutbox();
    connect();
    broker.setSendReply(FakeBroker::ReceiptReply::Silence);
    client->sendToQueue("q", "old", nullptr);
    ASSERT_TRUE(broker.waitForFrames("SEND", 1));
    loseTheBroker();
    client->sendToQueue("q", "new", nullptr);
    broker.setSendReply(FakeBroker::ReceiptReply::Receipt);
    ASSERT_TRUE(broker.acceptConnections());
    ASSERT_TRUE(client->waitForConfirmations(10000));
    EXPECT_EQ(bodiesOn(2), (std::vector<std::string>{"old", "new"}));
}

TEST_F(Outbox, AMessageTheBrokerRefusesIsLoggedAndNeverSentAgain) {
    clientWithOutbox();
    connect();
    broker.setReceiptError("no such queue", "details");
    broker.refuseSendWithBody("poison");
    client->sendToQueue("q", "a", nullptr);
    client->sendToQueue("bad", "poison", nullptr);
    client->sendToQueue("q", "b", nullptr);
    ASSERT_TRUE(client->waitForConfirmations(5000));
    const RecordedFrame poison = sent("SEND").at(1);
    EXPECT_TRUE(log.contains("ERROR: The broker refused the message " + poison.headers.at("tavren-id") +
                             " to /queue/bad: no such queue. It is not sent again."));
    // A new connection sends nothing again: everything was answered.
    broker.dropConnection();
    ASSERT_TRUE(broker.waitForConnections(2));
    ASSERT_TRUE(log.waitFor("INFO: Connected.", 2));
    client->sendToQueue("q", "c", nullptr);
    ASSERT_TRUE(client->waitForConfirmations(5000));
    EXPECT_EQ(bodiesOn(2), (std::vector<std::string>{"c"}));
}

TEST_F(Outbox, NoMoreThanTheWindowIsUnconfirmedAtOnce) {
    engineWithOutbox().setWindow(3, 1 << 20);
    openEngine();
    broker.setSendReply(FakeBroker::ReceiptReply::Silence);
    for (int i = 0; i < 10; ++i) engine->sendMessage("/queue/q", std::to_string(i).c_str(), nullptr);
    ASSERT_TRUE(broker.waitForFrames("SEND", 3));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(sent("SEND").size(), 3u);
    // Two receipts make room for two more.
    broker.sendRaw("RECEIPT\nreceipt-id:outbox/1\n\n" + std::string(1, '\0') + "RECEIPT\nreceipt-id:outbox/2\n\n" +
                   std::string(1, '\0'));
    ASSERT_TRUE(broker.waitForFrames("SEND", 5));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(sent("SEND").size(), 5u);
    EXPECT_EQ(engine->pendingMessages(), 8u);
}

TEST_F(Outbox, AReceiptThatNeverComesCostsTheConnection) {
    engineWithOutbox().setReceiptTimeoutMs(300);
    openEngine();
    broker.setSendReply(FakeBroker::ReceiptReply::Silence);
    engine->sendMessage("/queue/q", "lost receipt", nullptr);
    ASSERT_TRUE(broker.waitForFrames("SEND", 1));
    const std::string id = sent("SEND")[0].headers.at("tavren-id");
    ASSERT_TRUE(log.waitFor("ERROR: The broker did not confirm the message " + id +
                            " to /queue/q within 300 ms: the connection is taken as lost."));
    broker.setSendReply(FakeBroker::ReceiptReply::Receipt);
    ASSERT_TRUE(engine->waitForConfirmations(10000));
    EXPECT_TRUE(log.contains("ERROR: Disconnected!"));
    EXPECT_EQ(bodiesOn(2), (std::vector<std::string>{"lost receipt"}));
}

TEST_F(Outbox, AFullOutboxRefusesNewMessages) {
    OutboxOptions options;
    options.maxMessages = 3;
    broker.refuseConnections();
    clientWithOutbox(options);
    client->openConnection(100, kelvra::utility::Version("1.2"));
    for (int i = 0; i < 3; ++i) client->sendToQueue("q", "x", nullptr);
    EXPECT_THROW(client->sendToQueue("q", "too many", nullptr), tavren::OutboxException);
    EXPECT_EQ(client->pendingMessages(), 3u);
}

TEST_F(Outbox, AFullDropOldestOutboxDropsTheOldestWithALine) {
    OutboxOptions options;
    options.maxMessages = 2;
    options.whenFull = OutboxOptions::DropOldest;
    broker.refuseConnections();
    clientWithOutbox(options);
    client->openConnection(100, kelvra::utility::Version("1.2"));
    client->sendToQueue("a", "1", nullptr);
    client->sendToQueue("b", "2", nullptr);
    client->sendToQueue("c", "3", nullptr);
    EXPECT_EQ(client->pendingMessages(), 2u);
    EXPECT_EQ(log.countStartingWith("ERROR: The outbox is full: its oldest message "), 1u);
    const std::string prefix = "ERROR: The outbox is full: its oldest message ";
    const std::string suffix = "-1 to /queue/a was dropped.";
    bool named = false;
    for (const std::string& line : log.lines()) {
        named = named || (line.size() == prefix.size() + 36 + suffix.size() && line.rfind(prefix, 0) == 0 &&
                          line.compare(prefix.size() + 36, suffix.size(), suffix) == 0);
    }
    EXPECT_TRUE(named);
    ASSERT_TRUE(broker.acceptConnections());
    ASSERT_TRUE(client->waitForConfirmations(10000));
    EXPECT_EQ(bodiesOn(1), (std::vector<std::string>{"2", "3"}));
}

TEST_F(Outbox, ClosingLosesAMemoryOutboxWithOneLine) {
    broker.refuseConnections();
    clientWithOutbox();
    client->openConnection(100, kelvra::utility::Version("1.2"));
    for (int i = 0; i < 3; ++i) client->sendToQueue("q", "x", nullptr);
    client->closeConnection();
    EXPECT_EQ(log.count("ERROR: 3 messages in the memory outbox were never confirmed by the broker and are lost."), 1u);
    EXPECT_EQ(client->pendingMessages(), 0u);
    client.reset();
    EXPECT_EQ(log.countStartingWith("ERROR: 3 messages"), 1u);
}

TEST_F(Outbox, ManyThreadsSendingKeepEachThreadsOrder) {
    clientWithOutbox();
    connect();
    std::vector<std::thread> senders;
    for (int t = 0; t < 4; ++t) {
        senders.emplace_back([this, t] {
            for (int i = 0; i < 500; ++i)
                client->sendToQueue("q", (std::to_string(t) + ":" + std::to_string(i)).c_str(), nullptr);
        });
    }
    for (std::thread& s : senders) s.join();
    ASSERT_TRUE(client->waitForConfirmations(20000));
    std::vector<int> next(4, 0);
    std::set<std::string> ids;
    for (const RecordedFrame& f : sent("SEND")) {
        const int t = f.body[0] - '0';
        EXPECT_EQ(f.body, std::to_string(t) + ":" + std::to_string(next[t]));
        ++next[t];
        ids.insert(f.headers.at("tavren-id"));
    }
    EXPECT_EQ(next, (std::vector<int>{500, 500, 500, 500}));
    EXPECT_EQ(ids.size(), 2000u);
}

#ifdef TAVREN_FILE_OUTBOX
TEST_F(Outbox, AFileOutboxSendsWhatAnEarlierRunLeftFirst) {
    tavren::test::TempFolder folder;
    OutboxOptions options;
    options.file = folder.file("outbox.db");
    broker.refuseConnections();
    {
        clientWithOutbox(options);
        client->openConnection(100, kelvra::utility::Version("1.2"));
        for (int i = 0; i < 3; ++i) client->sendToQueue("q", ("old " + std::to_string(i)).c_str(), nullptr);
        client.reset();
    }
    EXPECT_EQ(log.count("INFO: 3 unconfirmed messages stay in the outbox file for the next run."), 1u);
    ASSERT_TRUE(broker.acceptConnections());
    clientWithOutbox(options);
    EXPECT_EQ(client->pendingMessages(), 3u);
    connect();
    client->sendToQueue("q", "new", nullptr);
    ASSERT_TRUE(client->waitForConfirmations(10000));
    EXPECT_EQ(log.count("INFO: The outbox holds 3 messages from an earlier run: they are sent first."), 1u);
    EXPECT_EQ(bodiesOn(1), (std::vector<std::string>{"old 0", "old 1", "old 2", "new"}));
    client.reset();
    EXPECT_EQ(log.countStartingWith("INFO: 0 unconfirmed"), 0u);
}

TEST_F(Outbox, ASecondClientOnTheSameFileIsRefused) {
    tavren::test::TempFolder folder;
    OutboxOptions options;
    options.file = folder.file("outbox.db");
    clientWithOutbox(options);
    tavren::StompClient second("127.0.0.1", broker.port(), &log, nullptr);
    try {
        second.useOutbox(options);
        FAIL() << "no exception";
    } catch (tavren::OutboxException& e) {
        EXPECT_EQ(std::string(e.what()), "The outbox file " + options.file + " is used by another client.");
    }
}
#endif

} // namespace
