// SPDX-License-Identifier: Apache-2.0
#include "client/Connector.h"

#include "client/Defaults.h"
#include "client/StompClientImpl.h"
#include "frames/ConnectFrame.h"
#include "transport/AprException.h"

#include <apr_errno.h>
#include <tavren/ConnectionException.h>

#include <cerrno>
#include <vector>

namespace tavren {
namespace internal {

namespace {

// How long the broker has to answer CONNECT, in microseconds.
const long long kHandshakeTimeoutUs = 3000000;

// How many attempts this thread is inside (an attempt subscribes the
// listeners again, and a failure there must not start another attempt).
thread_local int attemptsInside = 0;

class InsideAttempt {
public:
    InsideAttempt() { ++attemptsInside; }
    ~InsideAttempt() { --attemptsInside; }
    InsideAttempt(const InsideAttempt&) = delete;
    InsideAttempt& operator=(const InsideAttempt&) = delete;
};

} // namespace

bool Connector::insideAttempt() { return attemptsInside > 0; }

void Connector::startRetries() { restartIn(owner->retryDelayMs()); }

ConnectionException::ErrorType Connector::errorTypeFor(int reason) {
    switch (reason) {
    case ETIMEDOUT: return ConnectionException::TimedOut;
    case ECONNREFUSED: return ConnectionException::ConnectionRefused;
    case EHOSTDOWN: return ConnectionException::HostDown;
    case EHOSTUNREACH: return ConnectionException::NoRouteToHost;
    default: return ConnectionException::UnknownError;
    }
}

Connector::Connector(StompClientImpl* o, int reconnectPeriod, std::string name)
    : kelvra::time::Timer(reconnectPeriod), owner(o), clientName(name), cancelled(false) {}

Connector::~Connector() {
    // onTimeout uses the members: a retry that is running must end before
    // they go (from the timer's own thread this does not wait).
    cancelled = true;
    stopAndWait();
}

void Connector::attemptConnect() {
    InsideAttempt inside;
    // A successful attempt deletes this connector: only locals are used after it.
    StompClientImpl* engine = owner;
    engine->attemptStarted();
    const BrokerAddress& broker = engine->currentBroker();
    if (engine->brokers.size() > 1) {
        engine->logInfo("Trying the broker " + broker.host + ":" + std::to_string(broker.port) + ".");
    }
    try {
        attemptOn(broker);
    } catch (...) {
        // Failed: the next attempt goes to the next broker.
        engine->moveToNextBroker();
        throw;
    }
}

void Connector::attemptOn(const BrokerAddress& broker) {
    StompConnection* connection = owner->connection.get();
    try {
        apr_status_t rc = connection->connect(broker.host.c_str(), broker.port, nullptr, nullptr);
        if (rc != 0) {
            if (connection) connection->disconnect();
            // A host that did not answer within the connect time-out timed out.
            throwWithDetail(APR_STATUS_IS_TIMEUP(rc) ? ETIMEDOUT : rc);
        }

        ConnectFrame frame;
        if (owner->useAuthentication) frame.setCredentials(owner->login, owner->passcode);
        std::vector<kelvra::utility::Version> versions(1, owner->version);
        frame.setAcceptVersions(versions);
        frame.setHeartbeat(owner->clientHeartbeat.c_str(), owner->serverHeartbeat.c_str());
        if (!owner->virtualHost.empty()) frame.setVirtualHost(owner->virtualHost);

        long long writeTimeout = kWriteTimeoutUs;
        rc = connection->write(&frame, &writeTimeout);
        if (rc != 0) {
            connection->disconnect();
            throwWithDetail(rc);
        }

        ServerFrame* raw = nullptr;
        long long timeout = kHandshakeTimeoutUs;
        rc = connection->read(&raw, true, &timeout);
        if (rc != 0) {
            connection->disconnect();
            // A broker that never answers CONNECT is a connection that timed
            // out: the read's own time-out status is reported as such.
            throwWithDetail(APR_STATUS_IS_TIMEUP(rc) ? ETIMEDOUT : rc);
        }
        kelvra::UniquePtr<ServerFrame> reply(raw);

        if (reply->command() == "ERROR") {
            owner->brokerError.note(*reply, "");
            // The socket stays open; the next attempt's connect closes it.
            throw ConnectionException(ConnectionException::BrokerError,
                                      std::string("Broker replied: \n") + (reply->body() ? reply->body() : ""));
        }
        if (reply->command() == "CONNECTED") {
            const HeaderMap& headers = reply->headers();
            const std::string server = headers.at("server");
            const std::string version = headers.at("version");
            const std::string heartBeat = headers.at("heart-beat");
            const std::string sessionId = headers.at("session");
            owner->installSession(new Session(server, version, heartBeat, sessionId));
            // eventConnect deletes this connector: nothing below may touch a member.
            owner->eventConnect();
            return;
        }
        throw ConnectionException(ConnectionException::UnknownError, "");
    } catch (AprException& e) {
        throw ConnectionException(errorTypeFor(e.apr_reason()), "");
    }
}

void Connector::throwWithDetail(apr_status_t rc) {
    // A secure channel that failed says why (a certificate that did not
    // verify, the broker's alert); otherwise the status tells the type.
    const std::string why = owner->connection->failureDetail();
    if (!why.empty()) throw ConnectionException(ConnectionException::UnknownError, why);
    throw AprException(rc);
}

void Connector::onTimeout() {
    StompClientImpl* engine = owner;
    // The retry runs under the engine lock, like the first attempt, so no
    // application frame is written on a connection whose CONNECT is still
    // on its way. A cancelled connector gives up waiting for the lock, so
    // the engine may delete it while holding the lock.
    if (!engine->mutex->lockUnless([this] { return cancelled.load(); })) return;
    if (cancelled || engine->destroying) {
        engine->mutex->unlock();
        return;
    }
    engine->retryEntered();

    stop();
    engine->logLostSendsIfDue();
    engine->logInfo("Retrying connect...");
    try {
        attemptConnect();
        // Connected: this connector has been deleted.
    } catch (ConnectionException& e) {
        engine->logError(std::string("Reconnect failed with: ") + e.what());
        restartIn(engine->waitAfterFailedAttemptMs(e));
    } catch (std::exception& e) {
        // A CONNECTED frame without a header the session needs: retried
        // like any failure, since nobody could catch it on this thread.
        engine->logError(std::string("Reconnect failed with: ") + e.what());
        startRetries();
    }

    engine->retryLeft();
    engine->mutex->unlock();
}

} // namespace internal
} // namespace tavren
