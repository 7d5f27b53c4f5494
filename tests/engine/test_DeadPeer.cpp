// SPDX-License-Identifier: Apache-2.0
// A peer that vanishes without closing: no FIN, no reset, every packet to it
// lost. The scripted broker runs in a network namespace of its own
// (tests/support/TestNetwork), whose link is taken down under an open
// connection; TCP keep-alive, the user time-out and the connect time-out
// must notice it, and the client must come back once the peer does. Needs
// root; skipped otherwise. Each test prints the times it measured.

#include "support/CapturingLogger.h"
#include "support/FakeBroker.h"
#include "support/RecordingListener.h"
#include "support/TestNetwork.h"
#include "support/Watchdog.h"

#include <kelvra/utility/Version.h>
#include <tavren/StompClient.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace tavren {
namespace test {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

const int kPeriodMs = 1000;

const char* const kListenTimedOut = "ERROR: while trying to listen for messages. Error 110: Connection timed out";
const char* const kDisconnected = "ERROR: Disconnected!";
const char* const kAttempting = "INFO: Attempting to connect...";
const char* const kFirstTryTimedOut = "ERROR: Failed to connect on first try, Timed out while attempting to connect.";
const char* const kResolving = "INFO: Resolving remaining message handlers...";
const char* const kRetrying = "INFO: Retrying connect...";
const char* const kRetryTimedOut = "ERROR: Reconnect failed with: Timed out while attempting to connect.";
const char* const kConnected = "INFO: Connected.";
const char* const kResuming = "INFO: Resuming all listeners...";
const char* const kReRegistering = "INFO: Re-registering listener for: /queue/q";
const char* const kRegistering = "INFO: Registering listener on /queue/q";
const char* const kSubscribed = "INFO: Subscribed to destination /queue/q successfully.";

using Lines = std::vector<std::string>;

/**
 * The whole log expected: before, then as many retries that timed out as
 * the log holds (how many depends on when the peer came back within a
 * retry's period), then after.
 */
Lines expectedLog(const CapturingLogger& log, Lines before, const Lines& after) {
    const size_t failed = log.count(kRetryTimedOut);
    std::printf("[ measured ] %zu retries timed out before the peer came back\n", failed);
    for (size_t i = 0; i < failed; ++i) {
        before.push_back(kRetrying);
        before.push_back(kRetryTimedOut);
    }
    before.insert(before.end(), after.begin(), after.end());
    return before;
}

class DeadPeer : public ::testing::Test {
protected:
    // Below the 120 s ctest allows, so that a hang ends with the watchdog's line naming the test.
    DeadPeer() : watchdog(110) {}

    void SetUp() override {
        if (!network.usable()) GTEST_SKIP() << "no network namespace for a vanishing peer: " << network.problem();
        // Made inside the namespace: the broker's sockets, and its serving thread, stay there.
        ASSERT_TRUE(network.runInside([this] { broker.reset(new FakeBroker(network.peerAddress())); }))
            << network.problem();
        ASSERT_NE(broker->port(), 0) << "the broker could not listen on " << network.peerAddress();
    }

    void TearDown() override {
        if (HasFailure()) {
            for (const std::string& line : log.lines()) std::fprintf(stderr, "  log: %s\n", line.c_str());
        }
        client.reset();
        broker.reset();
    }

    void makeClient() { client.reset(new StompClient(network.peerAddress(), broker->port(), &log, nullptr)); }

    void connect() {
        makeClient();
        client->openConnection(kPeriodMs, kelvra::utility::Version("1.2"));
        ASSERT_TRUE(client->isConnected());
    }

    /** Prints a measured time and keeps it in the test's XML report. */
    void report(const std::string& what, double seconds) {
        std::printf("[ measured ] %s: %.1f s\n", what.c_str(), seconds);
        std::fflush(stdout);
        RecordProperty(what + "_ms", static_cast<int>(seconds * 1000));
    }

    /** A message pushed by the broker reaches listener and is acknowledged on the newest connection. */
    void expectMessageFlows(RecordingListener& listener) {
        const int seen = listener.count();
        ASSERT_TRUE(broker->waitFor(
            [&] {
                const std::vector<RecordedFrame> subscribes = broker->framesWithCommand("SUBSCRIBE");
                return !subscribes.empty() && subscribes.back().connection == broker->connectionCount();
            },
            10000));
        ASSERT_TRUE(broker->waitForSubscription("/queue/q", 10000));
        ASSERT_TRUE(broker->pushMessage("/queue/q", "after the peer came back"));
        ASSERT_TRUE(listener.waitFinished(seen + 1, 10000));
        EXPECT_EQ(listener.received().back().text, "after the peer came back");
        ASSERT_TRUE(broker->waitForFrames("ACK", 1, 10000));
        EXPECT_EQ(broker->framesWithCommand("ACK").back().connection, broker->connectionCount());
    }

