// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_STOMPCLIENTIMPL_H
#define TAVREN_INTERNAL_STOMPCLIENTIMPL_H

#include "client/Connector.h"
#include "client/EngineMutex.h"
#include "client/FrameResult.h"
#include "client/Heartbeats.h"
#include "client/LostSends.h"
#include "client/RefusalSchedule.h"
#include "client/WorkerStacks.h"
#include "frames/SendFrame.h"
#include "frames/ServerFrame.h"
#include "frames/Session.h"
#include "outbox/Outbox.h"
#include "transport/StompConnection.h"

#include <kelvra/UniquePtr.h>
#include <kelvra/threads/CondVar.h>
#include <kelvra/utility/Version.h>
#include <tavren/HeaderMap.h>
#include <tavren/Listener.h>
#include <tavren/Logger.h>
#include <tavren/OutboxOptions.h>
#include <tavren/TlsOptions.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace tavren {
namespace internal {

/**
 * The engine behind StompClient: the settings, the connection and its
 * session, the connector that makes and remakes the connection, the
 * listeners by destination, the callers waiting for receipts, and the listen
 * thread that reads everything the broker sends.
 *
 * States: idle (no session, no connector), connecting (a connector whose
 * first attempt runs or whose timer retries), connected (a session and a
 * running listen thread). Every change of state happens under the engine
 * lock.
 *
 * Its operations are split over three files: the core (this header's
 * settings, events, send and close), the subscription registry and the
 * listen thread.
 */
/** A broker the client may connect to. */
struct BrokerAddress {
    std::string host;
    int port;
};

class StompClientImpl {
public:
    StompClientImpl(tavren::Logger* logger, std::string clientName);
    ~StompClientImpl();
    StompClientImpl(const StompClientImpl&) = delete;
    StompClientImpl& operator=(const StompClientImpl&) = delete;

    /** True while a session stands. Takes no lock. */
    bool isConnected() const { return hasSession; }

    void setupSocketDetails(std::string host, int port);
    void setupAuthentication(std::string login, std::string passcode);
    void setupHeartbeating(std::pair<std::string, std::string>* heartbeat);
    /** Stores the settings and makes the first connection attempt on this thread. */
    // Capabilities the application switches on before openConnection; each
    // throws std::logic_error once it has been called.
    void useTls(const tavren::TlsOptions& options);
    void enableHeartbeats();
    void addFailoverBroker(std::string host, int port);
    void setFrameLimits(size_t maxLineBytes, size_t maxBodyBytes);
    void useOutbox(const tavren::OutboxOptions& options);

    // The outbox: what it keeps, and waiting for the broker to confirm it.
    std::size_t pendingMessages() const;
    bool waitForConfirmations(long timeoutMs);
    /** The outbox, for tests that bound its window; null without useOutbox. */
    Outbox* outboxForTests() { return outbox.get(); }
    void setVirtualHost(std::string host);

    void setupRobustConnection(int reconnectPeriod, kelvra::utility::Version version, std::string clientName,
                               std::string virtualHost);
    /** A new connector and its first attempt; on failure its timer retries. */
    void setupConnector(std::string clientName);

    /** Called by the connector once the session is stored. */
    void eventConnect();
    void eventDisconnect(bool error);
    /** A read or write on the live connection failed: drop it and connect again. */
    void eventDisconnectError();

    void sendMessage(std::string destination, const char* text, HeaderMap* additionalHeaders);
    void closeConnection();

    // The subscription registry.
    /** headers go on this listener's every SUBSCRIBE; std::invalid_argument for a header the library writes. */
    void registerListener(std::string destination, tavren::Listener* listener, const HeaderMap& headers);
    void deregisterListener(std::string destination);
    void pauseAllListeners();
    void resumeAllListeners();

    /** The bound on running workers and their stack size; read by the listen thread for each message. */
    void setMaxWorkers(int count);
    void setWorkerStackSize(size_t bytes);
    /** Kept for the listen thread; both refused once openConnection was called. */
    void useWorkerPool(int threads);
    void enableOrderedDelivery();

    void logInfo(const std::string& message);
    void logError(const std::string& message);

    /** The listen thread's body; arg is the engine. */
    static void* listen_thread_worker(void* arg);

private:
    friend class Connector;
    class ListenLoop;
    friend class EngineOutboxLink;

