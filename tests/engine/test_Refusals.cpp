// SPDX-License-Identifier: Apache-2.0
// A broker that refuses: subscriptions refused and the connection closed,
// connections closed right after CONNECTED, and sends during an outage.

#include "support/EngineFixture.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace tavren {
namespace test {
namespace {

using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// The most connections a doubling wait from periodMs allows in elapsedMs
// after the first refusal: waits of 1, 2, 4, ... periods.
int mostAttempts(long long periodMs, long long elapsedMs) {
    int n = 1;
    for (long long wait = periodMs, at = wait; at <= elapsedMs; wait *= 2, at += wait) ++n;
    return n;
}

class Refusals : public EngineTest {
protected:
    RecordingListener listener;
};

const char kReason[] = "inequivalent arg 'x-queue-type' for queue 'q' in vhost '/': received none but current is "
                       "the value 'quorum' of type 'longstr'";

TEST_F(Refusals, ARefusedSubscriptionIsLoggedWithTheReasonKeptAndRetriedOnADoublingSchedule) {
    const int periodMs = 100;
    connect("1.2", periodMs);
    letReconnectPeriodPass();
    broker.setReceiptError("precondition_failed", kReason);
    broker.setSubscribeReply(FakeBroker::ReceiptReply::RefuseAndClose);
    log.clear();
    const auto start = Clock::now();
    client->listenOnQueue("q", &listener, {{"x-queue-type", "classic"}});
    const std::string refused =
        "ERROR: The broker refused the subscription to /queue/q (precondition_failed: " + std::string(kReason) +
        ") and closed the connection: the listener is kept and subscribed again on the next "
        "connection. The next attempt in ";
    ASSERT_TRUE(log.waitForPrefix(refused));
    std::this_thread::sleep_for(std::chrono::milliseconds(3000));
    const long long elapsed = msSince(start);
    const int connections = broker.connectionCount();
    EXPECT_FALSE(log.contains("INFO: Subscribed to destination /queue/q successfully."));
    EXPECT_GE(connections, 4);
    EXPECT_LE(connections - 1, mostAttempts(periodMs, elapsed)) << connections << " in " << elapsed << " ms";
    // One line with the reason per refusal, and few lines per connection.
    EXPECT_EQ(log.countStartingWith(refused), static_cast<size_t>(connections));
    EXPECT_LE(log.lines().size(), static_cast<size_t>(10 * connections));
    for (const RecordedFrame& f : sent("SUBSCRIBE")) EXPECT_EQ(f.headers.at("x-queue-type"), "classic");

    // Mended: the next attempt subscribes it, and messages flow.
    broker.setSubscribeReply(FakeBroker::ReceiptReply::Receipt);
    ASSERT_TRUE(broker.waitForSubscription("/queue/q", 15000));
    ASSERT_TRUE(log.waitFor("INFO: Subscribed to destination /queue/q successfully."));
    ASSERT_TRUE(broker.pushMessage("/queue/q", "mended"));
    ASSERT_TRUE(listener.waitFinished(1));
    client->sendToQueue("q", "out", nullptr);
    ASSERT_TRUE(broker.waitForFrames("SEND", 1));
}

TEST_F(Refusals, AnErrorAnsweringASubscriptionOnAnOpenConnectionLeavesItUnregistered) {
    connect();
    broker.setReceiptError("access_refused", "no");
    broker.setSubscribeReply(FakeBroker::ReceiptReply::Error);
    client->listenOnQueue("q", &listener);
    EXPECT_TRUE(
        log.waitForPrefix("ERROR: Failed to subscribe to destination /queue/q. Broker replied: access_refused"));
    EXPECT_EQ(log.countStartingWith("ERROR: The broker refused"), 0u);
    broker.setSubscribeReply(FakeBroker::ReceiptReply::Receipt);
    letReconnectPeriodPass();
    broker.dropConnection();
    ASSERT_TRUE(log.waitFor("INFO: Resuming all listeners...", 2));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(log.contains("INFO: Re-registering listener for: /queue/q"));
}

TEST_F(Refusals, ConnectionsClosedRightAfterConnectedWaitLongerEachTime) {
    const int periodMs = 100;
    connect("1.2", periodMs);
    listen("q", &listener);
    letReconnectPeriodPass();
    broker.setResetAfterConnected(true);
    const auto start = Clock::now();
    broker.dropConnection();
    std::this_thread::sleep_for(std::chrono::milliseconds(3000));
    const long long elapsed = msSince(start);
    // The drop is followed by one attempt at once, then the doubling waits.
    const int made = broker.connectionCount() - 1;
    EXPECT_GE(made, 4);
    EXPECT_LE(made, 1 + mostAttempts(periodMs, elapsed)) << made << " in " << elapsed << " ms";
    EXPECT_LE(log.lines().size(), static_cast<size_t>(12 * made));
    broker.setResetAfterConnected(false);
    ASSERT_TRUE(broker.waitForSubscription("/queue/q", 15000));
    ASSERT_TRUE(broker.pushMessage("/queue/q", "back"));
    ASSERT_TRUE(listener.waitFinished(1));
}

TEST_F(Refusals, AConnectionThatStandsAPeriodStartsTheWaitsAgain) {
    const int periodMs = 100;
    connect("1.2", periodMs);
    listen("q", &listener);
    letReconnectPeriodPass();
    broker.setResetAfterConnected(true);
    broker.dropConnection();
    ASSERT_TRUE(broker.waitForConnections(5, 10000));
    broker.setResetAfterConnected(false);
    ASSERT_TRUE(broker.waitForSubscription("/queue/q", 15000));
    letReconnectPeriodPass();
    log.clear();
    const int before = broker.connectionCount();
    broker.dropConnection();
    // At once, as for any connection lost after it stood a period.
    ASSERT_TRUE(broker.waitForConnections(before + 1, 1000));
    EXPECT_FALSE(log.contains("INFO: Connecting again in"));
}

TEST_F(Refusals, SendsDuringAnOutageAreCountedNotLoggedAndStartNothing) {
    const int periodMs = 200;
    connect("1.2", periodMs);
    loseTheBroker();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    log.clear();
    const int threadsBefore = threadCount();
    int threadsMost = threadsBefore;
    const auto start = Clock::now();
    const int sends = 10000;
    for (int i = 0; i < sends; ++i) {
        client->sendToQueue("q", "lost", nullptr);
        if (i % 100 == 0) threadsMost = std::max(threadsMost, threadCount());
        // Spread over a second, so that the count is also logged meanwhile.
        if (i % 1000 == 999) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    const long long elapsed = msSince(start);
    EXPECT_EQ(threadsMost, threadsBefore);
    const std::vector<std::string> during = log.lines();
    ASSERT_FALSE(during.empty());
    EXPECT_EQ(during[0], "ERROR: Disconnected!");
    EXPECT_EQ(log.count("ERROR: Disconnected!"), 1u);
    EXPECT_FALSE(log.contains("INFO: Attempting to connect..."));
    EXPECT_EQ(log.countStartingWith("INFO: Connecting again in"), 0u);
    // The timer's attempts keep their schedule: one a period (and jitter).
    EXPECT_LE(log.count("INFO: Retrying connect..."), static_cast<size_t>(elapsed / periodMs + 1));
    EXPECT_LE(during.size(), static_cast<size_t>(1 + 3 * (elapsed / periodMs + 1)));
    // Among them the count so far, at least once.
    EXPECT_GE(log.countStartingWith("ERROR: ") - log.count("ERROR: Disconnected!") -
                  log.countStartingWith("ERROR: Reconnect failed with:"),
              1u);

    ASSERT_TRUE(broker.acceptConnections());
    ASSERT_TRUE(log.waitFor("ERROR: 10000 messages sent while disconnected were lost.", 1, 10000));
    client->sendToQueue("q", "kept", nullptr);
    ASSERT_TRUE(broker.waitForFrames("SEND", 1));
    EXPECT_EQ(sent("SEND").at(0).body, "kept");
}

TEST_F(Refusals, TheCountIsLoggedOncePerPeriodWhileTheOutageLasts) {
    const int periodMs = 200;
    connect("1.2", periodMs);
    loseTheBroker();
    log.clear();
    const auto start = Clock::now();
    int sent = 0;
    while (msSince(start) < 1000) {
        client->sendToQueue("q", "lost", nullptr);
        ++sent;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const size_t lines = log.countStartingWith("ERROR: ") - log.count("ERROR: Disconnected!") -
                         log.countStartingWith("ERROR: Reconnect failed with:");
    EXPECT_GE(lines, 3u);
    EXPECT_LE(lines, 6u);
    ASSERT_TRUE(broker.acceptConnections());
    ASSERT_TRUE(
        log.waitFor("ERROR: " + std::to_string(sent) + " messages sent while disconnected were lost.", 1, 10000));
}

TEST_F(Refusals, AnErrorOnAConnectionThatStaysOpenIsNoRefusalWhenItEndsLater) {
    // ActiveMQ answers an ACK it cannot match with an ERROR and keeps the
    // connection: when the broker goes seconds later, that ERROR is not why.
    const int periodMs = 100;
    connect("1.2", periodMs);
    letReconnectPeriodPass();
    ASSERT_TRUE(broker.sendRaw(std::string("ERROR\nmessage:ACK received without a ack id\n\n") + '\0'));
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    log.clear();
    broker.dropConnection();
    ASSERT_TRUE(log.waitFor("INFO: Connected."));
    EXPECT_EQ(log.countStartingWith("ERROR: The broker refused"), 0u);
}
} // namespace
} // namespace test
} // namespace tavren
