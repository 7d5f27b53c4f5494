// SPDX-License-Identifier: Apache-2.0
// A producer with an outbox and a consumer, both with heart-beats, talk to
// the real RabbitMQ through a bad link: the test host of the dead-peer tests
// (a network namespace behind a veth pair) loses packets at random, crawls,
// goes down and up, or answers late. A relay inside the namespace forwards
// to the broker (and holds bytes back for the delay), so every byte of both
// clients crosses the impaired pair. Nothing may be
// lost, no call may block past its documented bound, and every loss of the
// connection is logged and followed by a reconnect. Throughput and
// reconnects are reported (XML properties and stdout), not asserted.

#include "support/CapturingLogger.h"
#include "support/Elapsed.h"
#include "support/RealBroker.h"
#include "support/RecordingListener.h"
#include "support/RecordingRelay.h"
#include "support/TestNetwork.h"
#include "support/Watchdog.h"

#include <kelvra/utility/Uuid.h>
#include <kelvra/utility/Version.h>
#include <tavren/OutboxOptions.h>
#include <tavren/StompClient.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>

namespace tavren {
namespace test {
namespace {

// Traffic for this long in each case, at about this many messages a second.
const int kTrafficSeconds = 60;
const int kMessagesPerSecond = 20;
// sendToQueue with an outbox in memory returns at once (docs/reliability.md);
// this leaves room for a loaded machine.
const long long kSendBoundMs = 1000;
const int kConfirmTimeoutMs = 60000;

class BadNetwork : public ::testing::Test {
protected:
    BadNetwork() : watchdog(200), heartbeat("2000", "2000") {}

    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "the bad network needs root (a network namespace, nftables, tc)";
        if (!net.usable()) GTEST_SKIP() << net.problem();
        ASSERT_TRUE(broker.answers()) << broker.howToStart();
        const int listener = net.listenInside();
        ASSERT_GE(listener, 0) << net.problem();
        relay.reset(new RecordingRelay(broker.port(), listener));
    }

    std::unique_ptr<StompClient> client(CapturingLogger& log) {
        std::unique_ptr<StompClient> c(
            new StompClient(net.peerAddress(), relay->port(), "guest", "guest", &log, &heartbeat));
        c->enableHeartbeats();
        return c;
    }

    /**
     * Sends numbered messages for kTrafficSeconds while impair runs on a
     * thread of its own (it returns when stop is set), then waits for every
     * confirmation and every message, and checks and reports it all.
     */
    void runTraffic(const std::string& name, const std::function<void(std::atomic<bool>& stop)>& impair,
                    int perSecond = kMessagesPerSecond) {
        const std::string queue = "tavren-it-badnet-" + name + "-" + kelvra::utility::generateUuid().substr(0, 8);
        CapturingLogger producerLog, consumerLog;
        RecordingListener listener;
        auto consumer = client(consumerLog);
        consumer->setMaxWorkers(1);
        consumer->openConnection(1000, kelvra::utility::Version("1.2"));
        ASSERT_TRUE(consumer->isConnected());
        consumer->listenOnQueue(queue, &listener);
        auto producer = client(producerLog);
        producer->useOutbox(OutboxOptions());
        producer->openConnection(1000, kelvra::utility::Version("1.2"));
        ASSERT_TRUE(producer->isConnected());

        std::atomic<bool> stop{false};
        std::thread impairer([&] { impair(stop); });
        const Clock::time_point start = Clock::now();
        int sent = 0;
        long long slowestSend = 0;
        const std::string padding(64, '.');
        while (msSince(start) < kTrafficSeconds * 1000L) {
            const Clock::time_point before = Clock::now();
            producer->sendToQueue(queue, (std::to_string(sent) + " " + padding).c_str(), nullptr);
            slowestSend = std::max(slowestSend, msSince(before));
            ++sent;
            usleep(static_cast<useconds_t>(1000000 / perSecond));
        }
        stop = true;
        impairer.join();

        const Clock::time_point waiting = Clock::now();
        const bool confirmed = producer->waitForConfirmations(kConfirmTimeoutMs);
        const long long waited = msSince(waiting);
        const long long confirmedAfter = msSince(start);
        std::set<int> seen;
        size_t arrivals = 0;
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(60);
        while (static_cast<int>(seen.size()) < sent && Clock::now() < deadline) {
            const std::vector<Received> received = listener.received();
            for (size_t i = arrivals; i < received.size(); ++i) seen.insert(std::stoi(received[i].text));
            arrivals = received.size();
            usleep(100000);
        }
        const long long receivedAfter = msSince(start);
        const int duplicates = static_cast<int>(arrivals - seen.size());

        EXPECT_TRUE(confirmed) << producer->pendingMessages() << " of " << sent << " not confirmed";
        EXPECT_EQ(static_cast<int>(seen.size()), sent) << "messages lost";
        EXPECT_LE(slowestSend, kSendBoundMs) << "a sendToQueue blocked";
        EXPECT_LE(waited, kConfirmTimeoutMs + 1000LL) << "waitForConfirmations blocked past its time-out";
        // Every lost connection is logged and followed by a reconnect: one
        // "Connected." for the first connection and one per loss.
        const size_t producerLosses = producerLog.count("ERROR: Disconnected!");
        const size_t consumerLosses = consumerLog.count("ERROR: Disconnected!");
        EXPECT_EQ(producerLog.count("INFO: Connected."), producerLosses + 1);
        EXPECT_EQ(consumerLog.count("INFO: Connected."), consumerLosses + 1);
        EXPECT_TRUE(producer->isConnected());
        EXPECT_TRUE(consumer->isConnected());

        const double confirmedPerSecond = sent * 1000.0 / std::max(1LL, confirmedAfter);
        RecordProperty("sent", sent);
        RecordProperty("duplicates", duplicates);
        RecordProperty("producer_reconnects", static_cast<int>(producerLosses));
        RecordProperty("consumer_reconnects", static_cast<int>(consumerLosses));
        RecordProperty("slowest_send_ms", static_cast<int>(slowestSend));
        RecordProperty("confirm_wait_ms", static_cast<int>(waited));
        RecordProperty("all_confirmed_after_ms", static_cast<int>(confirmedAfter));
        RecordProperty("all_received_after_ms", static_cast<int>(receivedAfter));
        RecordProperty("confirmed_per_second", std::to_string(confirmedPerSecond));
        std::printf("%s: sent %d in %d s, all confirmed after %.1f s (%.1f/s), all received after %.1f s, "
                    "%d duplicates, reconnects producer %zu consumer %zu, slowest send %lld ms, "
                    "confirmation wait %lld ms\n",
                    name.c_str(), sent, kTrafficSeconds, confirmedAfter / 1000.0, confirmedPerSecond,
                    receivedAfter / 1000.0, duplicates, producerLosses, consumerLosses, slowestSend, waited);
        if (HasFailure()) {
            for (const std::string& line : producerLog.lines()) std::printf("producer: %s\n", line.c_str());
            for (const std::string& line : consumerLog.lines()) std::printf("consumer: %s\n", line.c_str());
        }
        producer->closeConnection();
        consumer->closeConnection();
    }

