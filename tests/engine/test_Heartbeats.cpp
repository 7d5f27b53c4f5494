// SPDX-License-Identifier: Apache-2.0
// Heart-beats, switched on with enableHeartbeats(): the client writes a line
// feed whenever it has been quiet for the agreed interval, and gives up on a
// broker that has sent nothing for twice its interval. Without the call the
// figures only travel in CONNECT.

#include "support/Elapsed.h"
#include "support/EngineFixture.h"

#include <chrono>
#include <string>
#include <thread>

namespace tavren {
namespace test {
namespace {

const char kLossPrefix[] = "ERROR: No data from the broker for ";

class Heartbeats : public EngineTest {
protected:
    /** A client asking for clientSends,clientWants; the broker answers brokerSends,brokerWants. */
    void connectWith(const std::string& clientSends, const std::string& clientWants, const std::string& brokerFigures,
                     bool enable) {
        figures = {clientSends, clientWants};
        broker.setConnectedHeaders(
            {{"server", "FakeBroker/1.0"}, {"version", "1.2"}, {"heart-beat", brokerFigures}, {"session", "s-1"}});
        makeClient(&figures);
        if (enable) client->enableHeartbeats();
        connect("1.2", 100);
    }

    std::pair<std::string, std::string> figures;
    RecordingListener listener; // outlives the client, which TearDown ends
};

TEST_F(Heartbeats, AQuietClientSendsALineFeedEveryAgreedInterval) {
    // The client can send every 100 ms, the broker wants one every 200 ms:
    // the larger figure, 200 ms, is the interval.
    connectWith("100", "0", "0,200", true);
    EXPECT_EQ(sent("CONNECT").at(0).headers.at("heart-beat"), "100,0");
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    const int beats = broker.heartBeatsReceived();
    // About five in 1.1 s; the bounds leave room for a loaded machine.
    EXPECT_GE(beats, 3);
    EXPECT_LE(beats, 6);
    EXPECT_TRUE(client->isConnected());
}

TEST_F(Heartbeats, FramesTheClientWritesCountAsHeartBeats) {
    connectWith("100", "0", "0,300", true);
    const auto start = Clock::now();
    while (msSince(start) < 1000) {
        client->sendToQueue("busy", "text", nullptr);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(broker.heartBeatsReceived(), 0);
}

TEST_F(Heartbeats, ASilentBrokerIsGivenUpWithinTwiceItsIntervalPlusAFifth) {
    // The broker promises one every 1000 ms and sends nothing after CONNECTED.
    connectWith("0", "1000", "1000,0", true);
    const auto connected = Clock::now();
    ASSERT_TRUE(log.waitForPrefix(kLossPrefix, 1, 5000));
    const long long noticedAfter = msSince(connected);
    ASSERT_TRUE(log.waitFor("ERROR: Disconnected!", 1, 5000));
    EXPECT_GE(noticedAfter, 1900); // measured from a little after the last byte came
    EXPECT_LE(noticedAfter, 2400);
    const std::vector<std::string> lines = log.lines();
    size_t at = 0;
    while (at < lines.size() && lines[at].rfind(kLossPrefix, 0) != 0) ++at;
    ASSERT_LT(at + 1, lines.size());
    EXPECT_NE(lines[at].find(" ms, twice its heart-beat interval of 1000 ms: the connection is taken as lost."),
              std::string::npos)
        << lines[at];
    EXPECT_EQ(lines[at + 1], "ERROR: Disconnected!");
    // And it connects again.
    ASSERT_TRUE(broker.waitForConnections(2, 5000));
    ASSERT_TRUE(broker.waitFor([&] { return client->isConnected(); }, 5000));
}

TEST_F(Heartbeats, ABrokerThatSendsHeartBeatsStaysConnected) {
    connectWith("0", "200", "200,0", true);
    const auto start = Clock::now();
    while (msSince(start) < 1500) {
        ASSERT_TRUE(broker.sendRaw("\n"));
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
    }
    EXPECT_FALSE(log.countStartingWith(kLossPrefix) > 0);
    EXPECT_TRUE(client->isConnected());
    EXPECT_EQ(broker.connectionCount(), 1);
}

TEST_F(Heartbeats, MessagesFromTheBrokerCountAsLife) {
    connectWith("0", "200", "200,0", true);
    listen("alive", &listener);
    const auto start = Clock::now();
    int pushed = 0;
    while (msSince(start) < 1500) {
        ASSERT_TRUE(broker.pushMessage("/queue/alive", "m" + std::to_string(pushed++)));
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
    }
    EXPECT_FALSE(log.countStartingWith(kLossPrefix) > 0);
    EXPECT_EQ(broker.connectionCount(), 1);
    EXPECT_TRUE(listener.waitFinished(pushed, 5000));
}

TEST_F(Heartbeats, ZeroFiguresChangeNothing) {
    connectWith("0", "0", "500,500", true);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(broker.heartBeatsReceived(), 0);
    EXPECT_FALSE(log.countStartingWith(kLossPrefix) > 0);
    EXPECT_TRUE(client->isConnected());
}

TEST_F(Heartbeats, WithoutTheCallTheFiguresOnlyTravelInConnect) {
    connectWith("100", "200", "200,200", false);
    EXPECT_EQ(sent("CONNECT").at(0).headers.at("heart-beat"), "100,200");
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    EXPECT_EQ(broker.heartBeatsReceived(), 0);
    EXPECT_FALSE(log.countStartingWith(kLossPrefix) > 0);
    EXPECT_TRUE(client->isConnected());
}

} // namespace
} // namespace test
} // namespace tavren
