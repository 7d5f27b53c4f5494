// SPDX-License-Identifier: Apache-2.0
// The scripted broker that the engine tests talk to, driven by a raw socket client.
#include "support/FakeBroker.h"

#include "support/Bytes.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

using tavren::HeaderMap;
using tavren::test::bytes;
using tavren::test::FakeBroker;
using tavren::test::RecordedFrame;

namespace {

const std::string kConnect = bytes("CONNECT\naccept-version:1.2\nhost:localhost\n\n\0");
const std::string kConnected =
    bytes("CONNECTED\nheart-beat:0,0\nserver:FakeBroker/1.0\nsession:session-1\nversion:1.2\n\n\0\n");

// A blocking TCP client on 127.0.0.1 whose reads all have a time-out.
class RawClient {
public:
    explicit RawClient(int port) : fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), connectErrno(0) {
        struct sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<uint16_t>(port));
        if (::connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) connectErrno = errno;
    }
    ~RawClient() { close(); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool connected() const { return fd >= 0 && connectErrno == 0; }
    int error() const { return connectErrno; }

    bool send(const std::string& data) {
        return ::send(fd, data.data(), data.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(data.size());
    }

    // Reads until n bytes came, the peer closed, or timeoutMs passed.
    std::string receive(size_t n, int timeoutMs = 5000) {
        std::string out;
        char buf[4096];
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (out.size() < n) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())
                    .count();
            if (left <= 0 || !readable(static_cast<int>(left))) break;
            const ssize_t got = ::recv(fd, buf, std::min(sizeof buf, n - out.size()), 0);
            if (got <= 0) break;
            out.append(buf, static_cast<size_t>(got));
        }
        return out;
    }

    // True if nothing arrives within quietMs.
    bool quiet(int quietMs = 100) { return !readable(quietMs); }

    // The result of the next read once the socket is readable: 0 on EOF, -1 with errno set, or a byte count.
    ssize_t nextRead(int timeoutMs = 5000) {
        char buf[256];
        if (!readable(timeoutMs)) return -2;
        return ::recv(fd, buf, sizeof buf, 0);
    }

    void close() {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }

private:
    bool readable(int timeoutMs) {
        struct pollfd p = {fd, POLLIN, 0};
        return ::poll(&p, 1, timeoutMs) > 0;
    }

    int fd;
    int connectErrno;
};

std::string receipt(const std::string& id) {
    return "RECEIPT\nreceipt-id:" + id + "\n\n" + std::string(1, '\0') + "\n";
}

TEST(FakeBroker, AnswersConnectWithTheDefaultConnectedFrame) {
    FakeBroker broker;
    RawClient client(broker.port());
    ASSERT_TRUE(client.connected());
    ASSERT_TRUE(client.send(kConnect));
    EXPECT_EQ(kConnected, client.receive(kConnected.size()));
    EXPECT_TRUE(client.quiet());

    ASSERT_TRUE(broker.waitForFrames("CONNECT", 1));
    const std::vector<RecordedFrame> frames = broker.frames();
    ASSERT_EQ(1u, frames.size());
    EXPECT_EQ((HeaderMap{{"accept-version", "1.2"}, {"host", "localhost"}}), frames[0].headers);
    EXPECT_EQ("", frames[0].body);
    EXPECT_EQ(1, frames[0].connection);
    EXPECT_EQ(1, broker.connectionCount());
    EXPECT_TRUE(broker.isClientConnected());
}

TEST(FakeBroker, NewerConnectionReplacesTheOlderOneAndGetsItsOwnSession) {
    FakeBroker broker;
    RawClient first(broker.port());
    ASSERT_TRUE(broker.waitForConnections(1));
    RawClient second(broker.port());
    ASSERT_TRUE(broker.waitForConnections(2));
    EXPECT_EQ(0, first.nextRead());

    ASSERT_TRUE(second.send(bytes("STOMP\n\n\0")));
    const std::string expected =
        bytes("CONNECTED\nheart-beat:0,0\nserver:FakeBroker/1.0\nsession:session-2\nversion:1.2\n\n\0\n");
    EXPECT_EQ(expected, second.receive(expected.size()));
    EXPECT_EQ(2, broker.framesWithCommand("STOMP").at(0).connection);
    EXPECT_EQ(2, broker.connectionCount());
}