    void requireNotOpened(const char* call) const;
    /** The broker the next attempt connects to. */
    const BrokerAddress& currentBroker() const { return brokers[brokerIndex]; }
    /** A connection attempt failed: the next one goes to the next broker, when there are several. */
    void moveToNextBroker();
    void installSession(Session* fresh);
    void installConnector(Connector* fresh);
    void connectAgain();
    void attemptStarted();
    long long msSinceLastAttempt() const;
    int retryDelayMs();
    void lockBreakingStalls();
    void registerUntil(const std::string& destination, tavren::Listener* listener, const struct timespec& deadline);
    void joinListenThread();
    void listenThreadEnded();
    void waitForListenThreads();
    void abandonPendingResults();
    bool writeAndAwait(ClientFrame& frame, const std::string& destination, tavren::Listener* registering,
                       FrameResult& result, kelvra::threads::CondVar& cond, const struct timespec& deadline);
    bool listenStopRequested(unsigned generation) const;
    void retryEntered();
    void retryLeft();
    // Refusals and outages (StompClientImplCalm.cpp).
    /** A send could not be written: counted, and handled as a lost connection when it is the outage's first. */
    void sendLost();
    /** Logs the count of lost sends when it is due. */
    void logLostSendsIfDue();
    /** An ERROR came on this connection: remembers it for the end of the connection, and tells waiting subscribers. */
    void noteBrokerError(const ServerFrame& frame, const std::string& receiptId);
    /** After noteBrokerError, for an ERROR without a receipt-id: counted, and its reason logged when due. */
    void noteKeptError();
    /** A connection that stood ended; logs the broker's refusal, if any. */
    void connectionEnded(bool byApplication, bool refused);
    /** Logs the refusal that ended the connection, if any, with the wait that follows (none when negative). */
    void logRefusal(long long waitMs);
    /** The wait before the attempt that follows a lost connection, since ms after the last attempt began. */
    long long waitAfterLossMs(long long since);
    /** A failed attempt: the wait before the next one (longer after a refusal, which is logged). */
    int waitAfterFailedAttemptMs(const tavren::ConnectionException& e);

    tavren::Logger* logger; // not owned
    // The brokers to connect to: the constructor's first, then the failover
    // ones in the order added; brokerIndex is the one the next attempt uses.
    std::vector<BrokerAddress> brokers;
    size_t brokerIndex;
    bool useAuthentication;
    std::string login;
    std::string passcode;
    bool useHeartbeating; // set, never read: the heart-beat figures go out on every connect
    std::string clientHeartbeat;
    std::string serverHeartbeat;
    std::string clientName;
    EngineMutex* mutex;
    kelvra::UniquePtr<Connector> connector;
    int reconnectPeriod;
    kelvra::utility::Version version;
    std::string virtualHost;
    kelvra::UniquePtr<StompConnection> connection;
    kelvra::UniquePtr<Session> session;
    std::map<std::string, tavren::Listener*> listeners;
    std::map<std::string, tavren::Listener*> pausedListeners;
    std::map<std::string, FrameResult*> pendingResults;
    std::atomic<bool> listening; // the listen thread's run flag; read by it without the lock
    pthread_t* listenThread;

    // What the engine needs beyond the settings above to stay safe across
    // threads: each is read and written under the engine lock unless atomic.
    std::atomic<bool> hasSession;           // session is non-empty; read by isConnected()
    bool listenThreadStarted;               // *listenThread holds a thread not yet joined
    std::atomic<unsigned> listenGeneration; // counts connections; a listen thread serves one
    std::atomic<unsigned> listenConnection; // the connection's number (connectionNumber()) for that thread
    // Subscriptions and unsubscriptions waiting for their receipt, by receipt
    // id: destination and listener (null for an unsubscription).
    std::map<std::string, std::pair<std::string, tavren::Listener*>> pendingChanges;
    bool destroying;                    // the destructor has begun: no new attempts
    int retriesInside;                  // timer-thread attempts inside the engine
    kelvra::threads::CondVar retryDone; // signalled when retriesInside drops
    // Listen threads that have not ended yet, the detached ones included. A
    // lock of its own, taken inside no other, so that a thread can report its
    // end while the engine lock is held by whoever waits for it.
    pthread_mutex_t threadsMutex;
    int runningListenThreads;
    kelvra::threads::CondVar threadsEnded;
    SendFrame plainSend;       // reused by every send without extra headers, under the engine lock
    WorkerStacks workerStacks; // the stacks message workers run on; outlives every worker but abandoned ones
    std::atomic<int> maxWorkers;
    std::atomic<size_t> workerStackSize;
    int poolThreads = 0; // 0: a thread per message
    bool orderedDelivery = false;
    // Reconnecting: when the last attempt to connect began, so that a
    // connection lost again soon after waits for the timer instead of
    // trying at once; and the source of the retries' jitter.
    bool attempted;
    std::chrono::steady_clock::time_point lastAttempt;
    std::minstd_rand jitter;
    // closeConnection is waiting for the engine or running: a connection
    // lost meanwhile is not made again.
    std::atomic<int> closing;
    // openConnection has been called: the capabilities above are fixed.
    std::atomic<bool> opened;
    bool heartbeatsEnabled; // watch and send the heart-beats agreed at connect
    // What the application sends, kept until the broker confirms it; null
    // without useOutbox. The bridge is how it writes on the connection.
    std::unique_ptr<OutboxLink> outboxBridge;
    std::unique_ptr<Outbox> outbox;
    // The application's headers for each listener's SUBSCRIBE, by destination.
    std::map<std::string, HeaderMap> subscribeHeaders;
    RefusalSchedule calm;      // refused and short-lived connections in a row
    BrokerRefusal brokerError; // the last ERROR of the current connection (or of CONNECT)
    KeptErrors keptErrors;     // the ERRORs without a receipt-id on the current connection
    LostSends lostSends;       // sends lost during the current outage
    std::string refusalLine;   // the refusal that ended the connection, until logged
    Heartbeats agreed;         // this connection's; set before its listen thread starts
};

} // namespace internal
} // namespace tavren

#endif
