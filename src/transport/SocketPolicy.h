// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_SOCKETPOLICY_H
#define TAVREN_INTERNAL_SOCKETPOLICY_H

namespace tavren {
namespace internal {

/**
 * How long a connection may take to stand, and how soon the system gives up
 * on a peer that stopped answering. Every connection to the broker gets
 * these; docs/reliability.md explains the figures.
 */
struct SocketPolicy {
    // The TCP connect, over every address the host name resolves to
    // (microseconds). A host that never answers would otherwise hold the
    // caller for the system's two minutes of SYN retries; five seconds is
    // many round trips even over a mobile network.
    long long connectTimeoutUs = 5000000;

    // TCP keep-alive: the first probe after this long without traffic
    // (seconds), then one every keepAliveIntervalS. With userTimeoutMs
    // below, a peer that answers none is given up after about 40 s of
    // silence: 20 s idle, then probes at 25, 30, 35 and 40 s.
    int keepAliveIdleS = 20;
    int keepAliveIntervalS = 5;
    int keepAliveProbes = 4;

    // Data the peer has not acknowledged for this long (milliseconds) ends
    // the connection, instead of the system's retransmissions for about
    // fifteen minutes. It also ends the keep-alive probing above.
    unsigned userTimeoutMs = 40000;
};

} // namespace internal
} // namespace tavren

#endif
