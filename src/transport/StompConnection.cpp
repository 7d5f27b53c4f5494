// SPDX-License-Identifier: Apache-2.0
#include "transport/StompConnection.h"

#include "frames/AckFrame.h"
#include "transport/SocketIo.h"

#include <apr_strings.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

namespace tavren {
namespace internal {

namespace {

char kLineFeed[] = "\n";
char kColon[] = ":";
char kFrameEnd[] = {'\0', '\n'};

// Enough for a frame with 14 headers.
const size_t kPiecesOnStack = 64;

// Frames up to this size in all are joined into one buffer before they are sent.
const size_t kJoinLimit = 4096;

struct iovec piece(const char* data, size_t length) {
    struct iovec v;
    v.iov_base = const_cast<char*>(data);
    v.iov_len = length;
    return v;
}

} // namespace

AprManager StompConnection::apr_init;

StompConnection::StompConnection()
    : socket(nullptr),
      localAddress(nullptr),
      localIp(nullptr),
      remoteAddress(nullptr),
      remoteHost(nullptr),
      connected(false),
      connections(0),
      savedTimeout(0),
      savedNonBlock(0),
      mutex(nullptr),
      connectionPool(nullptr),
      objectPool(nullptr),
      readAhead(new char[kReadAheadSize]),
      readStart(0),
      readEnd(0),
      interruptibleFd(-1) {
    apr_pool_create_ex(&objectPool, nullptr, nullptr, nullptr);
    apr_thread_mutex_create(&mutex, APR_THREAD_MUTEX_DEFAULT, objectPool);
}

StompConnection::~StompConnection() {
    cleanPool();
    apr_thread_mutex_destroy(mutex);
    apr_pool_destroy(objectPool);
    delete[] readAhead;
}

apr_status_t StompConnection::setTimeout(long long* t) {
    if (!t) return APR_SUCCESS;
    return apr_socket_timeout_set(socket, *t);
}

apr_status_t StompConnection::restoreTimeout(long long* t) {
    if (!t) return APR_SUCCESS;
    return apr_socket_timeout_set(socket, savedTimeout);
}

apr_status_t StompConnection::currentTimeout(apr_interval_time_t* timeout) {
    return apr_socket_timeout_get(socket, timeout);
}

apr_interval_time_t StompConnection::writeTimeout(long long* t) {
    // A write waits per call with poll(), whatever the socket's time-out:
    // the time-out given is used as it is instead of being set on the socket
    // and put back, which would cost system calls on every write and leave
    // the socket as it was all the same.
    if (t) return *t;
    apr_interval_time_t timeout;
    currentTimeout(&timeout);
    return timeout;
}

apr_status_t StompConnection::writeBuffer(char const* data, unsigned int length, apr_interval_time_t timeout) {
    if (length == 0) return APR_SUCCESS;
    struct iovec one = piece(data, length);
    return sendPieces(&one, 1, timeout);
}

long long StompConnection::nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

apr_status_t StompConnection::sendPieces(struct iovec* pieces, int count, apr_interval_time_t timeout) {
    const apr_status_t rc =
        tls ? tls->sendAll(pieces, count, timeout) : SocketIo::sendAll(socket, pieces, count, timeout);
    if (tracking && rc == APR_SUCCESS) lastSendNs = nowNs();
    if (rc == EPROTO && tls) noteTlsFailure();
    return rc;
}

apr_status_t StompConnection::receiveSome(char* buffer, size_t length, size_t* received,
                                          const SocketIo::Deadline& deadline) {
    const apr_status_t rc = tls ? tls->receive(buffer, length, received, deadline)
                                : SocketIo::receive(socket, buffer, length, received, deadline);
    if (tracking && rc == APR_SUCCESS) lastReceiveNs = nowNs();
    if (rc == EPROTO && tls) noteTlsFailure();
    return rc;
}

void StompConnection::noteTlsFailure() { lastFailure = "TLS: the connection failed: " + tls->lastError(); }

std::string StompConnection::failureDetail() {
    Lock lock(mutex);
    return lastFailure;
}

void StompConnection::useTls(const tavren::TlsOptions& options) {
    Lock lock(mutex);
    tlsOptions.reset(new tavren::TlsOptions(options));
}

apr_status_t StompConnection::startTls(char const* host, apr_time_t end) {
    apr_status_t rc = APR_SUCCESS;
    tls = TlsChannel::open(SocketIo::descriptor(socket), *tlsOptions, host, end, &lastFailure, &rc);
    return rc;
}

apr_status_t StompConnection::createPool() {
    cleanPool();
    return apr_pool_create_ex(&connectionPool, nullptr, nullptr, nullptr);
}

void StompConnection::cleanPool() {
    tls.reset(); // its socket goes with the pool
    if (connectionPool) {
        // The pool closes the socket, if one is left: interrupt() must not see it any more.
        setInterruptible(-1);
        apr_pool_destroy(connectionPool);
        connectionPool = nullptr;
    }
    // Everything below lived in the pool.
    socket = nullptr;
    localAddress = nullptr;
    localIp = nullptr;
    remoteAddress = nullptr;
    remoteHost = nullptr;
}

void StompConnection::emptyReadAhead() {
    readStart = readEnd = 0;
    parser.reset();
}

void StompConnection::setInterruptible(int fd) {
    std::lock_guard<std::mutex> guard(interruptMutex);
    interruptibleFd = fd;
}

bool StompConnection::interrupt() {
    std::lock_guard<std::mutex> guard(interruptMutex);
    if (interruptibleFd < 0) return false;
    ::shutdown(interruptibleFd, SHUT_RDWR);
    return true;
}

apr_status_t StompConnection::internalDisconnect() {
    if (tls) tls->close();
    apr_socket_shutdown(socket, APR_SHUTDOWN_WRITE);
    apr_status_t rc;
    {
        // Closed under the interrupt lock: the number may be reused at once.
        std::lock_guard<std::mutex> guard(interruptMutex);
        interruptibleFd = -1;
        rc = apr_socket_close(socket);
    }
    cleanPool();
    connected = false;
    emptyReadAhead();
    return rc;
}

apr_status_t StompConnection::connect(char const* host, int port, long long* timeout, int* nonBlock) {
    Lock lock(mutex);
    if (lock.status() != APR_SUCCESS) return lock.status();
    if (connected) {
        apr_status_t rc = internalDisconnect();
        if (rc != APR_SUCCESS) {
            cleanPool();
            return rc;
        }
    }
    emptyReadAhead();
    lastFailure.clear();

    // The TCP connect over all the addresses, and the TLS handshake when
    // there is one, share one time-out.
    const apr_time_t end = apr_time_now() + policy.connectTimeoutUs;
    apr_status_t rc = createPool();
    if (rc == APR_SUCCESS)
        rc = apr_sockaddr_info_get(&remoteAddress, host, APR_UNSPEC, static_cast<apr_port_t>(port & 0xFFFF), 0,
                                   connectionPool);
    if (rc == APR_SUCCESS) {
        // The first address is tried first; when a name resolves to several
        // (localhost: ::1 and 127.0.0.1), the next one is tried only if the
        // one before could not be connected, and the first failure is what
        // a caller sees when none can.
        apr_status_t first = APR_SUCCESS;
        for (apr_sockaddr_t* address = remoteAddress; address; address = address->next) {
            if (socket) {
                setInterruptible(-1);
                apr_socket_close(socket);
            }
            socket = nullptr;
            rc = apr_socket_create(&socket, address->family, SOCK_STREAM, APR_PROTO_TCP, connectionPool);
            if (rc == APR_SUCCESS) rc = connectWithin(address, end);
            if (rc == APR_SUCCESS) break;
            if (first == APR_SUCCESS) first = rc;
        }
        if (rc != APR_SUCCESS) rc = first;
    }
    if (rc == APR_SUCCESS) {
        // Every frame leaves in one send, so Nagle's algorithm has nothing to
        // coalesce; it would only hold a frame back until the broker's
        // delayed acknowledgement of the one before (brokers answer no ACK).
        // A socket that refuses the option still works, only slower.
        apr_socket_opt_set(socket, APR_TCP_NODELAY, 1);
        applyKeepAlive();
        rc = apr_socket_addr_get(&remoteAddress, APR_REMOTE, socket);
    }
    if (rc == APR_SUCCESS) {
        remoteHost = remoteAddress->hostname ? apr_pstrdup(connectionPool, remoteAddress->hostname) : nullptr;
        rc = apr_socket_addr_get(&localAddress, APR_LOCAL, socket);
    }
    if (rc == APR_SUCCESS) rc = apr_sockaddr_ip_get(&localIp, localAddress);
    if (rc == APR_SUCCESS && tlsOptions) rc = startTls(host, end);
    if (rc == APR_SUCCESS) {
        if (timeout) {
            savedTimeout = *timeout;
            rc = apr_socket_timeout_set(socket, *timeout);
        } else {
            rc = apr_socket_timeout_get(socket, &savedTimeout);
        }
    }
    if (rc == APR_SUCCESS) {
        if (nonBlock) {
            savedNonBlock = *nonBlock;
            rc = apr_socket_opt_set(socket, APR_SO_NONBLOCK, *nonBlock);
        } else {
            rc = apr_socket_opt_get(socket, APR_SO_NONBLOCK, &savedNonBlock);
        }
    }
    if (rc != APR_SUCCESS) {
        cleanPool(); // also disposes of a half-made socket
        return rc;
    }
    if (tracking) lastSendNs = lastReceiveNs = nowNs();
    ++connections;
    connected = true;
    return APR_SUCCESS;
}

apr_status_t StompConnection::connectWithin(apr_sockaddr_t* address, apr_time_t end) {
    // The socket waits for the connect no longer than the time left, then
    // goes back to the time-out it had, which later calls start from.
    setInterruptible(SocketIo::descriptor(socket));
    const apr_time_t left = end - apr_time_now();
    if (left <= 0) return APR_TIMEUP;
    apr_interval_time_t before = -1;
    apr_socket_timeout_get(socket, &before);
    apr_status_t rc = apr_socket_timeout_set(socket, left);
    if (rc == APR_SUCCESS) rc = apr_socket_connect(socket, address);
    const apr_status_t restored = apr_socket_timeout_set(socket, before);
    return rc != APR_SUCCESS ? rc : restored;
}

void StompConnection::applyKeepAlive() {
    // A connection whose peer vanished (a host that crashed, a network path
    // or NAT entry that is gone) is noticed by the system within the
    // policy's time instead of never. Options the system refuses are left
    // at its defaults: the connection works without them.
    const int fd = SocketIo::descriptor(socket);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &policy.keepAliveIdleS, sizeof policy.keepAliveIdleS);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &policy.keepAliveIntervalS, sizeof policy.keepAliveIntervalS);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &policy.keepAliveProbes, sizeof policy.keepAliveProbes);
    setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &policy.userTimeoutMs, sizeof policy.userTimeoutMs);
}

