// SPDX-License-Identifier: Apache-2.0
// The listen thread: reads everything the broker sends on one connection,
// hands messages to their listeners on worker threads, answers each with ACK
// or NACK once its worker has finished, and delivers receipts and errors to
// the callers waiting for them. On a worker pool with short calls a pool
// thread does the reading in its place (SocketWatch), in passes of its own.

#include "client/StompClientImpl.h"

#include "client/Defaults.h"
#include "client/WakeCounter.h"
#include "client/WorkerPool.h"
#include "client/WorkerStacks.h"
#include "frames/AckFrame.h"
#include "transport/AprException.h"
#include "transport/SocketIo.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <deque>
#include <limits.h>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>

namespace tavren {
namespace internal {

namespace {

// The status of a non-blocking read that found no complete frame yet.
const apr_status_t kNothingToRead = 11;

// Frames read in one hold of the engine lock at most, so that senders and
// subscribers get the lock between batches.
const int kFramesPerPass = 64;

std::string headerOrEmpty(const ServerFrame& frame, const char* name) {
    auto it = frame.headers().find(name);
    return it == frame.headers().end() ? std::string() : it->second;
}

// The stack a worker gets for wanted bytes: whole pages, and no less than the
// system allows.
size_t workerStackBytes(size_t wanted) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t least = std::max(static_cast<size_t>(PTHREAD_STACK_MIN), kLeastWorkerStackSize);
    return ((wanted < least ? least : wanted) + page - 1) / page * page;
}

} // namespace

/**
 * The state of one listen thread, and its steps. One cycle: wait until the
 * socket has something or a worker has finished (at most kListenWaitMs, so
 * the run flag is seen in time); read and dispatch under the engine lock;
 * join the finished workers and write their ACK or NACK.
 */
class StompClientImpl::ListenLoop {
public:
    explicit ListenLoop(StompClientImpl* e);
    ~ListenLoop();
    ListenLoop(const ListenLoop&) = delete;
    ListenLoop& operator=(const ListenLoop&) = delete;

    void run();

private:
    // One message worker that has not been settled yet.
    struct Worker {
        Listener::WorkerData* data;
        WorkerStacks::Stack stack; // the stack it runs on, given back once joined
        bool joined;               // its thread has been joined and its answer taken
        int* exitValue;            // the listener's answer, once joined
        bool written;              // its answer was written by the pool's thread that ran it
    };

    /** Writes the answers of the pool's calls from the pool's threads, on this connection only. */
    class AckWriter : public WorkerPool::Writer {
    public:
        AckWriter(StompConnection* c, unsigned number, const Session& session)
            : connection(c),
              connectionNumber(number),
              ackKey(session.ackHeaderKey()),
              withSubscription(session.ackNamesSubscription()) {}
        bool write(const std::vector<WorkerPool::Answer>& answers) override;

    private:
        StompConnection* const connection;
        const unsigned connectionNumber;
        const std::string ackKey;
        const bool withSubscription;
        std::vector<AckPieces> acks; // scratch; one thread writes at a time
    };

    /** Lets an idle pool thread read the socket for the pool (WorkerPool::watchWith). */
    class SocketWatch : public WorkerPool::Watcher {
    public:
        explicit SocketWatch(ListenLoop& l) : loop(l) {}
        bool watch(int interruptFd) override { return loop.watchOnPool(interruptFd); }

    private:
        ListenLoop& loop;
    };

    bool stopRequested() const { return engine->listenStopRequested(generation); }
    bool lockEngine() {
        return locked = engine->mutex->lockUnless([this] { return stopRequested(); });
    }
    void unlockEngine() {
        if (locked) engine->mutex->unlock();
        locked = false;
    }

    bool waitForWork();
    /** One pass after a wait: false when the thread is to end. passMutex is held. */
    bool pass(bool readable);
    /** On a pool thread: waits for the socket and reads (SocketWatch::watch). */
    bool watchOnPool(int interruptFd);
    /** Whether this thread reads the socket itself, else a pool thread does; *soon: look again soon. */
    bool socketIsOurs(bool* soon);
    /** Sends a heart-beat when one is due; the line to log when the broker has been silent too long, else empty. */
    std::string keepHeartbeats();
    /** Logs line, drops the connection and has it made again (unless the engine stopped this thread). */
    void giveUp(const std::string& line);
    void readAndDispatch();
    void readFrames();
    /** With the pool: hands it the messages of this pass. */
    void handToPool();
    /** At most this many listener calls run at once: the pool's threads, else the bound on workers. */
    int bound() const { return pool ? pool->size() : engine->maxWorkers.load(); }
    bool full() const;
    /** On the pool: every thread is in a call (or given a record). */
    bool allBusy() const { return pool->busyThreads() >= bound(); }
    void dispatch(ServerFrame* frame);
    void dispatchMessage(ServerFrame* frame);
    bool startWorker(Listener::WorkerData* data);
    /** In-order delivery: starts the first waiting message of every destination without a running call. */
    void startReady();
    /** In-order delivery: the destinations whose call was settled may start their next (or, on the pool, count one
     * less). */
    void settled(const std::vector<std::string>& destinations);
    /** The pool's answers, into the records of workers. */
    void collectAnswers();
    /** When resolving: drops the messages no call was started for; they stay unacknowledged. */
    void dropUnstarted();
    tavren::Listener* listenerFor(const std::string& destination) const;
    void deliverResult(ServerFrame* frame);
    void reapFinished();
    void resolve();
    bool awaitDone(Worker& worker, unsigned graceUs);
    void join(Worker& worker);
    apr_status_t acknowledge(const Worker& worker);
    /** The ACK or NACK for worker's message into *out; false (and logged) when the message cannot be answered. */
    bool answerFor(const Worker& worker, AckPieces* out);
    std::string failureLine(const Worker& worker) const;
    void release(Worker& worker);
    Listener::WorkerData* newRecord();
    /** Empties the wake-up descriptor; on the pool only when it was written (or force). */
    void drainWakeUps(bool force = false);

