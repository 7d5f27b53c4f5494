// SPDX-License-Identifier: Apache-2.0
// Reading frames off a socket that a raw loopback peer writes to.
#include "transport/StompConnection.h"

#include "support/Bytes.h"
#include "support/ConnectedPeer.h"
#include "support/Elapsed.h"
#include "support/LoopbackPeer.h"

#include <gtest/gtest.h>

#include <apr_errno.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

using tavren::HeaderMap;
using tavren::internal::ServerFrame;
using tavren::internal::StompConnection;
using tavren::test::bytes;
using tavren::test::Clock;
using tavren::test::LoopbackPeer;
using tavren::test::msSince;

namespace {

class ConnectionRead : public tavren::test::ConnectedPeer {
protected:
    // A blocking read with a generous time-out.
    apr_status_t readBlocking(std::unique_ptr<ServerFrame>* frame, long long timeoutUs = 5000000) {
        ServerFrame* out = nullptr;
        apr_status_t rc = connection.read(&out, true, &timeoutUs);
        frame->reset(out);
        return rc;
    }

    apr_status_t readNow(std::unique_ptr<ServerFrame>* frame) {
        ServerFrame* out = nullptr;
        apr_status_t rc = connection.read(&out, false, nullptr);
        frame->reset(out);
        return rc;
    }

