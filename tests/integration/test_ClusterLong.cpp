// SPDX-License-Identifier: Apache-2.0
// A producer with a file outbox and a consumer against the three-node
// RabbitMQ cluster of scripts/rabbitmq-cluster.sh (quorum queues), each with
// the three nodes as its brokers and heart-beats on, while nodes are killed
// with SIGKILL and started again: every message arrives, in order of first
// arrival, duplicates only with the same tavren-id; the time from each kill
// to the next confirmed and the next received message is recorded.
//
// ClusterSoak runs the same for TAVREN_FIELD_SOAK_SECONDS, killing a random
// node every TAVREN_FIELD_KILL_SECONDS (scripts/field-soak.sh), and skips
// itself without them. As root it also takes both clients through a bad
// link: relays inside a network namespace, behind a veth pair that loses
// TAVREN_FIELD_LOSS_PERCENT of its packets each way and goes down for 15 s
// every TAVREN_FIELD_OUTAGE_SECONDS.

#include "support/CapturingLogger.h"
#include "support/RealCluster.h"
#include "support/RecordingRelay.h"
#include "support/TestNetwork.h"
#include "support/Watchdog.h"

#include <kelvra/utility/Uuid.h>
#include <kelvra/utility/Version.h>
#include <tavren/Listener.h>
#include <tavren/Message.h>
#include <tavren/OutboxOptions.h>
#include <tavren/StompClient.h>

