// SPDX-License-Identifier: Apache-2.0
// Soak against a real broker that is stopped and started again and again,
// while one client sends at a steady rate and listens, and a second client
// listens too.
//
// Client A sends persistent messages from one thread, each with a receipt
// request, alternately to queue A (A's own listener) and queue B (client B's
// listener). Before every stop, client B pauses its listener, so queue B
// holds a backlog while the broker is down; B resumes once it is connected
// again. Every message the broker accepted (its RECEIPT came back) must have
// reached a listener by the end, at least once: duplicates after a reconnect
// are allowed and counted. The process's file descriptors, threads, resident
// memory and heap in use, measured while nothing is in flight after a
// warm-up and again at the end, must not have grown beyond a small slack.
//
// A RECEIPT for a SEND is nothing the library waits for: it logs it as one
// error line ("We received a result frame ... Frame read: " and the frame's
// headers), and the logger below takes the receipt ids from there.
//
// Runs only when TAVREN_BROKER_SOAK_SECONDS is set (scripts/soak.sh sets it),
// since it restarts the brokers that the integration tests use:
//   TAVREN_BROKER_SOAK_SECONDS        seconds of traffic after the warm-up (per broker)
//   TAVREN_BROKER_SOAK_RATE           messages per second (100)
//   TAVREN_BROKER_SOAK_RESTART_EVERY  seconds between stops of the broker (30; the first at 10)
//   TAVREN_BROKER_SOAK_RABBITMQ_VERSION, TAVREN_BROKER_SOAK_ACTIVEMQ_VERSION
//                                     the protocol version offered (1.2 and 1.1)

#include "support/Footprint.h"
#include "support/Memory.h"
#include "support/RealBroker.h"
#include "support/Watchdog.h"

#include <kelvra/utility/Uuid.h>
#include <kelvra/utility/Version.h>
#include <tavren/StompClient.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace tavren {
namespace test {

// The broker's name where a test's parameter is shown, not its bytes.
void PrintTo(const RealBroker& broker, std::ostream* out) { *out << broker.name(); }

namespace {

using Clock = std::chrono::steady_clock;

int envInt(const char* name, int fallback) {
    const char* text = std::getenv(name);
    const int value = text && *text ? std::atoi(text) : 0;
    return value > 0 ? value : fallback;
}

std::string envText(const char* name, const char* fallback) {
    const char* text = std::getenv(name);
    return text && *text ? text : fallback;
}

/**
 * What happened to each message, by sequence number. All of it is allocated
 * and touched before the first measurement, so the test's own bookkeeping
 * does not show as growth.
 */
class Tally {
public:
    explicit Tally(size_t capacity)
        : accepted_(capacity, 0), delivered_(capacity, 0), sentAtMs_(capacity, 0), heldOver_(capacity, 0) {}

    size_t capacity() const { return accepted_.size(); }

    void sent(size_t seq, uint32_t atMs) {
        std::lock_guard<std::mutex> lock(mutex);
        sentAtMs_[seq] = atMs;
        sentCount = std::max(sentCount, seq + 1);
    }
    void accept(size_t seq) {
        std::lock_guard<std::mutex> lock(mutex);
        if (seq >= accepted_.size()) return;
        ++accepted_[seq];
        ++receipts;
    }
    void deliver(size_t seq) {
        std::lock_guard<std::mutex> lock(mutex);
        if (seq >= delivered_.size()) {
            ++foreign;
            return;
        }
        ++delivered_[seq];
    }

    /** Marks the messages of queue B (odd numbers) the broker holds now: accepted, not delivered yet. */
    size_t markHeldOver() {
        std::lock_guard<std::mutex> lock(mutex);
        size_t n = 0;
        for (size_t seq = 1; seq < sentCount; seq += 2) {
            if (accepted_[seq] && !delivered_[seq] && !heldOver_[seq]) {
                heldOver_[seq] = 1;
                ++n;
            }
        }
        return n;
    }

