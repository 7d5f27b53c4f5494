// SPDX-License-Identifier: Apache-2.0
// useWorkerPool: listener calls run on a fixed number of long-lived threads
// that start and end with the connection.
#include "support/ConcurrencyListener.h"
#include "support/EngineFixture.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

using tavren::test::ConcurrencyListener;
using tavren::test::EngineTest;
using tavren::test::threadCount;

namespace {

class WorkerPool : public EngineTest {
protected:
    // Pushes count messages to /queue/<queue>, bodies prefix0, prefix1, ...; returns their ids in order.
    std::vector<std::string> push(const std::string& queue, int count, const std::string& prefix = "m") {
        std::vector<std::string> ids;
        for (int i = 0; i < count; ++i) {
            std::string id;
            EXPECT_TRUE(broker.pushMessage("/queue/" + queue, prefix + std::to_string(i), {}, &id));
            ids.push_back(id);
        }
        return ids;
    }
    std::set<std::string> acknowledged(const std::string& command = "ACK") {
        std::set<std::string> ids;
        for (const auto& frame : sent(command)) ids.insert(frame.headers.at("id"));
        return ids;
    }
    // The number of threads once it has settled at expected (threads end a little after they are joined).
    int threadsSettlingAt(int expected) {
        for (int i = 0; i < 200 && threadCount() != expected; ++i) usleep(10 * 1000);
        return threadCount();
    }
};

TEST_F(WorkerPool, NoMoreCallsRunAtOnceThanThePoolHasThreadsAndReadingPausesMeanwhile) {
    makeClient().useWorkerPool(3);
    connect();
    ConcurrencyListener listener;
    listener.closeGate();
    listen("orders", &listener);
    const std::vector<std::string> ids = push("orders", 10);
    ASSERT_TRUE(listener.waitEntered(3));
    // The other seven wait in the socket while the three threads are busy.
    usleep(200 * 1000);
    EXPECT_EQ(listener.count(), 3u);
    EXPECT_TRUE(sent("ACK").empty());
    EXPECT_EQ(log.count("INFO: All 3 message workers are busy: reading from the broker pauses until one finishes."),
              1u);

    listener.openGate();
    ASSERT_TRUE(broker.waitForFrames("ACK", 10));
    EXPECT_EQ(acknowledged(), std::set<std::string>(ids.begin(), ids.end()));
    EXPECT_EQ(sent("ACK").size(), 10u); // each exactly once
    EXPECT_EQ(listener.most(), 3);
    EXPECT_LE(listener.threadsUsed(), 3u); // the same threads, again and again
    EXPECT_EQ(log.countStartingWith("ERROR: "), 0u);
}

TEST_F(WorkerPool, AReceiptWaitsBehindABusyPoolAndComesWhenACallReturns) {
    makeClient().useWorkerPool(1);
    connect();
    ConcurrencyListener busy;
    busy.closeGate();
    listen("orders", &busy);
    push("orders", 1);
    ASSERT_TRUE(busy.waitEntered(1));
    ConcurrencyListener other;
    std::atomic<bool> subscribed{false};
    std::thread subscriber([&] {
        client->listenOnQueue("other", &other);
        subscribed = true;
    });
    ASSERT_TRUE(broker.waitForFrames("SUBSCRIBE", 2));
    usleep(100 * 1000);
    EXPECT_FALSE(subscribed); // its RECEIPT waits in the socket
    busy.openGate();
    subscriber.join();
    EXPECT_TRUE(subscribed);
    ASSERT_TRUE(broker.waitForFrames("ACK", 1));
}

TEST_F(WorkerPool, ManyMessagesAreEachHandledAndAcknowledgedOnceOnThePoolsThreads) {
    makeClient().useWorkerPool(4);
    connect();
    ConcurrencyListener listener;
    listen("orders", &listener);
    const std::vector<std::string> ids = push("orders", 2000);
    ASSERT_TRUE(broker.waitForFrames("ACK", 2000, 20000));
    EXPECT_EQ(acknowledged(), std::set<std::string>(ids.begin(), ids.end()));
    EXPECT_EQ(sent("ACK").size(), 2000u);
    EXPECT_LE(listener.most(), 4);
    EXPECT_LE(listener.threadsUsed(), 4u);
}

// Returns at once, except for the message "slow", which waits until released (10 s at most).
class FastThenSlowListener : public tavren::Listener {
public:
    int onMessage(kelvra::SharedPtr<tavren::Message> message) override {
        if (std::string(message->text()) != "slow") return 0;
        entered = true;
        released.wait_for(std::chrono::seconds(10));
        return 0;
    }
    std::atomic<bool> entered{false};
    std::promise<void> release;
    std::shared_future<void> released{release.get_future().share()};
};

TEST_F(WorkerPool, AnAnswerHeldForTheNextCallIsWrittenWhileThatCallTurnsLong) {
    // The pool's thread writes the answers of a run of short calls together
    // once it has no next record; here its next call does not return, and
    // the answer before it must not wait for that call.
    makeClient().useWorkerPool(1);
    connect();
    FastThenSlowListener listener;
    listen("orders", &listener);
    const std::string nul(1, '\0');
    // Both in one write, so that both are read, and handed, together.
    ASSERT_TRUE(broker.sendRaw("MESSAGE\ndestination:/queue/orders\nmessage-id:fast\nack:fast\n\nfast" + nul +
                               "MESSAGE\ndestination:/queue/orders\nmessage-id:slow\nack:slow\n\nslow" + nul));
    ASSERT_TRUE(broker.waitFor([&] { return listener.entered.load(); }, 5000));
    ASSERT_TRUE(broker.waitForFrames("ACK", 1, 5000));
    EXPECT_EQ(acknowledged(), std::set<std::string>({"fast"}));
    EXPECT_EQ(sent("ACK").size(), 1u);
    listener.release.set_value();
    ASSERT_TRUE(broker.waitForFrames("ACK", 2, 5000));
    EXPECT_EQ(log.countStartingWith("ERROR: "), 0u);
}

TEST_F(WorkerPool, AListenerThatThrowsIsAnsweredWithANackAndThePoolGoesOn) {
    makeClient().useWorkerPool(1);
    connect();
    ConcurrencyListener listener;
    listen("orders", &listener);
    std::string thrown, fine;
    ASSERT_TRUE(broker.pushMessage("/queue/orders", "throw", {}, &thrown));
    ASSERT_TRUE(broker.pushMessage("/queue/orders", "fine", {}, &fine));
    ASSERT_TRUE(broker.waitForFrames("ACK", 1));
    ASSERT_TRUE(broker.waitForFrames("NACK", 1));
    EXPECT_EQ(sent("NACK")[0].headers.at("id"), thrown);
    EXPECT_EQ(sent("ACK")[0].headers.at("id"), fine);
    EXPECT_EQ(listener.threadsUsed(), 1u);
}

TEST_F(WorkerPool, CallsRunOnStacksOfTheConfiguredSize) {
    makeClient().useWorkerPool(2);
    client->setWorkerStackSize(768 * 1024);
    connect();
    size_t size = 0;
    struct Measuring : tavren::Listener {
        std::atomic<size_t>* out;
        int onMessage(kelvra::SharedPtr<tavren::Message>) override {
            pthread_attr_t attributes;
            size_t bytes = 0;
            if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
                pthread_attr_getstacksize(&attributes, &bytes);
                pthread_attr_destroy(&attributes);
            }
            *out = bytes;
            return 0;
        }
    } listener;
    std::atomic<size_t> measured{0};
    listener.out = &measured;
    listen("orders", &listener);
    push("orders", 1);
    ASSERT_TRUE(broker.waitForFrames("ACK", 1));
    size = measured;
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    EXPECT_GE(size, 768u * 1024);
#else
    EXPECT_EQ(size, 768u * 1024);
#endif
}