#include <gtest/gtest.h>

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tavren {
namespace test {
namespace {

using Clock = std::chrono::steady_clock;

long msSince(Clock::time_point start) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

/**
 * A logger that also knows the node of the connection that stands, from
 * "Trying the broker HOST:PORT." and "Connected.", with nodeOf telling the
 * node behind a port (set before the client logs).
 */
class NodeTrackingLogger : public CapturingLogger {
public:
    void logError(const std::string& message) override {
        CapturingLogger::logError(message);
        std::lock_guard<std::mutex> lock(mutex);
        timed.emplace_back(Clock::now(), "ERROR: " + message);
    }
    void logInfo(const std::string& message) override {
        CapturingLogger::logInfo(message);
        static const std::string trying = "Trying the broker ";
        std::lock_guard<std::mutex> lock(mutex);
        timed.emplace_back(Clock::now(), "INFO: " + message);
        if (message.compare(0, trying.size(), trying) == 0) {
            const size_t colon = message.rfind(':');
            tried = colon == std::string::npos ? 0 : nodeOf(std::atoi(message.c_str() + colon + 1));
        } else if (message == "Connected.") {
            current = tried;
            ++connections;
        }
    }
    int node() const {
        std::lock_guard<std::mutex> lock(mutex);
        return current;
    }
    int connected() const {
        std::lock_guard<std::mutex> lock(mutex);
        return connections;
    }

    /** The lines logged from `from` to `to`, each with its time in ms after from. */
    std::string linesBetween(Clock::time_point from, Clock::time_point to) const {
        std::lock_guard<std::mutex> lock(mutex);
        std::string out;
        for (const auto& line : timed) {
            if (line.first < from || line.first > to) continue;
            const long ms =
                static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(line.first - from).count());
            out += "  +" + std::to_string(ms) + " ms " + line.second + "\n";
        }
        return out;
    }

    std::function<int(int)> nodeOf = RealCluster::nodeOfPort;

private:
    mutable std::mutex mutex;
    std::vector<std::pair<Clock::time_point, std::string>> timed; // every line, with when it came
    int tried = 0;
    int current = 0;
    int connections = 0;
};

/** A message's number (its body), tavren-id (hashed: only compared) and when it came. */
struct Arrival {
    int number;
    bool redelivered; // the broker's "redelivered:true": handed out before, to a connection now gone
    std::uint64_t id;
    Clock::time_point at;
};

class ArrivalListener : public Listener {
public:
    int onMessage(kelvra::SharedPtr<Message> message) override {
        const HeaderMap& headers = message->headers();
        auto id = headers.find("tavren-id");
        auto redelivered = headers.find("redelivered");
        const int number = std::atoi(message->text());
        const Arrival arrival{number, redelivered != headers.end() && redelivered->second == "true",
                              std::hash<std::string>()(id == headers.end() ? "" : id->second), Clock::now()};
        std::lock_guard<std::mutex> lock(mutex);
        if (used < arrivals.size()) {
            arrivals[used] = arrival;
        } else {
            arrivals.push_back(arrival);
        }
        ++used;
        if (number >= 0) {
            if (static_cast<size_t>(number) >= seen.size()) seen.resize(static_cast<size_t>(number) * 2 + 1024, 0);
            if (!seen[static_cast<size_t>(number)]) {
                seen[static_cast<size_t>(number)] = 1;
                ++distinctNumbers;
            }
        }
        return 0;
    }
    /**
     * Makes room for count arrivals and touches it, so that the record does
     * not grow the process while it fills: what grows then is the clients.
     */
    void expect(size_t count) {
        std::lock_guard<std::mutex> lock(mutex);
        arrivals.resize(std::max(arrivals.size(), count), Arrival{-1, false, 0, Clock::time_point()});
        seen.resize(std::max(seen.size(), count), 0);
    }
    /** The distinct numbers received so far, without copying the record of arrivals. */
    int distinct() {
        std::lock_guard<std::mutex> lock(mutex);
        return distinctNumbers;
    }
    std::vector<Arrival> all() {
        std::lock_guard<std::mutex> lock(mutex);
        return std::vector<Arrival>(arrivals.begin(), arrivals.begin() + static_cast<std::ptrdiff_t>(used));
    }
    /** When a message numbered at least number first came after since; false while none has. */
    bool firstFrom(int number, Clock::time_point since, Clock::time_point* at) {
        std::lock_guard<std::mutex> lock(mutex);
        const auto end = arrivals.rend();
        for (auto it = end - static_cast<std::ptrdiff_t>(used); it != end && it->at >= since; ++it) {
            if (it->number >= number) {
                *at = it->at;
                for (auto earlier = it; earlier != end && earlier->at >= since; ++earlier) {
                    if (earlier->number >= number) *at = earlier->at;
                }
                return true;
            }
        }
        return false;
    }

private:
    std::mutex mutex;
    std::vector<Arrival> arrivals; // the first `used` are real, the rest room made by expect()
    size_t used = 0;
    std::vector<char> seen; // by number: received at least once
    int distinctNumbers = 0;
};

/** How a node crash went: which node, and the times to recover, -1 when it did not within the limit. */
struct Recovery {
    int node;
    long confirmedMs;
    long receivedMs;
};

/**
 * The three nodes reached through a bad link: a relay for each node listens
 * inside a TestNetwork's namespace, so every byte of a client crosses the
 * veth pair, which can lose packets and go down. Needs root; usable() is
 * false otherwise, and problem() says why.
 */
class BadLink {
public:
    BadLink() {
        if (::geteuid() != 0) {
            why = "the bad link needs root (a network namespace, nftables)";
            return;
        }
        if (!net.usable()) {
            why = net.problem();
            return;
        }
        for (int n = 1; n <= RealCluster::nodes; ++n) {
            const int listener = net.listenInside();
            if (listener < 0) {
                why = net.problem();
                return;
            }
            relays.emplace_back(new RecordingRelay(RealCluster::port(n), listener));
            relays.back()->stopRecording();
        }
        ready = true;
    }
    bool usable() const { return ready; }
    const std::string& problem() const { return why; }
    const std::string& host() { return net.peerAddress(); }
    int port(int node) const { return relays[static_cast<size_t>(node - 1)]->port(); }
    int nodeOfPort(int port) const {
        for (size_t i = 0; i < relays.size(); ++i) {
            if (relays[i]->port() == port) return static_cast<int>(i) + 1;
        }
        return 0;
    }

    TestNetwork net;

private:
    std::vector<std::unique_ptr<RecordingRelay>> relays;
    bool ready = false;
    std::string why;
};

/**
 * A producer (file outbox) and a consumer (one worker, so its calls follow
 * the wire) on one fresh queue of the quorum virtual host, both with all
 * three nodes, the producer starting on node 1, the consumer on node 2;
 * through link when it is given, else on loopback. expected is how many
 * arrivals the record makes room for at the start.
 */
class ClusterRun {
public:
    static constexpr int reconnectPeriodMs = 1000;

    explicit ClusterRun(size_t expected, BadLink* link = nullptr)
        : queue("tavren-field-" + kelvra::utility::generateUuid().substr(0, 8)),
          link(link),
          outboxFile("/tmp/tavren-field-outbox-" + kelvra::utility::generateUuid().substr(0, 8) + ".db"),
          heartbeat("2000", "2000") {
        listener.expect(expected);
        if (link) {
            producerLog.nodeOf = consumerLog.nodeOf = [link](int port) { return link->nodeOfPort(port); };
        }
        consumer = client(2, consumerLog);
        consumer->setMaxWorkers(1);
        producer = client(1, producerLog);
        OutboxOptions options;
        options.file = outboxFile;
        options.maxMessages = 100000;
        options.maxBytes = 64 * 1024 * 1024;
        producer->useOutbox(options);
        consumer->openConnection(reconnectPeriodMs, kelvra::utility::Version("1.2"));
        consumer->listenOnQueue(queue, &listener);
        producer->openConnection(reconnectPeriodMs, kelvra::utility::Version("1.2"));
    }

    ~ClusterRun() {
        stopSending();
        producer.reset();
        consumer.reset();
        std::remove(outboxFile.c_str());
        std::remove((outboxFile + "-wal").c_str());
        std::remove((outboxFile + "-shm").c_str());
    }

    /** Sends numbered messages from 0, one every intervalUs, until count (or stopSending). */
    void startSending(int count, int intervalUs) {
        sender = std::thread([this, count, intervalUs] {
            for (int i = 0; i < count && !stop; ++i) {
                producer->sendToQueue(queue, std::to_string(i).c_str(), nullptr);
                ++sent;
                usleep(intervalUs);
            }
        });
    }
    /** Waits until the sender has sent all it was asked to. */
    void finishSending() {
        if (sender.joinable()) sender.join();
    }
    void stopSending() {
        stop = true;
        if (sender.joinable()) sender.join();
    }

    /** Writes down what happened when (ms after the start), for events(). */
    void note(const std::string& what) {
        std::lock_guard<std::mutex> lock(eventsMutex);
        happened += " " + std::to_string(msSince(started)) + " ms: " + what + ";";
    }
    std::string events() {
        std::lock_guard<std::mutex> lock(eventsMutex);
        return "events:" + happened;
    }
    /** Starts node n again (rabbitmq-cluster.sh restart), noted. */
    bool restart(int n) {
        const bool ok = RealCluster::restart(n);
        note("node " + std::to_string(n) + (ok ? " back" : " failed to come back"));
        return ok;
    }

    /** Messages the broker confirmed, never more than it did. */
    int confirmed() const {
        const int accepted = sent;
        return accepted - static_cast<int>(producer->pendingMessages());
    }

    /**
     * Kills node n; then waits (up to limitMs) until the first message
     * accepted after the kill is confirmed, and until it is received.
     */
    Recovery crash(int n, long limitMs) {
        Recovery recovery{n, -1, -1};
        // Counted from when the node is gone (the script returns once its VM
        // has ended): what is accepted from then on needs another node.
        if (!RealCluster::kill(n)) return recovery;
        const int sentAtKill = sent;
        const Clock::time_point killed = Clock::now();
        note("node " + std::to_string(n) + " killed at message " + std::to_string(sentAtKill));
        Clock::time_point at;
        while (msSince(killed) < limitMs && (recovery.confirmedMs < 0 || recovery.receivedMs < 0)) {
            if (recovery.confirmedMs < 0 && confirmed() > sentAtKill) recovery.confirmedMs = msSince(killed);
            if (recovery.receivedMs < 0 && listener.firstFrom(sentAtKill, killed, &at)) {
                recovery.receivedMs =
                    static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(at - killed).count());
            }
            usleep(10 * 1000);
        }
        std::printf("node %d killed with %d messages sent: next confirmed after %ld ms, next received after %ld ms "
                    "(producer now on node %d, consumer on node %d)\n",
                    n, sentAtKill, recovery.confirmedMs, recovery.receivedMs, producerLog.node(), consumerLog.node());
        if (recovery.confirmedMs < 0 || recovery.receivedMs < 0 ||
            std::max(recovery.confirmedMs, recovery.receivedMs) > 2000) {
            // A slow recovery: what each client logged meanwhile, to see where the time went.
            const Clock::time_point until = Clock::now();
            std::printf("producer's lines since the kill:\n%sconsumer's lines since the kill:\n%s",
                        producerLog.linesBetween(killed, until).c_str(),
                        consumerLog.linesBetween(killed, until).c_str());
        }
        return recovery;
    }

    /** The numbers in order of first arrival, the duplicates, and any duplicate under another tavren-id. */
    struct Tally {
        std::vector<int> firsts;
        std::vector<bool> firstRedelivered; // by first arrival: the broker marked it redelivered
        int duplicates = 0;
        int foreignDuplicates = 0;
    };
    Tally tally() {
        Tally result;
        std::map<int, std::uint64_t> idOf;
        for (const Arrival& a : listener.all()) {
            auto known = idOf.find(a.number);
            if (known == idOf.end()) {
                idOf.emplace(a.number, a.id);
                result.firsts.push_back(a.number);
                result.firstRedelivered.push_back(a.redelivered);
            } else {
                ++result.duplicates;
                if (known->second != a.id) ++result.foreignDuplicates;
            }
        }
        return result;
    }

    /**
     * Every message below count arrived, and in order of first arrival, but
     * for those the broker marked redelivered: a message it had handed to a
     * connection on the killed node, which it gives out again only once the
     * cluster has noticed that node gone, after newer ones went to the
     * consumer's next connection. The first fault otherwise.
     */
    static std::string checkInOrder(const Tally& tally, int count) {
        if (static_cast<int>(tally.firsts.size()) != count) {
            return std::to_string(tally.firsts.size()) + " of " + std::to_string(count) + " arrived";
        }
        std::vector<bool> seen(static_cast<size_t>(count), false);
        int highest = -1;
        for (size_t i = 0; i < tally.firsts.size(); ++i) {
            const int number = tally.firsts[i];
            if (number < 0 || number >= count) return "a number out of range: " + std::to_string(number);
            seen[static_cast<size_t>(number)] = true;
            if (number < highest && !tally.firstRedelivered[i]) {
                return "first arrival " + std::to_string(i) + " (number " + std::to_string(number) + ") came after " +
                       std::to_string(highest) + " and was not marked redelivered";
            }
            highest = std::max(highest, number);
        }
        for (int i = 0; i < count; ++i) {
            if (!seen[static_cast<size_t>(i)]) return "number " + std::to_string(i) + " did not arrive";
        }
        return "";
    }

    /** The first arrivals that came after a higher number (each one the broker marked redelivered). */
    static int lateRedeliveries(const Tally& tally) {
        int highest = -1, late = 0;
        for (int number : tally.firsts) {
            if (number < highest) ++late;
            highest = std::max(highest, number);
        }
        return late;
    }

    /**
     * The messages whose first arrival came after that of a higher number:
     * how many, the lowest and highest, when the first and last of them
     * came (ms after start), and how many the broker marked redelivered.
     */
    std::string late() {
        std::map<int, bool> seen;
        int highest = -1, count = 0, low = 0, high = 0, redelivered = 0;
        long first = -1, last = -1;
        for (const Arrival& a : listener.all()) {
            if (!seen.emplace(a.number, true).second) continue;
            if (a.number < highest) {
                const long at =
                    static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(a.at - started).count());
                if (count == 0) low = high = a.number, first = at;
                low = std::min(low, a.number);
                high = std::max(high, a.number);
                last = at;
                ++count;
                if (a.redelivered) ++redelivered;
            }
            highest = std::max(highest, a.number);
        }
        return std::to_string(count) + " late, numbers " + std::to_string(low) + " to " + std::to_string(high) +
               ", arrived from " + std::to_string(first) + " to " + std::to_string(last) + " ms, " +
               std::to_string(redelivered) + " of them redelivered";
    }

    /** The numbers below count that never arrived, as ranges "a-b". */
    std::string missing(int count) {
        std::vector<bool> seen(static_cast<size_t>(count), false);
        for (const Arrival& a : listener.all()) {
            if (a.number >= 0 && a.number < count) seen[static_cast<size_t>(a.number)] = true;
        }
        std::string ranges;
        for (int i = 0; i < count; ++i) {
            if (seen[static_cast<size_t>(i)]) continue;
            int j = i;
            while (j + 1 < count && !seen[static_cast<size_t>(j + 1)]) ++j;
            ranges += " " + std::to_string(i) + "-" + std::to_string(j);
            i = j;
        }
        return ranges;
    }

    void printLogs() const {
        for (const std::string& line : producerLog.lines()) std::printf("producer: %s\n", line.c_str());
        for (const std::string& line : consumerLog.lines()) std::printf("consumer: %s\n", line.c_str());
    }

    const std::string queue;
    const Clock::time_point started = Clock::now();
    NodeTrackingLogger producerLog;
    NodeTrackingLogger consumerLog;
    ArrivalListener listener;
    std::unique_ptr<StompClient> producer;
    std::unique_ptr<StompClient> consumer;
    std::atomic<int> sent{0};

private:
    /** A client with node first, then the other two in turn, heart-beats on, in the quorum virtual host. */
    std::unique_ptr<StompClient> client(int first, NodeTrackingLogger& log) {
        const std::string host = link ? link->host() : "127.0.0.1";
        auto port = [this](int node) { return link ? link->port(node) : RealCluster::port(node); };
        std::unique_ptr<StompClient> c(new StompClient(host, port(first), "guest", "guest", &log, &heartbeat));
        for (int k = 1; k < RealCluster::nodes; ++k) {
            c->addFailoverBroker(host, port((first - 1 + k) % RealCluster::nodes + 1));
        }
        c->enableHeartbeats();
        c->setVirtualHost(RealCluster::virtualHost());
        return c;
    }

    BadLink* const link;
    const std::string outboxFile;
    std::pair<std::string, std::string> heartbeat;
    std::thread sender;
    std::atomic<bool> stop{false};
    std::mutex eventsMutex;
    std::string happened;
};

