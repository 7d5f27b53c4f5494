// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_SOCKETIO_H
#define TAVREN_INTERNAL_SOCKETIO_H

#include <apr_network_io.h>
#include <apr_time.h>

#include <sys/uio.h>

namespace tavren {
namespace internal {

/**
 * Moves bytes between a connected runtime socket and memory.
 *
 * Every call works on the descriptor with MSG_DONTWAIT and waits with poll()
 * itself, so how long it may wait is decided per call (Deadline), never by
 * the descriptor's blocking flag. That keeps a time-out working whatever
 * mode an earlier call left the socket in. Sends use MSG_NOSIGNAL: a peer
 * that has gone away yields EPIPE, never SIGPIPE.
 *
 * Statuses are the runtime's: 0, the system error number, APR_TIMEUP when
 * the deadline passed, APR_EOF when the peer closed its end, and the
 * would-block error (11) when the call may not wait and nothing could move.
 */
class SocketIo {
public:
    /** How long a call may wait for the socket. */
    class Deadline {
    public:
        /** Never waits. */
        static Deadline none();
        /** From a runtime time-out: negative waits for ever, 0 never, positive that many microseconds from now. */
        static Deadline fromTimeout(apr_interval_time_t timeout);

        bool mayWait() const { return kind != NONE; }
        /** Milliseconds left for poll(): -1 for ever, 0 when passed. */
        int pollMs() const;

    private:
        enum Kind { NONE, FOREVER, UNTIL };
        Kind kind = NONE;
        apr_time_t end = 0;
    };

    /**
     * Sends every byte of the iovecs (they are advanced as bytes go out).
     * timeout (a runtime time-out: negative for ever, 0 never) bounds each
     * wait for room in the send buffer, and starts again whenever bytes went
     * out: a peer that reads slowly is waited for, one that stopped reading
     * ends the call with APR_TIMEUP once nothing could be sent for that long.
     * On failure some bytes may have been sent already.
     */
    static apr_status_t sendAll(apr_socket_t* socket, struct iovec* iov, int count, apr_interval_time_t timeout);

    /** Receives at least one and at most length bytes into buffer; *received says how many. */
    static apr_status_t receive(apr_socket_t* socket, char* buffer, size_t length, size_t* received,
                                const Deadline& deadline);

    /**
     * Waits up to timeoutMs until socketFd (when >= 0) or wakeFd (when >= 0)
     * is readable; *socketReady tells whether socketFd was (or reported an
     * error or its end), *woken whether wakeFd was. A signal ends the wait
     * early, as a time-out does.
     */
    static apr_status_t waitReadable(int socketFd, int wakeFd, int timeoutMs, bool* socketReady, bool* woken);

    /** The descriptor of a runtime socket. */
    static int descriptor(apr_socket_t* socket);

    /** Waits until fd has events (poll()'s) or the deadline passed (APR_TIMEUP). */
    static apr_status_t waitFor(int fd, short events, const Deadline& deadline);
};

} // namespace internal
} // namespace tavren

#endif
