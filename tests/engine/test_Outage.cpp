// SPDX-License-Identifier: Apache-2.0
// Registrations made and withdrawn while no connection stands.

#include "support/EngineFixture.h"

#include <string>
#include <vector>

namespace tavren {
namespace test {
namespace {

class Outage : public EngineTest {
protected:
    std::vector<RecordedFrame> subscribesOn(int connection) {
        std::vector<RecordedFrame> out;
        for (const RecordedFrame& f : sent("SUBSCRIBE")) {
            if (f.connection == connection) out.push_back(f);
        }
        return out;
    }

    // A member, so that it outlives the client, which TearDown ends: a retry
    // on the timer's thread may still be subscribing it as a test returns.
    RecordingListener listener;
};

TEST_F(Outage, ListenerRegisteredDuringAnOutageIsSubscribedOnceAConnectionStands) {
    connect();
    loseTheBroker();
    log.clear();
    client->listenOnQueue("q", &listener);
    const std::vector<std::string> lines = log.lines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[0], "INFO: Registering listener on /queue/q");
    EXPECT_EQ(lines[1].rfind("ERROR: While trying to subscribe to /queue/q. Error 20011: ", 0), 0u) << lines[1];
    EXPECT_EQ(lines[2], "INFO: The listener on /queue/q is kept and subscribed as soon as a connection stands.");
    EXPECT_EQ(lines[3], "ERROR: Disconnected!");

    ASSERT_TRUE(broker.acceptConnections());
    ASSERT_TRUE(broker.waitForSubscription("/queue/q", 10000));
    EXPECT_TRUE(log.waitFor("INFO: Re-registering listener for: /queue/q"));
    EXPECT_TRUE(log.waitFor("INFO: Subscribed to destination /queue/q successfully."));
    ASSERT_TRUE(broker.pushMessage("/queue/q", "after the outage"));
    ASSERT_TRUE(listener.waitFinished(1));
    EXPECT_EQ(listener.received().at(0).text, "after the outage");
    ASSERT_TRUE(broker.waitForFrames("ACK", 1));
}

TEST_F(Outage, ListenerKeptOnceAcrossSeveralOutages) {
    connect();
    loseTheBroker();
    client->listenOnQueue("q", &listener);
    client->listenOnQueue("q", &listener);
    EXPECT_EQ(log.count("INFO: The listener on /queue/q is kept and subscribed as soon as a connection stands."), 1u);
    ASSERT_TRUE(broker.acceptConnections());
    ASSERT_TRUE(broker.waitForSubscription("/queue/q", 10000));
    const int connection = broker.connectionCount();
    EXPECT_EQ(subscribesOn(connection).size(), 1u);
}

TEST_F(Outage, StoppingDuringAnOutageForgetsTheListener) {
    connect();
    listen("q", &listener);
    loseTheBroker();
    client->stopListeningOnQueue("q");
    ASSERT_TRUE(broker.acceptConnections());
    ASSERT_TRUE(broker.waitFor([&] { return client->isConnected(); }, 10000));
    ASSERT_TRUE(log.waitFor("INFO: Resuming all listeners...", 2));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_TRUE(subscribesOn(broker.connectionCount()).empty());
    EXPECT_FALSE(log.contains("INFO: Re-registering listener for: /queue/q"));
}

} // namespace
} // namespace test
} // namespace tavren
