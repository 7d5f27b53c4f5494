// SPDX-License-Identifier: Apache-2.0
#include "client/StompClientImpl.h"

#include "client/Defaults.h"
#include "frames/DisconnectFrame.h"
#include "frames/SendFrame.h"

#include <apr_errno.h>
#include <tavren/ConnectionException.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace tavren {
namespace internal {

StompClientImpl::StompClientImpl(tavren::Logger* l, std::string name)
    : logger(nullptr),
      brokerIndex(0),
      useAuthentication(false),
      useHeartbeating(false),
      clientHeartbeat("0"),
      serverHeartbeat("0"),
      clientName(name),
      mutex(nullptr),
      reconnectPeriod(0),
      version(0),
      listening(false),
      listenThread(nullptr),
      hasSession(false),
      listenThreadStarted(false),
      listenGeneration(0),
      listenConnection(0),
      destroying(false),
      retriesInside(0),
      runningListenThreads(0),
      maxWorkers(kDefaultMaxWorkers),
      workerStackSize(kDefaultWorkerStackSize),
      attempted(false),
      jitter(static_cast<std::minstd_rand::result_type>(std::random_device()() ^ std::hash<std::string>()(name))),
      closing(0),
      opened(false),
      heartbeatsEnabled(false) {
    pthread_mutex_init(&threadsMutex, nullptr);
    connection.reset(new StompConnection());
    session.clean();
    mutex = new EngineMutex();
    logger = l;
    listenThread = new pthread_t;
}

namespace {

// The engine lock for closeConnection and the destructor: taken even when a
// write stalled on the connection holds it (see lockBreakingStalls).
class ClosingLock {
public:
    ClosingLock(EngineMutex& m, const std::function<void()>& lockIt) : mutex(m) { lockIt(); }
    ~ClosingLock() { mutex.unlock(); }
    ClosingLock(const ClosingLock&) = delete;
    ClosingLock& operator=(const ClosingLock&) = delete;

private:
    EngineMutex& mutex;
};

} // namespace

StompClientImpl::~StompClientImpl() {
    std::vector<Connector*> retired;
    ++closing;
    {
        ClosingLock lock(*mutex, [this] { lockBreakingStalls(); });
        destroying = true;
        // A retry on the timer's thread may still be inside the engine
        // (subscribing again after it connected); it can open a connection
        // or start a connector meanwhile, so everything is settled again
        // until it has left.
        for (;;) {
            if (connector) {
                connector->stop();
                connector->cancel();
                retired.push_back(connector.release());
            }
            if (listening) {
                listening = false;
                abandonPendingResults();
                joinListenThread();
            }
            if (retriesInside == 0) break;
            mutex->wait(retryDone);
        }
    }
    // The outbox's sender may wait for the lock released above; with no
    // connection left it writes nothing more and ends.
    if (outbox) outbox->stop();
    // A listen thread that lost its own connection was detached; it may
    // still be on its way out of the engine, which it leaves once it gets
    // the lock released above.
    waitForListenThreads();
    if (outbox) outbox->reportLeftBehind(true);
    outbox.reset();
    // Deleted without the lock: a cancelled connector's retry that waits for
    // the lock gives up, and its deletion waits for that.
    for (Connector* c : retired) delete c;

    delete listenThread;
    listeners.clear();
    pausedListeners.clear();
    pendingResults.clear();
    session.clean();
    connection.clean();
    connector.clean();
    delete mutex;
    pthread_mutex_destroy(&threadsMutex);
}

void StompClientImpl::setupSocketDetails(std::string h, int p) {
    brokers.assign(1, BrokerAddress{h, p});
    brokerIndex = 0;
}

void StompClientImpl::requireNotOpened(const char* call) const {
    // These settings are read by connection attempts on other threads
    // without the lock: once attempts may run, they stay as they are.
    if (opened) throw std::logic_error(std::string(call) + " must be called before openConnection.");
}

void StompClientImpl::useTls(const tavren::TlsOptions& options) {
    requireNotOpened("useTls");
    connection->useTls(options);
}

void StompClientImpl::enableHeartbeats() {
    requireNotOpened("enableHeartbeats");
    heartbeatsEnabled = true;
    connection->trackActivity();
}

void StompClientImpl::addFailoverBroker(std::string h, int p) {
    requireNotOpened("addFailoverBroker");
    brokers.push_back(BrokerAddress{h, p});
}

void StompClientImpl::setFrameLimits(size_t maxLineBytes, size_t maxBodyBytes) {
    requireNotOpened("setFrameLimits");
    connection->setFrameLimits(maxLineBytes, maxBodyBytes);
}

void StompClientImpl::setVirtualHost(std::string host) {
    requireNotOpened("setVirtualHost");
    virtualHost = host;
}

void StompClientImpl::moveToNextBroker() {
    // Under the lock, after a failed attempt. A connection that stands, or
    // is lost, keeps its broker: only a failure to connect moves on.
    if (brokers.size() > 1) brokerIndex = (brokerIndex + 1) % brokers.size();
}

void StompClientImpl::setupAuthentication(std::string l, std::string p) {
    useAuthentication = true;
    login = l;
    passcode = p;
}

void StompClientImpl::setupHeartbeating(std::pair<std::string, std::string>* heartbeat) {
    useHeartbeating = true;
    clientHeartbeat = heartbeat->first;
    serverHeartbeat = heartbeat->second;
}

void StompClientImpl::setupRobustConnection(int period, kelvra::utility::Version v, std::string name,
                                            std::string vhost) {
    opened = true;
    reconnectPeriod = period;
    version = v;
    if (!vhost.empty()) virtualHost = vhost;
    if (outbox) {
        outbox->reportInherited();
        outbox->start();
    }
    EngineLock lock(*mutex);
    setupConnector(name);
}

void StompClientImpl::installConnector(Connector* fresh) {
    kelvra::UniquePtr<Connector> previous(connector.release());
    connector.reset(fresh);
    if (previous) previous->cancel(); // its retry, if waiting for the lock, gives up
    previous.clean();
}

void StompClientImpl::setupConnector(std::string name) {
    if (destroying) return;
    Connector* fresh = new Connector(this, reconnectPeriod, name);
    installConnector(fresh);

    logInfo("Attempting to connect...");
    try {
        fresh->attemptConnect();
        // Connected: eventConnect has deleted the connector.
    } catch (tavren::ConnectionException& e) {
        logError(std::string("Failed to connect on first try, ") + e.what());
        fresh->restartIn(waitAfterFailedAttemptMs(e));
    } catch (...) {
        // Goes on to the caller; the timer still retries, so the engine does
        // not stay without a connection and without attempts.
        fresh->startRetries();
        throw;
    }
}

void StompClientImpl::connectAgain() {
    // Called under the lock after a connection was lost. The first attempt
    // is made at once, unless the lost connection was made less than a
    // reconnect period ago (a broker that accepts and drops at once must not
    // be stormed), or unless the loss happened inside an attempt on this
    // very thread (subscribing again after a connect): trying from there
    // would nest one attempt inside the other for as long as they fail, and
    // the timer's thread makes it with a fresh stack instead. After a
    // refused or short-lived connection the timer waits longer each time
    // (RefusalSchedule); and an outage whose attempts are scheduled keeps
    // its schedule, whatever fails meanwhile.
    if (connector && !hasSession) return;
    const long long since = msSinceLastAttempt();
    Connector* fresh = new Connector(this, reconnectPeriod, clientName);
    const int period = fresh->period();
    if (!Connector::insideAttempt() && calm.count() == 0 && (since < 0 || since >= period)) {
        delete fresh;
        setupConnector(clientName);
        return;
    }
    installConnector(fresh);
    const long long delay = waitAfterLossMs(since);
    if (!refusalLine.empty()) {
        logRefusal(delay);
    } else {
        logInfo("Connecting again in " + std::to_string(delay) + " ms: the connection was lost " +
                std::to_string(since) + " ms after the last attempt to connect began.");
    }
    fresh->restartIn(static_cast<int>(delay));
}

void StompClientImpl::attemptStarted() {
    attempted = true;
    lastAttempt = std::chrono::steady_clock::now();
}

long long StompClientImpl::msSinceLastAttempt() const {
    if (!attempted) return -1;
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - lastAttempt)
        .count();
}