    Watchdog watchdog; // first member: it outlives everything the test does
    TestNetwork network;
    std::unique_ptr<FakeBroker> broker;
    CapturingLogger log;
    // A member, so that it outlives the client, which TearDown ends.
    RecordingListener listener;
    std::unique_ptr<StompClient> client;
};

TEST_F(DeadPeer, IdleConnectionToAVanishedPeerIsNoticedAndMadeAgain) {
    connect();
    client->listenOnQueue("q", &listener);
    ASSERT_TRUE(broker->waitForSubscription("/queue/q"));

    ASSERT_TRUE(network.peerVanishes()) << network.problem();
    const auto down = Clock::now();
    // Keep-alive probes from 20 s of silence on, every 5 s; the user
    // time-out gives up 40 s after the last word from the peer (the RECEIPT
    // of the subscription, a moment before the link went down).
    ASSERT_TRUE(log.waitFor(kListenTimedOut, 1, 70000)) << "not noticed within 70 s";
    const double noticed = secondsSince(down);
    report("idle_peer_noticed_after_link_down", noticed);
    EXPECT_GE(noticed, 20.0) << "noticed before the first keep-alive probe could have gone unanswered";
    EXPECT_LT(noticed, 70.0);

    // The attempt made at once meets the silent peer: the connect time-out ends it.
    ASSERT_TRUE(log.waitFor(kFirstTryTimedOut, 1, 20000));
    const double attempt = secondsSince(down) - noticed;
    report("reconnect_attempt_to_vanished_peer", attempt);
    EXPECT_GE(attempt, 4.5);
    EXPECT_LT(attempt, 10.0);
    EXPECT_FALSE(client->isConnected());

    // Back on the timer once the peer is.
    ASSERT_TRUE(network.peerReturns()) << network.problem();
    const auto up = Clock::now();
    ASSERT_TRUE(log.waitFor(kConnected, 2, 30000)) << "not connected again within 30 s of the peer's return";
    report("connected_again_after_link_up", secondsSince(up));
    expectMessageFlows(listener);
    EXPECT_TRUE(client->isConnected());
    EXPECT_EQ(broker->connectionCount(), 2);
    ASSERT_TRUE(log.waitFor(kSubscribed, 2, 10000));
    EXPECT_EQ(log.lines(), expectedLog(log,
                                       {kAttempting, kConnected, kResuming, kRegistering, kSubscribed, kListenTimedOut,
                                        kDisconnected, kAttempting, kFirstTryTimedOut, kResolving},
                                       {kRetrying, kConnected, kResuming, kReRegistering, kRegistering, kSubscribed}));
}

TEST_F(DeadPeer, SendingToAVanishedPeerIsGivenUpByTheUserTimeOut) {
    connect();
    ASSERT_TRUE(network.peerVanishes()) << network.problem();

    // Small sends, four a second for 30 s: each goes into the socket at once,
    // though nothing is acknowledged any more. The sending stops well before
    // the user time-out, so that the listen thread alone meets the error.
    const auto firstSend = Clock::now();
    int sends = 0;
    double longest = 0;
    while (secondsSince(firstSend) < 30) {
        const std::string text = "sent while the peer is away " + std::to_string(sends++);
        const auto start = Clock::now();
        client->sendToQueue("q", text.c_str(), nullptr);
        longest = std::max(longest, secondsSince(start));
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
    std::printf("[ measured ] %d sends while the peer was away, the longest took %.3f s\n", sends, longest);
    EXPECT_LT(longest, 1.0);
    EXPECT_FALSE(log.contains(kDisconnected)) << "given up within 30 s";

    ASSERT_TRUE(log.waitFor(kListenTimedOut, 1, 40000)) << "not given up within 70 s of the first send";
    const double noticed = secondsSince(firstSend);
    report("sending_peer_given_up_after_first_unacknowledged_send", noticed);
    EXPECT_GE(noticed, 35.0) << "given up before the user time-out could have passed";
    EXPECT_LT(noticed, 45.0);

    ASSERT_TRUE(log.waitFor(kFirstTryTimedOut, 1, 20000));
    ASSERT_TRUE(network.peerReturns()) << network.problem();
    ASSERT_TRUE(log.waitFor(kConnected, 2, 30000)) << "not connected again within 30 s of the peer's return";
    client->sendToQueue("q", "after the peer came back", nullptr);
    ASSERT_TRUE(broker->waitFor(
        [&] {
            const std::vector<RecordedFrame> sent = broker->framesWithCommand("SEND");
            return !sent.empty() && sent.back().body == "after the peer came back";
        },
        10000));
    EXPECT_EQ(broker->framesWithCommand("SEND").back().connection, 2);
    // What was sent while the peer was away is lost with the connection.
    EXPECT_EQ(broker->framesWithCommand("SEND").size(), 1u);
    ASSERT_TRUE(log.waitFor(kResuming, 2, 10000));
    EXPECT_EQ(log.lines(), expectedLog(log,
                                       {kAttempting, kConnected, kResuming, kListenTimedOut, kDisconnected, kAttempting,
                                        kFirstTryTimedOut, kResolving},
                                       {kRetrying, kConnected, kResuming}));
}

TEST_F(DeadPeer, ConnectToAHostThatNeverAnswersReturnsAfterTheConnectTimeOut) {
    ASSERT_TRUE(network.peerVanishes()) << network.problem();
    makeClient();
    const auto start = Clock::now();
    client->openConnection(kPeriodMs, kelvra::utility::Version("1.2"));
    const double took = secondsSince(start);
    report("openConnection_to_silent_host", took);
    EXPECT_GE(took, 4.5) << "failed before the connect time-out: the host was not silent";
    EXPECT_LT(took, 30.0);
    EXPECT_FALSE(client->isConnected());
    // The timer's first retry comes a period later.
    const Lines atReturn = log.lines();
    ASSERT_GE(atReturn.size(), 2u);
    EXPECT_EQ(Lines(atReturn.begin(), atReturn.begin() + 2), (Lines{kAttempting, kFirstTryTimedOut}));

    // The timer keeps trying; once the host answers, it connects.
    ASSERT_TRUE(network.peerReturns()) << network.problem();
    ASSERT_TRUE(log.waitFor(kResuming, 1, 30000)) << "not connected within 30 s of the host's return";
    EXPECT_TRUE(client->isConnected());
    EXPECT_EQ(log.lines(), expectedLog(log, {kAttempting, kFirstTryTimedOut}, {kRetrying, kConnected, kResuming}));
}

} // namespace
} // namespace test
} // namespace tavren
