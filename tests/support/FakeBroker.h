// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_FAKEBROKER_H
#define TAVREN_TEST_FAKEBROKER_H

#include <tavren/HeaderMap.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tavren {
namespace test {

/** A frame as the fake broker received it from a client. */
struct RecordedFrame {
    std::string command;
    HeaderMap headers; // a repeated name keeps its first value
    std::string body;
    int connection; // 1-based index of the connection it came on
};

/**
 * A scripted STOMP broker on 127.0.0.1 with an ephemeral port, for engine
 * tests. One background thread owns every socket: it accepts clients (a newer
 * connection replaces the current one), records the frames they send and
 * answers CONNECT, SUBSCRIBE and UNSUBSCRIBE as scripted. The test thread
 * scripts replies, pushes frames and observes; all of that is thread-safe and
 * every wait has a time-out. Plain POSIX sockets, independent of the library.
 */
class FakeBroker {
public:
    enum class ConnectReply { Connected, Error, Silence, Other };
    /**
     * RefuseAndClose answers as RabbitMQ refuses a SUBSCRIBE: an ERROR without
     * receipt-id, then the RECEIPT, then it closes the connection (FIN).
     */
    enum class ReceiptReply { Receipt, Error, ErrorWithoutReceiptId, Silence, RefuseAndClose };

    FakeBroker(); // listens and starts the serving thread
    /**
     * Listens on address (dotted IPv4) instead of 127.0.0.1. The sockets
     * belong to the network namespace of the calling thread, and the serving
     * thread starts in it: a broker made on a thread that entered another
     * namespace serves there (tests/support/TestNetwork). port() is 0 if the
     * address could not be bound.
     */
    explicit FakeBroker(const std::string& address);
    ~FakeBroker(); // stops the thread and closes every socket
    FakeBroker(const FakeBroker&) = delete;
    FakeBroker& operator=(const FakeBroker&) = delete;

    int port() const { return listenPort; }

    // Scripting; takes effect for the next frame the broker answers.

    /** Connected (default), Error (ERROR frame), Silence (nothing) or Other (a RECEIPT). */
    void setConnectReply(ConnectReply reply);
    /** Headers of CONNECTED; once set, no session header is generated. */
    void setConnectedHeaders(const HeaderMap& headers);
    /** The message header and body of the ERROR answering CONNECT. */
    void setConnectError(const std::string& message, const std::string& body);
    /** How a SUBSCRIBE / UNSUBSCRIBE that asks for a receipt is answered. */
    void setSubscribeReply(ReceiptReply reply);
    void setUnsubscribeReply(ReceiptReply reply);
    /**
     * How a SEND that asks for a receipt is answered: Silence by default. A
     * SEND whose body is refusedBody (when not empty) is answered with an
     * ERROR carrying its receipt-id instead.
     */
    void setSendReply(ReceiptReply reply);
    void refuseSendWithBody(const std::string& refusedBody);
    /** The message header and body of the ERROR answering a receipt request. */
    void setReceiptError(const std::string& message, const std::string& body);

    // Actions on the current client; each is done when the call returns.

    /**
     * Writes a MESSAGE with destination, message-id "msg-<k>", subscription
     * (the current connection's id for destination, or "none"), ack "ack-<k>"
     * and content-length. extra adds or overrides headers; the value "<omit>"
     * leaves a header out. False if no client is connected.
     */
    bool pushMessage(const std::string& destination, const std::string& body, const HeaderMap& extra = {},
                     std::string* messageId = nullptr);
    /** Writes bytes as they are; false if no client is connected or the write failed. */
    bool sendRaw(const std::string& bytes);
    /**
     * Writes head, then count copies of fill, then tail, the fill in writes
     * of at most chunk bytes from one buffer of that size: a stream of any
     * length costs the broker one chunk of memory. Nothing else is served
     * meanwhile. True once every byte was written; false as soon as a write
     * fails (no client, the client closed or reset the connection, or it
     * read nothing for the send time-out of 5 s). *written, when given, is
     * set to the bytes written, head and tail included.
     */
    bool sendStream(const std::string& head, size_t count, char fill, const std::string& tail,
                    size_t* written = nullptr, size_t chunk = 1024 * 1024);
    /** Closes the client connection (FIN). */
    void dropConnection();
    /** Closes the client connection with a reset (SO_LINGER 0). */
    void resetConnection();
    /**
     * Stops reading from the current client: what it sends piles up in the
     * socket buffers until its writes stall. A later connection is read again.
     */
    void stopReading();
    /** With true, every later connection is reset right after its CONNECTED is written. */
    void setResetAfterConnected(bool reset);
    /** Closes the listening socket: connects are refused. */
    void refuseConnections();
    /** Listens again on the same port; false if the port could not be bound within 2 s. */
    bool acceptConnections();

