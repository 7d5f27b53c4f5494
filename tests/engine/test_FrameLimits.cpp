// SPDX-License-Identifier: Apache-2.0
// Frame limits (StompClient::setFrameLimits): a broker that sends a line or a
// body past them costs the connection, not the client's memory; frames
// within them are delivered as before. The settings that must come before
// openConnection refuse to change afterwards.

#include "support/EngineFixture.h"
#include "support/Memory.h"

#include <tavren/TlsOptions.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavren {
namespace test {
namespace {

const size_t KiB = 1024;
const size_t MiB = 1024 * 1024;
const size_t kMaxLine = 64 * KiB;
const size_t kMaxBody = 1 * MiB;
// Besides the limits, what the process may grow by while a broker streams
// past them: the fake broker's own 1 MiB piece, the client's read buffer and
// reconnect, and the allocator's slack.
const long kSlackKiB = 16 * 1024;
// The most a stream may get written before the client's close stops it: the
// socket buffers on both sides, and far less than the frames announced.
const size_t kMostWrittenBeforeRefusal = 64 * MiB;

const char* const kMalformedLine = "ERROR: while trying to listen for messages. Error 20014: Internal error (specific "
                                   "information not available)";
const char* const kLastLineOfTheOldListenThread = "INFO: Resolving remaining message handlers...";

class FrameLimits : public EngineTest {
protected:
    FrameLimits() : EngineTest(100) {}

    void SetUp() override {
        makeClient().setFrameLimits(kMaxLine, kMaxBody);
        connect();
        listen("q", &listener);
    }

    void TearDown() override {
        if (HasFailure()) {
            for (const std::string& line : log.lines()) std::fprintf(stderr, "  log: %s\n", line.c_str());
        }
        EngineTest::TearDown();
    }

    /** The start of a MESSAGE for the listener on /queue/q, up to its last header line's name. */
    std::string messageHead(const std::string& id, const std::string& lastHeaderName) {
        return "MESSAGE\ndestination:/queue/q\nmessage-id:" + id + "\nack:" + id +
               "\nsubscription:" + sent("SUBSCRIBE").back().headers.at("id") + "\n" + lastHeaderName + ":";
    }

    /** What the client logs when it refuses a frame on a connection that stood a reconnect period. */
    static std::vector<std::string> refusedAndConnectedAgain() {
        return {kMalformedLine,
                "ERROR: Disconnected!",
                "INFO: Attempting to connect...",
                "INFO: Connected.",
                "INFO: Resuming all listeners...",
                "INFO: Re-registering listener for: /queue/q",
                "INFO: Registering listener on /queue/q",
                "INFO: Subscribed to destination /queue/q successfully.",
                kLastLineOfTheOldListenThread};
    }

    /** Starts measuring: the resident memory now, and the peak from now on. */
    void startMeasuring() {
        baselineKiB = residentKiB();
        peakWasReset = resetPeakResident();
    }

    /** The process's memory never went past the limits and the slack over the baseline. */
    void expectMemoryWithinTheLimits() {
#ifndef TAVREN_SANITIZED
        const long peakKiB = peakWasReset ? peakResidentKiB() : residentKiB();
        ASSERT_GT(baselineKiB, 0);
        ASSERT_GT(peakKiB, 0);
        EXPECT_TRUE(peakWasReset) << "the peak could not be reset: only the resident memory after was compared";
        EXPECT_LT(peakKiB - baselineKiB, static_cast<long>((kMaxLine + kMaxBody) / KiB) + kSlackKiB)
            << "baseline " << baselineKiB << " KiB, peak " << peakKiB << " KiB";
#endif
    }

    /** After the refusal, messages flow on the new connection. */
    void expectMessagesFlowAgain() {
        ASSERT_TRUE(broker.waitForSubscription("/queue/q"));
        ASSERT_EQ(2, broker.connectionCount());
        ASSERT_TRUE(broker.pushMessage("/queue/q", "after the refusal"));
        ASSERT_TRUE(listener.waitFinished(1));
        ASSERT_EQ(1u, listener.received().size()) << "the refused frame was handed to the listener";
        EXPECT_EQ("after the refusal", listener.received()[0].text);
        ASSERT_TRUE(broker.waitForFrames("ACK", 1));
        EXPECT_EQ(2, sent("ACK").back().connection);
    }

