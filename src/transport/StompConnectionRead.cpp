// SPDX-License-Identifier: Apache-2.0
#include "transport/StompConnection.h"

#include "transport/SocketIo.h"

#include <cerrno>
#include <new>

namespace tavren {
namespace internal {

apr_status_t StompConnection::waitForInput(int wakeFd, bool watchSocket, int timeoutMs, bool* readable, bool* woken) {
    int socketFd = -1;
    *readable = false;
    *woken = false;
    {
        Lock lock(mutex);
        if (lock.status() != APR_SUCCESS) return lock.status();
        if (!connected) return APR_ENOSOCKET;
        // Received bytes that were not parsed yet may already hold a frame.
        if (watchSocket && (readStart < readEnd || (tls && tls->hasPending()))) {
            *readable = true;
            return APR_SUCCESS;
        }
        if (watchSocket) socketFd = SocketIo::descriptor(socket);
    }
    return SocketIo::waitReadable(socketFd, wakeFd, timeoutMs, readable, woken);
}

apr_status_t StompConnection::read(ServerFrame** out, bool block, long long* timeout) {
    return readFrame(out, block, timeout, true, true);
}

apr_status_t StompConnection::readNext(ServerFrame** out, bool receive) {
    return readFrame(out, false, nullptr, receive, false);
}

apr_status_t StompConnection::readFrame(ServerFrame** out, bool block, long long* timeout, bool receive,
                                        bool heartbeatFrames) {
    Lock lock(mutex);
    if (lock.status() != APR_SUCCESS) return lock.status();
    if (!connected) return APR_ENOSOCKET;

    SocketIo::Deadline deadline = SocketIo::Deadline::none();
    if (block) {
        apr_status_t rc = setTimeout(timeout);
        if (rc != APR_SUCCESS) return rc;
        apr_interval_time_t socketTimeout;
        currentTimeout(&socketTimeout);
        deadline = SocketIo::Deadline::fromTimeout(socketTimeout);
    }
    // A non-blocking read never waits, whatever time-out the socket has:
    // the listen thread polls with the engine's lock held.

    for (;;) {
        if (readStart < readEnd) {
            FrameParser::Result result;
            size_t used = 0;
            try {
                result = parser.parse(readAhead + readStart, readEnd - readStart, &used);
            } catch (const std::bad_alloc&) {
                // No memory for a line or a body: the frame and the bytes
                // received with it are dropped.
                emptyReadAhead();
                restoreTimeout(timeout);
                return APR_ENOMEM;
            }
            readStart += used;
            if (readStart == readEnd) readStart = readEnd = 0;
            if (result == FrameParser::COMPLETE) {
                // A heart-beat leaves the socket's time-out as this call set it.
                if (parser.heartbeatReady() && !heartbeatFrames) {
                    parser.dropHeartbeat();
                    *out = nullptr;
                    return APR_SUCCESS;
                }
                ServerFrame* frame = parser.takeFrame();
                *out = frame;
                if (frame->command().empty()) return APR_SUCCESS;
                restoreTimeout(timeout);
                return APR_SUCCESS;
            }
            if (result == FrameParser::MALFORMED) {
                restoreTimeout(timeout);
                return APR_EGENERAL;
            }
        }

        // Every buffered byte belongs to the frame in progress: receive more.
        if (!receive) return EAGAIN;
        size_t received = 0;
        apr_status_t rc = receiveSome(readAhead, kReadAheadSize, &received, deadline);
        if (rc != APR_SUCCESS) {
            // Nothing more yet (would-block or time-out): a partly received
            // frame is kept for the next call. Any other failure ends the
            // stream, and the half frame with it.
            if (rc != APR_EAGAIN && rc != EWOULDBLOCK && rc != APR_TIMEUP) parser.reset();
            restoreTimeout(timeout);
            return rc;
        }
        readStart = 0;
        readEnd = received;
    }
}

} // namespace internal
} // namespace tavren
