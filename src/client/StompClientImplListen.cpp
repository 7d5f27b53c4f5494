// The listen thread: reads everything the broker sends on one connection,
// hands messages to their listeners on worker threads, answers each with ACK
// or NACK once its worker has finished, and delivers receipts and errors to
// the callers waiting for them.

#include "client/StompClientImpl.h"

#include "frames/AckFrame.h"
#include "transport/AprException.h"

#include <unistd.h>

#include <sstream>
#include <stdexcept>

namespace tavren {
namespace internal {

namespace {

// The pause of an idle pass, and the grace given to a running worker when
// the connection ends, in microseconds.
const useconds_t kIdleSleepUs = 20000;

// The status of a non-blocking read that found no complete frame yet.
const apr_status_t kNothingToRead = 11;

std::string headerOrEmpty(const ServerFrame& frame, const char* name) {
    auto it = frame.headers().find(name);
    return it == frame.headers().end() ? std::string() : it->second;
}

} // namespace

/** The state of one listen thread, and its steps. */
class StompClientImpl::ListenLoop {
public:
    ListenLoop(StompClientImpl* e) : engine(e), generation(e->listenGeneration), locked(false), connectionLost(false) {}

    void run();

private:
    // One message worker that has not been settled yet.
    struct Worker {
        Listener::WorkerData* data;
        bool joined;    // its thread has been joined and its answer taken
        int* exitValue; // the listener's answer, once joined
    };

    bool stopRequested() const { return engine->listenStopRequested(generation); }
    bool lockEngine() { return locked = engine->mutex->lockUnless([this] { return stopRequested(); }); }
    void unlockEngine() {
        if (locked) engine->mutex->unlock();
        locked = false;
    }

    void dispatch(ServerFrame* frame);
    void dispatchMessage(ServerFrame* frame);
    tavren::Listener* listenerFor(const std::string& destination) const;
    void deliverResult(ServerFrame* frame);
    bool reapFinished();
    void resolve();
    void join(Worker& worker);
    apr_status_t acknowledge(const Worker& worker);
    void release(Worker& worker);

    StompClientImpl* engine;
    const unsigned generation; // the connection this thread serves
    bool locked;               // this thread holds the engine lock
    bool connectionLost;       // no ACK or NACK can be sent any more
    std::vector<Worker> workers;
    std::string lastMatchedId; // the receipt id this thread matched most recently
};

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
        try {
            // When the engine stops this thread it holds the lock and waits
            // for the thread to end; the thread then settles its workers
            // without taking the lock, which its stopper holds for it.
            lockEngine();
            if (stopRequested()) {
                resolve();
                unlockEngine();
                return;
            }
            ServerFrame* frame = nullptr;
            const apr_status_t rc = engine->connection->read(&frame, false, nullptr);
            if (rc != 0 && rc != kNothingToRead) throw AprException(rc);
            if (rc == kNothingToRead) {
                unlockEngine();
                if (workers.empty() || !reapFinished()) usleep(kIdleSleepUs);
                continue;
            }
            dispatch(frame);
            unlockEngine();
        } catch (AprException& e) {
            std::ostringstream line;
            line << "while trying to listen for messages. Error " << e.apr_reason() << ": " << e.what();
            engine->logError(line.str());
            // A failed ACK or NACK arrives here without the lock.
            if (!locked) lockEngine();
            if (locked && !stopRequested()) engine->eventDisconnectError();
            unlockEngine();
            connectionLost = true;
        } catch (std::exception& e) {
            // Whatever else a frame brings about must not end the thread.
            engine->logError(std::string("while trying to listen for messages: ") + e.what());
            unlockEngine();
        }
    }
}

void StompClientImpl::ListenLoop::dispatch(ServerFrame* frame) {
    const std::string& command = frame->command();
    if (command == "MESSAGE") {
        dispatchMessage(frame);
    } else if (command == "ERROR" || command == "RECEIPT") {
        deliverResult(frame);
    } else if (command.empty()) {
        delete frame; // a heart-beat
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

    Listener::WorkerData* data = new Listener::WorkerData();
    data->listener = listener;
    data->frame.reset(message.release());
    if (pthread_create(data->thread, nullptr, &Listener::listener_worker_func, data) != 0) {
        engine->logError("Could not start a worker for message " + headerOrEmpty(*data->frame, "message-id") +
                         "; it is left unacknowledged.");
        delete data;
        return;
    }
    workers.push_back(Worker{data, false, nullptr});
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
    auto& pending = engine->pendingResults;
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
    }
    // A stray answer goes to the slot this thread matched last, but only
    // while its caller still waits: a caller that has returned erased its
    // entry, and its slot is gone with its stack. With none, it is dropped.
    auto slot = pending.find(lastMatchedId);
    if (slot == pending.end()) return;
    slot->second->setResultFrame(frame);
    slot->second->condition()->signal();
}

