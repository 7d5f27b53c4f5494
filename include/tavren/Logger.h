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
 * | line | kind | when |
 * |---|---|---|
 * | Attempting to connect... | info | openConnection, and after a lost connection |
 * | Connected. | info | a CONNECTED frame answered the CONNECT |
 * | Failed to connect on first try, REASON | error | the attempt made at once failed; the timer retries |
 * | Retrying connect... | info | the reconnect timer tries again |
 * | Reconnect failed with: REASON | error | that attempt failed too |
 * | Disconnected! | error | the connection failed (reading, writing, an ACK) |
 * | Disconnected. | info | closeConnection |
 * | Could not start the listen thread: REASON | error | the connection is given up and retried on the timer |
 * | Failed to subscribe the listeners again: REASON | error | re-subscribing after a reconnect failed |
 * | Registering listener on /queue/NAME | info | listenOnQueue, and each re-subscription |
 * | Subscribed to destination /queue/NAME successfully. | info | the broker's RECEIPT came |
 * | Failed to subscribe to destination /queue/NAME. Broker replied: ... | error | the broker answered with ERROR |
 * | The broker's answer to the subscription to /queue/NAME never came: ... | error | the connection went while waiting |
 * | While trying to subscribe to /queue/NAME. Error N: TEXT | error | the SUBSCRIBE could not be written |
 * | Deregistering listener on /queue/NAME | info | stopListeningOnQueue, pauseAllListeners |
 * | Unsubscribed from destination /queue/NAME successfully. | info | the broker's RECEIPT came |
 * | Failed to unsubscribe from destination /queue/NAME. Broker replied: ... | error | the broker answered with ERROR |
 * | The broker's answer to the unsubscription from /queue/NAME never came: ... | error | the connection went while waiting |
 * | While trying to unsubscribe from /queue/NAME. Error N: TEXT | error | the UNSUBSCRIBE could not be written |
 * | No listener is registered on /queue/NAME; nothing to unsubscribe. | error | stopListeningOnQueue for an unknown queue |
 * | Pausing all listeners... / De-registering listener for: /queue/NAME | info | pauseAllListeners |
 * | Resuming all listeners... / Re-registering listener for: /queue/NAME | info | resumeAllListeners, and after every connection |
 * | while trying to listen for messages. Error N: TEXT | error | the listen thread could not read or acknowledge; the connection is made again |
 * | while trying to listen for messages: TEXT | error | handling a frame failed otherwise; the listen thread goes on |
 * | Resolving remaining message handlers... | info | the listen thread ends with its connection |
 * | message: ID was fully processed but we are unable to ACK broker. | error | a listener returned after the connection went |
 * | message: ID was NOT processed but we are unable to NACK broker. | error | the same for a refused message |
 * | Failed to ACK message: ID / Failed to NACK message: ID | error | the ACK or NACK could not be written or built |
 * | Could not start a worker for message ID: REASON; reading pauses until one can be started. | error | no thread could be made for a listener call |
 * | Could not start a worker for message ID before the connection ended; it is left unacknowledged. | error | the same, until the connection went |
 * | Broker sent a frame that is an unrecognized server frame with COMMAND = X | error | an unknown frame; it is dropped |
 * | We received a result frame (RECEIPT or ERROR) from the broker, but ... | error | an answer nobody waits for; it is dropped |
 * | Ther broker sent a frame without a receipt-id header! | error | the same without a receipt-id (the spelling is the library's) |
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
