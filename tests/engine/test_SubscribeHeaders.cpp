// SPDX-License-Identifier: Apache-2.0
// The application's own SUBSCRIBE headers, kept with their listener, and
// the virtual host on every CONNECT.

#include "support/EngineFixture.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace tavren {
namespace test {
namespace {

using SubscribeHeaders = EngineTest;

const HeaderMap kQuorum = {{"x-queue-type", "quorum"}, {"selector", "colour = 'red'"}};

// What a SUBSCRIBE of listenOnQueue carries, with the id and receipt it was given.
HeaderMap expectedSubscribe(const RecordedFrame& f, const std::string& destination, const HeaderMap& extra) {
    HeaderMap h = {{"ack", "client-individual"},
                   {"destination", destination},
                   {"id", f.headers.at("id")},
                   {"receipt", f.headers.at("receipt")}};
    for (const auto& e : extra) h.insert(e);
    return h;
}

TEST_F(SubscribeHeaders, GoOnTheFirstSubscribeAfterAReconnectAndAfterResume) {
    connect();
    RecordingListener listener;
    client->listenOnQueue("q", &listener, kQuorum);
    ASSERT_TRUE(broker.waitForSubscription("/queue/q"));
    RecordedFrame first = sent("SUBSCRIBE").at(0);
    EXPECT_EQ(first.headers, expectedSubscribe(first, "/queue/q", kQuorum));
    EXPECT_EQ(first.headers.at("id").rfind("subscription/", 0), 0u);

    letReconnectPeriodPass();
    broker.dropConnection();
    ASSERT_TRUE(broker.waitForConnections(2));
    ASSERT_TRUE(broker.waitForSubscription("/queue/q"));
    RecordedFrame again = sent("SUBSCRIBE").at(1);
    EXPECT_EQ(again.connection, 2);
    EXPECT_EQ(again.headers, expectedSubscribe(again, "/queue/q", kQuorum));

    client->pauseAllListeners();
    client->resumeAllListeners();
    ASSERT_TRUE(broker.waitForSubscription("/queue/q"));
    RecordedFrame resumed = sent("SUBSCRIBE").at(2);
    EXPECT_EQ(resumed.headers, expectedSubscribe(resumed, "/queue/q", kQuorum));
    ASSERT_TRUE(broker.pushMessage("/queue/q", "red"));
    ASSERT_TRUE(listener.waitFinished(1));
}

TEST_F(SubscribeHeaders, AnEmptyMapWritesWhatTheTwoArgumentFormWrites) {
    connect();
    RecordingListener a, b;
    client->listenOnQueue("a", &a);
    client->listenOnQueue("b", &b, HeaderMap());
    ASSERT_TRUE(broker.waitForSubscription("/queue/b"));
    const std::vector<RecordedFrame> frames = sent("SUBSCRIBE");
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].headers, expectedSubscribe(frames[0], "/queue/a", {}));
    EXPECT_EQ(frames[1].headers, expectedSubscribe(frames[1], "/queue/b", {}));
    EXPECT_EQ(frames[0].body, frames[1].body);
}

TEST_F(SubscribeHeaders, StoppingForgetsThemAndTheTwoArgumentFormDropsThem) {
    connect();
    RecordingListener listener;
    client->listenOnQueue("q", &listener, kQuorum);
    client->stopListeningOnQueue("q");
    client->listenOnQueue("q", &listener);
    ASSERT_TRUE(broker.waitForSubscription("/queue/q"));
    const RecordedFrame last = sent("SUBSCRIBE").back();
    EXPECT_EQ(last.headers, expectedSubscribe(last, "/queue/q", {}));
}

TEST_F(SubscribeHeaders, AHeaderTheLibraryWritesIsRefusedWithNothingWritten) {
    connect();
    log.clear();
    RecordingListener listener;
    for (const char* name : {"destination", "id", "ack", "receipt", "prefetch-count", "activemq.prefetchSize"}) {
        try {
            client->listenOnQueue("q", &listener, {{"x-queue-type", "quorum"}, {name, "1"}});
            ADD_FAILURE() << name << " was taken";
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(std::string(e.what()), std::string("The header \"") + name +
                                                 "\" is written by the library and cannot be given to listenOnQueue.");
        }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(sent("SUBSCRIBE").empty());
    EXPECT_TRUE(log.lines().empty());
}

class VirtualHost : public EngineTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(VirtualHost, GoesOnEveryConnectAsHost) {
    makeClient();
    client->setVirtualHost("quorum-vh");
    connect(GetParam());
    letReconnectPeriodPass();
    broker.dropConnection();
    ASSERT_TRUE(broker.waitForConnections(2));
    ASSERT_TRUE(broker.waitFor([&] { return sent("CONNECT").size() == 2; }));
    for (const RecordedFrame& f : sent("CONNECT")) {
        EXPECT_EQ(f.headers, (HeaderMap{{"accept-version", GetParam()}, {"heart-beat", "0,0"}, {"host", "quorum-vh"}}));
    }
}

TEST_P(VirtualHost, WithoutItOrEmptyConnectCarriesNoHost) {
    makeClient();
    client->setVirtualHost("");
    connect(GetParam());
    EXPECT_EQ(sent("CONNECT").at(0).headers, (HeaderMap{{"accept-version", GetParam()}, {"heart-beat", "0,0"}}));
}

INSTANTIATE_TEST_SUITE_P(Versions, VirtualHost, ::testing::Values("1.0", "1.1", "1.2"));

TEST_F(SubscribeHeaders, SetVirtualHostAfterOpenConnectionThrows) {
    connect();
    try {
        client->setVirtualHost("late");
        ADD_FAILURE() << "no exception";
    } catch (const std::logic_error& e) {
        EXPECT_EQ(std::string(e.what()), "setVirtualHost must be called before openConnection.");
    }
}

} // namespace
} // namespace test
} // namespace tavren
