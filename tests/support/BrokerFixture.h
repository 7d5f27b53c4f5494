// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_BROKERFIXTURE_H
#define TAVREN_TEST_BROKERFIXTURE_H

#include "support/CapturingLogger.h"
#include "support/RealBroker.h"
#include "support/RecordingListener.h"
#include "support/Watchdog.h"

#include <kelvra/utility/Uuid.h>
#include <kelvra/utility/Version.h>
#include <tavren/StompClient.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace tavren {
namespace test {

/** One real broker and the one protocol version the client offers it. */
struct BrokerVersion {
    RealBroker broker;
    std::string version;
};

inline std::ostream& operator<<(std::ostream& out, const BrokerVersion& c) {
    return out << c.broker.name() << " " << c.version;
}

/** Both brokers, each with every version the client can offer. */
inline std::vector<BrokerVersion> everyBrokerAndVersion() {
    std::vector<BrokerVersion> cases;
    for (const RealBroker& broker : {RealBroker::rabbitmq(), RealBroker::activemq()}) {
        for (const char* version : {"1.0", "1.1", "1.2"}) cases.push_back(BrokerVersion{broker, version});
    }
    return cases;
}

/** "RabbitMQ_1_2": the broker and version as a name part without dots. */
inline std::string caseLabel(const BrokerVersion& c) {
    std::string name = c.broker.name() + "_" + c.version;
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
}

/** The case's part of a test's name. */
inline std::string caseName(const ::testing::TestParamInfo<BrokerVersion>& info) { return caseLabel(info.param); }

/**
 * Whether the broker accepts the library's ACK frames on this version.
 * ActiveMQ with 1.2 answers each with an ERROR (docs/brokers.md); it then
 * also sends a message twice now and then (seen on the wire: the same
 * "message-id" and "ack" twice, without "redelivered"), so tests of that
 * case check that every message arrives, not that it arrives once.
 */
inline bool ackAccepted(const BrokerVersion& c) { return !(c.broker.isActiveMQ() && c.version == "1.2"); }

/** The texts of the messages received, sorted. */
inline std::vector<std::string> texts(const std::vector<Received>& received) {
    std::vector<std::string> result;
    for (const Received& r : received) result.push_back(r.text);
    std::sort(result.begin(), result.end());
    return result;
}

/** texts sorted, each once. */
inline std::vector<std::string> distinct(std::vector<std::string> texts) {
    std::sort(texts.begin(), texts.end());
    texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
    return texts;
}

/** Polls condition every 20 ms for up to timeoutMs; true once it holds. */
template <typename Condition>
bool eventually(Condition condition, int timeoutMs) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > until) return false;
        usleep(20 * 1000);
    }
    return true;
}

/** The value of header name in headers, or "(none)". */
inline std::string headerOf(const HeaderMap& headers, const std::string& name) {
    auto it = headers.find(name);
    return it == headers.end() ? "(none)" : it->second;
}

// Starts the broker again when a test leaves it stopped, so the tests after
// it find it running.
class BrokerRestarter {
public:
    explicit BrokerRestarter(const RealBroker& broker) : broker(broker) {}
    ~BrokerRestarter() {
        if (!broker.answers()) broker.start();
    }

private:
    const RealBroker& broker;
};

/**
 * A test against a real broker on loopback, once for each broker and
 * version. Every test uses queues of its own (a fresh name each run), so
 * what an earlier test or run left in a queue never reaches it.
 *
 * Clients are made by the test body and must be declared after the
 * listeners and loggers they use, so that they go first.
 */
class BrokerTest : public ::testing::TestWithParam<BrokerVersion> {
protected:
    BrokerTest() : watchdog(240) {}

    void SetUp() override { ASSERT_TRUE(broker().answers()) << broker().howToStart(); }

    const RealBroker& broker() const { return GetParam().broker; }
    const std::string& version() const { return GetParam().version; }

    /** A client of the broker logging in as guest (or with passcode); port 0 is the broker's own. */
    std::unique_ptr<StompClient> newClient(CapturingLogger& log, const std::string& passcode = "guest", int port = 0) {
        std::unique_ptr<StompClient> client(
            new StompClient("127.0.0.1", port ? port : broker().port(), "guest", passcode, &log, nullptr));
        if (poolAndOrderedFromEnvironment()) {
            client->useWorkerPool(4);
            client->enableOrderedDelivery();
        }
        return client;
    }

    /**
     * TAVREN_IT_POOL_ORDERED=1 runs the suite once more with every client of
     * newClient on a pool of four threads with in-order delivery.
     */
    static bool poolAndOrderedFromEnvironment() {
        const char* value = getenv("TAVREN_IT_POOL_ORDERED");
        return value && std::string(value) == "1";
    }

    /** Opens client's connection with the case's version; true when it stands. */
    bool open(StompClient& client, int reconnectPeriodMs = 1000) {
        client.openConnection(reconnectPeriodMs, kelvra::utility::Version(version()));
        return client.isConnected();
    }

    /** A queue name no other test or run uses: "tavren-it-PURPOSE-RabbitMQ_1_2-1a2b3c4d". */
    std::string freshQueue(const std::string& purpose) const {
        return "tavren-it-" + purpose + "-" + caseLabel(GetParam()) + "-" +
               kelvra::utility::generateUuid().substr(0, 8);
    }

    Watchdog watchdog;
};

} // namespace test
} // namespace tavren

#endif