TEST(FakeBroker, ScriptedConnectReplies) {
    FakeBroker broker;
    broker.setConnectedHeaders({{"version", "1.1"}});
    RawClient custom(broker.port());
    ASSERT_TRUE(custom.send(kConnect));
    const std::string connected = bytes("CONNECTED\nversion:1.1\n\n\0\n");
    EXPECT_EQ(connected, custom.receive(connected.size()));

    broker.setConnectReply(FakeBroker::ConnectReply::Error);
    RawClient refused(broker.port());
    ASSERT_TRUE(refused.send(kConnect));
    const std::string error = bytes("ERROR\nmessage:Bad credentials\n\nAccess refused for user\0\n");
    EXPECT_EQ(error, refused.receive(error.size()));

    broker.setConnectReply(FakeBroker::ConnectReply::Other);
    RawClient other(broker.port());
    ASSERT_TRUE(other.send(kConnect));
    EXPECT_EQ(receipt("unexpected"), other.receive(receipt("unexpected").size()));

    broker.setConnectReply(FakeBroker::ConnectReply::Silence);
    RawClient silent(broker.port());
    ASSERT_TRUE(silent.send(kConnect));
    ASSERT_TRUE(broker.waitForFrames("CONNECT", 4));
    EXPECT_TRUE(silent.quiet(200));
}

TEST(FakeBroker, SubscribeWithReceiptIsConfirmedAndHeldUntilUnsubscribed) {
    FakeBroker broker;
    RawClient client(broker.port());
    ASSERT_TRUE(client.send(bytes("SUBSCRIBE\ndestination:/queue/a\nid:sub-7\nreceipt:r-1\n\n\0")));
    EXPECT_EQ(receipt("r-1"), client.receive(receipt("r-1").size()));
    ASSERT_TRUE(broker.waitForSubscription("/queue/a"));

    std::string id;
    ASSERT_TRUE(broker.pushMessage("/queue/a", "hi", {}, &id));
    EXPECT_EQ("msg-1", id);
    const std::string message = bytes(
        "MESSAGE\nack:ack-1\ncontent-length:2\ndestination:/queue/a\nmessage-id:msg-1\nsubscription:sub-7\n\nhi\0\n");
    EXPECT_EQ(message, client.receive(message.size()));

    ASSERT_TRUE(client.send(bytes("UNSUBSCRIBE\nid:sub-7\nreceipt:r-2\n\n\0")));
    EXPECT_EQ(receipt("r-2"), client.receive(receipt("r-2").size()));
    EXPECT_FALSE(broker.waitForSubscription("/queue/a", 100));

    // Without a receipt header nothing is answered, and the subscription still holds.
    ASSERT_TRUE(client.send(bytes("SUBSCRIBE\ndestination:/queue/b\nid:sub-8\n\n\0")));
    EXPECT_TRUE(broker.waitForSubscription("/queue/b"));
    EXPECT_TRUE(client.quiet());
}

