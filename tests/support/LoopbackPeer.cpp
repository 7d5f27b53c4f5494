// SPDX-License-Identifier: Apache-2.0
#include "support/LoopbackPeer.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace tavren {
namespace test {

namespace {

long long nowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

bool waitReadable(int fd, int timeoutMs) {
    struct pollfd p = {fd, POLLIN, 0};
    int rc;
    do {
        rc = ::poll(&p, 1, timeoutMs);
    } while (rc < 0 && errno == EINTR);
    return rc > 0;
}

} // namespace

LoopbackPeer::LoopbackPeer() : listenFd(-1), connFd(-1), listenPort(0) {
    listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    ::setsockopt(listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    ::bind(listenFd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr);
    ::listen(listenFd, 16);
    socklen_t len = sizeof addr;
    ::getsockname(listenFd, reinterpret_cast<struct sockaddr*>(&addr), &len);
    listenPort = ntohs(addr.sin_port);
}

LoopbackPeer::~LoopbackPeer() {
    closeConnection();
    stopListening();
}

bool LoopbackPeer::accept(int timeoutMs) {
    closeConnection();
    if (listenFd < 0 || !waitReadable(listenFd, timeoutMs)) return false;
    connFd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    return connFd >= 0;
}

bool LoopbackPeer::send(const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(connFd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool LoopbackPeer::sendSlowly(const std::string& bytes, size_t chunk, int pauseMs) {
    for (size_t pos = 0; pos < bytes.size(); pos += chunk) {
        if (pos) std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
        if (!send(bytes.substr(pos, chunk))) return false;
    }
    return true;
}

std::string LoopbackPeer::receive(size_t n, int timeoutMs) {
    std::string out;
    const long long deadline = nowMs() + timeoutMs;
    char buf[65536];
    while (out.size() < n) {
        const long long left = deadline - nowMs();
        if (left <= 0 || !waitReadable(connFd, static_cast<int>(left))) break;
        size_t want = n - out.size();
        if (want > sizeof buf) want = sizeof buf;
        ssize_t got = ::recv(connFd, buf, want, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        out.append(buf, static_cast<size_t>(got));
    }
    return out;
}

std::string LoopbackPeer::receiveAvailable(int quietMs, int timeoutMs) {
    std::string out;
    readAvailable(quietMs, timeoutMs, &out);
    return out;
}

size_t LoopbackPeer::discardAvailable(int quietMs, int timeoutMs) { return readAvailable(quietMs, timeoutMs, nullptr); }

size_t LoopbackPeer::readAvailable(int quietMs, int timeoutMs, std::string* out) {
    size_t total = 0;
    const long long deadline = nowMs() + timeoutMs;
    char buf[65536];
    while (nowMs() < deadline) {
        if (!waitReadable(connFd, quietMs)) break;
        ssize_t got = ::recv(connFd, buf, sizeof buf, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        total += static_cast<size_t>(got);
        if (out) out->append(buf, static_cast<size_t>(got));
    }
    return total;
}

void LoopbackPeer::closeConnection() {
    if (connFd >= 0) ::close(connFd);
    connFd = -1;
}

void LoopbackPeer::resetConnection() {
    if (connFd < 0) return;
    struct linger lg = {1, 0};
    ::setsockopt(connFd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    closeConnection();
}

void LoopbackPeer::stopListening() {
    if (listenFd >= 0) ::close(listenFd);
    listenFd = -1;
}

} // namespace test
} // namespace tavren
