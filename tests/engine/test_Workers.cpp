// SPDX-License-Identifier: Apache-2.0
// How many listener calls run at once, on which stacks, and when their
// messages are acknowledged.
#include "support/EngineFixture.h"
#include "support/Memory.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

using tavren::HeaderMap;
using tavren::test::EngineTest;
using tavren::test::RecordingListener;

namespace {

class Workers : public EngineTest {
protected:
    // Pushes count messages to /queue/orders; returns their ids.
    std::set<std::string> push(int count) {
        std::set<std::string> ids;
        for (int i = 0; i < count; ++i) {
            std::string id;
            EXPECT_TRUE(broker.pushMessage("/queue/orders", "m" + std::to_string(i), {}, &id));
            ids.insert(id);
        }
        return ids;
    }
    std::set<std::string> acknowledged() {
        std::set<std::string> ids;
        for (const auto& frame : sent("ACK")) ids.insert(frame.headers.at("id"));
        return ids;
    }
    void expectNothingLeftUnacknowledged() {
        EXPECT_EQ(log.countStartingWith("ERROR: "), 0u);
        EXPECT_EQ(log.countStartingWith("ERROR: Could not start a worker"), 0u);
    }
};

TEST_F(Workers, NoMoreListenerCallsRunAtOnceThanTheBound) {
    makeClient().setMaxWorkers(2);
    connect();
    RecordingListener listener;
    listener.closeGate();
    listen("orders", &listener);
    const std::set<std::string> ids = push(6);
    ASSERT_TRUE(listener.waitEntered(2));
    // The other four wait in the socket while both workers are busy.
    usleep(200 * 1000);
    EXPECT_EQ(listener.count(), 2);
    EXPECT_TRUE(sent("ACK").empty());

    listener.openGate();
    ASSERT_TRUE(listener.waitFinished(6));
    ASSERT_TRUE(broker.waitForFrames("ACK", 6));
    EXPECT_EQ(acknowledged(), ids);
    EXPECT_EQ(sent("ACK").size(), 6u); // each exactly once
    expectNothingLeftUnacknowledged();
    // Said once a connection, however often the bound is met.
    EXPECT_EQ(log.count("INFO: All 2 message workers are busy: reading from the broker pauses until one finishes."),
              1u);
}

TEST_F(Workers, SixteenCallsRunAtOnceByDefault) {
    connect();
    RecordingListener listener;
    listener.closeGate();
    listen("orders", &listener);
    const std::set<std::string> ids = push(20);
    ASSERT_TRUE(listener.waitEntered(16));
    usleep(200 * 1000);
    EXPECT_EQ(listener.count(), 16);
    listener.openGate();
    ASSERT_TRUE(broker.waitForFrames("ACK", 20));
    EXPECT_EQ(acknowledged(), ids);
    expectNothingLeftUnacknowledged();
}

TEST_F(Workers, ABoundBelowOneCountsAsOne) {
    makeClient().setMaxWorkers(0);
    connect();
    RecordingListener listener;
    listener.closeGate();
    listen("orders", &listener);
    push(3);
    ASSERT_TRUE(listener.waitEntered(1));
    usleep(150 * 1000);
    EXPECT_EQ(listener.count(), 1);
    listener.openGate();
    ASSERT_TRUE(broker.waitForFrames("ACK", 3));
}

TEST_F(Workers, AReceiptWaitsBehindBusyWorkersAndComesWhenOneFinishes) {
    makeClient().setMaxWorkers(1);
    connect();
    RecordingListener busy;
    busy.closeGate();
    listen("orders", &busy);
    push(1);
    ASSERT_TRUE(busy.waitEntered(1));
    RecordingListener other;
    std::atomic<bool> subscribed{false};
    std::thread subscriber([&] {
        client->listenOnQueue("other", &other);
        subscribed = true;
    });
    ASSERT_TRUE(broker.waitForFrames("SUBSCRIBE", 2));
    usleep(100 * 1000);
    EXPECT_FALSE(subscribed);
    busy.openGate();
    subscriber.join();
    EXPECT_TRUE(subscribed);
    EXPECT_EQ(log.count("INFO: Subscribed to destination /queue/other successfully."), 1u);
}

TEST_F(Workers, AFinishedWorkerIsAcknowledgedWhileAnotherStillRuns) {
    connect();
    RecordingListener slow, quick;
    slow.closeGate();
    listen("slow", &slow);
    listen("quick", &quick);
    std::string quickId;
    ASSERT_TRUE(broker.pushMessage("/queue/slow", "a"));
    ASSERT_TRUE(slow.waitEntered(1));
    ASSERT_TRUE(broker.pushMessage("/queue/quick", "b", {}, &quickId));
    ASSERT_TRUE(broker.waitForFrames("ACK", 1));
    EXPECT_EQ(sent("ACK")[0].headers.at("id"), quickId);
    slow.openGate();
    ASSERT_TRUE(broker.waitForFrames("ACK", 2));
}

// Records the stack size of the thread it runs on.
class StackMeasuring : public tavren::Listener {
public:
    int onMessage(kelvra::SharedPtr<tavren::Message>) override {
        pthread_attr_t attributes;
        size_t size = 0;
        if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
            pthread_attr_getstacksize(&attributes, &size);
            pthread_attr_destroy(&attributes);
        }
        std::lock_guard<std::mutex> lock(mutex);
        sizes.push_back(size);
        return 0;
    }
    std::vector<size_t> measured() {
        std::lock_guard<std::mutex> lock(mutex);
        return sizes;
    }

private:
    std::mutex mutex;
    std::vector<size_t> sizes;
};