TEST(FakeBroker, ScriptedReceiptReplies) {
    FakeBroker broker;
    RawClient client(broker.port());
    broker.setReceiptError("No", "Not here");

    broker.setSubscribeReply(FakeBroker::ReceiptReply::Error);
    ASSERT_TRUE(client.send(bytes("SUBSCRIBE\ndestination:/queue/a\nid:1\nreceipt:r-1\n\n\0")));
    const std::string error = bytes("ERROR\nmessage:No\nreceipt-id:r-1\n\nNot here\0\n");
    EXPECT_EQ(error, client.receive(error.size()));

    broker.setSubscribeReply(FakeBroker::ReceiptReply::ErrorWithoutReceiptId);
    ASSERT_TRUE(client.send(bytes("SUBSCRIBE\ndestination:/queue/a\nid:2\nreceipt:r-2\n\n\0")));
    const std::string bare = bytes("ERROR\nmessage:No\n\nNot here\0\n");
    EXPECT_EQ(bare, client.receive(bare.size()));
    EXPECT_FALSE(broker.waitForSubscription("/queue/a", 100));

    broker.setSubscribeReply(FakeBroker::ReceiptReply::Silence);
    ASSERT_TRUE(client.send(bytes("SUBSCRIBE\ndestination:/queue/a\nid:3\nreceipt:r-3\n\n\0")));
    ASSERT_TRUE(broker.waitForSubscription("/queue/a"));
    EXPECT_TRUE(client.quiet());

    broker.setUnsubscribeReply(FakeBroker::ReceiptReply::Error);
    ASSERT_TRUE(client.send(bytes("UNSUBSCRIBE\nid:3\nreceipt:r-4\n\n\0")));
    const std::string refused = bytes("ERROR\nmessage:No\nreceipt-id:r-4\n\nNot here\0\n");
    EXPECT_EQ(refused, client.receive(refused.size()));
    EXPECT_TRUE(broker.waitForSubscription("/queue/a", 0));
}