int StompClientImpl::retryDelayMs() {
    // Called under the lock (the jitter source is shared).
    const int period = reconnectPeriod < 1 ? 1 : reconnectPeriod;
    const int spread = static_cast<int>(static_cast<long long>(period) * kReconnectJitterPercent / 100);
    if (spread <= 0) return period;
    return period + std::uniform_int_distribution<int>(0, spread)(jitter);
}

void StompClientImpl::lockBreakingStalls() {
    // A holder of the engine lock lets go within moments, unless it writes
    // to a broker that stopped reading (up to the write time-out) or
    // connects to a host that does not answer. After the grace the socket
    // is shut down under it: its write or read fails at once, and it lets go.
    const auto graceOver = [] { return std::chrono::steady_clock::now() + std::chrono::milliseconds(kCloseGraceMs); };
    auto until = graceOver();
    const auto giveUp = [&until] { return std::chrono::steady_clock::now() >= until; };
    if (mutex->lockUnless(giveUp)) return;
    logError("The connection has kept the client busy for " + std::to_string(kCloseGraceMs) +
             " ms: it is shut down so that the client can close.");
    for (;;) {
        connection->interrupt();
        until = graceOver();
        if (mutex->lockUnless(giveUp)) return;
    }
}

void StompClientImpl::installSession(Session* fresh) {
    session.reset(fresh);
    hasSession = true;
}