TEST_F(Workers, WorkersRunOnStacksOfTheConfiguredSize) {
    connect();
    StackMeasuring listener;
    listen("orders", &listener);
    push(1);
    ASSERT_TRUE(broker.waitForFrames("ACK", 1));
    client->setWorkerStackSize(1024 * 1024);
    push(1);
    ASSERT_TRUE(broker.waitForFrames("ACK", 2));
    client->setWorkerStackSize(1000); // below the system's minimum
    push(1);
    ASSERT_TRUE(broker.waitForFrames("ACK", 3));
    const std::vector<size_t> sizes = listener.measured();
    ASSERT_EQ(sizes.size(), 3u);
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    // The sanitizers raise small thread stacks to a minimum of their own.
    EXPECT_GE(sizes[0], 256u * 1024);
    EXPECT_GE(sizes[1], 1024u * 1024);
    EXPECT_GE(sizes[2], static_cast<size_t>(PTHREAD_STACK_MIN));
#else
    EXPECT_EQ(sizes[0], 256u * 1024);
    EXPECT_EQ(sizes[1], 1024u * 1024);
    EXPECT_EQ(sizes[2], static_cast<size_t>(PTHREAD_STACK_MIN));
#endif
}

TEST_F(Workers, ManyMessagesInARowAreEachHandledAndAcknowledgedOnce) {
    makeClient().setMaxWorkers(4);
    connect();
    RecordingListener listener;
    listen("orders", &listener);
    const std::set<std::string> ids = push(500);
    ASSERT_TRUE(broker.waitForFrames("ACK", 500, 30000));
    EXPECT_EQ(acknowledged(), ids);
    EXPECT_EQ(sent("ACK").size(), 500u);
    EXPECT_EQ(listener.count(), 500);
    // Workers are joined as they finish: only the main, test-support and
    // listen threads remain, whatever the number of messages was.
    EXPECT_LE(tavren::test::threadCount(), 8);
    expectNothingLeftUnacknowledged();
}

// Under the sanitizers every thread costs far more, and valgrind runs
// everything some fifty times slower: the flood is smaller there.
int floodSize() {
#ifdef TAVREN_SANITIZED
    return 10000;
#else
    return tavren::test::underValgrind() ? 10000 : 100000;
#endif
}

TEST_F(Workers, AFloodOfMessagesLeavesNoneUnacknowledged) {
    connect();
    RecordingListener listener;
    listen("orders", &listener);
    const int flood = floodSize();
    const std::set<std::string> ids = push(flood);
    ASSERT_TRUE(broker.waitForFrames("ACK", flood, 100000)) << sent("ACK").size() << " ACKs";
    EXPECT_EQ(acknowledged(), ids);
    EXPECT_EQ(sent("ACK").size(), static_cast<size_t>(flood)); // each exactly once
    EXPECT_EQ(listener.count(), flood);
    EXPECT_LE(tavren::test::threadCount(), 8);
    expectNothingLeftUnacknowledged();
}

} // namespace
