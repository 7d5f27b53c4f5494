#include "transport/StompConnection.h"

#include "transport/SocketIo.h"

#include <apr_strings.h>

#include <cstring>
#include <vector>

namespace tavren {
namespace internal {

namespace {

char kLineFeed[] = "\n";
char kColon[] = ":";
char kFrameEnd[] = {'\0', '\n'};

struct iovec piece(const char* data, size_t length) {
    struct iovec v;
    v.iov_base = const_cast<char*>(data);
    v.iov_len = length;
    return v;
}

} // namespace

AprManager StompConnection::apr_init;

StompConnection::StompConnection()
    : socket(nullptr), localAddress(nullptr), localIp(nullptr), remoteAddress(nullptr), remoteHost(nullptr),
      connected(false), savedTimeout(0), savedNonBlock(0), mutex(nullptr), connectionPool(nullptr),
      objectPool(nullptr), readAhead(new char[kReadAheadSize]), readStart(0), readEnd(0) {
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

apr_status_t StompConnection::writeBuffer(char const* data, unsigned int length) {
    if (length == 0) return APR_SUCCESS;
    apr_interval_time_t timeout;
    currentTimeout(&timeout);
    struct iovec one = piece(data, length);
    return SocketIo::sendAll(socket, &one, 1, SocketIo::Deadline::fromTimeout(timeout));
}

apr_status_t StompConnection::createPool() {
    cleanPool();
    return apr_pool_create_ex(&connectionPool, nullptr, nullptr, nullptr);
}

void StompConnection::cleanPool() {
    if (connectionPool) {
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

apr_status_t StompConnection::internalDisconnect() {
    apr_socket_shutdown(socket, APR_SHUTDOWN_WRITE);
    apr_status_t rc = apr_socket_close(socket);
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
            if (socket) apr_socket_close(socket);
            socket = nullptr;
            rc = apr_socket_create(&socket, address->family, SOCK_STREAM, APR_PROTO_TCP, connectionPool);
            if (rc == APR_SUCCESS) rc = apr_socket_connect(socket, address);
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
        rc = apr_socket_addr_get(&remoteAddress, APR_REMOTE, socket);
    }
    if (rc == APR_SUCCESS) {
        remoteHost = remoteAddress->hostname ? apr_pstrdup(connectionPool, remoteAddress->hostname) : nullptr;
        rc = apr_socket_addr_get(&localAddress, APR_LOCAL, socket);
    }
    if (rc == APR_SUCCESS) rc = apr_sockaddr_ip_get(&localIp, localAddress);
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
    connected = true;
    return APR_SUCCESS;
}

apr_status_t StompConnection::disconnect() {
    Lock lock(mutex);
    if (lock.status() != APR_SUCCESS) return lock.status();
    if (!connected) return APR_ENOSOCKET;
    return internalDisconnect();
}

apr_status_t StompConnection::write(ClientFrame* frame, long long* timeout) {
    Lock lock(mutex);
    if (lock.status() != APR_SUCCESS) return lock.status();
    if (!connected) return APR_ENOSOCKET;
    apr_status_t rc = setTimeout(timeout);
    if (rc != APR_SUCCESS) return rc;

    // The frame goes out in one vectored send, straight from its strings.
    const HeaderMap& headers = frame->headers();
    std::vector<struct iovec> pieces;
    pieces.reserve(4 * headers.size() + 5);
    pieces.push_back(piece(frame->command().c_str(), std::strlen(frame->command().c_str())));
    pieces.push_back(piece(kLineFeed, 1));
    for (HeaderMap::const_iterator it = headers.begin(); it != headers.end(); ++it) {
        pieces.push_back(piece(it->first.data(), it->first.size()));
        pieces.push_back(piece(kColon, 1));
        pieces.push_back(piece(it->second.data(), it->second.size()));
        pieces.push_back(piece(kLineFeed, 1));
    }
    pieces.push_back(piece(kLineFeed, 1));
    if (frame->body()) pieces.push_back(piece(frame->body(), std::strlen(frame->body())));
    pieces.push_back(piece(kFrameEnd, sizeof kFrameEnd));

    apr_interval_time_t socketTimeout;
    currentTimeout(&socketTimeout);
    rc = SocketIo::sendAll(socket, pieces.data(), static_cast<int>(pieces.size()),
                           SocketIo::Deadline::fromTimeout(socketTimeout));
    if (rc != APR_SUCCESS) {
        restoreTimeout(timeout);
        return rc;
    }
    return restoreTimeout(timeout);
}

apr_status_t StompConnection::sendHeartbeat(long long* timeout) {
    Lock lock(mutex);
    if (lock.status() != APR_SUCCESS) return lock.status();
    if (!connected) return APR_ENOSOCKET;
    apr_status_t rc = setTimeout(timeout);
    if (rc != APR_SUCCESS) return rc;
    writeBuffer(kLineFeed, 1); // a heart-beat that cannot be sent is not an error here
    return restoreTimeout(timeout);
}

} // namespace internal
} // namespace tavren