bool StompClientImpl::ListenLoop::reapFinished() {
    // Runs without the engine lock. Lock order: a worker's mutex, then the engine's.
    bool found = false;
    for (size_t i = 0; i < workers.size();) {
        Worker& worker = workers[i];
        pthread_mutex_lock(worker.data->mutex);
        if (!worker.data->done) {
            pthread_mutex_unlock(worker.data->mutex);
            ++i;
            continue;
        }
        found = true;
        if (!lockEngine()) {
            // The engine is stopping this thread; resolving settles the worker.
            pthread_mutex_unlock(worker.data->mutex);
            return found;
        }
        join(worker);
        const apr_status_t rc = acknowledge(worker);
        unlockEngine();
        pthread_mutex_unlock(worker.data->mutex);
        if (rc != 0) throw AprException(rc); // the worker stays in the list
        release(worker);
        workers.erase(workers.begin() + i);
    }
    return found;
}

void StompClientImpl::ListenLoop::resolve() {
    // The engine lock is held here, by this thread or for it by the thread
    // that stops it; so ACK and NACK go out under the lock already held.
    engine->logInfo("Resolving remaining message handlers...");
    for (Worker& worker : workers) {
        Listener::WorkerData* data = worker.data;
        pthread_mutex_lock(data->mutex);
        if (!data->done) {
            pthread_mutex_unlock(data->mutex);
            usleep(kIdleSleepUs);
            pthread_mutex_lock(data->mutex);
        }
        if (!data->done) {
            // Left to finish alone, unacknowledged. The worker now owns its
            // record and deletes it when done; its real handle is detached.
            data->abandoned = true;
            pthread_detach(*data->thread);
            pthread_mutex_unlock(data->mutex);
            continue;
        }
        pthread_mutex_unlock(data->mutex);
        join(worker);
        const std::string id = headerOrEmpty(*data->frame, "message-id");
        const bool processed = worker.exitValue && *worker.exitValue == 0;
        if (connectionLost) {
            engine->logError(processed ? "message: " + id + " was fully processed but we are unable to ACK broker."
                                       : "message: " + id + " was NOT processed but we are unable to NACK broker.");
        } else if (acknowledge(worker) != 0) {
            connectionLost = true;
        }
        release(worker);
    }
    workers.clear();
}

void StompClientImpl::ListenLoop::join(Worker& worker) {
    if (worker.joined) return;
    void* exitValue = nullptr;
    pthread_join(*worker.data->thread, &exitValue);
    worker.exitValue = static_cast<int*>(exitValue);
    worker.joined = true;
}

apr_status_t StompClientImpl::ListenLoop::acknowledge(const Worker& worker) {
    // Called with the engine lock held (or held for this thread).
    const ServerFrame& message = *worker.data->frame;
    const bool processed = worker.exitValue && *worker.exitValue == 0;
    const AckFrame::AcknowledgeState state = processed ? AckFrame::ACK : AckFrame::NACK;
    const std::string failed = std::string(processed ? "Failed to ACK message: " : "Failed to NACK message: ") +
                               headerOrEmpty(message, "message-id");
    apr_status_t rc = 0;
    try {
        if (!engine->session) throw std::out_of_range("no session");
        AckFrame frame(&message, engine->session.get(), state);
        rc = engine->connection->write(&frame, nullptr);
    } catch (std::out_of_range&) {
        // A MESSAGE without the header an ACK must carry cannot be answered;
        // the connection is fine, so the message is only logged.
        engine->logError(failed);
        return 0;
    }
    if (rc != 0) engine->logError(failed);
    return rc;
}

void StompClientImpl::ListenLoop::release(Worker& worker) {
    delete worker.exitValue;
    delete worker.data;
    worker.exitValue = nullptr;
    worker.data = nullptr;
}

} // namespace internal
} // namespace tavren
