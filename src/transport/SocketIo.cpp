// SPDX-License-Identifier: Apache-2.0
#include "transport/SocketIo.h"

#include <apr_portable.h>

#include <cerrno>
#include <climits>
#include <poll.h>
#include <sys/socket.h>

namespace tavren {
namespace internal {

SocketIo::Deadline SocketIo::Deadline::none() { return Deadline(); }

SocketIo::Deadline SocketIo::Deadline::fromTimeout(apr_interval_time_t timeout) {
    Deadline d;
    if (timeout < 0) {
        d.kind = FOREVER;
    } else if (timeout > 0) {
        d.kind = UNTIL;
        d.end = apr_time_now() + timeout;
    }
    return d;
}

int SocketIo::Deadline::pollMs() const {
    if (kind == FOREVER) return -1;
    if (kind == NONE) return 0;
    const apr_time_t left = end - apr_time_now();
    if (left <= 0) return 0;
    const apr_time_t ms = (left + 999) / 1000; // round up: never wake before the deadline
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

apr_status_t SocketIo::waitFor(int fd, short events, const Deadline& deadline) {
    for (;;) {
        const int ms = deadline.pollMs();
        if (ms == 0) return APR_TIMEUP;
        struct pollfd p = {fd, events, 0};
        const int rc = ::poll(&p, 1, ms);
        if (rc > 0) return APR_SUCCESS; // readable, writable, or an error the next call reports
        if (rc < 0 && errno != EINTR) return errno;
    }
}

apr_status_t SocketIo::waitReadable(int socketFd, int wakeFd, int timeoutMs, bool* socketReady, bool* woken) {
    struct pollfd p[2];
    nfds_t count = 0;
    if (socketFd >= 0) p[count++] = {socketFd, POLLIN, 0};
    const nfds_t wakeIndex = count;
    if (wakeFd >= 0) p[count++] = {wakeFd, POLLIN, 0};
    *socketReady = false;
    *woken = false;
    const int rc = ::poll(p, count, timeoutMs);
    if (rc < 0 && errno != EINTR) return errno;
    if (rc > 0 && socketFd >= 0 && p[0].revents) *socketReady = true;
    if (rc > 0 && wakeFd >= 0 && p[wakeIndex].revents) *woken = true;
    return APR_SUCCESS;
}

int SocketIo::descriptor(apr_socket_t* socket) {
    apr_os_sock_t fd = -1;
    if (socket) apr_os_sock_get(&fd, socket);
    return fd;
}

apr_status_t SocketIo::sendAll(apr_socket_t* socket, struct iovec* iov, int count, apr_interval_time_t timeout) {
    apr_os_sock_t fd;
    apr_os_sock_get(&fd, socket);
    Deadline deadline = Deadline::fromTimeout(timeout);
    while (count > 0) {
        if (iov->iov_len == 0) { // nothing in this piece
            ++iov;
            --count;
            continue;
        }
        struct msghdr msg = {};
        msg.msg_iov = iov;
        msg.msg_iovlen = count < IOV_MAX ? count : IOV_MAX;
        const ssize_t sent = ::sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) return errno;
            if (!deadline.mayWait()) return errno;
            // A full send buffer is waited out: a frame stopped half-way would
            // corrupt the stream for the broker.
            const apr_status_t rc = waitFor(fd, POLLOUT, deadline);
            if (rc != APR_SUCCESS) return rc;
            continue;
        }
        // Progress: the peer gets the whole time-out again for the rest.
        if (sent > 0) deadline = Deadline::fromTimeout(timeout);
        // Skip what went out, possibly ending inside a piece.
        size_t done = static_cast<size_t>(sent);
        while (count > 0 && done >= iov->iov_len) {
            done -= iov->iov_len;
            ++iov;
            --count;
        }
        if (count > 0) {
            iov->iov_base = static_cast<char*>(iov->iov_base) + done;
            iov->iov_len -= done;
        }
    }
    return APR_SUCCESS;
}

apr_status_t SocketIo::receive(apr_socket_t* socket, char* buffer, size_t length, size_t* received,
                               const Deadline& deadline) {
    apr_os_sock_t fd;
    apr_os_sock_get(&fd, socket);
    *received = 0;
    for (;;) {
        const ssize_t got = ::recv(fd, buffer, length, MSG_DONTWAIT);
        if (got > 0) {
            *received = static_cast<size_t>(got);
            return APR_SUCCESS;
        }
        if (got == 0) return APR_EOF;
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) return errno;
        if (!deadline.mayWait()) return errno;
        const apr_status_t rc = waitFor(fd, POLLIN, deadline);
        if (rc != APR_SUCCESS) return rc;
    }
}

} // namespace internal
} // namespace tavren