TEST(FakeBroker, FrameArrivingByteByByteIsRecordedWhole) {
    FakeBroker broker;
    RawClient client(broker.port());
    const std::string wire = bytes("\n\r\nSEND\ndestination:/queue/a\nk:x:y\nk:second\n\nbody\0\n\n");
    for (char c : wire) {
        ASSERT_TRUE(client.send(std::string(1, c)));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_TRUE(client.send(bytes("ACK\r\nid:1\r\n\r\n\0")));
    ASSERT_TRUE(broker.waitForFrames("ACK", 1));

    const std::vector<RecordedFrame> frames = broker.frames();
    ASSERT_EQ(2u, frames.size());
    EXPECT_EQ("SEND", frames[0].command);
    EXPECT_EQ((HeaderMap{{"destination", "/queue/a"}, {"k", "x:y"}}), frames[0].headers);
    EXPECT_EQ("body", frames[0].body);
    EXPECT_EQ((HeaderMap{{"id", "1"}}), frames[1].headers);

    broker.clearFrames();
    EXPECT_TRUE(broker.frames().empty());
}

TEST(FakeBroker, ContentLengthBodyKeepsEmbeddedNul) {
    FakeBroker broker;
    RawClient client(broker.port());
    ASSERT_TRUE(client.send(bytes("SEND\ncontent-length:5\n\na\0b\0c\0SEND\n\nnext\0")));
    ASSERT_TRUE(broker.waitForFrames("SEND", 2));
    const std::vector<RecordedFrame> sends = broker.framesWithCommand("SEND");
    EXPECT_EQ(bytes("a\0b\0c"), sends[0].body);
    EXPECT_EQ("next", sends[1].body);
}

TEST(FakeBroker, PushMessageHonoursOverridesAndOmissions) {
    FakeBroker broker;
    EXPECT_FALSE(broker.pushMessage("/queue/a", "x"));

    RawClient client(broker.port());
    ASSERT_TRUE(broker.waitForConnections(1));
    std::string id;
    ASSERT_TRUE(broker.pushMessage("/queue/a", "", {{"destination", "<omit>"}, {"message-id", "<omit>"}}, &id));
    EXPECT_EQ("", id);
    const std::string bare = bytes("MESSAGE\nack:ack-1\ncontent-length:0\nsubscription:none\n\n\0\n");
    EXPECT_EQ(bare, client.receive(bare.size()));

    ASSERT_TRUE(broker.pushMessage("/queue/a", "abc", {{"ack", "mine"}, {"x-extra", "1"}}, &id));
    EXPECT_EQ("msg-2", id);
    const std::string message = bytes("MESSAGE\nack:mine\ncontent-length:3\ndestination:/queue/a\n"
                                      "message-id:msg-2\nsubscription:none\nx-extra:1\n\nabc\0\n");
    EXPECT_EQ(message, client.receive(message.size()));

    ASSERT_TRUE(broker.sendRaw("\n"));
    EXPECT_EQ("\n", client.receive(1));
}

TEST(FakeBroker, RefusesConnectionsAndListensAgainOnTheSamePort) {
    FakeBroker broker;
    const int port = broker.port();
    broker.refuseConnections();
    RawClient refused(port);
    EXPECT_FALSE(refused.connected());
    EXPECT_EQ(ECONNREFUSED, refused.error());

    ASSERT_TRUE(broker.acceptConnections());
    EXPECT_EQ(port, broker.port());
    RawClient client(port);
    ASSERT_TRUE(client.connected());
    ASSERT_TRUE(client.send(kConnect));
    EXPECT_EQ(kConnected, client.receive(kConnected.size()));
}

TEST(FakeBroker, DropAndResetCloseTheClientConnection) {
    FakeBroker broker;
    RawClient dropped(broker.port());
    ASSERT_TRUE(broker.waitForConnections(1));
    broker.dropConnection();
    EXPECT_FALSE(broker.isClientConnected());
    EXPECT_EQ(0, dropped.nextRead());
    EXPECT_FALSE(broker.pushMessage("/queue/a", "x"));

    RawClient reset(broker.port());
    ASSERT_TRUE(broker.waitForConnections(2));
    broker.resetConnection();
    errno = 0;
    EXPECT_EQ(-1, reset.nextRead());
    EXPECT_EQ(ECONNRESET, errno);
}

TEST(FakeBroker, SendStreamWritesHeadFillAndTailInOrder) {
    FakeBroker broker;
    RawClient client(broker.port());
    ASSERT_TRUE(broker.waitForConnections(1));
    const size_t count = 3 * 1024 * 1024 + 5; // not a whole number of chunks
    std::string got;
    // The broker writes while this thread reads: the stream is larger than the socket buffers.
    std::thread reader([&] { got = client.receive(2 + count + 2, 10000); });
    size_t written = 0;
    const bool done = broker.sendStream("AB", count, 'x', "CD", &written, 64 * 1024);
    reader.join();
    EXPECT_TRUE(done);
    EXPECT_EQ(2 + count + 2, written);
    ASSERT_EQ(2 + count + 2, got.size());
    EXPECT_EQ("AB" + std::string(count, 'x') + "CD", got);
    EXPECT_TRUE(client.quiet());
}

TEST(FakeBroker, SendStreamStopsWhenTheClientGoes) {
    FakeBroker broker;
    RawClient client(broker.port());
    ASSERT_TRUE(broker.waitForConnections(1));
    // The client reads nothing and closes once the stream has begun: unread
    // data makes the close a reset, and the stream stops.
    std::thread closer([&] {
        client.quiet(5000); // returns as soon as bytes have come
        client.close();
    });
    size_t written = 0;
    const bool done = broker.sendStream("AB", 256 * 1024 * 1024, 'x', "CD", &written);
    closer.join();
    EXPECT_FALSE(done);
    EXPECT_GT(written, 0u);
    EXPECT_LT(written, 64u * 1024 * 1024) << "the socket buffers hold far less";
    EXPECT_TRUE(broker.waitForClientClosed());
}

TEST(FakeBroker, NoticesTheClientClosing) {
    FakeBroker broker;
    EXPECT_TRUE(broker.waitForClientClosed(0));
    RawClient client(broker.port());
    ASSERT_TRUE(broker.waitFor([&] { return broker.isClientConnected(); }));
    EXPECT_FALSE(broker.waitForClientClosed(50));
    ASSERT_TRUE(client.send(bytes("DISCONNECT\nreceipt:bye\n\n\0")));
    client.close();
    EXPECT_TRUE(broker.waitForClientClosed());
    EXPECT_EQ(1u, broker.framesWithCommand("DISCONNECT").size());
}

} // namespace