void StompClientImpl::eventConnect() {
    logInfo("Connected.");
    connector.clean();
    calm.connected();
    brokerError.clear();
    keptErrors.clear();
    const std::string lost = lostSends.connected();
    if (!lost.empty()) logError(lost);

    agreed = Heartbeats();
    if (heartbeatsEnabled && session) {
        agreed = Heartbeats::agree(clientHeartbeat, serverHeartbeat, session->serverHB(), session->clientHB());
    }
    listening = true;
    // Each connection gets a listen thread of its own; one that served an
    // earlier connection sees the count move on and ends.
    listenConnection = connection->connectionNumber();
    ++listenGeneration;
    pthread_mutex_lock(&threadsMutex);
    ++runningListenThreads;
    pthread_mutex_unlock(&threadsMutex);
    const int rc = pthread_create(listenThread, nullptr, &StompClientImpl::listen_thread_worker, this);
    if (rc != 0) {
        // Without a listen thread nothing is read and no receipt would ever
        // come: the connection is given up and retried on the timer.
        listenThreadEnded();
        logError(std::string("Could not start the listen thread: ") + strerror(rc));
        eventDisconnect(true);
        logRefusal(-1);
        if (!destroying) {
            connector.reset(new Connector(this, reconnectPeriod, clientName));
            connector->startRetries();
        }
        return;
    }
    listenThreadStarted = true;
    if (outbox) outbox->connectionUp(listenGeneration);
    try {
        resumeAllListeners();
    } catch (std::exception& e) {
        // The connection stands; a listener that could not be subscribed is
        // logged, and nothing escapes into the connector that called us.
        logError(std::string("Failed to subscribe the listeners again: ") + e.what());
    }
}

void StompClientImpl::eventDisconnect(bool error) {
    const bool stood = hasSession;
    // Judged now, as the end is noticed: joining the listen thread below may
    // wait for listeners that are still running.
    const bool refused = brokerError.closedTheConnection();
    if (error) {
        logError("Disconnected!");
    } else {
        logInfo("Disconnected.");
    }
    listening = false;
    if (outbox) outbox->connectionDown();
    abandonPendingResults();
    joinListenThread();
    session.clean();
    hasSession = false;
    if (stood) connectionEnded(!error, refused);
}

void StompClientImpl::eventDisconnectError() {
    eventDisconnect(true);
    // The engine is going away, or being closed: no new attempt.
    if (!destroying && closing == 0) connectAgain();
    logRefusal(-1);
}

void StompClientImpl::joinListenThread() {
    // Called under the engine lock. The listen thread does not need the
    // lock to end: when it is asked to stop and cannot get the lock, it
    // settles its workers under the lock that this thread holds for it.
    // Joining is skipped for a thread never started or already joined.
    if (!listenThreadStarted) return;
    listenThreadStarted = false;
    if (pthread_equal(*listenThread, pthread_self())) {
        // The listen thread itself lost the connection: it ends on its own
        // after this call, and the destructor waits for it by count.
        pthread_detach(*listenThread);
    } else {
        pthread_join(*listenThread, nullptr);
    }
}