    RecordingListener listener; // outlives the client, which TearDown ends
    long baselineKiB = -1;
    bool peakWasReset = false;
};

TEST_F(FrameLimits, HeaderLineOfAQuarterGigabyteIsRefusedAtTheLineLimit) {
    letReconnectPeriodPass();
    startMeasuring();
    log.clear();
    size_t written = 0;
    EXPECT_FALSE(
        broker.sendStream(messageHead("long-line", "k"), 256 * MiB, 'v', std::string("\n\nbody\0\n", 8), &written))
        << "the client read the whole line";
    EXPECT_LT(written, kMostWrittenBeforeRefusal);
    ASSERT_TRUE(log.waitFor(kLastLineOfTheOldListenThread, 1, 20000));
    EXPECT_EQ(refusedAndConnectedAgain(), log.lines());
    expectMemoryWithinTheLimits();
    expectMessagesFlowAgain();
}

TEST_F(FrameLimits, ContentLengthOfTwoGigabytesIsRefusedAtTheEndOfTheHeaders) {
    letReconnectPeriodPass();
    startMeasuring();
    log.clear();
    size_t written = 0;
    // The body follows, as a broker that means it would send it.
    EXPECT_FALSE(broker.sendStream(messageHead("huge-body", "content-length") + "2147483647\n\n", 2147483647u, 'b',
                                   std::string("\0\n", 2), &written))
        << "the client read the whole body";
    EXPECT_LT(written, kMostWrittenBeforeRefusal);
    ASSERT_TRUE(log.waitFor(kLastLineOfTheOldListenThread, 1, 20000));
    EXPECT_EQ(refusedAndConnectedAgain(), log.lines());
    expectMemoryWithinTheLimits();
    expectMessagesFlowAgain();
}

TEST_F(FrameLimits, FramesAtTheLimitsAreDelivered) {
    // The header line "k:<value>" is exactly the line limit, the body exactly the body limit.
    const std::string value(kMaxLine - 2, 'v');
    const std::string body(kMaxBody, 'b');
    ASSERT_TRUE(broker.pushMessage("/queue/q", body, {{"k", value}}));
    ASSERT_TRUE(listener.waitFinished(1));
    const std::vector<Received> received = listener.received();
    ASSERT_EQ(1u, received.size());
    EXPECT_EQ(body, received[0].text);
    EXPECT_EQ(value, received[0].headers.at("k"));
    ASSERT_TRUE(broker.waitForFrames("ACK", 1));
    EXPECT_EQ(1, broker.connectionCount());
    EXPECT_FALSE(log.contains("ERROR: Disconnected!"));
    EXPECT_FALSE(log.contains(kMalformedLine));
}

// What call throws, as "std::logic_error: <what>", or what else happened.
template <typename Call>
std::string thrownBy(Call call) {
    try {
        call();
    } catch (const std::logic_error& e) {
        return std::string("std::logic_error: ") + e.what();
    } catch (...) {
        return "another exception";
    }
    return "nothing thrown";
}

class SettingsBeforeOpen : public EngineTest {
protected:
    RecordingListener listener; // outlives the client, which TearDown ends
};

TEST_F(SettingsBeforeOpen, ThrowAfterOpenConnectionAndChangeNothing) {
    connect();
    listen("q", &listener);
    const std::vector<std::string> linesBefore = log.lines();

    EXPECT_EQ("std::logic_error: setFrameLimits must be called before openConnection.",
              thrownBy([&] { client->setFrameLimits(16, 16); }));
    EXPECT_EQ("std::logic_error: useTls must be called before openConnection.",
              thrownBy([&] { client->useTls(tavren::TlsOptions()); }));
    EXPECT_EQ("std::logic_error: enableHeartbeats must be called before openConnection.",
              thrownBy([&] { client->enableHeartbeats(); }));
    EXPECT_EQ("std::logic_error: addFailoverBroker must be called before openConnection.",
              thrownBy([&] { client->addFailoverBroker("127.0.0.1", 1); }));
    EXPECT_EQ("std::logic_error: useWorkerPool must be called before openConnection.",
              thrownBy([&] { client->useWorkerPool(4); }));
    EXPECT_EQ("std::logic_error: enableOrderedDelivery must be called before openConnection.",
              thrownBy([&] { client->enableOrderedDelivery(); }));

    EXPECT_EQ(linesBefore, log.lines()) << "nothing is logged";
    EXPECT_TRUE(client->isConnected());
    // The limits were not taken: a line far past 16 bytes still arrives.
    const std::string value(1000, 'v');
    ASSERT_TRUE(broker.pushMessage("/queue/q", "still plain and unlimited", {{"k", value}}));
    ASSERT_TRUE(listener.waitFinished(1));
    EXPECT_EQ(value, listener.received().at(0).headers.at("k"));
    EXPECT_EQ(1, broker.connectionCount());
}

TEST_F(SettingsBeforeOpen, WorkerPoolNeedsAtLeastOneThread) {
    makeClient();
    EXPECT_THROW(client->useWorkerPool(0), std::invalid_argument);
    EXPECT_THROW(client->useWorkerPool(-3), std::invalid_argument);
    EXPECT_NO_THROW(client->useWorkerPool(1));
    EXPECT_NO_THROW(client->enableOrderedDelivery());
}

} // namespace
} // namespace test
} // namespace tavren