    // Polls in non-blocking mode, as the listen thread does, until a frame or another status comes.
    apr_status_t pollUntilFrame(std::unique_ptr<ServerFrame>* frame, int* polls, int limitMs = 10000) {
        const Clock::time_point start = Clock::now();
        *polls = 0;
        for (;;) {
            apr_status_t rc = readNow(frame);
            ++*polls;
            if (rc != APR_EAGAIN || msSince(start) > limitMs) return rc;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
};

} // namespace

TEST_F(ConnectionRead, LoneLineFeedIsAHeartBeat) {
    ASSERT_TRUE(peer.send("\n"));
    std::unique_ptr<ServerFrame> f;
    ASSERT_EQ(0, readBlocking(&f));
    EXPECT_EQ("", f->command());
    EXPECT_TRUE(f->headers().empty());
    EXPECT_EQ(nullptr, f->body());
}

TEST_F(ConnectionRead, MessageThenTheTrailingLineFeedAsAHeartBeat) {
    ASSERT_TRUE(peer.send(bytes("MESSAGE\ndestination:/queue/a\nmessage-id:1\n\nhello\0\n")));
    std::unique_ptr<ServerFrame> f;
    ASSERT_EQ(0, readBlocking(&f));
    EXPECT_EQ("MESSAGE", f->command());
    EXPECT_EQ((HeaderMap{{"destination", "/queue/a"}, {"message-id", "1"}}), f->headers());
    EXPECT_STREQ("hello", f->body());
    std::unique_ptr<ServerFrame> hb;
    ASSERT_EQ(0, readBlocking(&hb));
    EXPECT_EQ("", hb->command());
}

TEST_F(ConnectionRead, ColonsInValuesAndEmptyNames) {
    ASSERT_TRUE(peer.send(bytes("M\na:b:c\n:x\n\n\0")));
    std::unique_ptr<ServerFrame> f;
    ASSERT_EQ(0, readBlocking(&f));
    EXPECT_EQ((HeaderMap{{"", "x"}, {"a", "b:c"}}), f->headers());
}

TEST_F(ConnectionRead, RepeatedHeaderKeepsTheLastValue) {
    ASSERT_TRUE(peer.send(bytes("M\nk:1\nk:2\n\n\0")));
    std::unique_ptr<ServerFrame> f;
    ASSERT_EQ(0, readBlocking(&f));
    EXPECT_EQ((HeaderMap{{"k", "2"}}), f->headers());
}

TEST_F(ConnectionRead, HeaderWithoutColonIs20014AndNoFrame) {
    ASSERT_TRUE(peer.send(bytes("M\nbad\n\n\0")));
    ServerFrame* out = reinterpret_cast<ServerFrame*>(0x1);
    long long timeout = 5000000;
    EXPECT_EQ(20014, connection.read(&out, true, &timeout));
    EXPECT_EQ(reinterpret_cast<ServerFrame*>(0x1), out) << "*out is left untouched on failure";
    EXPECT_TRUE(connection.isConnected());
}

TEST_F(ConnectionRead, ReadingGoesOnAfterAMalformedFrame) {
    // The byte-by-byte reader stops right after the bad line; the rest is read as it comes.
    ASSERT_TRUE(peer.send(bytes("M\nbad\n\n\0\nR\nreceipt-id:1\n\n\0")));
    std::unique_ptr<ServerFrame> f;
    EXPECT_EQ(20014, readBlocking(&f));
    ASSERT_EQ(0, readBlocking(&f)) << "the empty line after the bad one";
    EXPECT_EQ("", f->command());
    EXPECT_EQ(20014, readBlocking(&f)) << "a NUL where a frame would begin is a line with a NUL";
    ASSERT_EQ(0, readBlocking(&f));
    EXPECT_EQ("", f->command());
    ASSERT_EQ(0, readBlocking(&f));
    EXPECT_EQ("R", f->command());
}

TEST_F(ConnectionRead, SizedBodyHoldsExactlyItsBytesAndAHiddenNul) {
    ASSERT_TRUE(peer.send(bytes("M\ncontent-length:3\n\nabc\0")));
    std::unique_ptr<ServerFrame> f;
    ASSERT_EQ(0, readBlocking(&f));
    EXPECT_EQ(0, std::memcmp("abc", f->body(), 3));
    EXPECT_EQ('\0', f->body()[3]) << "readable as a C string";
    EXPECT_STREQ("abc", f->body());
}

TEST_F(ConnectionRead, SizedBodyNotFollowedByNulIs20014) {
    ASSERT_TRUE(peer.send(bytes("M\ncontent-length:3\n\nabcd\0")));
    std::unique_ptr<ServerFrame> f;
    EXPECT_EQ(20014, readBlocking(&f));
}

TEST_F(ConnectionRead, SizedBodyMayHoldNuls) {
    ASSERT_TRUE(peer.send(bytes("M\ncontent-length:5\n\na\0b\0c\0")));
    std::unique_ptr<ServerFrame> f;
    ASSERT_EQ(0, readBlocking(&f));
    EXPECT_EQ(bytes("a\0b\0c\0"), std::string(f->body(), 6));
}

TEST_F(ConnectionRead, LongLineAndLongBodyAreReadWhole) {
    const std::string value(3000, 'v');
    const std::string body(5000, 'b');
    ASSERT_TRUE(peer.send("MESSAGE\nk:" + value + "\n\n" + body + std::string(1, '\0')));
    std::unique_ptr<ServerFrame> f;
    ASSERT_EQ(0, readBlocking(&f));
    EXPECT_EQ(value, f->headers().at("k"));
    EXPECT_EQ(body, f->body());
}

TEST_F(ConnectionRead, OneMebibyteSizedBodyArrivesWhole) {
    std::string body(1024 * 1024, 'x');
    for (size_t i = 0; i < body.size(); i += 4099) body[i] = static_cast<char>('a' + i % 26);
    const std::string wire =
        "MESSAGE\ncontent-length:" + std::to_string(body.size()) + "\n\n" + body + std::string("\0\n", 2);
    std::thread sender([&] { peer.send(wire); });
    std::unique_ptr<ServerFrame> f;
    int polls = 0;
    ASSERT_EQ(0, pollUntilFrame(&f, &polls));
    sender.join();
    EXPECT_EQ(body.size(), std::strlen(f->body()));
    EXPECT_TRUE(body == f->body());
}

TEST_F(ConnectionRead, NothingWaitingNonBlockingIs11AndConsumesNothing) {
    std::unique_ptr<ServerFrame> f;
    EXPECT_EQ(11, readNow(&f));
    EXPECT_EQ(nullptr, f);
    ASSERT_TRUE(peer.send(bytes("R\n\n\0")));
    int polls = 0;
    ASSERT_EQ(0, pollUntilFrame(&f, &polls));
    EXPECT_EQ("R", f->command());
}

TEST_F(ConnectionRead, SlowDripWithoutLengthNonBlocking) {
    const std::string wire = bytes("MESSAGE\ndestination:/queue/drip\nmessage-id:9\n\nslowly but surely\0");
    std::thread sender([&] { peer.sendSlowly(wire, 3, 5); });
    std::unique_ptr<ServerFrame> f;
    int polls = 0;
    ASSERT_EQ(0, pollUntilFrame(&f, &polls));
    sender.join();
    EXPECT_GT(polls, 2) << "the frame must have been seen in pieces";
    EXPECT_EQ("MESSAGE", f->command());
    EXPECT_EQ((HeaderMap{{"destination", "/queue/drip"}, {"message-id", "9"}}), f->headers());
    EXPECT_STREQ("slowly but surely", f->body());
}

TEST_F(ConnectionRead, SlowDripWithLengthNonBlocking) {
    const std::string wire = bytes("MESSAGE\ncontent-length:17\nmessage-id:9\n\nslowly\0but surely\0\n");
    std::thread sender([&] { peer.sendSlowly(wire, 2, 5); });
    std::unique_ptr<ServerFrame> f;
    int polls = 0;
    ASSERT_EQ(0, pollUntilFrame(&f, &polls));
    EXPECT_GT(polls, 2);
    EXPECT_EQ(bytes("slowly\0but surely"), std::string(f->body(), 17));
    ASSERT_EQ(0, pollUntilFrame(&f, &polls));
    EXPECT_EQ("", f->command()) << "then the trailing line feed";
    sender.join();
}

TEST_F(ConnectionRead, SlowDripWithoutLengthBlocking) {
    const std::string wire = bytes("MESSAGE\nmessage-id:9\n\ndrip drip\0");
    std::thread sender([&] { peer.sendSlowly(wire, 4, 10); });
    std::unique_ptr<ServerFrame> f;
    ASSERT_EQ(0, readBlocking(&f));
    sender.join();
    EXPECT_EQ("MESSAGE", f->command());
    EXPECT_STREQ("drip drip", f->body());
}

TEST_F(ConnectionRead, SlowDripWithLengthBlocking) {
    const std::string wire = bytes("MESSAGE\ncontent-length:9\n\ndrip\0drip\0");
    std::thread sender([&] { peer.sendSlowly(wire, 4, 10); });
    std::unique_ptr<ServerFrame> f;
    ASSERT_EQ(0, readBlocking(&f));
    sender.join();
    EXPECT_EQ(bytes("drip\0drip"), std::string(f->body(), 9));
}

TEST_F(ConnectionRead, BlockingReadEndsWhenItsTimeoutPasses) {
    std::unique_ptr<ServerFrame> f;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(APR_TIMEUP, readBlocking(&f, 300000));
    const long long took = msSince(start);
    EXPECT_GE(took, 290);
    EXPECT_LT(took, 5000) << "bounded, not hanging";
}

TEST_F(ConnectionRead, HandshakeReadAgainstASilentPeerEndsAfterThreeSeconds) {
    // Connected with no time-out and no option, as the connector does, then
    // the three-second wait for CONNECTED: the peer accepted and never writes.
    std::unique_ptr<ServerFrame> f;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(APR_TIMEUP, readBlocking(&f, 3000000));
    const long long took = msSince(start);
    EXPECT_GE(took, 2990);
    EXPECT_LT(took, 6000);
}

TEST_F(ConnectionRead, BlockingReadTimesOutAfterANonBlockingPoll) {
    // The non-blocking poll leaves the descriptor non-blocking; the time-out must still hold after it.
    std::unique_ptr<ServerFrame> f;
    EXPECT_EQ(11, readNow(&f));
    EXPECT_EQ(APR_TIMEUP, readBlocking(&f, 200000));
    EXPECT_EQ(APR_TIMEUP, readBlocking(&f, 200000)) << "and again with the same time-out already set";
}

TEST_F(ConnectionRead, TimeoutCoversTheWholeFrameNotEachByte) {
    // A peer that sends a byte every 100 ms never lets one receive wait long,
    // but the read as a whole must still end.
    std::atomic<bool> stop{false};
    std::thread sender([&] {
        const std::string wire = "MESSAGE\nk:" + std::string(1000, 'v');
        for (size_t i = 0; i < wire.size() && !stop; ++i) {
            peer.send(wire.substr(i, 1));
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    std::unique_ptr<ServerFrame> f;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(APR_TIMEUP, readBlocking(&f, 500000));
    EXPECT_LT(msSince(start), 3000);
    stop = true;
    sender.join();
}

TEST_F(ConnectionRead, TimedOutPartialFrameIsKeptForTheNextRead) {
    ASSERT_TRUE(peer.send("MESSAGE\nk:v\n"));
    std::unique_ptr<ServerFrame> f;
    EXPECT_EQ(APR_TIMEUP, readBlocking(&f, 100000));
    ASSERT_TRUE(peer.send(bytes("\nbody\0")));
    ASSERT_EQ(0, readBlocking(&f));
    EXPECT_EQ("MESSAGE", f->command());
    EXPECT_EQ((HeaderMap{{"k", "v"}}), f->headers());
    EXPECT_STREQ("body", f->body());
}

TEST_F(ConnectionRead, PeerClosingGivesEof) {
    peer.closeConnection();
    std::unique_ptr<ServerFrame> f;
    EXPECT_EQ(APR_EOF, readBlocking(&f));
    EXPECT_TRUE(connection.isConnected()) << "read never closes the socket";
}

TEST_F(ConnectionRead, PeerClosingMidFrameGivesEofNonBlocking) {
    ASSERT_TRUE(peer.send("MESSAGE\nk:"));
    peer.closeConnection();
    std::unique_ptr<ServerFrame> f;
    int polls = 0;
    EXPECT_EQ(APR_EOF, pollUntilFrame(&f, &polls));
}

TEST_F(ConnectionRead, ReconnectStartsWithAnEmptyReadAhead) {
    ASSERT_TRUE(peer.send("MESSAGE\nk:half"));
    std::unique_ptr<ServerFrame> f;
    int polls = 0;
    ASSERT_EQ(11, readNow(&f));
    LoopbackPeer second;
    ASSERT_EQ(0, connection.connect("127.0.0.1", second.port(), nullptr, nullptr));
    ASSERT_TRUE(second.accept());
    ASSERT_TRUE(second.send(bytes("R\n\n\0")));
    ASSERT_EQ(0, pollUntilFrame(&f, &polls));
    EXPECT_EQ("R", f->command());
    EXPECT_TRUE(f->headers().empty()) << "nothing of the old connection's half frame";
}

TEST_F(ConnectionRead, CarriageReturnLineEndsAreNotStripped) {
    ASSERT_TRUE(peer.send("MESSAGE\r\nk:v\r\n\r\n"));
    std::unique_ptr<ServerFrame> f;
    EXPECT_EQ(20014, readBlocking(&f)) << "the lone carriage return is a header without a colon";
}

TEST_F(ConnectionRead, WritesAreNotShutOutByANonBlockingPoll) {
    std::unique_ptr<ServerFrame> f;
    EXPECT_EQ(11, readNow(&f));
    EXPECT_EQ(0, connection.sendHeartbeat(nullptr));
    EXPECT_EQ("\n", peer.receive(1));
}
