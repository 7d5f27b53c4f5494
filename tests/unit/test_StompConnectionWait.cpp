// SPDX-License-Identifier: Apache-2.0
// Waiting for input without holding the connection, and the socket's options.
#include "transport/StompConnection.h"

#include "support/ConnectedPeer.h"

#include <gtest/gtest.h>

#include <apr_errno.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

using tavren::internal::ServerFrame;
using tavren::internal::StompConnection;

namespace {

// The descriptor of this process's TCP socket whose peer is 127.0.0.1:port, or -1.
int socketTo(int port) {
    int found = -1;
    DIR* dir = opendir("/proc/self/fd");
    if (!dir) return -1;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        const int fd = std::atoi(entry->d_name);
        struct sockaddr_in peer = {};
        socklen_t length = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0 && peer.sin_family == AF_INET &&
            ntohs(peer.sin_port) == port) {
            found = fd;
        }
    }
    closedir(dir);
    return found;
}

class ConnectionWait : public tavren::test::ConnectedPeer {
protected:
    void TearDown() override {
        if (wake >= 0) close(wake);
    }
    void signal() {
        const uint64_t one = 1;
        ASSERT_EQ(write(wake, &one, sizeof one), static_cast<ssize_t>(sizeof one));
    }
    int wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
};

TEST_F(ConnectionWait, TcpNoDelayIsSetOnTheConnection) {
    const int fd = socketTo(peer.port());
    ASSERT_GE(fd, 0);
    int value = 0;
    socklen_t length = sizeof value;
    ASSERT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &value, &length), 0);
    EXPECT_NE(value, 0);
}

int intOption(int fd, int level, int name) {
    int value = -1;
    socklen_t length = sizeof value;
    if (getsockopt(fd, level, name, &value, &length) != 0) return -2;
    return value;
}

// The keep-alive and user time-out of the socket to 127.0.0.1:port.
void expectKeepAlive(int port, int idleS, int intervalS, int probes, int userTimeoutMs) {
    const int fd = socketTo(port);
    ASSERT_GE(fd, 0);
    EXPECT_NE(intOption(fd, SOL_SOCKET, SO_KEEPALIVE), 0);
    EXPECT_EQ(intOption(fd, IPPROTO_TCP, TCP_KEEPIDLE), idleS);
    EXPECT_EQ(intOption(fd, IPPROTO_TCP, TCP_KEEPINTVL), intervalS);
    EXPECT_EQ(intOption(fd, IPPROTO_TCP, TCP_KEEPCNT), probes);
    EXPECT_EQ(intOption(fd, IPPROTO_TCP, TCP_USER_TIMEOUT), userTimeoutMs);
}

TEST_F(ConnectionWait, KeepAliveAndUserTimeOutAreSetOnTheConnection) { expectKeepAlive(peer.port(), 20, 5, 4, 40000); }

TEST(ConnectionPolicy, TheGivenPolicyIsWhatTheSocketGets) {
    tavren::test::LoopbackPeer peer;
    StompConnection connection;
    tavren::internal::SocketPolicy policy;
    policy.keepAliveIdleS = 7;
    policy.keepAliveIntervalS = 3;
    policy.keepAliveProbes = 2;
    policy.userTimeoutMs = 9000;
    connection.setPolicy(policy);
    ASSERT_EQ(0, connection.connect("127.0.0.1", peer.port(), nullptr, nullptr));
    expectKeepAlive(peer.port(), 7, 3, 2, 9000);
}