apr_status_t StompConnection::disconnect() {
    Lock lock(mutex);
    if (lock.status() != APR_SUCCESS) return lock.status();
    if (!connected) return APR_ENOSOCKET;
    return internalDisconnect();
}

apr_status_t StompConnection::write(ClientFrame* frame, long long* timeout) { return writeFrames(&frame, 1, timeout); }

namespace {

// The pieces of one header line.
size_t headerPieces(struct iovec* at, const std::string& name, const std::string& value) {
    at[0] = piece(name.data(), name.size());
    at[1] = piece(kColon, 1);
    at[2] = piece(value.data(), value.size());
    at[3] = piece(kLineFeed, 1);
    return 4;
}

// Room for the pieces of frames: on the stack for usual frames, from the
// heap for frames with many headers.
class Pieces {
public:
    explicit Pieces(size_t needed) : at(onStack) {
        if (needed > kPiecesOnStack) {
            onHeap.resize(needed);
            at = onHeap.data();
        }
    }
    struct iovec* at;

private:
    struct iovec onStack[kPiecesOnStack];
    std::vector<struct iovec> onHeap;
};

} // namespace

apr_status_t StompConnection::writeFrames(ClientFrame* const* frames, size_t frameCount, long long* timeout) {
    Lock lock(mutex);
    if (lock.status() != APR_SUCCESS) return lock.status();
    if (!connected) return APR_ENOSOCKET;

    // The frames go out in one vectored send, straight from their strings.
    size_t needed = 0;
    for (size_t f = 0; f < frameCount; ++f) needed += 4 * frames[f]->headers().size() + 5;
    Pieces pieces(needed);
    size_t count = 0;
    for (size_t f = 0; f < frameCount; ++f) {
        const ClientFrame* frame = frames[f];
        pieces.at[count++] = piece(frame->command().c_str(), std::strlen(frame->command().c_str()));
        pieces.at[count++] = piece(kLineFeed, 1);
        for (HeaderMap::const_iterator it = frame->headers().begin(); it != frame->headers().end(); ++it) {
            count += headerPieces(pieces.at + count, it->first, it->second);
        }
        pieces.at[count++] = piece(kLineFeed, 1);
        if (frame->body()) pieces.at[count++] = piece(frame->body(), std::strlen(frame->body()));
        pieces.at[count++] = piece(kFrameEnd, sizeof kFrameEnd);
    }
    return sendJoined(pieces.at, count, timeout);
}

