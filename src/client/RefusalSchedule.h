// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_REFUSALSCHEDULE_H
#define TAVREN_INTERNAL_REFUSALSCHEDULE_H

#include "frames/ServerFrame.h"

#include <chrono>
#include <string>

namespace tavren {
namespace internal {

/**
 * Calm after a refusal: counts the connections in a row that the broker
 * refused (an ERROR, then the end of the connection, or an ERROR answering
 * CONNECT) or that ended within one reconnect period of their CONNECTED
 * without having brought a message.
 * After the first of them the next attempt waits a reconnect period; each
 * further one doubles the wait, up to kRefusalBackoffCapMs. A connection
 * that stood a full period starts the count again. Used under the engine
 * lock.
 */
class RefusalSchedule {
public:
    /** A CONNECTED came now. */
    void connected();
    /**
     * The connection that stood ended; refused when the broker closed it for an ERROR
     * on it; byApplication when closeConnection ended it (never counted).
     */
    void ended(bool refused, bool byApplication, int periodMs);
    /** A MESSAGE came on the connection that stands: it is no refusal, however short. */
    void messageCame() { carried = true; }
    /** The broker answered CONNECT with an ERROR. */
    void refusedAtConnect() { ++inARow; }

    /** The refused or short-lived connections in a row. */
    int count() const { return inARow; }
    /** The wait before the next attempt, without jitter: the period doubled for each one after the first. */
    long long waitMs(int periodMs) const;

private:
    int inARow = 0;
    bool carried = false;
    std::chrono::steady_clock::time_point connectedAt;
};

/** The last ERROR the broker sent on a connection, and what it answered. */
struct BrokerRefusal {
    std::string reason;  // the "message" header and the body's first line; empty: no ERROR
    std::string subject; // "the subscription to /queue/X", ...; empty when not known
    /** Records frame (an ERROR); subject as above. */
    void note(const ServerFrame& frame, const std::string& about);
    bool any() const { return !reason.empty() || !subject.empty() || seen; }
    /**
     * Whether the connection that ends now was closed for this ERROR: it
     * came at most kRefusalCloseMs ago. A broker that answers a frame with an
     * ERROR and keeps the connection open (ActiveMQ does for an ACK it
     * cannot match) has not refused the connection when it ends later.
     */
    bool closedTheConnection() const;
    void clear() { *this = BrokerRefusal(); }
    bool seen = false;
    std::chrono::steady_clock::time_point at; // when the ERROR came
};

/**
 * The ERRORs without a receipt-id on the connection that stands, and when
 * their reason is to be logged: not for the first (a broker that refuses
 * sends one and closes, and its reason goes into the refusal's line), but
 * from the second on, at most once in kKeptErrorLineMs. Used under the
 * engine lock.
 */
class KeptErrors {
public:
    /** An ERROR with this reason came: the line to log now, or empty. */
    std::string noted(const std::string& reason);
    /** A new connection: nothing counted. */
    void clear() { *this = KeptErrors(); }

private:
    long long count = 0;
    long long countLogged = 0;
    bool logged = false;
    std::chrono::steady_clock::time_point lastLine;
};

} // namespace internal
} // namespace tavren

#endif
