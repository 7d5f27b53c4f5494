// SPDX-License-Identifier: Apache-2.0
// Failover: with brokers added by addFailoverBroker, every failed attempt
// to connect moves on to the next broker, around the list; a connection
// that stands stays, and the listeners follow the client to whichever broker
// it reaches.

#include "support/EngineFixture.h"

#include <string>

namespace tavren {
namespace test {
namespace {

class Failover : public EngineTest {
protected:
    void makeFailoverClient() {
        makeClient();
        client->addFailoverBroker("127.0.0.1", second.port());
    }

    std::string tryingLine(const FakeBroker& which) const {
        return "INFO: Trying the broker 127.0.0.1:" + std::to_string(which.port()) + ".";
    }

    /** A message pushed by which reaches the listener and is acknowledged there. */
    void expectMessagesFrom(FakeBroker& which, const std::string& body) {
        ASSERT_TRUE(which.waitForSubscription("/queue/orders", 10000));
        const int seen = listener.count();
        ASSERT_TRUE(which.pushMessage("/queue/orders", body));
        ASSERT_TRUE(listener.waitFinished(seen + 1, 10000));
        ASSERT_TRUE(which.waitForFrames("ACK", 1, 10000));
    }

    FakeBroker second;
    RecordingListener listener; // outlives the client, which TearDown ends
};

TEST_F(Failover, EachAttemptNamesItsBrokerAndTheFirstIsTheConstructors) {
    makeFailoverClient();
    connect();
    const std::vector<std::string> lines = log.lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], "INFO: Attempting to connect...");
    EXPECT_EQ(lines[1], tryingLine(broker));
    EXPECT_EQ(lines[2], "INFO: Connected.");
    EXPECT_EQ(second.connectionCount(), 0);
}

TEST_F(Failover, WithoutFailoverBrokersNoBrokerIsNamed) {
    connect();
    EXPECT_EQ(log.countStartingWith("INFO: Trying the broker "), 0u);
}

TEST_F(Failover, AFirstAttemptThatFailsIsRetriedOnTheNextBroker) {
    broker.refuseConnections();
    makeFailoverClient();
    client->openConnection(100, kelvra::utility::Version("1.2"));
    EXPECT_FALSE(client->isConnected());
    ASSERT_TRUE(log.waitFor("ERROR: Failed to connect on first try, The connection was refused."));
    ASSERT_TRUE(log.waitFor(tryingLine(second), 1, 5000));
    ASSERT_TRUE(second.waitFor([&] { return client->isConnected(); }, 5000));
    EXPECT_EQ(second.connectionCount(), 1);
}

TEST_F(Failover, TheClientMovesToTheOtherBrokerAndBackWithItsListeners) {
    makeFailoverClient();
    connect();
    listen("orders", &listener);
    expectMessagesFrom(broker, "on the first");

    // The first broker goes: the client tries it once more, then moves on.
    loseTheBroker();
    ASSERT_TRUE(second.waitFor([&] { return client->isConnected(); }, 5000));
    expectMessagesFrom(second, "on the second");
    EXPECT_EQ(second.framesWithCommand("SUBSCRIBE").size(), 1u);

    // The first comes back and the second goes: back to the first.
    ASSERT_TRUE(broker.acceptConnections());
    letReconnectPeriodPass();
    second.refuseConnections();
    second.dropConnection();
    ASSERT_TRUE(broker.waitForConnections(2, 5000));
    ASSERT_TRUE(broker.waitFor([&] { return client->isConnected(); }, 5000));
    ASSERT_TRUE(broker.waitFor([&] { return broker.framesWithCommand("SUBSCRIBE").size() == 2; }, 5000));
    const int seen = listener.count();
    ASSERT_TRUE(broker.pushMessage("/queue/orders", "back on the first"));
    ASSERT_TRUE(listener.waitFinished(seen + 1, 10000));
}

TEST_F(Failover, AConnectionLostIsFirstMadeAgainWithTheSameBroker) {
    makeFailoverClient();
    connect();
    letReconnectPeriodPass();
    broker.dropConnection();
    ASSERT_TRUE(broker.waitForConnections(2, 5000));
    ASSERT_TRUE(broker.waitFor([&] { return client->isConnected(); }, 5000));
    EXPECT_EQ(second.connectionCount(), 0);
}

TEST_F(Failover, TheCapabilitiesAreFixedOnceTheConnectionIsOpened) {
    connect();
    try {
        client->addFailoverBroker("127.0.0.1", second.port());
        FAIL() << "no exception";
    } catch (const std::logic_error& e) {
        EXPECT_STREQ(e.what(), "addFailoverBroker must be called before openConnection.");
    }
    EXPECT_THROW(client->enableHeartbeats(), std::logic_error);
    EXPECT_THROW(client->useTls(tavren::TlsOptions()), std::logic_error);
    EXPECT_THROW(client->setFrameLimits(1, 1), std::logic_error);
}

} // namespace
} // namespace test
} // namespace tavren
