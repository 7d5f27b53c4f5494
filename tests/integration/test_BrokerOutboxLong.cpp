// SPDX-License-Identifier: Apache-2.0
// The outbox against real brokers: messages sent while the broker is
// stopped, or while the client fails over to another address, all arrive,
// in the order they were sent (counting first arrivals), once confirmed.

#include "support/BrokerFixture.h"
#include "support/RecordingRelay.h"

#include <tavren/OutboxOptions.h>

#include <atomic>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tavren {
namespace test {
namespace {

class BrokerOutbox : public BrokerTest {
protected:
    /** The numbers received, in order of first arrival, and how many came twice. */
    struct Arrivals {
        std::vector<int> firsts;
        int duplicates = 0;
    };

    static Arrivals arrivals(const std::vector<Received>& received) {
        Arrivals result;
        std::set<int> seen;
        for (const Received& r : received) {
            const int n = std::stoi(r.text);
            if (seen.insert(n).second) {
                result.firsts.push_back(n);
            } else {
                ++result.duplicates;
            }
        }
        return result;
    }

    /** Every number below count, each first arriving after the one before it. */
    static void expectAllInOrder(const Arrivals& got, int count) {
        ASSERT_EQ(static_cast<int>(got.firsts.size()), count);
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(got.firsts[i], i) << "first arrivals out of order at " << i;
        }
    }

    /** A consumer that takes one message at a time, so its calls come in the order of the wire. */
    std::unique_ptr<StompClient> consumerOf(const std::string& queue, CapturingLogger& log,
                                            RecordingListener& listener) {
        auto consumer = newClient(log);
        consumer->setMaxWorkers(1);
        EXPECT_TRUE(open(*consumer));
        consumer->listenOnQueue(queue, &listener);
        return consumer;
    }

    static void printLogOnFailure(const char* who, const CapturingLogger& log) {
        for (const std::string& line : log.lines()) std::printf("%s: %s\n", who, line.c_str());
    }
};

class BrokerRestarter {
public:
    explicit BrokerRestarter(const RealBroker& broker) : broker(broker) {}
    ~BrokerRestarter() {
        if (!broker.answers()) broker.start();
    }

private:
    const RealBroker& broker;
};

TEST_P(BrokerOutbox, NothingIsLostWhileTheBrokerIsStoppedForTwentySeconds) {
    BrokerRestarter restarter(broker());
    const int total = 5000;
    const std::string queue = freshQueue("outbox-outage");
    RecordingListener listener;
    CapturingLogger consumerLog, producerLog;
    auto consumer = consumerOf(queue, consumerLog, listener);
    auto producer = newClient(producerLog);
    producer->useOutbox(OutboxOptions());
    ASSERT_TRUE(open(*producer));

    // About 250 messages a second, so that the outage falls in the middle.
    std::atomic<int> sent{0};
    std::thread sender([&] {
        for (int i = 0; i < total; ++i) {
            producer->sendToQueue(queue, std::to_string(i).c_str(), nullptr);
            ++sent;
            usleep(4000);
        }
    });
    ASSERT_TRUE(eventually([&] { return sent >= 1000; }, 60000));
    ASSERT_TRUE(broker().stop());
    const int sentAtStop = sent;
    sleep(20);
    const int sentDuringOutage = sent - sentAtStop;
    ASSERT_TRUE(broker().start());
    sender.join();

    EXPECT_TRUE(producer->waitForConfirmations(120000)) << producer->pendingMessages() << " not confirmed";
    EXPECT_TRUE(eventually([&] { return arrivals(listener.received()).firsts.size() >= size_t(total); }, 120000))
        << arrivals(listener.received()).firsts.size() << " of " << total << " arrived";
    const Arrivals got = arrivals(listener.received());
    expectAllInOrder(got, total);
    RecordProperty("sent_during_outage", sentDuringOutage);
    RecordProperty("duplicates", got.duplicates);
    std::printf("%s: %d messages sent while the broker was stopped, %d duplicates received\n", broker().name().c_str(),
                sentDuringOutage, got.duplicates);
    if (HasFailure()) {
        printLogOnFailure("producer", producerLog);
        printLogOnFailure("consumer", consumerLog);
    }
}

TEST_P(BrokerOutbox, NothingIsLostWhenTheClientFailsOverToAnotherAddress) {
    const int total = 3000;
    const std::string queue = freshQueue("outbox-failover");
    RecordingListener listener;
    CapturingLogger consumerLog, producerLog;
    auto consumer = consumerOf(queue, consumerLog, listener);
    // The first address is a relay in front of the broker, the failover one
    // the broker itself: when the relay goes, the client moves on.
    std::unique_ptr<RecordingRelay> relay(new RecordingRelay(broker().port()));
    auto producer = newClient(producerLog, "guest", relay->port());
    producer->addFailoverBroker("127.0.0.1", broker().port());
    producer->useOutbox(OutboxOptions());
    ASSERT_TRUE(open(*producer, 500));

    std::atomic<int> sent{0};
    std::thread sender([&] {
        for (int i = 0; i < total; ++i) {
            producer->sendToQueue(queue, std::to_string(i).c_str(), nullptr);
            ++sent;
            if (i % 10 == 0) usleep(5000);
        }
    });
    ASSERT_TRUE(eventually([&] { return sent >= total / 3; }, 60000));
    relay.reset(); // its connections and its port are gone
    sender.join();

    EXPECT_TRUE(producer->waitForConfirmations(60000)) << producer->pendingMessages() << " not confirmed";
    EXPECT_TRUE(producerLog.contains("INFO: Trying the broker 127.0.0.1:" + std::to_string(broker().port()) + "."));
    EXPECT_TRUE(eventually([&] { return arrivals(listener.received()).firsts.size() >= size_t(total); }, 60000))
        << arrivals(listener.received()).firsts.size() << " of " << total << " arrived";
    const Arrivals got = arrivals(listener.received());
    expectAllInOrder(got, total);
    RecordProperty("duplicates", got.duplicates);
    if (HasFailure()) printLogOnFailure("producer", producerLog);
}

// ActiveMQ on 1.1: it accepts the library's ACKs there (see BrokerFixture.h).
INSTANTIATE_TEST_SUITE_P(RealBrokers, BrokerOutbox,
                         ::testing::Values(BrokerVersion{RealBroker::rabbitmq(), "1.2"},
                                           BrokerVersion{RealBroker::activemq(), "1.1"}),
                         caseName);

} // namespace
} // namespace test
} // namespace tavren