    StompClientImpl* engine;
    const unsigned generation; // the connection this thread serves
    bool locked;               // this thread holds the engine lock
    bool connectionLost;       // no ACK or NACK can be sent any more
    bool boundReported;        // the bound on workers has been reached (and logged) on this connection
    int wakeFd;                // written by each worker when it is done; -1 if none could be made
    bool woke;                 // a wait saw wakeFd written since it was last emptied
    pthread_attr_t workerAttributes;
    std::vector<Worker> workers;
    std::vector<size_t> finished; // scratch for reaping: indexes into workers
    std::vector<AckPieces> acks;  // scratch for reaping: the answers to write
    std::vector<bool> answered;   // scratch for reaping: by finished, whether its answer is in acks
    // A message whose worker could not be started yet; nothing more is read
    // until it has one.
    Listener::WorkerData* waiting;
    std::string lastMatchedId;                         // the receipt id this thread matched most recently
    std::chrono::steady_clock::time_point settleUntil; // the end of the budget for the last ACKs and NACKs
    const Heartbeats agreed;                           // this connection's heart-beats
    const bool heartbeating;                           // in either direction
    // When reading last paused because every worker was busy, if it ever did.
    std::optional<std::chrono::steady_clock::time_point> readingPausedAt;
    // With useWorkerPool: the threads that run the calls; null with a thread
    // per message. They write the answers themselves with ackWriter (which
    // outlives the pool) when the connection has a session.
    std::unique_ptr<AckWriter> ackWriter;
    std::unique_ptr<WorkerPool> pool;
    std::vector<Listener::WorkerData*> writtenRecords; // scratch for collecting
    std::vector<WorkerPool::Answer> answers;           // scratch for collecting
    std::vector<WorkerPool::Handed> toHand;            // the messages of a pass, for the pool
    // Records released, used again for the next messages (their frames go
    // back to the connection's reader): kSpareRecords at most.
    std::vector<Listener::WorkerData*> spareRecords;
    // With enableOrderedDelivery on a thread per message: the messages of each
    // destination waiting for its running call, in the broker's order, and
    // the destinations with one.
    const bool ordered;
    std::map<std::string, std::deque<Listener::WorkerData*>> inOrder;
    std::set<std::string> running;
    // With both the pool and in-order delivery, the messages of each
    // destination handed to the pool and not yet answered.
    std::map<std::string, size_t> inLane;
    // While calls are short a pool thread reads the socket instead of this
    // thread (socketWatch), in passes of its own. Everything above is touched
    // only by the thread that holds passMutex: this one, or the pool thread
    // in its pass. A failure that pool thread met is left to this thread.
    std::mutex passMutex;
    std::string handedFailure;
    std::unique_ptr<SocketWatch> socketWatch;
};

StompClientImpl::ListenLoop::ListenLoop(StompClientImpl* e)
    : engine(e),
      generation(e->listenGeneration),
      locked(false),
      connectionLost(false),
      boundReported(false),
      wakeFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      woke(false),
      waiting(nullptr),
      agreed(e->agreed),
      heartbeating(agreed.sendEveryMs > 0 || agreed.expectEveryMs > 0),
      ordered(e->orderedDelivery) {
    pthread_attr_init(&workerAttributes);
    if (e->poolThreads > 0) {
        pool.reset(new WorkerPool(e->poolThreads, e->workerStacks, workerStackBytes(e->workerStackSize), wakeFd));
        if (pool->size() < e->poolThreads) {
            e->logError("Could only start " + std::to_string(pool->size()) + " of " + std::to_string(e->poolThreads) +
                        " worker pool threads" +
                        (pool->size() == 0 ? "; a thread is started for each message instead." : "."));
        }
        if (pool->size() == 0) pool.reset();
        if (pool && e->session) {
            ackWriter.reset(new AckWriter(e->connection.get(), e->listenConnection, *e->session));
            pool->writeWith(ackWriter.get());
            socketWatch.reset(new SocketWatch(*this));
            pool->watchWith(socketWatch.get());
        }
    }
}

StompClientImpl::ListenLoop::~ListenLoop() {
    // Every worker has been joined or abandoned by now, and an abandoned one
    // does not write to the descriptor; nor does a stopped pool.
    pool.reset();
    for (Listener::WorkerData* data : spareRecords) delete data;
    for (auto& waitingOfOne : inOrder) {
        for (Listener::WorkerData* data : waitingOfOne.second) delete data;
    }
    if (wakeFd >= 0) ::close(wakeFd);
    pthread_attr_destroy(&workerAttributes);
}

void* StompClientImpl::listen_thread_worker(void* arg) {
    StompClientImpl* engine = static_cast<StompClientImpl*>(arg);
    {
        ListenLoop loop(engine);
        loop.run();
    }
    // The last touch of the engine: after this the destructor may run.
    engine->listenThreadEnded();
    return nullptr;
}

void StompClientImpl::ListenLoop::run() {
    for (;;) {
        bool readable = false;
        try {
            readable = waitForWork();
        } catch (std::exception& e) {
            engine->logError(std::string("while trying to listen for messages: ") + e.what());
        }
        std::lock_guard<std::mutex> held(passMutex);
        if (!pass(readable)) return;
    }
}

bool StompClientImpl::ListenLoop::pass(bool readable) {
    try {
        if (!handedFailure.empty()) {
            std::string line;
            line.swap(handedFailure);
            giveUp(line);
            return true;
        }
        if (pool) pool->nudge(); // a record held back behind a call that turned long
        if (heartbeating && !connectionLost) {
            const std::string silence = keepHeartbeats();
            if (!silence.empty()) {
                giveUp(silence);
                return true;
            }
        }
        // When the engine stops this thread it holds the lock and waits
        // for the thread to end; the thread then settles its workers
        // without taking the lock, which its stopper holds for it.
        lockEngine();
        if (stopRequested()) {
            resolve();
            unlockEngine();
            return false;
        }
        // An idle pass only looks at the run flag: no read, no system call.
        if (readable || waiting) readAndDispatch();
        unlockEngine();
        if (!workers.empty()) reapFinished();
        if (ordered && !inOrder.empty()) startReady(); // a worker that could not be started before
    } catch (AprException& e) {
        std::ostringstream line;
        line << "while trying to listen for messages. Error " << e.apr_reason() << ": " << e.what();
        giveUp(line.str());
    } catch (std::exception& e) {
        // Whatever else a frame brings about must not end the thread.
        engine->logError(std::string("while trying to listen for messages: ") + e.what());
        unlockEngine();
    }
    return true;
}

bool StompClientImpl::ListenLoop::socketIsOurs(bool* soon) {
    *soon = false;
    if (!socketWatch) return true;
    switch (pool->watchState(kPoolNudgeMs)) {
    case WorkerPool::Watch::watching: return false;
    case WorkerPool::Watch::away:
        // Calls of the thread that read that turn long are looked for soon:
        // reading waits for them.
        *soon = true;
        return false;
    case WorkerPool::Watch::late:
        // The thread that read is in calls that turned long: this thread
        // reads again, until the calls are short once more.
        pool->reclaimSocket();
        return true;
    case WorkerPool::Watch::none:
        if (!connectionLost && !full()) pool->allowWatch();
        return true;
    }
    return true;
}

bool StompClientImpl::ListenLoop::watchOnPool(int interruptFd) {
    // On a pool thread, without passMutex while it waits.
    bool readable = false, woken = false;
    const apr_status_t rc = engine->connection->waitForInput(interruptFd, true, kPoolWatchMs, &readable, &woken);
    if (woken || rc != 0) return false; // the listen thread reads, and reports what failed
    if (!readable) return true;
    // The listen thread is in a pass: it reads, and this thread sleeps.
    std::unique_lock<std::mutex> held(passMutex, std::try_to_lock);
    if (!held.owns_lock() || connectionLost || !handedFailure.empty()) return false;
    if (full() || !lockEngine()) return false; // reading pauses, or the engine stops the listen thread
    try {
        if (stopRequested()) {
            unlockEngine();
            return false;
        }
        readAndDispatch();
        unlockEngine();
        // The records of calls that are over are used again for the next messages.
        if (pool->published() >= kSpareRecords / 2) reapFinished();
    } catch (AprException& e) {
        unlockEngine();
        std::ostringstream line;
        line << "while trying to listen for messages. Error " << e.apr_reason() << ": " << e.what();
        handedFailure = line.str();
        return false;
    } catch (std::exception& e) {
        engine->logError(std::string("while trying to listen for messages: ") + e.what());
        unlockEngine();
    }
    return true;
}

bool StompClientImpl::ListenLoop::full() const {
    // On the pool, a call whose answer is published is over, though its
    // record is only released on the next pass.
    if (!ordered) {
        if (waiting) return true;
        const size_t open = workers.size() - (pool ? pool->published() : 0);
        if (!pool) return static_cast<int>(open) >= bound();
        // On the pool, reading pauses while every thread is in a call. The
        // records of a run of short calls wait for the one thread awake
        // instead (kPoolShortCallNs), up to kPoolQueuedRecords of them.
        return allBusy() || open >= static_cast<size_t>(bound()) + kPoolQueuedRecords;
    }
    // In order, messages wait in their destination's queue; only a broker
    // that sends beyond the bound it was asked for fills one.
    if (pool) {
        // A lane holds its call and the messages waiting behind it. Counted
        // here, a call leaves its lane only once its answer is collected;
        // the pool's thread writes the ACK before that, and the broker may
        // already have sent the message that takes its place. So a count
        // over the bound is checked with the pool, which counts a call out
        // as soon as it returns.
        for (const auto& lane : inLane) {
            if (lane.second > kOrderedPrefetch) return pool->longestLane() > kOrderedPrefetch;
        }
        return false;
    }
    for (const auto& waitingOfOne : inOrder) {
        if (waitingOfOne.second.size() >= kOrderedPrefetch) return true;
    }
    return false;
}

bool StompClientImpl::ListenLoop::waitForWork() {
    if (stopRequested()) return false;
    std::unique_lock<std::mutex> held(passMutex);
    // At the bound the socket is left alone: the broker's frames wait there,
    // and TCP holds the broker back, until a worker finishes.
    const bool paused = full();
    bool soon = false;
    const bool watchSocket = !paused && socketIsOurs(&soon);
    // On the pool a pause may also be for a run of short calls that one
    // thread catches up with: not the bound, and not logged.
    const bool atBound = ordered || !pool || allBusy();
    if (paused && !waiting && !boundReported && atBound) {
        // Once a connection: under a steady stream the bound is met often.
        boundReported = true;
        if (ordered) {
            engine->logInfo("A destination has " + std::to_string(kOrderedPrefetch) +
                            " messages waiting for its listener, more than it asked the broker for: reading "
                            "from the broker pauses until its listener takes one.");
        } else {
            engine->logInfo("All " + std::to_string(pool ? bound() : static_cast<int>(workers.size())) +
                            " message workers are busy: reading from the broker pauses until one finishes.");
        }
    }
    int timeoutMs = kListenWaitMs;
    // Without an eventfd, finished workers are looked for every millisecond.
    if (wakeFd < 0 && !workers.empty()) timeoutMs = 1;
    if (soon) timeoutMs = kPoolNudgeMs;
    // The pool's threads write the answers they can and wake this thread
    // only for the others, or while reading pauses for a free thread.
    const bool armed = pool && paused;
    if (armed && !pool->armWake()) return false; // an answer is there: no wait
    bool readable = false, woken = false;
    held.unlock();
    // A failure (the connection went) is left to the read to report.
    const apr_status_t rc = engine->connection->waitForInput(wakeFd, watchSocket, timeoutMs, &readable, &woken);
    held.lock();
    if (armed) pool->disarm();
    woke = woke || woken;
    if (rc != 0) return true;
    return readable;
}

std::string StompClientImpl::ListenLoop::keepHeartbeats() {
    // Without the engine lock: only the connection is used, under its own.
    StompConnection& connection = *engine->connection;
    if (agreed.sendEveryMs > 0 && connection.msSinceSend() >= agreed.sendEveryMs) {
        long long timeout = kWriteTimeoutUs;
        connection.sendHeartbeat(&timeout);
    }
    if (agreed.expectEveryMs <= 0) return "";
    // While every worker is busy nothing is read, so the broker's silence
    // cannot be judged: it is counted only from when reading went on.
    const auto now = std::chrono::steady_clock::now();
    if (full()) readingPausedAt = now;
    long long silentMs = connection.msSinceReceive();
    if (readingPausedAt) {
        const long long sincePause =
            std::chrono::duration_cast<std::chrono::milliseconds>(now - *readingPausedAt).count();
        silentMs = std::min(silentMs, sincePause);
    }
    if (silentMs <= 2 * agreed.expectEveryMs) return "";
    return "No data from the broker for " + std::to_string(silentMs) + " ms, twice its heart-beat interval of " +
           std::to_string(agreed.expectEveryMs) + " ms: the connection is taken as lost.";
}

void StompClientImpl::ListenLoop::giveUp(const std::string& line) {
    engine->logError(line);
    // No pool thread waits for the socket once the connection is dropped.
    connectionLost = true;
    if (socketWatch) pool->reclaimSocket(true);
    // A failed ACK or NACK arrives here without the lock.
    if (!locked) lockEngine();
    if (locked && !stopRequested()) engine->eventDisconnectError();
    unlockEngine();
}

void StompClientImpl::ListenLoop::readAndDispatch() {
    // The pool gets the pass's messages at once: one hold of its lock, and
    // its threads are woken once the pass is over.
    try {
        readFrames();
    } catch (...) {
        handToPool();
        throw;
    }
    handToPool();
}

void StompClientImpl::ListenLoop::handToPool() {
    if (toHand.empty()) return;
    pool->handAll(toHand);
    toHand.clear();
}

void StompClientImpl::ListenLoop::readFrames() {
    // The engine lock is held.
    for (int i = 0; i < kFramesPerPass; ++i) {
        if (waiting) {
            if (!startWorker(waiting)) return;
            waiting = nullptr;
        }
        // While every pool thread is busy the socket is left alone, but the
        // frames it already gave queue for the next free thread: one that
        // finishes goes on at once instead of waiting for this thread.
        const bool socketPaused = full();
        if (socketPaused && (!pool || ordered)) return;
        ServerFrame* frame = nullptr;
        const apr_status_t rc = engine->connection->readNext(&frame, !socketPaused);
        if (rc == kNothingToRead) return;
        if (rc != 0) throw AprException(rc);
        if (frame) dispatch(frame); // else a heart-beat: nothing to hand on
    }
}

void StompClientImpl::ListenLoop::dispatch(ServerFrame* frame) {
    const std::string& command = frame->command();
    if (command == "MESSAGE") {
        dispatchMessage(frame);
    } else if (command == "ERROR" || command == "RECEIPT") {
        deliverResult(frame);
    } else {
        engine->logError("Broker sent a frame that is an unrecognized server frame with COMMAND = " + command);
        delete frame;
    }
}

void StompClientImpl::ListenLoop::dispatchMessage(ServerFrame* frame) {
    kelvra::UniquePtr<ServerFrame> message(frame);
    auto destination = frame->headers().find("destination");
    if (destination == frame->headers().end()) return; // dropped, not acknowledged
    const std::string name = destination->second;
    tavren::Listener* listener = listenerFor(name);
    if (!listener) return; // nobody listens: dropped, not acknowledged
    engine->calm.messageCame();

    Listener::WorkerData* data = newRecord();
    data->listener = listener;
    data->frame.reset(message.release());
    data->wakeFd = wakeFd;
    if (ordered && pool) {
        // The pool keeps the order itself: a lane per destination, whose next
        // call starts as soon as the last returns, on the same thread.
        auto lane = inLane.emplace(name, 0).first;
        ++lane->second;
        toHand.emplace_back(data, &lane->first); // the key lives until the message is settled
        workers.push_back(Worker{data, WorkerStacks::Stack(), false, nullptr, false});
        return;
    }
    if (ordered) {
        inOrder[name].push_back(data);
        startReady();
        return;
    }
    if (!startWorker(data)) {
        // The message keeps its place: nothing more is read until a worker
        // can be started for it, on a later pass.
        waiting = data;
    }
}

bool StompClientImpl::ListenLoop::startWorker(Listener::WorkerData* data) {
    if (pool) {
        toHand.emplace_back(data, nullptr);
        workers.push_back(Worker{data, WorkerStacks::Stack(), false, nullptr, false});
        return true;
    }
    const size_t size = workerStackBytes(engine->workerStackSize);
    WorkerStacks::Stack stack;
    int rc = ENOMEM;
    if (engine->workerStacks.take(size, &stack)) {
        pthread_attr_setstack(&workerAttributes, stack.base, stack.size);
        rc = pthread_create(data->thread, &workerAttributes, &Listener::listener_worker_func, data);
        if (rc != 0) engine->workerStacks.give(stack);
    }
    if (rc != 0) {
        if (data != waiting) {
            engine->logError("Could not start a worker for message " + headerOrEmpty(*data->frame, "message-id") +
                             ": " + strerror(rc) + "; reading pauses until one can be started.");
        }
        return false;
    }
    workers.push_back(Worker{data, stack, false, nullptr, false});
    return true;
}

void StompClientImpl::ListenLoop::startReady() {
    for (auto it = inOrder.begin(); it != inOrder.end() && static_cast<int>(workers.size()) < bound();) {
        if (it->second.empty() || running.count(it->first)) {
            ++it;
            continue;
        }
        if (!startWorker(it->second.front())) return; // tried again on the next pass
        running.insert(it->first);
        it->second.pop_front();
        // A destination with nothing waiting keeps no entry.
        if (it->second.empty()) {
            it = inOrder.erase(it);
        } else {
            ++it;
        }
    }
}

void StompClientImpl::ListenLoop::settled(const std::vector<std::string>& destinations) {
    if (pool) {
        for (const std::string& destination : destinations) {
            auto lane = inLane.find(destination);
            if (lane != inLane.end() && --lane->second == 0) inLane.erase(lane);
        }
        return;
    }
    for (const std::string& destination : destinations) running.erase(destination);
    startReady();
}

tavren::Listener* StompClientImpl::ListenLoop::listenerFor(const std::string& destination) const {
    auto listener = engine->listeners.find(destination);
    if (listener != engine->listeners.end()) return listener->second;
    // Brokers hand out a queue's waiting messages as soon as the subscription
    // stands, often in the same packet as its RECEIPT. The subscriber enters
    // its listener only once it has the lock back, which this thread may take
    // first: the listener of a subscription still waiting for its answer
    // takes such a message, so it is not left unacknowledged for as long as
    // the connection stands.
    for (const auto& change : engine->pendingChanges) {
        if (change.second.second && change.second.first == destination) return change.second.second;
    }
    return nullptr;
}

void StompClientImpl::ListenLoop::deliverResult(ServerFrame* raw) {
    kelvra::SharedPtr<ServerFrame> frame(raw);
    if (engine->outbox) {
        // The answer to a message of the outbox is the outbox's business.
        auto receipt = frame->headers().find("receipt-id");
        if (receipt != frame->headers().end() && Outbox::ownsReceipt(receipt->second)) {
            engine->outbox->answered(*frame, receipt->second);
            return;
        }
    }
    auto& pending = engine->pendingResults;
    if (frame->command() == "ERROR") engine->noteBrokerError(*frame, headerOrEmpty(*frame, "receipt-id"));
    try {
        const std::string id = frame->headers().at("receipt-id");
        try {
            if (pending.find(id) == pending.end()) throw std::out_of_range("We are not waiting for " + id);
            lastMatchedId = id;
        } catch (std::out_of_range&) {
            std::ostringstream line;
            line << "We received a result frame (RECEIPT or ERROR) from the broker, but we do not remember "
                    "sending a frame that required it. Frame read: "
                 << std::endl
                 << *frame;
            engine->logError(line.str());
        }
    } catch (std::out_of_range&) {
        engine->logError("Ther broker sent a frame without a receipt-id header!");
        if (frame->command() == "ERROR") engine->noteKeptError();
    }
    // A stray answer goes to the slot this thread matched last, but only
    // while its caller still waits: a caller that has returned erased its
    // entry, and its slot is gone with its stack. With none, it is dropped.
    auto slot = pending.find(lastMatchedId);
    if (slot == pending.end()) return;
    slot->second->setResultFrame(frame);
    slot->second->condition()->signal();
}

void StompClientImpl::ListenLoop::drainWakeUps(bool force) {
    if (wakeFd < 0) return;
    // The pool writes the descriptor once until rearmed, and only when it
    // has to: no read (a system call) for an empty one. A write it is about
    // to make after this look wakes the next wait, which empties it.
    if (pool && !force && !woke && !pool->notifiedSinceRearm()) return;
    woke = false;
    takeWakes(wakeFd);
    if (pool) pool->rearm();
}

void StompClientImpl::ListenLoop::reapFinished() {
    // Runs without the engine lock. The wake-ups are emptied first: a worker
    // that finishes after this is seen below or wakes the next wait.
    drainWakeUps();
    finished.clear();
    if (pool) {
        // A call is finished once the pool has published its answer.
        collectAnswers();
        for (size_t i = 0; i < workers.size(); ++i) {
            if (workers[i].joined) finished.push_back(i);
        }
    } else {
        for (size_t i = 0; i < workers.size(); ++i) {
            Listener::WorkerData* data = workers[i].data;
            pthread_mutex_lock(data->mutex);
            const bool done = data->done;
            pthread_mutex_unlock(data->mutex);
            if (done) finished.push_back(i);
        }
    }
    if (finished.empty()) return;
    // A done worker touches its record no more; joining it at once lets the
    // thread library hand its stack to the next worker.
    for (size_t i : finished) join(workers[i]);
    const bool toWrite =
        std::any_of(finished.begin(), finished.end(), [this](size_t i) { return !workers[i].written; });
    if (toWrite && !lockEngine()) return; // the engine is stopping this thread; resolving acknowledges them

    // Every ACK and NACK in one hold of the lock and one write, in the order
    // the messages came: the bytes are those of the frames one after another.
    acks.clear();
    answered.assign(finished.size(), false);
    size_t firstWritten = finished.size();
    for (size_t k = 0; k < finished.size(); ++k) {
        if (workers[finished[k]].written) continue; // by the pool's thread
        AckPieces ack;
        if (!answerFor(workers[finished[k]], &ack)) continue;
        acks.push_back(ack);
        answered[k] = true;
        if (firstWritten == finished.size()) firstWritten = k;
    }
    apr_status_t rc = 0;
    long long timeout = kWriteTimeoutUs;
    if (!acks.empty()) rc = engine->connection->writeAcks(acks.data(), acks.size(), &timeout);
    if (rc != 0) engine->logError(failureLine(workers[finished[firstWritten]]));
    unlockEngine();
    // The settled ones leave the list; when the write failed, those it
    // carried stay in it (the ones that could not be answered are settled).
    std::vector<std::string> destinations;
    size_t next = 0, kept = 0;
    for (size_t i = 0; i < workers.size(); ++i) {
        if (next < finished.size() && finished[next] == i) {
            if (rc != 0 && answered[next]) {
                workers[kept++] = workers[i];
                ++next;
                continue;
            }
            if (ordered) destinations.push_back(headerOrEmpty(*workers[i].data->frame, "destination"));
            release(workers[i]);
            ++next;
        } else {
            workers[kept++] = workers[i];
        }
    }
    workers.resize(kept);
    if (rc != 0) throw AprException(rc);
    // In order: a destination's next call starts only once the answer to its
    // last has been written, so its ACKs and NACKs leave in the broker's order.
    if (ordered) settled(destinations);
}

bool StompClientImpl::ListenLoop::AckWriter::write(const std::vector<WorkerPool::Answer>& answers) {
    // A message that cannot be answered (no id) fails the whole write: the
    // listen thread then answers them one by one and logs that one.
    acks.resize(answers.size());
    for (size_t i = 0; i < answers.size(); ++i) {
        AckPieces& ack = acks[i];
        const bool processed = answers[i].second && *answers[i].second == 0;
        if (!AckFrame::piecesFor(answers[i].first->frame.get(), ackKey, withSubscription,
                                 processed ? AckFrame::ACK : AckFrame::NACK, &ack)) {
            return false;
        }
    }
    long long timeout = kWriteTimeoutUs;
    return connection->writeAcks(acks.data(), acks.size(), &timeout, connectionNumber) == 0;
}

void StompClientImpl::ListenLoop::collectAnswers() {
    answers.clear();
    writtenRecords.clear();
    pool->collect(&answers, &writtenRecords);
    if (answers.empty()) return;
    std::sort(writtenRecords.begin(), writtenRecords.end(), std::less<Listener::WorkerData*>());
    // Many records may wait for the pool's threads: one pass over them, the
    // answers looked up by record.
    const std::less<Listener::WorkerData*> before;
    std::sort(answers.begin(), answers.end(),
              [&](const WorkerPool::Answer& a, const WorkerPool::Answer& b) { return before(a.first, b.first); });
    for (Worker& worker : workers) {
        auto answer = std::lower_bound(
            answers.begin(), answers.end(), worker.data,
            [&](const WorkerPool::Answer& a, Listener::WorkerData* data) { return before(a.first, data); });
        if (answer == answers.end() || answer->first != worker.data) continue;
        worker.exitValue = answer->second;
        worker.joined = true;
        worker.written = std::binary_search(writtenRecords.begin(), writtenRecords.end(), worker.data,
                                            std::less<Listener::WorkerData*>());
    }
}

void StompClientImpl::ListenLoop::dropUnstarted() {
    std::vector<Listener::WorkerData*> unstarted;
    if (pool) unstarted = pool->withdraw();
    for (auto& waitingOfOne : inOrder) {
        unstarted.insert(unstarted.end(), waitingOfOne.second.begin(), waitingOfOne.second.end());
    }
    inOrder.clear();
    running.clear();
    inLane.clear();
    if (unstarted.empty()) return;
    engine->logInfo(std::to_string(unstarted.size()) +
                    " received messages had no listener call started before the connection ended; they are "
                    "left unacknowledged.");
    size_t kept = 0;
    for (size_t i = 0; i < workers.size(); ++i) {
        if (std::find(unstarted.begin(), unstarted.end(), workers[i].data) == unstarted.end()) {
            workers[kept++] = workers[i];
        }
    }
    workers.resize(kept);
    for (Listener::WorkerData* data : unstarted) delete data;
}

bool StompClientImpl::ListenLoop::awaitDone(Worker& worker, unsigned graceUs) {
    Listener::WorkerData* data = worker.data;
    // Waits for the worker's wake-up rather than sleeping the whole grace.
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        pthread_mutex_lock(data->mutex);
        const bool done = data->done;
        pthread_mutex_unlock(data->mutex);
        if (done) return true;
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        const long long passedUs = (now.tv_sec - start.tv_sec) * 1000000LL + (now.tv_nsec - start.tv_nsec) / 1000;
        if (passedUs >= graceUs) break;
        if (wakeFd < 0) {
            usleep(graceUs - passedUs);
            continue;
        }
        const int leftMs = static_cast<int>((graceUs - passedUs + 999) / 1000);
        bool unused = false, woken = false;
        SocketIo::waitReadable(-1, wakeFd, leftMs, &unused, &woken);
        drainWakeUps(true);
    }
    // The grace is over: the worker is left to finish alone, unless it
    // finishes right now.
    pthread_mutex_lock(data->mutex);
    if (data->done) {
        pthread_mutex_unlock(data->mutex);
        return true;
    }
    // The worker now owns its record and deletes it when done; the engine
    // joins its thread once it has ended, and only then reuses its stack.
    data->abandoned = true;
    // A pool thread is left to the pool, which leaves it to the stacks.
    if (!pool) engine->workerStacks.adopt(*data->thread, worker.stack);
    pthread_mutex_unlock(data->mutex);
    return false;
}