    // Observation.

    bool isClientConnected() const;
    int connectionCount() const;
    /** Heart-beats (line feeds between frames, beyond the one that ends each frame) received from clients. */
    int heartBeatsReceived() const;
    std::vector<RecordedFrame> frames() const;
    std::vector<RecordedFrame> framesWithCommand(const std::string& command) const;
    void clearFrames();

    /** True once at least count recorded frames have command. */
    bool waitForFrames(const std::string& command, size_t count, int timeoutMs = 5000) const;
    /** True once at least count connections have been accepted. */
    bool waitForConnections(int count, int timeoutMs = 5000) const;
    /** Polls predicate every 5 ms until it holds. */
    bool waitFor(const std::function<bool()>& predicate, int timeoutMs = 5000) const;
    /**
     * True once the current connection holds a subscription for destination:
     * its SUBSCRIBE was answered (if a receipt was asked for) and not refused,
     * and no UNSUBSCRIBE removed it.
     */
    bool waitForSubscription(const std::string& destination, int timeoutMs = 5000) const;
    /** True once no client connection is open. */
    bool waitForClientClosed(int timeoutMs = 5000) const;

private:
    struct Task;

    bool runOnServer(std::function<bool()> work);
    template <typename Predicate>
    bool waitUntil(int timeoutMs, Predicate ready) const;

    void wake();

    // Serving thread only.
    void serve();
    void drainWakeUps();
    void runTasks();
    void acceptClient();
    void readClient();
    void readPending();
    void closeClient(bool reset);
    bool openListener(int port);
    void parseFrames();
    bool parseFrame(size_t* pos, RecordedFrame* frame) const;
    void handleFrame(RecordedFrame frame);
    void answerConnect();
    static bool refuses(const RecordedFrame& frame, ReceiptReply reply);
    void answerReceiptRequest(const RecordedFrame& frame, ReceiptReply reply);
    void holdSubscription(const RecordedFrame& subscribe);
    void forgetSubscription(const std::string& id);
    bool writeMessage(const std::string& destination, const std::string& body, const HeaderMap& extra,
                      std::string* messageId);
    bool writeFrame(const std::string& command, const HeaderMap& headers, const std::string& body);
    bool writeAll(const std::string& bytes);
    bool writeBytes(const char* data, size_t size, size_t* written);

    // Owned by the serving thread once it runs (listenPort never changes).
    int listenFd;
    int clientFd;
    int wakeFds[2]; // a byte written here interrupts poll()
    int listenPort;
    std::string input; // client bytes not yet parsed into frames
    int messageCounter;
    bool readingStopped; // the current client is not read

    mutable std::mutex mutex;
    int heartBeats = 0;          // under mutex
    bool frameJustEnded = false; // the next line feed ends the frame before it
    mutable std::condition_variable changed;
    // Guarded by mutex.
    bool stopping;
    std::deque<std::shared_ptr<Task>> tasks;
    std::vector<RecordedFrame> recorded;
    int accepted;
    bool clientOpen;
    HeaderMap subscriptions; // destination -> id, for the current connection
    ConnectReply connectReply;
    HeaderMap connectedHeaders;
    bool generateSession;
    std::string connectErrorMessage;
    std::string connectErrorBody;
    bool resetAfterConnected;
    ReceiptReply subscribeReply;
    ReceiptReply unsubscribeReply;
    ReceiptReply sendReply = ReceiptReply::Silence;
    std::string refusedSendBody;
    std::string receiptErrorMessage;
    std::string receiptErrorBody;

    // Set before the serving thread starts; never changes.
    std::string bindAddress;

    std::thread server;
};

} // namespace test
} // namespace tavren

#endif
