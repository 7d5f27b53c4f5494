// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_STOMPCONNECTION_H
#define TAVREN_INTERNAL_STOMPCONNECTION_H

#include "frames/ClientFrame.h"
#include "frames/ServerFrame.h"
#include "transport/AprManager.h"
#include "transport/FrameParser.h"
#include "transport/SocketIo.h"
#include "transport/SocketPolicy.h"
#include "transport/TlsChannel.h"

#include <apr_network_io.h>
#include <apr_pools.h>
#include <apr_thread_mutex.h>

#include <tavren/TlsOptions.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace tavren {
namespace internal {

/**
 * The TCP connection to the broker: connects, writes client frames in the
 * STOMP wire format, reads server frames, and closes.
 *
 * Every operation returns a runtime status (0 for success) and never
 * throws, except that running out of memory while building a frame's
 * pieces passes std::bad_alloc on. Statuses of its own: 20011 (not
 * connected), 20014 (malformed incoming frame), 12 (no memory for a read
 * buffer); 11 from a non-blocking read means no complete frame yet.
 *
 * One mutex serialises connect, disconnect, write, sendHeartbeat and read,
 * each of which holds it for its whole run and releases it on every path.
 *
 * Time-outs are microseconds passed by pointer: a null pointer leaves the
 * socket's time-out as it is. A negative time-out waits for ever, 0 never.
 */
struct AckPieces;

class StompConnection {
public:
    /** Initialises the runtime when the library is loaded, terminates it at unload. */
    static AprManager apr_init;

    StompConnection();
    virtual ~StompConnection();
    StompConnection(const StompConnection&) = delete;
    StompConnection& operator=(const StompConnection&) = delete;

    /**
     * Resolves host, connects to port, and records the local and remote
     * addresses. A connected object is disconnected first. The connect
     * itself is given the policy's connect time-out over all the addresses
     * the host resolves to (APR_TIMEUP when it passes), and the connected
     * socket gets the policy's keep-alive and user time-out. timeout, when
     * given, becomes the socket's time-out for later calls; nonBlock, when
     * given, sets the descriptor's non-blocking flag (which the library's
     * own reads and writes do not depend on: they wait per call).
     */
    apr_status_t connect(char const* host, int port, long long* timeout, int* nonBlock);

    /**
     * Later connects run TLS over the TCP connection (the handshake within
     * the connect time-out), and every read and write goes through it.
     */
    void useTls(const tavren::TlsOptions& options);

    /** Takes back a frame read from this connection once its reader is done with it (see FrameParser::recycle). */
    void recycle(ServerFrame* frame) { parser.recycle(frame); }

    /** Bounds the lines and bodies of frames read from now on (see FrameParser::setLimits). */
    void setFrameLimits(size_t maxLineBytes, size_t maxBodyBytes) { parser.setLimits(maxLineBytes, maxBodyBytes); }

    /**
     * Why the last connect, or a later read or write, failed when its status
     * alone cannot say: the TLS handshake's verification error, the broker's
     * TLS alert. Empty otherwise; a connect empties it.
     */
    std::string failureDetail();

    /**
     * From the next connect on, notes when bytes last went out and came in
     * (both start at the connect), for the heart-beats.
     */
    void trackActivity() { tracking = true; }
    /** Milliseconds since bytes last went out; since the connect when none did yet. */
    long long msSinceSend() const { return msSince(lastSendNs); }
    /** Milliseconds since bytes last came in; since the connect when none did yet. */
    long long msSinceReceive() const { return msSince(lastReceiveNs); }

    /** The limits later connects apply. */
    void setPolicy(const SocketPolicy& p) { policy = p; }
    const SocketPolicy& socketPolicy() const { return policy; }

    /**
     * Shuts the current socket down in both directions without waiting for
     * the connection's mutex, so that a read or write stalled on it (in
     * another thread, holding the mutex) fails at once. The socket stays
     * open until the next disconnect or connect. Safe from any thread;
     * false when there was no socket to shut down.
     */
    bool interrupt();

    /** Shuts the socket down for writing and closes it. 20011 when not connected. */
    apr_status_t disconnect();

    /**
     * Writes one frame: command, LF, each header as name ":" value LF in map
     * order, LF, the body up to its first NUL, then NUL LF. Nothing is
     * escaped and no header is added. The frame goes out whole unless the
     * socket fails or no byte of it can be sent for the time-out (which
     * starts again whenever bytes went out); what was sent before a failure
     * stays sent.
     */
    apr_status_t write(ClientFrame* frame, long long* timeout);

    /**
     * Writes frameCount frames one after another, as write() writes each,
     * in one go: several ACKs ready at once leave in one send.
     */
    apr_status_t writeFrames(ClientFrame* const* frames, size_t frameCount, long long* timeout);

    /**
     * As writeFrames() with the ACK and NACK frames of acks
     * (AckFrame::piecesFor), without making them. With onConnection (not 0)
     * only on that connection (connectionNumber()): APR_ENOSOCKET once
     * another has been made.
     */
    apr_status_t writeAcks(const AckPieces* acks, size_t ackCount, long long* timeout, unsigned onConnection = 0);

    /** Counts the connections made: the one standing (or the last) is this one. Safe from any thread. */
    unsigned connectionNumber() const { return connections.load(); }

    /** Writes one LF. A failure to send is ignored; the result is that of restoring the time-out. */
    apr_status_t sendHeartbeat(long long* timeout);