void StompClientImpl::ListenLoop::resolve() {
    // The engine lock is held here, by this thread or for it by the thread
    // that stops it; so ACK and NACK go out under the lock already held.
    engine->logInfo("Resolving remaining message handlers...");
    settleUntil = std::chrono::steady_clock::now() + std::chrono::microseconds(kSettleWriteBudgetUs);
    if (waiting) {
        engine->logError("Could not start a worker for message " + headerOrEmpty(*waiting->frame, "message-id") +
                         " before the connection ended; it is left unacknowledged.");
        delete waiting;
        waiting = nullptr;
    }
    dropUnstarted();
    for (Worker& worker : workers) {
        Listener::WorkerData* data = worker.data;
        if (!worker.joined && !awaitDone(worker, kWorkerGraceUs)) continue; // abandoned: the record is the worker's
        join(worker);
        const std::string id = headerOrEmpty(*data->frame, "message-id");
        const bool processed = worker.exitValue && *worker.exitValue == 0;
        if (worker.written) {
            // Answered by the pool's thread.
        } else if (connectionLost) {
            engine->logError(processed ? "message: " + id + " was fully processed but we are unable to ACK broker."
                                       : "message: " + id + " was NOT processed but we are unable to NACK broker.");
        } else if (acknowledge(worker) != 0) {
            connectionLost = true;
        }
        release(worker);
    }
    workers.clear();
    // Idle pool threads end now; one still in a call ends once it returns.
    if (pool) pool->stop();
}