    /** Waits up to ms, or less once stop is set. */
    static void pause(std::atomic<bool>& stop, long long ms) {
        const Clock::time_point start = Clock::now();
        while (!stop && msSince(start) < ms) usleep(50000);
    }

    Watchdog watchdog;
    std::pair<std::string, std::string> heartbeat;
    RealBroker broker = RealBroker::rabbitmq();
    TestNetwork net;
    std::unique_ptr<RecordingRelay> relay;
};

TEST_F(BadNetwork, ThreePercentLossEachWayLosesNothing) {
    ASSERT_TRUE(net.dropRandomly(3)) << net.problem();
    runTraffic("loss3", [](std::atomic<bool>&) {});
}

TEST_F(BadNetwork, TwoHundredFiftySixKbitPerSecondLosesNothing) {
    ASSERT_TRUE(net.limitRate("256kbit")) << net.problem();
    runTraffic("256kbit", [](std::atomic<bool>&) {});
}

TEST_F(BadNetwork, TrafficBeyondTwoHundredFiftySixKbitPerSecondLosesNothing) {
    // 80 messages a second, more than the link carries towards the clients:
    // the broker's MESSAGE frames (about 450 bytes each with the TCP and IP
    // headers) alone need about 290 kbit/s, so a backlog builds up on the
    // broker while the producer's side keeps up, and drains after the
    // traffic (about 35 s).
    ASSERT_TRUE(net.limitRate("256kbit")) << net.problem();
    runTraffic(
        "256kbit-full", [](std::atomic<bool>&) {}, 80);
}

TEST_F(BadNetwork, AQuarterSecondOfDelayEachWayLosesNothing) {
    // The kernel here has no netem: the relay holds every chunk back, 150 ms
    // and up to 100 ms more at random, each way (a round trip of 300 to
    // 500 ms, as on a poor cellular link). A byte stream keeps its order,
    // so the jitter does not reorder.
    relay->setDelay(150, 100);
    runTraffic("delay", [](std::atomic<bool>&) {});
}

TEST_F(BadNetwork, LinkDownFifteenSecondsEveryFortyFiveLosesNothing) {
    int outages = 0;
    runTraffic("flap", [&](std::atomic<bool>& stop) {
        // Down at 10 s for 15 s, then every 45 s; up again when the traffic ends.
        pause(stop, 10000);
        while (!stop) {
            ASSERT_TRUE(net.peerVanishes()) << net.problem();
            ++outages;
            pause(stop, 15000);
            ASSERT_TRUE(net.peerReturns()) << net.problem();
            pause(stop, 30000);
        }
    });
    RecordProperty("outages", outages);
    EXPECT_GE(outages, 2);
}

} // namespace
} // namespace test
} // namespace tavren