void StompClientImpl::listenThreadEnded() {
    pthread_mutex_lock(&threadsMutex);
    --runningListenThreads;
    threadsEnded.broadcast();
    pthread_mutex_unlock(&threadsMutex);
}

void StompClientImpl::waitForListenThreads() {
    pthread_mutex_lock(&threadsMutex);
    while (runningListenThreads > 0) threadsEnded.wait(&threadsMutex);
    pthread_mutex_unlock(&threadsMutex);
}

bool StompClientImpl::listenStopRequested(unsigned generation) const {
    return !listening || listenGeneration != generation;
}

void StompClientImpl::retryEntered() { ++retriesInside; }

void StompClientImpl::retryLeft() {
    --retriesInside;
    retryDone.broadcast();
}

void StompClientImpl::sendMessage(std::string destination, const char* text, HeaderMap* additionalHeaders) {
    // With an outbox the message is kept, and its sender writes it: no wait
    // for the engine, which may be busy with the network.
    if (outbox) {
        outbox->keep(destination, text, additionalHeaders);
        return;
    }
    EngineLock lock(*mutex);
    if (!connection) return;

    // A send without extra headers reuses one frame: its three headers are
    // only overwritten, so nothing is allocated. Extra headers get a frame
    // of their own, since nothing removes a header from a frame.
    std::unique_ptr<SendFrame> withExtras;
    SendFrame* frame = &plainSend;
    if (additionalHeaders && !additionalHeaders->empty()) {
        withExtras.reset(new SendFrame());
        frame = withExtras.get();
    }
    // A null text is sent as an empty body rather than read through. The
    // caller's text stays alive and unchanged until this call returns, so
    // the frame points at it instead of at a copy (the reused frame keeps
    // that pointer afterwards but never reads it again before the next
    // setText).
    frame->setText(const_cast<char*>(text ? text : ""));
    frame->setDestination(destination);
    frame->setAdditionalHeaders(additionalHeaders);

    long long timeout = kWriteTimeoutUs;
    const apr_status_t rc = connection->write(frame, &timeout);
    if (rc != 0) sendLost();
}

void StompClientImpl::closeConnection() {
    // Held throughout, not only taken and released: the listen thread, the
    // session and the connector are changed here, and every other change of
    // them happens under the lock too.
    ++closing;
    ClosingLock lock(*mutex, [this] { lockBreakingStalls(); });
    eventDisconnect(false);
    // Unconfirmed messages stay in a file for the next run; in memory they
    // are gone, and one line says how many.
    if (outbox) outbox->reportLeftBehind(true);
    // The session is always gone here, so no DISCONNECT goes out and the
    // socket stays as it is; this order is deliberate.
    if (session) {
        DisconnectFrame frame;
        long long timeout = kWriteTimeoutUs;
        const apr_status_t rc = connection->write(&frame, &timeout);
        if (rc != 0) {
            char text[80];
            apr_strerror(rc, text, sizeof text);
            std::ostringstream line;
            line << "Failed to tell broker we are disconnecting! Error " << rc << ": " << text;
            logError(line.str());
        }
        connection->disconnect();
    }
    --closing;
}

void StompClientImpl::setMaxWorkers(int count) { maxWorkers = count < 1 ? 1 : count; }

void StompClientImpl::setWorkerStackSize(size_t bytes) { workerStackSize = bytes; }

void StompClientImpl::useWorkerPool(int threads) {
    requireNotOpened("useWorkerPool");
    if (threads < 1) throw std::invalid_argument("useWorkerPool needs at least 1 thread.");
    poolThreads = threads;
}

void StompClientImpl::enableOrderedDelivery() {
    requireNotOpened("enableOrderedDelivery");
    orderedDelivery = true;
}

void StompClientImpl::logInfo(const std::string& message) { logger->safe_log_info(message); }

void StompClientImpl::logError(const std::string& message) { logger->safe_log_error(message); }

} // namespace internal
} // namespace tavren