    struct Summary {
        size_t sent = 0, accepted = 0, delivered = 0, deliveries = 0, duplicates = 0, unconfirmedDelivered = 0,
               lost = 0, heldOver = 0, heldOverDelivered = 0, receipts = 0, foreign = 0;
        std::vector<size_t> lostExamples;
    };

    Summary summary() const {
        std::lock_guard<std::mutex> lock(mutex);
        Summary s;
        s.sent = sentCount;
        s.receipts = receipts;
        s.foreign = foreign;
        for (size_t seq = 0; seq < sentCount; ++seq) {
            const bool accepted = accepted_[seq] > 0, delivered = delivered_[seq] > 0;
            if (accepted) ++s.accepted;
            if (delivered) ++s.delivered;
            s.deliveries += delivered_[seq];
            if (delivered_[seq] > 1) s.duplicates += delivered_[seq] - 1;
            if (delivered && !accepted) ++s.unconfirmedDelivered;
            if (accepted && !delivered) {
                ++s.lost;
                if (s.lostExamples.size() < 20) s.lostExamples.push_back(seq);
            }
            if (heldOver_[seq]) {
                ++s.heldOver;
                if (delivered) ++s.heldOverDelivered;
            }
        }
        return s;
    }

    /** True when every accepted message has been delivered. */
    bool allAcceptedDelivered() const {
        std::lock_guard<std::mutex> lock(mutex);
        for (size_t seq = 0; seq < sentCount; ++seq) {
            if (accepted_[seq] && !delivered_[seq]) return false;
        }
        return true;
    }

    size_t receiptCount() const {
        std::lock_guard<std::mutex> lock(mutex);
        return receipts;
    }

    uint32_t sentAtMs(size_t seq) const {
        std::lock_guard<std::mutex> lock(mutex);
        return sentAtMs_[seq];
    }

private:
    mutable std::mutex mutex;
    std::vector<uint16_t> accepted_, delivered_;
    std::vector<uint32_t> sentAtMs_;
    std::vector<uint8_t> heldOver_;
    size_t sentCount = 0, receipts = 0, foreign = 0;
};

const std::string kStrayResultLead = "We received a result frame (RECEIPT or ERROR) from the broker, but we do not "
                                     "remember sending a frame that required it. Frame read: ";

/** The "name:value" header lines of a frame dump in a log line. */
std::map<std::string, std::string> dumpedHeaders(const std::string& line) {
    std::map<std::string, std::string> headers;
    const std::string begin = "<<<<<<<<<<  HDRS >>>>>>>>>>\n", end = "<<<<<<<<<<  END HDRS >>>>>>>>>>";
    size_t at = line.find(begin);
    const size_t stop = line.find(end);
    if (at == std::string::npos || stop == std::string::npos) return headers;
    at += begin.size();
    while (at < stop) {
        size_t eol = line.find('\n', at);
        if (eol == std::string::npos || eol > stop) eol = stop;
        const std::string header = line.substr(at, eol - at);
        const size_t colon = header.find(':');
        if (colon != std::string::npos) headers[header.substr(0, colon)] = header.substr(colon + 1);
        at = eol + 1;
    }
    return headers;
}

/**
 * Takes the receipt ids of SENDs out of the library's lines and prints the
 * rest with the time since the start, each kind of line only its first few
 * times (a send while the broker is down logs three lines), counting them all.
 */
class SoakLogger : public tavren::Logger {
public:
    SoakLogger(const char* name, Tally& tally, const std::string& receiptPrefix, Clock::time_point start)
        : name(name), tally(tally), receiptPrefix(receiptPrefix), start(start) {}

    void logInfo(const std::string& message) override { note("INFO: " + message); }

    void logError(const std::string& message) override {
        if (message.compare(0, kStrayResultLead.size(), kStrayResultLead) == 0) {
            const auto headers = dumpedHeaders(message);
            auto id = headers.find("receipt-id");
            // A RECEIPT carries nothing but its id; an ERROR has a "message" header.
            if (id != headers.end() && headers.size() == 1 &&
                id->second.compare(0, receiptPrefix.size(), receiptPrefix) == 0) {
                tally.accept(std::strtoul(id->second.c_str() + receiptPrefix.size(), nullptr, 10));
                return;
            }
            ++refusals;
        }
        note("ERROR: " + message);
    }