void StompClientImpl::ListenLoop::join(Worker& worker) {
    if (worker.joined) return;
    if (pool) {
        // Marked done: its answer is being published.
        worker.exitValue = pool->takeAnswer(worker.data, &worker.written);
        worker.joined = true;
        return;
    }
    void* exitValue = nullptr;
    pthread_join(*worker.data->thread, &exitValue);
    worker.exitValue = static_cast<int*>(exitValue);
    worker.joined = true;
    engine->workerStacks.give(worker.stack);
}

std::string StompClientImpl::ListenLoop::failureLine(const Worker& worker) const {
    const bool processed = worker.exitValue && *worker.exitValue == 0;
    return std::string(processed ? "Failed to ACK message: " : "Failed to NACK message: ") +
           headerOrEmpty(*worker.data->frame, "message-id");
}

bool StompClientImpl::ListenLoop::answerFor(const Worker& worker, AckPieces* out) {
    // Called with the engine lock held (or held for this thread).
    const bool processed = worker.exitValue && *worker.exitValue == 0;
    if (engine->session && AckFrame::piecesFor(worker.data->frame.get(), engine->session.get(),
                                               processed ? AckFrame::ACK : AckFrame::NACK, out)) {
        return true;
    }
    // A MESSAGE without the header an ACK must carry cannot be answered;
    // the connection is fine, so the message is only logged.
    engine->logError(failureLine(worker));
    return false;
}

