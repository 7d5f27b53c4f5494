// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_TLSCHANNEL_H
#define TAVREN_INTERNAL_TLSCHANNEL_H

#include "transport/SocketIo.h"

#include <apr_time.h>
#include <tavren/TlsOptions.h>

#include <sys/uio.h>

#include <cstddef>
#include <memory>
#include <string>

namespace tavren {
namespace internal {

/**
 * TLS over a connected TCP socket, with OpenSSL: the handshake, then the
 * same sends and receives as SocketIo, encrypted. Like SocketIo it never
 * blocks in the library: the descriptor is used without waiting and every
 * wait is a poll() bounded by the caller's deadline or time-out, so a TLS
 * connection keeps the time-outs of a plain one.
 *
 * Not thread-safe: the connection's mutex serialises every call.
 */
class TlsChannel {
public:
    ~TlsChannel();
    TlsChannel(const TlsChannel&) = delete;
    TlsChannel& operator=(const TlsChannel&) = delete;

    /**
     * Runs the client handshake on fd, to be finished by end (a runtime
     * time). host is what the connection was asked to reach: the name to
     * verify and send as SNI unless options.serverName is set (an IP
     * address is verified as one and sent as no SNI). Returns the channel,
     * or null with *why set to a reason fit for a log line (no secret in
     * it) and *status to the runtime status (APR_TIMEUP when time ran out).
     */
    static std::unique_ptr<TlsChannel> open(int fd, const tavren::TlsOptions& options, const std::string& host,
                                            apr_time_t end, std::string* why, apr_status_t* status);

    /** As SocketIo::sendAll. */
    apr_status_t sendAll(struct iovec* iov, int count, apr_interval_time_t timeout);

    /** As SocketIo::receive; decrypted bytes already held count as received at once. */
    apr_status_t receive(char* buffer, size_t length, size_t* received, const SocketIo::Deadline& deadline);

    /** Why the last send or receive failed with EPROTO (OpenSSL's reason, no secret in it). */
    const std::string& lastError() const;

    /** True when decrypted bytes wait to be received (poll() cannot see them). */
    bool hasPending() const;

    /** Sends the closing alert if the socket takes it at once; never waits. */
    void close();

private:
    struct State;
    explicit TlsChannel(std::unique_ptr<State> s);
    std::unique_ptr<State> state;
};

} // namespace internal
} // namespace tavren

#endif