    /**
     * Reads one frame into *out (the caller owns it; untouched on failure).
     *
     * block true: waits for the frame within the time-out (timeout, when
     * given, is applied to the socket first; the deadline covers the whole
     * frame, so a peer that sends slowly cannot stretch it). APR_TIMEUP when
     * it passes.
     * block false: never waits; 11 when no complete frame has arrived yet.
     *
     * A frame that has only partly arrived when a read gives up with 11 or
     * APR_TIMEUP is kept, and the next read goes on from there. Other
     * statuses: APR_EOF when the broker closed, 20014 for a malformed frame,
     * 12 when a buffer could not be allocated, the system's error otherwise.
     * An empty first line comes out as a heart-beat: a frame with an empty
     * command. The body is always followed by a NUL that is not part of it.
     */
    apr_status_t read(ServerFrame** out, bool block, long long* timeout);

    /**
     * For the thread that receives the broker's frames: a non-blocking
     * read() (receive false: of the bytes already received only, the socket
     * left alone) that gives a heart-beat as a null *out, no frame made for it.
     */
    apr_status_t readNext(ServerFrame** out, bool receive);

    /**
     * Waits, without holding the connection's mutex, until a read may find
     * something (bytes already received but not parsed yet count at once),
     * or wakeFd (when >= 0) is readable, or timeoutMs passed. With
     * watchSocket false only wakeFd and the time-out end the wait. Sets
     * *readable when a read may find something, *woken when wakeFd was
     * readable; when received bytes answer at once, wakeFd is not looked at
     * and *woken stays false (it is still readable for the next wait). Meant
     * for the one thread that reads: the socket must not be closed while it
     * waits. 20011 when not connected.
     */
    apr_status_t waitForInput(int wakeFd, bool watchSocket, int timeoutMs, bool* readable, bool* woken);

    /** Safe to call from any thread. */
    bool isConnected() const { return connected; }
    /** The local address and the broker's host name; valid until the next connect or disconnect. */
    char const* getLocalIp() const { return localIp; }
    char const* getRemoteHost() const { return remoteHost; }

protected:
    // All of these expect the caller to hold the mutex.
    apr_status_t setTimeout(long long* t);
    apr_status_t restoreTimeout(long long* t);
    apr_interval_time_t writeTimeout(long long* t);
    apr_status_t writeBuffer(char const* data, unsigned int length, apr_interval_time_t timeout);
    apr_status_t createPool();
    void cleanPool();
    apr_status_t internalDisconnect();
    apr_status_t currentTimeout(apr_interval_time_t* timeout);
    void emptyReadAhead();
    apr_status_t connectWithin(apr_sockaddr_t* address, apr_time_t end);
    apr_status_t startTls(char const* host, apr_time_t end);
    void noteTlsFailure();
    static long long nowNs();
    static long long msSince(const std::atomic<long long>& ns) { return (nowNs() - ns.load()) / 1000000; }
    // The socket's bytes, through TLS when the connection has it.
    apr_status_t sendPieces(struct iovec* pieces, int count, apr_interval_time_t timeout);
    // read() and readNext(): receive false leaves the socket alone;
    // heartbeatFrames false gives a heart-beat as a null frame.
    apr_status_t readFrame(ServerFrame** out, bool block, long long* timeout, bool receive, bool heartbeatFrames);
    // Sends the pieces of whole frames, joined first when they are small;
    // the mutex is held.
    apr_status_t sendJoined(struct iovec* pieces, size_t count, long long* timeout);
    apr_status_t receiveSome(char* buffer, size_t length, size_t* received, const SocketIo::Deadline& deadline);
    void applyKeepAlive();
    void setInterruptible(int fd);

private:
    // Holds the connection mutex for a scope. A failed lock is answered
    // with an unlock attempt, and the operation returns the lock's status.
    class Lock {
    public:
        explicit Lock(apr_thread_mutex_t* m) : mutex(m), rc(apr_thread_mutex_lock(m)) {}
        ~Lock() { apr_thread_mutex_unlock(mutex); }
        apr_status_t status() const { return rc; }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        apr_thread_mutex_t* mutex;
        apr_status_t rc;
    };

    apr_socket_t* socket;
    apr_sockaddr_t* localAddress;
    char* localIp;
    apr_sockaddr_t* remoteAddress;
    char* remoteHost;
    std::atomic<bool> connected;       // read without the mutex by isConnected()
    std::atomic<unsigned> connections; // connections made; changed with the mutex held
    apr_interval_time_t savedTimeout;
    apr_int32_t savedNonBlock;
    apr_thread_mutex_t* mutex;
    apr_pool_t* connectionPool; // socket and addresses; made at connect, destroyed at disconnect
    apr_pool_t* objectPool;     // the mutex; lives as long as the object

    // Size of the read-ahead buffer: one receive call takes up to this much.
    static const size_t kReadAheadSize = 16 * 1024;

    // Read-ahead: bytes received but not yet parsed. Owned by the connection
    // and emptied at every connect and disconnect.
    char* readAhead;
    size_t readStart;
    size_t readEnd;
    FrameParser parser;

    SocketPolicy policy;
    std::unique_ptr<tavren::TlsOptions> tlsOptions; // null: plain TCP
    std::unique_ptr<TlsChannel> tls;                // the TLS session of the current socket, if any
    std::string lastFailure;
    // Activity, for heart-beats: steady-clock nanoseconds, read by the listen
    // thread without the mutex. Noted only when tracking.
    bool tracking = false;
    std::atomic<long long> lastSendNs{0};
    std::atomic<long long> lastReceiveNs{0};
    // The descriptor interrupt() may shut down, -1 when none. Its own small
    // lock, taken around the close too, so that interrupt() never touches a
    // descriptor number the system has handed out again.
    std::mutex interruptMutex;
    int interruptibleFd;
};

} // namespace internal
} // namespace tavren

#endif
