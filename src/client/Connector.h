// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_CONNECTOR_H
#define TAVREN_INTERNAL_CONNECTOR_H

#include <kelvra/time/Timer.h>
#include <tavren/ConnectionException.h>

#include <atomic>
#include <string>

namespace tavren {
namespace internal {

class StompClientImpl;
struct BrokerAddress;

/**
 * Makes the connection for the engine: one attempt opens the socket, writes
 * CONNECT, reads the broker's first frame within 3 seconds and, on
 * CONNECTED, stores the session and tells the engine. After a failed first
 * attempt the engine starts the timer, and every period (milliseconds, plus
 * up to a tenth of it at random) the timer's thread tries again, until one
 * attempt succeeds. A successful
 * attempt deletes the connector (the engine does, from eventConnect).
 */
class Connector : public kelvra::time::Timer {
public:
    Connector(StompClientImpl* owner, int reconnectPeriod, std::string clientName);
    virtual ~Connector();

    /** One attempt. Returns when connected (the connector is then gone); throws ConnectionException when not. */
    void attemptConnect();

    /** Starts the retries: the first one period (and a little jitter) from now. Under the engine lock. */
    void startRetries();

    /** True on a thread that is inside attemptConnect (of any connector), subscribing again included. */
    static bool insideAttempt();

    /**
     * The engine has let go of this connector: a retry that has not yet got
     * hold of the engine lock gives up instead. Called under the engine lock.
     */
    void cancel() { cancelled = true; }

    /**
     * The error type of a failed attempt's runtime status: 110 (timed out),
     * 111 (refused), 112 (host down), 113 (no route); anything else unknown.
     */
    static ConnectionException::ErrorType errorTypeFor(int aprReason);

protected:
    /** A retry, on the timer's thread, under the engine lock. */
    virtual void onTimeout();

private:
    void attemptOn(const BrokerAddress& broker);
    [[noreturn]] void throwWithDetail(int status);

    StompClientImpl* owner; // not owned
    std::string clientName; // kept for the record; not read
    std::atomic<bool> cancelled;
};

} // namespace internal
} // namespace tavren

#endif
