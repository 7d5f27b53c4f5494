// SPDX-License-Identifier: Apache-2.0
// The worker pool on its own: lanes (one call at a time, in the order
// handed, other lanes meanwhile), what withdraw() gives back, how often
// the listen thread's descriptor is written, and that a record held back
// behind a call that turned long is not held back once the pool is nudged.
#include "client/WorkerPool.h"
#include "client/WorkerStacks.h"

#include "support/ConcurrencyListener.h"
#include "support/Watchdog.h"
#include "support/WireFrames.h"

#include <gtest/gtest.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using tavren::Listener;
using tavren::internal::WorkerPool;
using tavren::internal::WorkerStacks;
using tavren::test::ConcurrencyListener;
using tavren::test::frameFromWire;

// Enough for the sanitizers too, which need more than the library's least.
const size_t kStackSize = 2 * 1024 * 1024;

Listener::WorkerData* record(Listener* listener, const std::string& body) {
    Listener::WorkerData* data = new Listener::WorkerData();
    data->listener = listener;
    data->frame.reset(frameFromWire("MESSAGE\ndestination:/queue/a\nmessage-id:" + body + "\nsubscription:s-1\n\n" +
                                    body + std::string(1, '\0'))
                          .release());
    return data;
}

std::vector<std::string> bodies(const std::string& prefix, int count) {
    std::vector<std::string> out;
    for (int i = 0; i < count; ++i) out.push_back(prefix + std::to_string(i));
    return out;
}

class WorkerPoolLanes : public ::testing::Test {
protected:
    WorkerPoolLanes() : watchdog(60), wakeFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    ~WorkerPoolLanes() override {
        for (WorkerPool::Answer& answer : collected) {
            delete answer.first;
            delete answer.second;
        }
        pool.reset();
        close(wakeFd);
    }

