// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TLSOPTIONS_H
#define TAVREN_TLSOPTIONS_H

#include <string>

namespace tavren {

/**
 * How a client secures its connections with TLS (StompClient::useTls).
 *
 * The connection uses TLS 1.2 or later. Unless verifyPeer is false, the
 * broker's certificate chain must lead to a trusted CA and the certificate
 * must name the broker (serverName, or the host the client was given, as a
 * DNS name or an IP address); otherwise the connection attempt fails like
 * any other and is retried. The files are read at every connection attempt,
 * so certificates renewed on the device are taken up by the next connection.
 * docs/security.md explains the set-up.
 */
struct TlsOptions {
    /** PEM file of the CAs to trust; empty: the system's default store. */
    std::string caFile;
    /** The client's certificate (PEM) for mutual TLS; empty: none is offered. */
    std::string certificateFile;
    /** The private key of certificateFile (PEM, not encrypted). Never logged. */
    std::string privateKeyFile;
    /** The name to verify and to send as SNI; empty: the host given to the client. */
    std::string serverName;
    /** False only for tests: then neither the certificate nor the name is checked. */
    bool verifyPeer = true;
};

} // namespace tavren

#endif
