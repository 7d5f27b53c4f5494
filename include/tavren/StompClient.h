#ifndef TAVREN_STOMPCLIENT_H
#define TAVREN_STOMPCLIENT_H

#include <kelvra/UniquePtr.h>
#include <kelvra/utility/Version.h>
#include <tavren/HeaderMap.h>
#include <tavren/Listener.h>
#include <tavren/Logger.h>

#include <cstddef>
#include <string>
#include <utility>

namespace tavren {

namespace internal {
class StompClientImpl;
}

/**
 * A STOMP client for one broker: sends text messages to queues and hands the
 * messages of each queue to a Listener.
 *
 * The client keeps itself connected. When the connection fails it logs why,
 * reconnects by itself (at once, then every reconnect period) and subscribes
 * every registered listener again; the application does not have to do
 * anything. What happens is reported through the Logger, never as an
 * exception from a connection that once stood.
 *
 * Queue names are given bare: "orders" means the destination "/queue/orders".
 *
 * The logger and the listeners belong to the application and must outlive
 * the client (or, for a listener, its registration).
 */
class StompClient {
public:
    /**
     * A client that logs in with login and passcode (both are sent, even when
     * empty). logger must not be null. heartbeat, when not null, gives the
     * two figures of the CONNECT "heart-beat" header (they are copied; by
     * default "0" and "0"). Nothing is connected yet.
     */
    StompClient(std::string host, int port, std::string login, std::string passcode,
                tavren::Logger* logger, std::pair<std::string, std::string>* heartbeat);
    /** The same without credentials. */
    StompClient(std::string host, int port, tavren::Logger* logger,
                std::pair<std::string, std::string>* heartbeat);
    /** Stops the reconnect timer and the listen thread. Sends no DISCONNECT. */
    virtual ~StompClient();
    StompClient(const StompClient&) = delete;
    StompClient& operator=(const StompClient&) = delete;

    /**
     * Connects, offering exactly one protocol version (for example
     * kelvra::utility::Version("1.2")). The first attempt runs before this
     * returns; if it fails, it is logged and attempts go on in the background
     * every reconnectPeriod milliseconds until one succeeds. Learn the outcome
     * from isConnected() and the log. A broker whose CONNECTED frame lacks
     * one of "server", "version", "heart-beat" or "session" makes this throw
     * std::out_of_range (attempts still go on in the background).
     */
    void openConnection(int reconnectPeriod, kelvra::utility::Version version);

    /**
     * Subscribes listener to the queue and waits for the broker's receipt.
     * A refusal by the broker is logged and leaves the listener unregistered.
     */
    void listenOnQueue(std::string queue, tavren::Listener* listener);

    /** Unsubscribes from the queue, waits for the broker's receipt, and forgets its listener. */
    void stopListeningOnQueue(std::string queue);

    /**
     * Sends text (a C string; the body is its bytes up to the NUL) to the
     * queue with "content-type: text/plain", its "content-length", and the
     * additional headers (may be null) whose names the frame does not already
     * carry. A failure to send is logged and leads to a reconnect.
     */
    void sendToQueue(std::string queue, const char* text, HeaderMap* additionalHeaders);

    /** Unsubscribes every listener but remembers them for resumeAllListeners. */
    void pauseAllListeners();
    /** Subscribes every known listener again, the paused ones included. */
    void resumeAllListeners();

    /**
     * Stops listening and forgets the session. Writes no DISCONNECT frame. A
     * reconnect timer that is running goes on.
     */
    void closeConnection();

    /** True while a session with the broker stands. */
    bool isConnected() const;

    /**
     * At most count listener calls run at once (default 16; values below 1
     * count as 1). Every message still gets a worker thread of its own; once
     * count workers are busy, the client reads nothing more from the broker
     * until one of them returns, so the broker's frames wait in the socket
     * and TCP holds the broker back. A receipt for listenOnQueue or
     * stopListeningOnQueue waits behind them too. Takes effect for the next
     * message; may be called at any time.
     */
    void setMaxWorkers(int count);

    /**
     * The stack size, in bytes, of each worker thread that runs onMessage
     * (default 256 KiB; raised to the system's minimum when smaller). A
     * listener that needs a deeper stack sets a larger one. Takes effect for
     * the next message; may be called at any time.
     */
    void setWorkerStackSize(size_t bytes);

private:
    kelvra::UniquePtr<tavren::internal::StompClientImpl> impl;
    std::string clientName;
};

} // namespace tavren

#endif
