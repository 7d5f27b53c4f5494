#ifndef TAVREN_LISTENER_H
#define TAVREN_LISTENER_H

#include <kelvra/SharedPtr.h>
#include <kelvra/UniquePtr.h>
#include <tavren/Message.h>

#include <pthread.h>

#include <string>

namespace tavren {

namespace internal {
class ServerFrame;
class StompClientImpl;
}

/**
 * Receives the messages of one queue. Derive from it and register it with
 * StompClient::listenOnQueue.
 *
 * onMessage runs on a thread of its own for every message, so one listener
 * may be called on several threads at once; the library takes no lock around
 * it. Return 0 when the message was processed (the library then ACKs it) and
 * anything else when it was not (the library NACKs it). The Message is valid
 * only during the call. A listener must stay alive as long as it is
 * registered, and must not call listenOnQueue or stopListeningOnQueue from
 * inside onMessage.
 */
class Listener {
public:
    Listener();
    virtual ~Listener();

    virtual int onMessage(kelvra::SharedPtr<Message> message) = 0;

    /** One message being handled on a worker thread; owned by the library. */
    class WorkerData {
    public:
        WorkerData();
        ~WorkerData();
        WorkerData(const WorkerData&) = delete;
        WorkerData& operator=(const WorkerData&) = delete;

        Listener* listener;                             // not owned
        kelvra::UniquePtr<internal::ServerFrame> frame; // the MESSAGE frame
        pthread_t* thread;                              // the worker's handle
        pthread_mutex_t* mutex;                         // guards done and abandoned
        bool done;                                      // set by the worker as it finishes
        // Set by the listen thread when it gives up waiting for the worker:
        // the worker then owns the record and deletes it when it has finished,
        // so it never touches freed memory.
        bool abandoned;
        // An eventfd of the listen thread (or -1): the worker writes to it once
        // done, so the listen thread wakes at once to join it and acknowledge.
        int wakeFd;
    };

    /**
     * The worker thread's body: calls onMessage with a view of the record's
     * frame, marks the record done, wakes the listen thread and returns a
     * heap int holding the listener's answer (the thread's exit value).
     */
    static void* listener_worker_func(void* data);

private:
    friend class internal::StompClientImpl;
    std::string subscriptionId; // set by the library when the queue is subscribed
};

} // namespace tavren

#endif