apr_status_t StompClientImpl::ListenLoop::acknowledge(const Worker& worker) {
    // Called with the engine lock held (or held for this thread).
    AckPieces ack;
    if (!answerFor(worker, &ack)) return 0;
    // Only the time left of the budget for settling: a broker that stopped
    // reading must not hold whoever stops this thread.
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(settleUntil - std::chrono::steady_clock::now()).count();
    long long timeout = left > 0 ? static_cast<long long>(left) : 0;
    const apr_status_t rc = engine->connection->writeAcks(&ack, 1, &timeout);
    if (rc != 0) engine->logError(failureLine(worker));
    return rc;
}

void StompClientImpl::ListenLoop::release(Worker& worker) {
    delete worker.exitValue;
    Listener::WorkerData* data = worker.data;
    worker.exitValue = nullptr;
    worker.data = nullptr;
    if (!data) return;
    // Nothing refers to the record or its frame any more: both are filled
    // again for the next messages instead of freed.
    engine->connection->recycle(data->frame.release());
    if (spareRecords.size() < kSpareRecords) {
        spareRecords.push_back(data);
    } else {
        delete data;
    }
}

Listener::WorkerData* StompClientImpl::ListenLoop::newRecord() {
    if (spareRecords.empty()) return new Listener::WorkerData();
    Listener::WorkerData* data = spareRecords.back();
    spareRecords.pop_back();
    data->listener = nullptr;
    data->done = false;
    data->abandoned = false;
    data->wakeFd = -1;
    return data;
}

} // namespace internal
} // namespace tavren
