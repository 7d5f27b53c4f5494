// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_LOOPBACKPEER_H
#define TAVREN_TEST_LOOPBACKPEER_H

#include <string>

namespace tavren {
namespace test {

/**
 * A raw TCP peer on 127.0.0.1 with an ephemeral port, for tests that check
 * the bytes on the wire. Plain POSIX sockets, independent of the library.
 * Every wait has a time-out.
 */
class LoopbackPeer {
public:
    LoopbackPeer();  // listens at once
    ~LoopbackPeer(); // closes everything
    LoopbackPeer(const LoopbackPeer&) = delete;
    LoopbackPeer& operator=(const LoopbackPeer&) = delete;

    int port() const { return listenPort; }

    /** Accepts one connection (closing an earlier one); false on time-out. */
    bool accept(int timeoutMs = 5000);

    /** Writes all of bytes to the accepted connection; false on failure. */
    bool send(const std::string& bytes);

    /** Writes bytes in pieces of chunk bytes with a pause of pauseMs between them. */
    bool sendSlowly(const std::string& bytes, size_t chunk, int pauseMs);

    /** Reads until exactly n bytes arrived, the peer closed, or the time-out passed. */
    std::string receive(size_t n, int timeoutMs = 5000);

    /** Reads whatever arrives until the connection has been quiet for quietMs. */
    std::string receiveAvailable(int quietMs = 100, int timeoutMs = 5000);

    /** Reads and drops whatever arrives until quiet for quietMs; returns the byte count. */
    size_t discardAvailable(int quietMs = 100, int timeoutMs = 5000);

    /** Closes the accepted connection (the listening socket stays). */
    void closeConnection();

    /** Closes the accepted connection with a reset (SO_LINGER 0). */
    void resetConnection();

    /** Stops listening: later connects are refused. */
    void stopListening();

private:
    size_t readAvailable(int quietMs, int timeoutMs, std::string* out);

    int listenFd;
    int connFd;
    int listenPort;
};

} // namespace test
} // namespace tavren

#endif