/** Heap bytes in use (kB), all of malloc's arenas and its mapped blocks. */
long heapInUseKiB() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long>((info.uordblks + info.hblkhd) / 1024);
}

/** Resident memory (kB) and threads of this process. */
std::pair<long, long> footprint() {
    std::ifstream status("/proc/self/status");
    std::string key;
    long rss = 0, threads = 0;
    while (status >> key) {
        if (key == "VmRSS:") status >> rss;
        if (key == "Threads:") status >> threads;
    }
    return {rss, threads};
}

class Cluster : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(RealCluster::answers()) << RealCluster::howToStart(); }
};

// Two reconnect periods plus 5 s: what a node crash may cost at most.
constexpr long recoveryGoalMs = 2 * ClusterRun::reconnectPeriodMs + 5000;

TEST_F(Cluster, NothingIsLostWhenTheProducersAndThenTheConsumersNodeIsKilled) {
    Watchdog watchdog(840);
    const int total = 20000;
    ClusterRun run(total + 1000);
    ASSERT_TRUE(run.producer->isConnected() && run.consumer->isConnected());
    ASSERT_EQ(run.producerLog.node(), 1);
    ASSERT_EQ(run.consumerLog.node(), 2);
    // About 250 messages a second: 80 s of traffic, with both crashes in it.
    run.startSending(total, 4000);
    while (run.sent < 4000) usleep(20 * 1000);

    // The producer's node; the consumer stays where it is. Then the node is
    // started again before the next crash: with two of three nodes down a
    // quorum queue stops (no majority), by design.
    const Recovery first = run.crash(run.producerLog.node(), 60000);
    EXPECT_TRUE(run.restart(first.node));
    while (run.sent < 12000) usleep(20 * 1000);
    const Recovery second = run.crash(run.consumerLog.node(), 60000);
    EXPECT_TRUE(run.restart(second.node));
    run.finishSending();
    ASSERT_EQ(run.sent, total);

    EXPECT_TRUE(run.producer->waitForConfirmations(120000)) << run.producer->pendingMessages() << " not confirmed";
    const Clock::time_point until = Clock::now() + std::chrono::seconds(120);
    while (static_cast<int>(run.tally().firsts.size()) < total && Clock::now() < until) usleep(100 * 1000);
    const ClusterRun::Tally got = run.tally();
    EXPECT_EQ(ClusterRun::checkInOrder(got, total), "")
        << "missing:" << run.missing(total) << "; " << run.late() << "; " << run.events();
    EXPECT_EQ(got.foreignDuplicates, 0) << "a message came twice under different tavren-ids";

    std::string queues;
    EXPECT_TRUE(
        RealCluster::control(std::string("list_queues -p ") + RealCluster::virtualHost() + " name type", &queues));
    EXPECT_NE(queues.find(run.queue + "\tquorum"), std::string::npos) << queues;

    EXPECT_GE(first.confirmedMs, 0);
    EXPECT_GE(first.receivedMs, 0);
    EXPECT_GE(second.confirmedMs, 0);
    EXPECT_GE(second.receivedMs, 0);
    RecordProperty("producer_node_kill_to_confirmed_ms", std::to_string(first.confirmedMs));
    RecordProperty("producer_node_kill_to_received_ms", std::to_string(first.receivedMs));
    RecordProperty("consumer_node_kill_to_confirmed_ms", std::to_string(second.confirmedMs));
    RecordProperty("consumer_node_kill_to_received_ms", std::to_string(second.receivedMs));
    RecordProperty("recovery_goal_ms", std::to_string(recoveryGoalMs));
    RecordProperty("duplicates", got.duplicates);
    RecordProperty("late_redeliveries", ClusterRun::lateRedeliveries(got));
    RecordProperty("producer_connections", run.producerLog.connected());
    RecordProperty("consumer_connections", run.consumerLog.connected());
    std::printf("cluster: %d messages, %d duplicates, %d redelivered after newer ones; producer's node killed: "
                "confirmed after %ld ms, received after "
                "%ld ms; consumer's node killed: confirmed after %ld ms, received after %ld ms (goal %ld ms); "
                "connections: producer %d, consumer %d\n",
                total, got.duplicates, ClusterRun::lateRedeliveries(got), first.confirmedMs, first.receivedMs,
                second.confirmedMs, second.receivedMs, recoveryGoalMs, run.producerLog.connected(),
                run.consumerLog.connected());
    if (HasFailure()) run.printLogs();
}