TEST_F(ConnectionWait, InterruptEndsAReadThatWaitsAndItsSocket) {
    ServerFrame* out = nullptr;
    apr_status_t rc = 0;
    std::thread reader([&] {
        long long timeout = 30 * 1000 * 1000;
        rc = connection.read(&out, true, &timeout);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_TRUE(connection.interrupt());
    reader.join();
    EXPECT_EQ(rc, APR_EOF) << "a read on a socket shut down ends at once";
    EXPECT_EQ(out, nullptr);
    EXPECT_TRUE(connection.isConnected()) << "the socket stays until the next disconnect";
    EXPECT_EQ(0, connection.disconnect());
    EXPECT_FALSE(connection.interrupt()) << "nothing left to shut down";
}

TEST_F(ConnectionWait, NothingToReadAndNoWakeUpTimesOut) {
    bool readable = true, woken = true;
    EXPECT_EQ(connection.waitForInput(wake, true, 30, &readable, &woken), APR_SUCCESS);
    EXPECT_FALSE(readable);
    EXPECT_FALSE(woken);
}

TEST_F(ConnectionWait, AWakeUpEndsTheWaitAndIsReported) {
    signal();
    bool readable = true, woken = false;
    EXPECT_EQ(connection.waitForInput(wake, true, 5000, &readable, &woken), APR_SUCCESS);
    EXPECT_TRUE(woken);
    EXPECT_FALSE(readable);
}

TEST_F(ConnectionWait, BytesOnTheSocketEndTheWait) {
    ASSERT_TRUE(peer.send(std::string("MESSAGE\n\nx\0", 11)));
    bool readable = false, woken = true;
    EXPECT_EQ(connection.waitForInput(wake, true, 5000, &readable, &woken), APR_SUCCESS);
    EXPECT_TRUE(readable);
    EXPECT_FALSE(woken);
    ServerFrame* frame = nullptr;
    ASSERT_EQ(connection.read(&frame, false, nullptr), APR_SUCCESS);
    delete frame;
}

TEST_F(ConnectionWait, ASecondFrameAlreadyReceivedIsNotWaitedFor) {
    // Both frames arrive in one piece; the first read takes both off the
    // socket, so only the connection knows that the second is there.
    ASSERT_TRUE(peer.send(std::string("MESSAGE\n\na\0MESSAGE\n\nb\0", 22)));
    bool readable = false, woken = false;
    ASSERT_EQ(connection.waitForInput(wake, true, 5000, &readable, &woken), APR_SUCCESS);
    ServerFrame* first = nullptr;
    ASSERT_EQ(connection.read(&first, false, nullptr), APR_SUCCESS);
    std::unique_ptr<ServerFrame> firstOwned(first);
    EXPECT_STREQ(first->body(), "a");
    // The socket is empty now; a wait must still return at once (the time-out
    // would fail the read below with nothing to read).
    EXPECT_EQ(connection.waitForInput(wake, true, 60000, &readable, &woken), APR_SUCCESS);
    EXPECT_TRUE(readable);
    ServerFrame* second = nullptr;
    ASSERT_EQ(connection.read(&second, false, nullptr), APR_SUCCESS);
    std::unique_ptr<ServerFrame> secondOwned(second);
    EXPECT_STREQ(second->body(), "b");
}

TEST_F(ConnectionWait, ReceivedBytesAnswerAtOnceWithoutLookingAtTheWakeUp) {
    ASSERT_TRUE(peer.send(std::string("MESSAGE\n\na\0MESSAGE\n\nb\0", 22)));
    bool readable = false, woken = false;
    ASSERT_EQ(connection.waitForInput(wake, true, 5000, &readable, &woken), APR_SUCCESS);
    ServerFrame* first = nullptr;
    ASSERT_EQ(connection.read(&first, false, nullptr), APR_SUCCESS);
    delete first;
    // The second frame is in the connection's buffer: the wait returns at
    // once, and the wake-up is left for the next one.
    signal();
    readable = false;
    woken = true;
    EXPECT_EQ(connection.waitForInput(wake, true, 5000, &readable, &woken), APR_SUCCESS);
    EXPECT_TRUE(readable);
    EXPECT_FALSE(woken);
    ServerFrame* second = nullptr;
    ASSERT_EQ(connection.read(&second, false, nullptr), APR_SUCCESS);
    std::unique_ptr<ServerFrame> secondOwned(second);
    EXPECT_STREQ(second->body(), "b");
    readable = true;
    woken = false;
    EXPECT_EQ(connection.waitForInput(wake, true, 5000, &readable, &woken), APR_SUCCESS);
    EXPECT_FALSE(readable);
    EXPECT_TRUE(woken);
}

TEST_F(ConnectionWait, WithoutWatchingTheSocketOnlyAWakeUpEndsTheWait) {
    ASSERT_TRUE(peer.send(std::string("MESSAGE\n\nx\0", 11)));
    bool readable = true, woken = true;
    EXPECT_EQ(connection.waitForInput(wake, false, 50, &readable, &woken), APR_SUCCESS);
    EXPECT_FALSE(readable);
    EXPECT_FALSE(woken);
    signal();
    EXPECT_EQ(connection.waitForInput(wake, false, 5000, &readable, &woken), APR_SUCCESS);
    EXPECT_TRUE(woken);
}

TEST(ConnectionWaitUnconnected, ReportsNotConnected) {
    StompConnection connection;
    bool readable = false, woken = false;
    EXPECT_EQ(connection.waitForInput(-1, true, 10, &readable, &woken), APR_ENOSOCKET);
}

} // namespace