    int connections() const { return connected.load(); }
    int subscriptions() const { return subscribed.load(); }
    int refused() const { return refusals.load(); }

    /** How often each kind of line came, most frequent first. */
    std::vector<std::pair<int, std::string>> counts() const {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<std::pair<int, std::string>> result;
        for (const auto& kind : kinds) result.emplace_back(kind.second, kind.first);
        std::sort(result.rbegin(), result.rend());
        return result;
    }

private:
    void note(const std::string& line) {
        if (line == "INFO: Connected.") ++connected;
        if (line.compare(0, 32, "INFO: Subscribed to destination ") == 0) ++subscribed;
        // The kind of a line: its first line, without a frame dump, cut
        // short, every number as N.
        std::string kind;
        for (char c : line.substr(0, std::min(line.find('\n'), size_t(100)))) {
            if (!std::isdigit(static_cast<unsigned char>(c))) {
                kind += c;
            } else if (kind.empty() || kind.back() != 'N') {
                kind += 'N';
            }
        }
        int seen;
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (kinds.size() >= 64 && kinds.find(kind) == kinds.end()) kind = "(other lines)";
            seen = ++kinds[kind];
        }
        if (seen <= 3 || line == "INFO: Connected.") {
            const double t = std::chrono::duration<double>(Clock::now() - start).count();
            std::printf("[%7.1f s %s] %s%s\n", t, name, line.c_str(), seen == 3 ? "  (further ones counted only)" : "");
            std::fflush(stdout);
        }
    }

    const char* name;
    Tally& tally;
    const std::string receiptPrefix;
    const Clock::time_point start;
    std::atomic<int> connected{0}, subscribed{0}, refusals{0};
    mutable std::mutex mutex;
    std::map<std::string, int> kinds;
};

/** Counts what it is handed by the sequence number at the start of the text; always processes it. */
class SoakListener : public tavren::Listener {
public:
    explicit SoakListener(Tally& tally) : tally(tally) {}

    int onMessage(kelvra::SharedPtr<tavren::Message> message) override {
        ++entered;
        const char* text = message->text();
        if (text && std::strncmp(text, "soak ", 5) == 0) {
            tally.deliver(std::strtoul(text + 5, nullptr, 10));
        } else {
            tally.deliver(tally.capacity()); // counted as foreign
        }
        ++finished;
        return 0;
    }