long fromEnvironment(const char* name, long fallback) {
    const char* value = std::getenv(name);
    return value && *value ? std::atol(value) : fallback;
}

TEST_F(Cluster, SoakWithARandomNodeKilledEveryFewMinutes) {
    const long seconds = fromEnvironment("TAVREN_FIELD_SOAK_SECONDS", 0);
    if (seconds <= 0) GTEST_SKIP() << "set TAVREN_FIELD_SOAK_SECONDS (scripts/field-soak.sh does)";
    const long killEvery = fromEnvironment("TAVREN_FIELD_KILL_SECONDS", 120);
    const long lossPercent = fromEnvironment("TAVREN_FIELD_LOSS_PERCENT", 2);
    const long outageEvery = fromEnvironment("TAVREN_FIELD_OUTAGE_SECONDS", 240);
    const long outageMs = 15000;
    Watchdog watchdog(static_cast<int>(seconds + 600));
    const std::pair<long, long> atStart = footprint();
    BadLink link;
    if (link.usable()) {
        if (lossPercent > 0) {
            ASSERT_TRUE(link.net.dropRandomly(static_cast<int>(lossPercent))) << link.net.problem();
        }
        std::printf("field soak: through a link that loses %ld %% of its packets each way and goes down for %ld s "
                    "every %ld s\n",
                    lossPercent, outageMs / 1000, outageEvery);
    } else {
        std::printf("field soak: on loopback, without the bad link: %s\n", link.problem().c_str());
    }
    // 100 messages a second until the time is up: room in the record for all.
    ClusterRun run(static_cast<size_t>(seconds) * 100 + 20000, link.usable() ? &link : nullptr);
    run.startSending(1 << 30, 10000);
    std::mt19937 random(static_cast<unsigned>(std::random_device()()));
    std::vector<Recovery> crashes;
    std::pair<long, long> afterOneMinute{0, 0};
    const Clock::time_point start = Clock::now();
    Clock::time_point nextKill = start + std::chrono::seconds(killEvery / 2);
    // The link goes down between crashes, never while one is being bridged.
    Clock::time_point nextOutage = start + std::chrono::seconds(outageEvery / 2);
    Clock::time_point linkBack;
    bool linkDown = false;
    int outages = 0;
    long minutesReported = 0;
    while (msSince(start) < seconds * 1000) {
        if (afterOneMinute.first == 0 && msSince(start) >= 60000) afterOneMinute = footprint();
        if (msSince(start) >= (minutesReported + 1) * 60000) {
            // What grows: the process, malloc's heap (which holds the test's
            // own record of every arrival), and that record.
            ++minutesReported;
            const std::pair<long, long> now = footprint();
            std::printf("field soak: minute %ld: RSS %ld kB, heap in use %ld kB, threads %ld, %d messages received\n",
                        minutesReported, now.first, heapInUseKiB(), now.second, run.listener.distinct());
            std::fflush(stdout);
        }
        if (link.usable() && outageEvery > 0 && !linkDown && Clock::now() >= nextOutage &&
            msSince(start) + 90000 < seconds * 1000) {
            EXPECT_TRUE(link.net.peerVanishes()) << link.net.problem();
            run.note("link down");
            linkDown = true;
            ++outages;
            linkBack = Clock::now() + std::chrono::milliseconds(outageMs);
        }
        if (linkDown && Clock::now() >= linkBack) {
            EXPECT_TRUE(link.net.peerReturns()) << link.net.problem();
            run.note("link up");
            linkDown = false;
            nextOutage = Clock::now() + std::chrono::seconds(outageEvery);
            nextKill = std::max(nextKill, Clock::now() + std::chrono::seconds(10));
        }
        if (!linkDown && Clock::now() >= nextKill && msSince(start) + 90000 < seconds * 1000) {
            const int n = static_cast<int>(random() % RealCluster::nodes) + 1;
            crashes.push_back(run.crash(n, 60000));
            EXPECT_TRUE(run.restart(n));
            nextKill = Clock::now() + std::chrono::seconds(killEvery);
            nextOutage = std::max(nextOutage, Clock::now() + std::chrono::seconds(10));
        }
        usleep(100 * 1000);
    }
    if (linkDown) {
        EXPECT_TRUE(link.net.peerReturns()) << link.net.problem();
    }
    run.stopSending();
    const int sent = run.sent;
    EXPECT_TRUE(run.producer->waitForConfirmations(120000)) << run.producer->pendingMessages() << " not confirmed";
    const int confirmed = run.confirmed();
    const Clock::time_point until = Clock::now() + std::chrono::seconds(120);
    while (run.listener.distinct() < sent && Clock::now() < until) usleep(100 * 1000);
    // Before the tally, which copies the record of every arrival: the
    // footprint is that of the clients and the record, not of the copy.
    const std::pair<long, long> atEnd = footprint();
    const long heapAtEnd = heapInUseKiB();
    const ClusterRun::Tally got = run.tally();
    const std::string order = ClusterRun::checkInOrder(got, sent);
    EXPECT_EQ(order, "") << "missing:" << run.missing(sent) << "; " << run.late() << "; " << run.events();
    EXPECT_EQ(got.foreignDuplicates, 0);
    long worst = 0;
    for (const Recovery& r : crashes) {
        EXPECT_GE(r.confirmedMs, 0) << "node " << r.node;
        EXPECT_GE(r.receivedMs, 0) << "node " << r.node;
        worst = std::max(worst, std::max(r.confirmedMs, r.receivedMs));
    }
    const int lost = sent - static_cast<int>(got.firsts.size());
    std::printf("field soak: %ld s, %zu nodes killed, link down %d times; sent %d, confirmed %d, received %zu "
                "distinct, duplicates %d, "
                "redelivered after newer ones %d, lost %d; reconnects: producer %d, consumer %d; worst recovery %ld ms "
                "(goal %ld ms); "
                "RSS %ld kB at start, %ld kB after a minute, %ld kB at the end (heap in use %ld kB); threads %ld, "
                "%ld, %ld\n",
                seconds, crashes.size(), outages, sent, confirmed, got.firsts.size(), got.duplicates,
                ClusterRun::lateRedeliveries(got), lost, run.producerLog.connected() - 1,
                run.consumerLog.connected() - 1, worst, recoveryGoalMs, atStart.first, afterOneMinute.first,
                atEnd.first, heapAtEnd, atStart.second, afterOneMinute.second, atEnd.second);
    std::printf("field soak: connections lost (\"Disconnected!\"): producer %zu, consumer %zu; %s\n",
                run.producerLog.count("ERROR: Disconnected!"), run.consumerLog.count("ERROR: Disconnected!"),
                run.events().c_str());
    RecordProperty("sent", sent);
    RecordProperty("lost", lost);
    RecordProperty("duplicates", got.duplicates);
    RecordProperty("worst_recovery_ms", std::to_string(worst));
    RecordProperty("outages", outages);
    RecordProperty("loss_percent", link.usable() ? static_cast<int>(lossPercent) : 0);
    if (HasFailure()) run.printLogs();
}

} // namespace
} // namespace test
} // namespace tavren
