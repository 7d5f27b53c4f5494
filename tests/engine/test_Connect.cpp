// SPDX-License-Identifier: Apache-2.0
// Connecting: the CONNECT frame, the broker's possible answers, and retries.

#include "support/EngineFixture.h"

#include <stdexcept>

namespace {

using tavren::HeaderMap;
using tavren::StompClient;
using tavren::test::EngineTest;
using tavren::test::FakeBroker;
using tavren::test::RecordedFrame;

using Connect = EngineTest;

TEST_F(Connect, SendsOneConnectWithTheOfferedVersionAndNoCredentials) {
    connect("1.2");
    auto frames = sent("CONNECT");
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].headers, (HeaderMap{{"accept-version", "1.2"}, {"heart-beat", "0,0"}}));
    EXPECT_EQ(frames[0].body, "");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"INFO: Attempting to connect...", "INFO: Connected.",
                                                     "INFO: Resuming all listeners..."}));
}

TEST_F(Connect, OffersExactlyTheOneVersionGiven) {
    for (const char* version : {"1.0", "1.1"}) {
        FakeBroker other;
        StompClient c("127.0.0.1", other.port(), &log, nullptr);
        c.openConnection(100, kelvra::utility::Version(version));
        ASSERT_TRUE(other.waitForFrames("CONNECT", 1));
        EXPECT_EQ(other.framesWithCommand("CONNECT")[0].headers.at("accept-version"), version);
    }
}

TEST_F(Connect, CredentialsAndHeartBeatGoIntoConnect) {
    std::pair<std::string, std::string> heartbeat("5000", "10000");
    client.reset(new StompClient("127.0.0.1", broker.port(), "guest", "secret", &log, &heartbeat));
    connect();
    EXPECT_EQ(sent("CONNECT")[0].headers, (HeaderMap{{"accept-version", "1.2"},
                                                     {"heart-beat", "5000,10000"},
                                                     {"login", "guest"},
                                                     {"passcode", "secret"}}));
}

TEST_F(Connect, EmptyCredentialsAreStillSent) {
    client.reset(new StompClient("127.0.0.1", broker.port(), "", "", &log, nullptr));
    connect();
    const HeaderMap headers = sent("CONNECT")[0].headers;
    EXPECT_EQ(headers.at("login"), "");
    EXPECT_EQ(headers.at("passcode"), "");
}

TEST_F(Connect, IsConnectedFollowsTheSession) {
    makeClient();
    EXPECT_FALSE(client->isConnected());
    connect();
    EXPECT_TRUE(client->isConnected());
    client->closeConnection();
    EXPECT_FALSE(client->isConnected());
}

TEST_F(Connect, RefusedConnectionIsRetriedEveryPeriodUntilItSucceeds) {
    broker.refuseConnections();
    makeClient();
    client->openConnection(100, kelvra::utility::Version("1.2"));
    EXPECT_FALSE(client->isConnected());
    ASSERT_TRUE(log.waitFor("ERROR: Reconnect failed with: The connection was refused.", 2));
    EXPECT_EQ(log.lines()[0], "INFO: Attempting to connect...");
    EXPECT_EQ(log.lines()[1], "ERROR: Failed to connect on first try, The connection was refused.");
    EXPECT_EQ(log.lines()[2], "INFO: Retrying connect...");
    EXPECT_EQ(log.lines()[3], "ERROR: Reconnect failed with: The connection was refused.");
    EXPECT_FALSE(client->isConnected());

    ASSERT_TRUE(broker.acceptConnections());
    ASSERT_TRUE(log.waitFor("INFO: Connected."));
    EXPECT_TRUE(broker.waitFor([&] { return client->isConnected(); }));
    EXPECT_EQ(broker.framesWithCommand("CONNECT").size(), 1u);
}

TEST_F(Connect, SilentBrokerTimesOutAfterThreeSeconds) {
    broker.setConnectReply(FakeBroker::ConnectReply::Silence);
    makeClient();
    const auto start = std::chrono::steady_clock::now();
    client->openConnection(60000, kelvra::utility::Version("1.2"));
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_FALSE(client->isConnected());
    EXPECT_GE(took, std::chrono::milliseconds(2900));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "INFO: Attempting to connect...",
                               "ERROR: Failed to connect on first try, Timed out while attempting to connect."}));
}

TEST_F(Connect, BrokerErrorIsLoggedWithItsBodyAndRetried) {
    broker.setConnectReply(FakeBroker::ConnectReply::Error);
    broker.setConnectError("Bad credentials", "Access refused for user 'guest'");
    makeClient();
    client->openConnection(100, kelvra::utility::Version("1.2"));
    EXPECT_FALSE(client->isConnected());
    EXPECT_EQ(log.lines()[1], "ERROR: Failed to connect on first try, The Broker replied with an error. "
                              "Broker replied: \nAccess refused for user 'guest'");
    ASSERT_TRUE(log.waitFor("ERROR: Reconnect failed with: The Broker replied with an error. "
                            "Broker replied: \nAccess refused for user 'guest'"));
    broker.setConnectReply(FakeBroker::ConnectReply::Connected);
    ASSERT_TRUE(log.waitFor("INFO: Connected."));
}

TEST_F(Connect, AnyOtherAnswerIsAnUnknownError) {
    broker.setConnectReply(FakeBroker::ConnectReply::Other);
    makeClient();
    client->openConnection(60000, kelvra::utility::Version("1.2"));
    EXPECT_EQ(log.lines()[1], "ERROR: Failed to connect on first try, Unknown connection error.");
}

TEST_F(Connect, ConnectedWithoutSessionHeaderThrowsToTheCallerAndRetriesGoOn) {
    broker.setConnectedHeaders(HeaderMap{{"server", "FakeBroker/1.0"}, {"version", "1.2"}, {"heart-beat", "0,0"}});
    makeClient();
    EXPECT_THROW(client->openConnection(100, kelvra::utility::Version("1.2")), std::out_of_range);
    EXPECT_FALSE(client->isConnected());
    ASSERT_TRUE(log.waitFor("ERROR: Reconnect failed with: map::at"));
    broker.setConnectedHeaders(
        HeaderMap{{"server", "FakeBroker/1.0"}, {"version", "1.2"}, {"heart-beat", "0,0"}, {"session", "s"}});
    ASSERT_TRUE(log.waitFor("INFO: Connected."));
}

TEST_F(Connect, ReconnectPeriodIsInMilliseconds) {
    broker.refuseConnections();
    makeClient();
    client->openConnection(200, kelvra::utility::Version("1.2"));
    ASSERT_TRUE(log.waitFor("INFO: Retrying connect...", 3, 5000));
    // Three retries of 200 ms each: well under the 5 s the wait allows, and
    // far from the 600 s that seconds would mean.
    SUCCEED();
}

} // namespace
