#ifndef TAVREN_CONNECTIONEXCEPTION_H
#define TAVREN_CONNECTIONEXCEPTION_H

#include <exception>
#include <string>

namespace tavren {

/** A connection attempt that failed, and why. */
class ConnectionException : public std::exception {
public:
    // Fixed underlying type: any int is a valid value (one outside 0 to 6 reads as UnknownError).
    enum ErrorType : int {
        TimedOut = 0,          // "Timed out while attempting to connect."
        ConnectionRefused = 1, // "The connection was refused."
        NoRouteToHost = 2,     // "No route to host."
        HostDown = 3,          // "Host is down."
        BrokerError = 4,       // "The Broker replied with an error."
        NotConnected = 5,      // "No connection is established."
        NotClosedCleanly = 6,  // "The connection was not closed cleanly."
        UnknownError = 7       // "Unknown connection error." (also for any value outside 0 to 6)
    };

    /** The message is the type's text, then a space and detail when detail is not empty. */
    ConnectionException(ErrorType type, std::string detail);
    virtual ~ConnectionException() noexcept;

    virtual const char* what() const noexcept;
    ErrorType errorType() const { return type; }

private:
    ErrorType type;
    std::string message;
};

} // namespace tavren

#endif