TEST_F(WorkerPool, ThreadsEndWithTheConnectionAndComeBackWithTheNext) {
    // The threads of a client without a pool, connected and closed.
    makeClient();
    connect();
    const int plain = threadCount();
    client->closeConnection();
    const int plainClosed = threadsSettlingAt(plain - 1);
    client.reset();

    makeClient().useWorkerPool(4);
    connect();
    // The listen thread starts the four pool threads.
    EXPECT_EQ(threadsSettlingAt(plain + 4), plain + 4);
    ConcurrencyListener listener;
    listen("orders", &listener);
    push("orders", 20);
    ASSERT_TRUE(broker.waitForFrames("ACK", 20));

    // A lost connection ends them; the next one starts four again.
    letReconnectPeriodPass();
    broker.dropConnection();
    ASSERT_TRUE(broker.waitForConnections(2));
    ASSERT_TRUE(broker.waitForSubscription("/queue/orders"));
    EXPECT_EQ(threadsSettlingAt(plain + 4), plain + 4);
    push("orders", 20);
    ASSERT_TRUE(broker.waitForFrames("ACK", 40));

    client->closeConnection();
    EXPECT_EQ(threadsSettlingAt(plainClosed), plainClosed);
}

TEST_F(WorkerPool, AListenerThatNeverReturnsBlocksOneThreadNotTheClose) {
    makeClient().useWorkerPool(2);
    connect();
    ConcurrencyListener stuck, other;
    stuck.closeGate();
    listen("stuck", &stuck);
    listen("other", &other);
    std::string stuckId;
    ASSERT_TRUE(broker.pushMessage("/queue/stuck", "s", {}, &stuckId));
    ASSERT_TRUE(stuck.waitEntered(1));
    // The other thread goes on with the other queue.
    push("other", 50);
    ASSERT_TRUE(broker.waitForFrames("ACK", 50));
    EXPECT_EQ(other.threadsUsed(), 1u);

    const int during = threadCount();
    // closeConnection returns although a call never does.
    auto closed = std::async(std::launch::async, [&] { client->closeConnection(); });
    ASSERT_EQ(closed.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    // The listen thread and the idle pool thread ended; the stuck one runs on.
    EXPECT_EQ(threadsSettlingAt(during - 2), during - 2);
    EXPECT_EQ(acknowledged().count(stuckId), 0u);
    EXPECT_TRUE(sent("NACK").empty());

    // Once it returns, it ends too, and nothing is answered on the closed connection.
    stuck.openGate();
    ASSERT_TRUE(stuck.waitFinished(1));
    EXPECT_EQ(threadsSettlingAt(during - 3), during - 3);
    EXPECT_EQ(sent("ACK").size(), 50u);
    client.reset();
}

TEST_F(WorkerPool, DestroyingTheClientWhileAListenerNeverReturnsLeavesItsMessageUnacknowledged) {
    makeClient().useWorkerPool(1);
    connect();
    ConcurrencyListener stuck;
    stuck.closeGate();
    listen("q", &stuck);
    ASSERT_TRUE(broker.pushMessage("/queue/q", "1"));
    ASSERT_TRUE(stuck.waitEntered(1));
    // Sent while the only thread is busy: it stays with the socket, unread.
    ASSERT_TRUE(broker.pushMessage("/queue/q", "2"));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    client.reset();
    EXPECT_EQ(log.lines().back(), "INFO: Resolving remaining message handlers...");
    stuck.openGate();
    ASSERT_TRUE(stuck.waitFinished(1)); // the abandoned call finishes alone
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(stuck.count(), 1u); // the second message never got a call
    EXPECT_TRUE(sent("ACK").empty());
}

TEST_F(WorkerPool, MessagesReceivedWhileEveryThreadIsBusyWaitForOneAndAreGivenBackUnstartedAtTheEnd) {
    makeClient().useWorkerPool(1);
    connect();
    ConcurrencyListener stuck;
    stuck.closeGate();
    listen("q", &stuck);
    // Three messages in one write: the first goes to the thread, the two
    // received with it wait for the thread, not for the next read.
    std::string three;
    for (int k = 1; k <= 3; ++k) {
        three += "MESSAGE\ndestination:/queue/q\nmessage-id:m" + std::to_string(k) + "\nsubscription:s\nack:a" +
                 std::to_string(k) + "\n\n" + std::to_string(k) + std::string(1, '\0');
    }
    ASSERT_TRUE(broker.sendRaw(three));
    ASSERT_TRUE(stuck.waitEntered(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    client.reset();
    const std::vector<std::string> lines = log.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], "INFO: Resolving remaining message handlers...");
    EXPECT_EQ(lines.back(), "INFO: 2 received messages had no listener call started before the connection ended; "
                            "they are left unacknowledged.");
    stuck.openGate();
    ASSERT_TRUE(stuck.waitFinished(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(stuck.count(), 1u);
    EXPECT_TRUE(sent("ACK").empty());
}

} // namespace

// After a run of short calls one of the pool's threads reads the broker's
// frames itself; these check that reading goes on around it.

TEST_F(WorkerPool, ACallThatTurnsLongAfterARunOfShortOnesDoesNotHoldUpTheOtherQueues) {
    makeClient().useWorkerPool(2);
    connect();
    FastThenSlowListener orders;
    ConcurrencyListener other;
    listen("orders", &orders);
    listen("other", &other);
    push("orders", 500, "fast");
    ASSERT_TRUE(broker.waitForFrames("ACK", 500, 20000));
    push("orders", 1, "slow"); // the body is "slow0": short
    ASSERT_TRUE(broker.waitForFrames("ACK", 501, 5000));
    ASSERT_TRUE(broker.pushMessage("/queue/orders", "slow"));
    ASSERT_TRUE(broker.waitFor([&] { return orders.entered.load(); }, 5000));
    // The thread that read it is in its call: the other messages are read
    // and run on the other thread meanwhile.
    push("other", 200);
    ASSERT_TRUE(broker.waitForFrames("ACK", 701, 10000));
    EXPECT_EQ(other.count(), 200u);
    EXPECT_EQ(sent("ACK").size(), 701u); // the slow one is not answered yet
    orders.release.set_value();
    ASSERT_TRUE(broker.waitForFrames("ACK", 702, 5000));
    EXPECT_EQ(log.countStartingWith("ERROR: "), 0u);
}

TEST_F(WorkerPool, AConnectionLostWhileAPoolThreadReadsIsMadeAgain) {
    makeClient().useWorkerPool(2);
    connect();
    ConcurrencyListener listener;
    listen("orders", &listener);
    push("orders", 500);
    ASSERT_TRUE(broker.waitForFrames("ACK", 500, 20000));
    letReconnectPeriodPass();
    broker.dropConnection();
    ASSERT_TRUE(log.waitFor("ERROR: Disconnected!"));
    EXPECT_EQ(log.count("ERROR: while trying to listen for messages. Error 70014: End of file found"), 1u);
    ASSERT_TRUE(broker.waitForConnections(2));
    ASSERT_TRUE(broker.waitForSubscription("/queue/orders"));
    push("orders", 500);
    ASSERT_TRUE(broker.waitForFrames("ACK", 1000, 20000));
    EXPECT_EQ(sent("ACK").size(), 1000u);
    EXPECT_EQ(log.count("ERROR: Disconnected!"), 1u);
}