apr_status_t StompConnection::writeAcks(const AckPieces* acks, size_t ackCount, long long* timeout,
                                        unsigned onConnection) {
    Lock lock(mutex);
    if (lock.status() != APR_SUCCESS) return lock.status();
    if (!connected || (onConnection != 0 && onConnection != connections.load())) return APR_ENOSOCKET;

    // The bytes of the frames AckFrame makes, without making them.
    Pieces pieces(ackCount * (4 * 2 + 4));
    size_t count = 0;
    for (size_t a = 0; a < ackCount; ++a) {
        const AckPieces& ack = acks[a];
        pieces.at[count++] = piece(ack.command->data(), ack.command->size());
        pieces.at[count++] = piece(kLineFeed, 1);
        ack.eachHeader([&](const std::string& name, const std::string& value) {
            count += headerPieces(pieces.at + count, name, value);
        });
        pieces.at[count++] = piece(kLineFeed, 1);
        pieces.at[count++] = piece(kFrameEnd, sizeof kFrameEnd);
    }
    return sendJoined(pieces.at, count, timeout);
}

apr_status_t StompConnection::sendJoined(struct iovec* pieces, size_t count, long long* timeout) {
    // Small frames are copied into one buffer first: the kernel walks a
    // single piece faster than fifteen, and the copy costs less than that.
    char joined[kJoinLimit];
    struct iovec whole;
    size_t total = 0;
    for (size_t i = 0; i < count; ++i) total += pieces[i].iov_len;
    if (total <= sizeof joined) {
        char* at = joined;
        for (size_t i = 0; i < count; ++i) {
            std::memcpy(at, pieces[i].iov_base, pieces[i].iov_len);
            at += pieces[i].iov_len;
        }
        whole = piece(joined, total);
        pieces = &whole;
        count = 1;
    }
    return sendPieces(pieces, static_cast<int>(count), writeTimeout(timeout));
}

apr_status_t StompConnection::sendHeartbeat(long long* timeout) {
    Lock lock(mutex);
    if (lock.status() != APR_SUCCESS) return lock.status();
    if (!connected) return APR_ENOSOCKET;
    writeBuffer(kLineFeed, 1, writeTimeout(timeout)); // a heart-beat that cannot be sent is not an error here
    return APR_SUCCESS;
}

} // namespace internal
} // namespace tavren
