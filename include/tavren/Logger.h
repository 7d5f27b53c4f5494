// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_LOGGER_H
#define TAVREN_LOGGER_H

#include <pthread.h>

#include <string>

namespace tavren {

/**
 * Where the library writes its progress and error lines.
 *
 * By default an information line goes to standard output as
 * "INFO: 2015-03-02 14:07: Connected." and an error line to standard error
 * as "ERROR: 2015-03-02 14:07: Disconnected!". Derive from it and override
 * logInfo and logError to send the lines elsewhere: the library always calls
 * them through safe_log_info and safe_log_error, which serialise the calls,
 * so an override never runs on two threads at once. An override must not
 * throw.
 *
 * The calls come from the application's thread (inside StompClient's calls),
 * from the reconnect timer's thread and from the listen thread; an override
 * must not call back into the StompClient, which may hold its engine lock
 * while it logs.
 *
 * The logger must outlive the StompClient that writes to it. One logger may
 * serve several clients.
 *
 * What the library writes (a lost connection, for instance, gives the error
 * line "Disconnected!"; the text after the time is given here):
 *
 * - info: "Attempting to connect..." (openConnection, and after a lost connection)
 * - info: "Connected." (a CONNECTED frame answered the CONNECT)
 * - error: "Failed to connect on first try, REASON" (the attempt made at once failed; the timer retries)
 * - info: "Retrying connect..." (the reconnect timer tries again)
 * - error: "Reconnect failed with: REASON" (that attempt failed too)
 * - error: "Disconnected!" (the connection failed: reading, writing, an ACK)
 * - info: "Connecting again in N ms: the connection was lost M ms after the last attempt to connect began." (a
 *   connection lost within a reconnect period of its attempt is made again by the timer, not at once)
 * - info: "Disconnected." (closeConnection)
 * - error: "The broker refused the subscription to /queue/NAME (REASON) and closed the connection: the listener is
 *   kept and subscribed again on the next connection. The next attempt in N ms." (an ERROR, then the end of the
 *   connection; likewise "the unsubscription from /queue/NAME" or "a frame" when it is not known what the ERROR
 *   answered; REASON is its "message" header and the first line of its body; this line takes the place of
 *   "Connecting again in ...")
 * - error: "The broker refused the connection (REASON): the next attempt in N ms." (an ERROR answered CONNECT; after
 *   "Reconnect failed with: ..." or "Failed to connect on first try, ...")
 * - error: "N messages sent while disconnected were lost so far." (at most once per reconnect period while sends are
 *   lost during an outage; only the first lost send logs "Disconnected!")
 * - error: "N messages sent while disconnected were lost." (once a connection stands again, after "Connected.", when
 *   more than one send was lost)
 * - info: "Trying the broker HOST:PORT." (before each attempt, only when StompClient::addFailoverBroker was called)
 * - error: "No data from the broker for N ms, twice its heart-beat interval of M ms: the connection is taken as
 *   lost." (only after StompClient::enableHeartbeats; "Disconnected!" and a reconnect follow)
 * - error: "The connection has kept the client busy for 1000 ms: it is shut down so that the client can close."
 *   (closeConnection or the destructor met a stalled write)
 * - error: "Could not start the listen thread: REASON" (the connection is given up and retried on the timer)
 * - error: "Failed to subscribe the listeners again: REASON" (re-subscribing after a reconnect failed)
 * - info: "Registering listener on /queue/NAME" (listenOnQueue, and each re-subscription)
 * - info: "Subscribed to destination /queue/NAME successfully." (the broker's RECEIPT came)
 * - error: "Failed to subscribe to destination /queue/NAME. Broker replied: ..." (the broker answered with ERROR)
 * - error: "The broker's answer to the subscription to /queue/NAME never came: ..." (the connection went while
 *   waiting)
 * - error: "While trying to subscribe to /queue/NAME. Error N: TEXT" (the SUBSCRIBE could not be written)
 * - info: "The listener on /queue/NAME is kept and subscribed as soon as a connection stands." (listenOnQueue while
 *   no connection stands)
 * - error: "The broker did not answer the subscription to /queue/NAME within 10 s: the connection is taken as lost."
 *   (likewise "the unsubscription from"; the reconnect subscribes the listener again)
 * - info: "Deregistering listener on /queue/NAME" (stopListeningOnQueue, pauseAllListeners)
 * - info: "Unsubscribed from destination /queue/NAME successfully." (the broker's RECEIPT came)
 * - error: "Failed to unsubscribe from destination /queue/NAME. Broker replied: ..." (the broker answered with ERROR)
 * - error: "The broker's answer to the unsubscription from /queue/NAME never came: ..." (the connection went while
 *   waiting)
 * - error: "While trying to unsubscribe from /queue/NAME. Error N: TEXT" (the UNSUBSCRIBE could not be written)
 * - error: "No listener is registered on /queue/NAME; nothing to unsubscribe." (stopListeningOnQueue for an unknown
 *   queue)
 * - info: "Pausing all listeners... / De-registering listener for: /queue/NAME" (pauseAllListeners)
 * - info: "Resuming all listeners... / Re-registering listener for: /queue/NAME" (resumeAllListeners, and after every
 *   connection)
 * - error: "while trying to listen for messages. Error N: TEXT" (the listen thread could not read or acknowledge; the
 *   connection is made again)
 * - error: "while trying to listen for messages: TEXT" (handling a frame failed otherwise; the listen thread goes on)
 * - info: "Resolving remaining message handlers..." (the listen thread ends with its connection)
 * - error: "message: ID was fully processed but we are unable to ACK broker." (a listener returned after the
 *   connection went)
 * - error: "message: ID was NOT processed but we are unable to NACK broker." (the same for a refused message)
 * - error: "Failed to ACK message: ID / Failed to NACK message: ID" (the ACK or NACK could not be written or built)
 * - error: "Could not start a worker for message ID: REASON; reading pauses until one can be started." (no thread
 *   could be made for a listener call)
 * - error: "Could not start a worker for message ID before the connection ended; it is left unacknowledged." (the
 *   same, until the connection went)
 * - error: "Broker sent a frame that is an unrecognized server frame with COMMAND = X" (an unknown frame; it is
 *   dropped)
 * - error: "We received a result frame (RECEIPT or ERROR) from the broker, but ..." (an answer nobody waits for; it
 *   is dropped)
 * - error: "Ther broker sent a frame without a receipt-id header!" (the same without a receipt-id; the spelling is
 *   the library's)
 *
 * With an outbox (StompClient::useOutbox):
 * - error: "The broker refused the message ID to /queue/NAME: REASON. It is not sent again." (an ERROR answered it)
 * - error: "The broker did not confirm the message ID to /queue/NAME within 10000 ms: the connection is taken as
 *   lost." ("Disconnected!" and a reconnect follow; the message is sent again)
 * - error: "The outbox is full: its oldest message ID to /queue/NAME was dropped." (DropOldest)
 * - info: "The outbox holds N messages from an earlier run: they are sent first." (openConnection, a file outbox)
 * - info: "N unconfirmed messages stay in the outbox file for the next run." (closeConnection, destructor)
 * - error: "N messages in the memory outbox were never confirmed by the broker and are lost." (the same in memory)
 * - error: "The outbox file FILE could not be read as an outbox (REASON): moved aside to FILE.corrupt-TIME; a new
 *   outbox is started." (useOutbox)
 */
class Logger {
public:
    /** A logger that writes to standard output and standard error. */
    Logger();
    /** No StompClient may still use it. */
    virtual ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    /**
     * Writes "ERROR: ", the time, ": " and message to standard error.
     * Override to send error lines elsewhere; the library calls it only
     * through safe_log_error. Must not throw.
     * @param message one line, without the line feed
     */
    virtual void logError(const std::string& message);
    /**
     * Writes "INFO: ", the time, ": " and message to standard output.
     * Override to send information lines elsewhere; the library calls it only
     * through safe_log_info. Must not throw.
     * @param message one line, without the line feed
     */
    virtual void logInfo(const std::string& message);

    /** logError under the logger's lock: never on two threads at once with another line. */
    void safe_log_error(const std::string& message);
    /** logInfo under the logger's lock: never on two threads at once with another line. */
    void safe_log_info(const std::string& message);

    /** The local time as "%Y-%m-%d %H:%M"; safe on any thread. */
    std::string get_time_string();

private:
    pthread_mutex_t* mutex;
};

} // namespace tavren

#endif
