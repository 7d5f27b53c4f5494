// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_CONNECTIONEXCEPTION_H
#define TAVREN_CONNECTIONEXCEPTION_H

#include <exception>
#include <string>

namespace tavren {

/**
 * A connection attempt that failed, and why.
 *
 * The library makes these for its own connection attempts and logs their
 * text ("Failed to connect on first try, " or "Reconnect failed with: " and
 * what()); none of them reaches the application, since a failed attempt is
 * retried on the reconnect timer. The class is public so that an
 * application's own code can use and test the same texts.
 */
class ConnectionException : public std::exception {
public:
    /**
     * Why the attempt failed; each value has a fixed text that begins what().
     * Fixed underlying type: any int is a valid value (one outside 0 to 6 reads as UnknownError).
     */
    enum ErrorType : int {
        TimedOut = 0,          ///< "Timed out while attempting to connect." (also: no answer to CONNECT in 3 s)
        ConnectionRefused = 1, ///< "The connection was refused."
        NoRouteToHost = 2,     ///< "No route to host."
        HostDown = 3,          ///< "Host is down."
        BrokerError = 4,       ///< "The Broker replied with an error." (an ERROR frame answered CONNECT)
        NotConnected = 5,      ///< "No connection is established."
        NotClosedCleanly = 6,  ///< "The connection was not closed cleanly."
        UnknownError = 7       ///< "Unknown connection error." (also for any value outside 0 to 6)
    };

    /**
     * The message is the type's text, then a space and detail when detail is not empty.
     * @param type why the attempt failed
     * @param detail more about it, such as the broker's ERROR body; may be empty
     */
    ConnectionException(ErrorType type, std::string detail);
    /** Nothing to release beyond the message. */
    virtual ~ConnectionException() noexcept;

    /** The type's text, then a space and the detail when there is one; valid as long as the exception. */
    virtual const char* what() const noexcept;
    /** Why the attempt failed, as given to the constructor. */
    ErrorType errorType() const { return type; }

private:
    ErrorType type;
    std::string message;
};

} // namespace tavren

#endif
