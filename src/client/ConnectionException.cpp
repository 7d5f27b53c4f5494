// SPDX-License-Identifier: Apache-2.0
#include <tavren/ConnectionException.h>

namespace tavren {

namespace {

const char* typeText(ConnectionException::ErrorType type) {
    switch (type) {
    case ConnectionException::TimedOut: return "Timed out while attempting to connect.";
    case ConnectionException::ConnectionRefused: return "The connection was refused.";
    case ConnectionException::NoRouteToHost: return "No route to host.";
    case ConnectionException::HostDown: return "Host is down.";
    case ConnectionException::BrokerError: return "The Broker replied with an error.";
    case ConnectionException::NotConnected: return "No connection is established.";
    case ConnectionException::NotClosedCleanly: return "The connection was not closed cleanly.";
    default: return "Unknown connection error.";
    }
}

} // namespace

ConnectionException::ConnectionException(ErrorType t, std::string detail) : type(t), message(typeText(t)) {
    if (!detail.empty()) message += " " + detail;
}

ConnectionException::~ConnectionException() noexcept {}

const char* ConnectionException::what() const noexcept { return message.c_str(); }

} // namespace tavren