    bool idle() const { return entered.load() == finished.load(); }

private:
    Tally& tally;
    std::atomic<long> entered{0}, finished{0};
};

/** Polls condition every 50 ms for up to timeoutMs; true once it holds. */
template <typename Condition>
bool within(int timeoutMs, Condition condition) {
    const auto until = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (Clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

class BrokerRestartSoak : public ::testing::TestWithParam<RealBroker> {};

TEST_P(BrokerRestartSoak, EveryAcceptedMessageArrivesAndNothingGrows) {
    if (!std::getenv("TAVREN_BROKER_SOAK_SECONDS")) {
        GTEST_SKIP() << "set TAVREN_BROKER_SOAK_SECONDS (or run scripts/soak.sh): this test restarts the broker";
    }
    const RealBroker& broker = GetParam();
    const int seconds = envInt("TAVREN_BROKER_SOAK_SECONDS", 30);
    const int rate = envInt("TAVREN_BROKER_SOAK_RATE", 100);
    const int restartEvery = envInt("TAVREN_BROKER_SOAK_RESTART_EVERY", 30);
    const std::string version = broker.isActiveMQ() ? envText("TAVREN_BROKER_SOAK_ACTIVEMQ_VERSION", "1.1")
                                                    : envText("TAVREN_BROKER_SOAK_RABBITMQ_VERSION", "1.2");
    // The first stop 10 s into the run, then one every restartEvery seconds,
    // as long as the broker is back (RabbitMQ needs about 10 s for a stop
    // and a start) with time to spare before the end.
    const int firstStop = 10, pauseLead = 4, tailAfterStop = 15;
    // Warm-up, every restart, the drain and the checks: 30 minutes of slack
    // beyond the run itself would be a hang.
    Watchdog watchdog(seconds + 30 * 60);
    ASSERT_TRUE(broker.answers()) << broker.howToStart();

    Tally tally(static_cast<size_t>(rate) * (seconds + 60) + 1000);
    const Clock::time_point start = Clock::now();
    const std::string run = kelvra::utility::generateUuid().substr(0, 8);
    const std::string queueA = "tavren-soak-" + run + "-a", queueB = "tavren-soak-" + run + "-b";
    const std::string receiptPrefix = "soak-" + run + "-";
    SoakLogger logA("A", tally, receiptPrefix, start), logB("B", tally, receiptPrefix, start);
    SoakListener listenerA(tally), listenerB(tally);
    std::printf("%s, protocol %s, queues /queue/%s and /queue/%s, %d s at %d messages/s, a restart every %d s\n",
                broker.name().c_str(), version.c_str(), queueA.c_str(), queueB.c_str(), seconds, rate, restartEvery);

    auto clientA = std::make_unique<StompClient>("127.0.0.1", broker.port(), "guest", "guest", &logA, nullptr);
    auto clientB = std::make_unique<StompClient>("127.0.0.1", broker.port(), "guest", "guest", &logB, nullptr);
    clientA->openConnection(1000, kelvra::utility::Version(version));
    clientB->openConnection(1000, kelvra::utility::Version(version));
    ASSERT_TRUE(clientA->isConnected() && clientB->isConnected());
    clientA->listenOnQueue(queueA, &listenerA);
    clientB->listenOnQueue(queueB, &listenerB);
    ASSERT_EQ(logA.subscriptions(), 1);
    ASSERT_EQ(logB.subscriptions(), 1);

    // The sender: one message every 1/rate s, on the clock; a send held up
    // (by a connection attempt, say) delays the next ones, never bunches them.
    std::atomic<bool> stopSending{false}, pauseSending{false}, senderIdle{false};
    std::atomic<size_t> exceptions{0};
    const std::string padding(200, 'x');
    std::thread sender([&] {
        const auto interval = std::chrono::microseconds(1000000 / rate);
        auto next = Clock::now();
        for (size_t seq = 0; !stopSending && seq < tally.capacity(); ++seq) {
            while (pauseSending && !stopSending) {
                senderIdle = true;
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                next = Clock::now();
            }
            senderIdle = false;
            const std::string text = "soak " + std::to_string(seq) + " " + padding;
            HeaderMap headers{{"receipt", receiptPrefix + std::to_string(seq)}, {"persistent", "true"}};
            tally.sent(seq, static_cast<uint32_t>(
                                std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count()));
            try {
                clientA->sendToQueue(seq % 2 ? queueB : queueA, text.c_str(), &headers);
            } catch (const std::exception&) {
                ++exceptions;
            }
            next += interval;
            const auto now = Clock::now();
            if (next < now - interval) next = now;
            std::this_thread::sleep_until(next);
        }
        senderIdle = true;
    });
    struct Joiner {
        std::atomic<bool>& stop;
        std::thread& thread;
        ~Joiner() {
            stop = true;
            if (thread.joinable()) thread.join();
        }
    } joiner{stopSending, sender};

    // Nothing in flight: the sender waits, the receipts have stopped coming,
    // every accepted message has been handed over and its listener returned.
    auto settle = [&](int timeoutMs) {
        pauseSending = true;
        bool ok = within(timeoutMs, [&] { return senderIdle.load(); });
        size_t receipts = tally.receiptCount();
        auto lastChange = Clock::now();
        ok = within(timeoutMs,
                    [&] {
                        const size_t now = tally.receiptCount();
                        if (now != receipts) {
                            receipts = now;
                            lastChange = Clock::now();
                        }
                        return Clock::now() - lastChange > std::chrono::milliseconds(1500);
                    }) &&
             ok;
        ok = within(timeoutMs, [&] { return tally.allAcceptedDelivered() && listenerA.idle() && listenerB.idle(); }) &&
             ok;
        std::this_thread::sleep_for(std::chrono::milliseconds(500)); // the last ACKs go out
        return ok;
    };
    auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    auto progress = [&](const char* what) {
        const Tally::Summary s = tally.summary();
        std::printf("[%7.1f s] %s: sent %zu, accepted %zu, delivered %zu (%zu duplicates); %s\n", elapsed(), what,
                    s.sent, s.accepted, s.delivered, s.duplicates, Footprint::now().describe().c_str());
        std::fflush(stdout);
    };

    // Warm-up: traffic for a few seconds, so that the connections, worker
    // stacks and the allocator's arenas are in use before the first measurement.
    std::this_thread::sleep_for(std::chrono::seconds(5));
    ASSERT_TRUE(settle(30000)) << "the warm-up's messages did not all arrive";
    const Footprint before = Footprint::now();
    progress("after the warm-up");
    pauseSending = false;

    const Clock::time_point runStart = Clock::now();
    auto at = [&](int s) { return runStart + std::chrono::seconds(s); };
    int restarts = 0, resubscribedWhilePaused = 0;
    std::vector<double> stopSeconds, startSeconds;
    size_t heldOver = 0;
    for (int stopAt = firstStop; stopAt + tailAfterStop <= seconds; stopAt += restartEvery) {
        std::this_thread::sleep_until(at(stopAt - pauseLead));
        // Queue B keeps what arrives from here on through the restart.
        clientB->pauseAllListeners();
        std::this_thread::sleep_until(at(stopAt));
        heldOver += tally.markHeldOver();
        progress("stopping the broker");
        const int subscribedBefore = logB.subscriptions();
        auto t0 = Clock::now();
        ASSERT_TRUE(broker.stop()) << "could not stop " << broker.name();
        auto t1 = Clock::now();
        bool started = broker.start();
        if (!started) started = broker.start(); // one more try before giving up
        ASSERT_TRUE(started) << "could not start " << broker.name() << " again";
        auto t2 = Clock::now();
        stopSeconds.push_back(std::chrono::duration<double>(t1 - t0).count());
        startSeconds.push_back(std::chrono::duration<double>(t2 - t1).count());
        ++restarts;
        progress("the broker answers again");
        ASSERT_TRUE(within(60000, [&] { return clientA->isConnected() && clientB->isConnected(); }))
            << "the clients did not connect again within 60 s";
        // A connection subscribes right after its CONNECTED. The header says
        // a paused listener is subscribed again by resumeAllListeners only,
        // but the client's own reconnect subscribes it too; resuming it then
        // would subscribe it a second time, so B resumes only when the
        // reconnect did not.
        std::this_thread::sleep_for(std::chrono::seconds(1));
        if (logB.subscriptions() != subscribedBefore) {
            ++resubscribedWhilePaused;
        } else {
            clientB->resumeAllListeners();
        }
    }
    std::this_thread::sleep_until(at(seconds));

    // The end: everything the broker accepted arrives, and the footprint
    // comes back to what it was after the warm-up (the sender thread still
    // there, waiting, as it was then).
    const bool settled = settle(120000);
    progress("sending stopped");
    Footprint after = Footprint::now();
    within(10000, [&] {
        after = Footprint::now();
        return after.fds <= before.fds && after.threads <= before.threads;
    });
    progress("at the end");
    stopSending = true;
    sender.join();

    const Tally::Summary s = tally.summary();
    const long rssSlackKiB = std::max(4096L, before.rssKiB / 10), heapSlackKiB = 1024;
    std::printf("\nLines the library logged (count, first 100 characters):\n");
    for (const auto* log : {&logA, &logB}) {
        for (const auto& kind : log->counts())
            std::printf("  %s %6d  %s\n", log == &logA ? "A" : "B", kind.first, kind.second.c_str());
    }
    std::printf(
        "\nSOAK %s protocol %s: %d s at %d/s, %d restarts (stop %s s, start %s s)\n", broker.name().c_str(),
        version.c_str(), seconds, rate, restarts,
        [&] {
            std::string t;
            for (double v : stopSeconds) t += (t.empty() ? "" : "/") + std::to_string(v).substr(0, 4);
            return t.empty() ? std::string("-") : t;
        }()
            .c_str(),
        [&] {
            std::string t;
            for (double v : startSeconds) t += (t.empty() ? "" : "/") + std::to_string(v).substr(0, 4);
            return t.empty() ? std::string("-") : t;
        }()
            .c_str());
    std::printf("SOAK %s messages: sent %zu, accepted %zu, delivered %zu (%zu deliveries, %zu duplicates), "
                "delivered without receipt %zu, accepted but lost %zu; held by the broker over a restart %zu, of "
                "them delivered %zu\n",
                broker.name().c_str(), s.sent, s.accepted, s.delivered, s.deliveries, s.duplicates,
                s.unconfirmedDelivered, s.lost, heldOver, s.heldOverDelivered);
    std::printf("SOAK %s connections: A %d, B %d; refused receipts %d; send exceptions %zu; foreign messages %zu; "
                "B subscribed by the reconnect while paused %d\n",
                broker.name().c_str(), logA.connections(), logB.connections(), logA.refused() + logB.refused(),
                exceptions.load(), s.foreign, resubscribedWhilePaused);
    std::printf("SOAK %s footprint: fds %ld -> %ld, threads %ld -> %ld, RSS %ld -> %ld KiB, heap %ld -> %ld KiB "
                "(slack: RSS %ld KiB, heap %ld KiB)\n",
                broker.name().c_str(), before.fds, after.fds, before.threads, after.threads, before.rssKiB,
                after.rssKiB, before.heapKiB, after.heapKiB, rssSlackKiB, heapSlackKiB);
    std::fflush(stdout);

    EXPECT_TRUE(settled) << "the end did not settle within 120 s";
    EXPECT_EQ(s.lost, 0u) << "accepted messages that never arrived";
    for (size_t seq : s.lostExamples) {
        ADD_FAILURE() << "message " << seq << " (queue " << (seq % 2 ? "B" : "A") << ", sent at "
                      << tally.sentAtMs(seq) / 1000.0 << " s) was accepted and never delivered";
    }
    EXPECT_GE(restarts, 1) << "too short a run for a restart: give it at least " << firstStop + tailAfterStop << " s";
    EXPECT_GE(logA.connections(), restarts + 1);
    EXPECT_GE(logB.connections(), restarts + 1);
    // A broker accepts nothing while it stops and starts (20 s and more for
    // RabbitMQ on a loaded machine): half of what was sent while it was up.
    double down = 0;
    for (size_t i = 0; i < stopSeconds.size(); ++i) down += stopSeconds[i] + startSeconds[i];
    const double upShare = std::max(0.0, 1.0 - down / (seconds + 5.0)); // with the 5 s of warm-up
    EXPECT_GE(s.accepted * 2.0, s.sent * upShare)
        << "the broker accepted less than half of what was sent while it was up (" << upShare * 100 << " % of the run)";
    EXPECT_EQ(s.foreign, 0u);
    EXPECT_EQ(exceptions.load(), 0u);
    EXPECT_TRUE(clientA->isConnected() && clientB->isConnected());
    EXPECT_LE(after.fds, before.fds) << "file descriptors grew";
    EXPECT_LE(after.threads, before.threads) << "threads grew";
    EXPECT_LE(after.rssKiB, before.rssKiB + rssSlackKiB) << "resident memory grew";
    EXPECT_LE(after.heapKiB, before.heapKiB + heapSlackKiB) << "heap in use grew";
    RecordProperty("sent", static_cast<int>(s.sent));
    RecordProperty("accepted", static_cast<int>(s.accepted));
    RecordProperty("lost", static_cast<int>(s.lost));
    RecordProperty("restarts", restarts);

    clientB.reset();
    clientA.reset();
}

std::string brokerName(const ::testing::TestParamInfo<RealBroker>& info) { return info.param.name(); }

INSTANTIATE_TEST_SUITE_P(RealBrokers, BrokerRestartSoak,
                         ::testing::Values(RealBroker::rabbitmq(), RealBroker::activemq()), brokerName);

} // namespace
} // namespace test
} // namespace tavren