    bool start(int threads) {
        pool.reset(new WorkerPool(threads, stacks, kStackSize, wakeFd));
        return pool->size() == threads;
    }
    // Collects answers until count have come (false after 10 s).
    bool collectUntil(size_t count) {
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (collected.size() < count) {
            if (std::chrono::steady_clock::now() > until) return false;
            pool->collect(&collected);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }
    // What the descriptor counted since it was last read.
    uint64_t wakeUps() {
        uint64_t count = 0;
        if (read(wakeFd, &count, sizeof count) != sizeof count) return 0;
        return count;
    }

    tavren::test::Watchdog watchdog;
    int wakeFd;
    WorkerStacks stacks;
    std::unique_ptr<WorkerPool> pool;
    std::vector<WorkerPool::Answer> collected;
};

TEST_F(WorkerPoolLanes, ALaneRunsOneCallAtATimeInTheOrderHanded) {
    ASSERT_TRUE(start(4));
    ConcurrencyListener listener;
    const std::string lane = "/queue/a";
    std::vector<WorkerPool::Handed> batch;
    for (const std::string& body : bodies("a", 500)) batch.emplace_back(record(&listener, body), &lane);
    pool->handAll(batch);
    ASSERT_TRUE(collectUntil(500));
    EXPECT_EQ(listener.received(), bodies("a", 500));
    EXPECT_EQ(listener.most(), 1);
    // Answered in the order handed, as the calls ran.
    for (size_t i = 0; i < collected.size(); ++i) {
        EXPECT_EQ(collected[i].first->frame->headers().at("message-id"), "a" + std::to_string(i));
        EXPECT_EQ(*collected[i].second, 0);
    }
}

TEST_F(WorkerPoolLanes, ARecordWaitingBehindACallThatTurnedLongGetsASleepingThreadWhenNudged) {
    ASSERT_TRUE(start(2));
    ConcurrencyListener quick, stuck;
    // Short calls: the records handed together then wait for the thread
    // that is awake rather than wake another.
    for (int round = 0; round < 50; ++round) {
        pool->hand(record(&quick, "q" + std::to_string(round)));
        ASSERT_TRUE(collectUntil(static_cast<size_t>(round) + 1));
    }
    stuck.closeGate();
    pool->handAll({{record(&stuck, "s0"), nullptr}, {record(&quick, "after"), nullptr}});
    ASSERT_TRUE(stuck.waitEntered(1));
    // The listen thread nudges the pool on each pass; the record behind
    // the call that does not return gets the thread that sleeps.
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (collected.size() < 51 && std::chrono::steady_clock::now() < until) {
        pool->nudge();
        pool->collect(&collected);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_EQ(collected.size(), 51u);
    EXPECT_EQ(collected.back().first->frame->headers().at("message-id"), "after");
    EXPECT_EQ(stuck.count(), 1u); // still in its call
    stuck.openGate();
    ASSERT_TRUE(collectUntil(52));
    EXPECT_EQ(collected.back().first->frame->headers().at("message-id"), "s0");
}

TEST_F(WorkerPoolLanes, ABusyLaneDoesNotHoldBackAnother) {
    ASSERT_TRUE(start(2));
    ConcurrencyListener slow, quick;
    slow.closeGate();
    const std::string slowLane = "/queue/slow", quickLane = "/queue/quick";
    for (const std::string& body : bodies("s", 10)) pool->hand(record(&slow, body), slowLane);
    ASSERT_TRUE(slow.waitEntered(1));
    for (const std::string& body : bodies("q", 300)) pool->hand(record(&quick, body), quickLane);
    ASSERT_TRUE(collectUntil(300));
    EXPECT_EQ(quick.received(), bodies("q", 300));
    EXPECT_EQ(slow.count(), 1u); // still in its first call
    slow.openGate();
    ASSERT_TRUE(collectUntil(310));
    EXPECT_EQ(slow.received(), bodies("s", 10));
    EXPECT_EQ(slow.most(), 1);
}

TEST_F(WorkerPoolLanes, WithdrawGivesBackWhatWaitsInLanesAndWhatIsReady) {
    ASSERT_TRUE(start(1));
    ConcurrencyListener listener;
    listener.closeGate();
    const std::string a = "/queue/a", b = "/queue/b";
    pool->hand(record(&listener, "a0"), a);
    ASSERT_TRUE(listener.waitEntered(1));
    pool->hand(record(&listener, "a1"), a);
    pool->hand(record(&listener, "b0"), b);
    pool->hand(record(&listener, "x0"));
    std::vector<std::string> withdrawn;
    for (Listener::WorkerData* data : pool->withdraw()) {
        withdrawn.push_back(data->frame->headers().at("message-id"));
        delete data;
    }
    std::sort(withdrawn.begin(), withdrawn.end());
    EXPECT_EQ(withdrawn, (std::vector<std::string>{"a1", "b0", "x0"}));
    listener.openGate();
    ASSERT_TRUE(collectUntil(1)); // the call that ran is still answered
    EXPECT_EQ(listener.received(), (std::vector<std::string>{"a0"}));
}

// Writes nothing: each write waits until the gate opens, and is counted.
class GatedWriter : public WorkerPool::Writer {
public:
    bool write(const std::vector<WorkerPool::Answer>& answers) override {
        std::unique_lock<std::mutex> lock(mutex);
        writing += answers.size();
        changed.notify_all();
        changed.wait(lock, [this] { return open; });
        return true;
    }
    bool waitWriting(size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10), [&] { return writing >= count; });
    }
    void openGate() {
        std::lock_guard<std::mutex> lock(mutex);
        open = true;
        changed.notify_all();
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    size_t writing = 0;
    bool open = false;
};

TEST_F(WorkerPoolLanes, ALaneCountsACallOutOnceItReturnsThoughItsAnswerIsStillBeingWritten) {
    ASSERT_TRUE(start(2));
    GatedWriter writer;
    pool->writeWith(&writer);
    // Whatever fails, the writes end before the writer does.
    struct Release {
        GatedWriter& writer;
        WorkerPool& pool;
        ~Release() {
            writer.openGate();
            pool.stop();
        }
    } release{writer, *pool};
    ConcurrencyListener listener;
    listener.closeGate();
    const std::string a = "/queue/a";
    pool->handAll({{record(&listener, "a0"), &a}, {record(&listener, "a1"), &a}, {record(&listener, "a2"), &a}});
    ASSERT_TRUE(listener.waitEntered(1));
    EXPECT_EQ(pool->longestLane(), 3u); // the call and the two behind it
    listener.openGate();
    // Every call returns (the next of the lane waits for the thread that is
    // writing, until a nudge gives it the other) and leaves the lane, while
    // a thread is still writing the first answer and the others wait for
    // it: the broker may have the first, and may send the message that takes
    // its place. (A call leaves the lane a moment after its listener returns.)
    for (int waited = 0; !(listener.waitFinished(3, 1) && pool->longestLane() == 0); ++waited) {
        ASSERT_LT(waited, 10000) << "calls in the lane: " << pool->longestLane();
        pool->nudge();
        usleep(100); // a nudge gives a record only once it has waited a while: 1 s in all
    }
    ASSERT_TRUE(writer.waitWriting(1));
    EXPECT_EQ(pool->published(), 0u); // nothing written yet
    writer.openGate();
    ASSERT_TRUE(collectUntil(3));
}

TEST_F(WorkerPoolLanes, TheListenThreadIsWrittenOnceUntilItRearms) {
    ASSERT_TRUE(start(4));
    ConcurrencyListener listener;
    listener.closeGate();
    std::vector<WorkerPool::Handed> batch;
    for (const std::string& body : bodies("m", 4)) batch.emplace_back(record(&listener, body), nullptr);
    pool->handAll(batch);
    ASSERT_TRUE(listener.waitEntered(4));
    listener.openGate();
    ASSERT_TRUE(collectUntil(4));
    EXPECT_EQ(wakeUps(), 1u); // four answers, one wake-up
    EXPECT_EQ(wakeUps(), 0u);

    pool->rearm();
    pool->hand(record(&listener, "m4"));
    ASSERT_TRUE(collectUntil(5));
    EXPECT_EQ(wakeUps(), 1u);
    pool->hand(record(&listener, "m5")); // not rearmed: the listen thread has yet to look
    ASSERT_TRUE(collectUntil(6));
    EXPECT_EQ(wakeUps(), 0u);
}

} // namespace
