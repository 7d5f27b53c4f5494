// SPDX-License-Identifier: Apache-2.0
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
} // namespace internal

/**
 * Receives the messages of one queue. Derive from it and register it with
 * StompClient::listenOnQueue.
 *
 * onMessage runs on a thread of its own for every message (or on one of the
 * threads of StompClient::useWorkerPool), so one listener may be called on
 * several threads at once; the library takes no lock around it. With
 * StompClient::enableOrderedDelivery a destination's calls come one at a
 * time, in the broker's order. Return 0 when the message was processed (the library then ACKs it) and
 * anything else when it was not (the library NACKs it). The Message is valid
 * only during the call. A listener must stay alive as long as it is
 * registered, and must not call listenOnQueue or stopListeningOnQueue from
 * inside onMessage.
 *
 * Lifetime in detail: the listener belongs to the application, which must
 * keep it alive while it is registered and while any onMessage call of it
 * still runs. Neither stopListeningOnQueue nor the StompClient's destructor
 * waits for running calls: when a connection ends, each running call gets
 * about 20 ms to return and is then left to finish on its own (its message
 * stays unacknowledged, and the broker delivers it again). An application
 * that deletes listeners counts its running calls, or waits for them.
 */
class Listener {
public:
    /** A listener registered nowhere. */
    Listener();
    /** Must not run while the listener is registered or one of its onMessage calls runs. */
    virtual ~Listener();

    /**
     * Handles one message of the queue, on a worker thread of its own
     * (started by the listen thread, with the stack size set by
     * StompClient::setWorkerStackSize; at most StompClient::setMaxWorkers
     * calls run at once). Calls for messages that arrive close together run
     * at the same time and may return in any order.
     *
     * The answer is acknowledged on the connection the message came on, as
     * soon as the call has returned: 0 sends an ACK, any other value a
     * NACK. An exception that leaves onMessage counts as a NACK; the library
     * catches it, so it never ends the process (thread cancellation and
     * pthread_exit still unwind as usual). If the connection is gone by then
     * the message is left unacknowledged and the library logs "message: ID
     * was fully processed but we are unable to ACK broker." (or "...was NOT
     * processed but we are unable to NACK broker.").
     *
     * Must not call StompClient::listenOnQueue or
     * StompClient::stopListeningOnQueue. Sending with
     * StompClient::sendToQueue is allowed.
     *
     * @param message the message; it, its headers and its text are valid only
     *        until this call returns
     * @return 0 when the message was processed, anything else when not
     */
    virtual int onMessage(kelvra::SharedPtr<Message> message) = 0;

    /**
     * One message being handled on a worker thread; owned by the library.
     * Public only so that listener_worker_func can be a plain thread
     * function; applications do not use it.
     */
    class WorkerData {
    public:
        /** An empty record with its own thread handle and mutex. */
        WorkerData();
        /** Frees the handle, the mutex and the frame. */
        ~WorkerData();
        WorkerData(const WorkerData&) = delete;
        WorkerData& operator=(const WorkerData&) = delete;

        Listener* listener;                             ///< not owned
        kelvra::UniquePtr<internal::ServerFrame> frame; ///< the MESSAGE frame
        pthread_t* thread;                              ///< the worker's handle
        pthread_mutex_t* mutex;                         ///< guards done and abandoned
        bool done;                                      ///< set by the worker as it finishes
        /// Set by the listen thread when it gives up waiting for the worker:
        /// the worker then owns the record and deletes it when it has finished,
        /// so it never touches freed memory.
        bool abandoned;
        /// An eventfd of the listen thread (or -1): the worker writes to it once
        /// done, so the listen thread wakes at once to join it and acknowledge.
        int wakeFd;
    };

    /**
     * The worker thread's body: calls onMessage with a view of the record's
     * frame, marks the record done, wakes the listen thread and returns a
     * heap int holding the listener's answer (the thread's exit value).
     * Used by the library only.
     * @param data the Listener::WorkerData of the message
     * @return a new int with onMessage's answer (1 when it threw), or null
     *         when the listen thread had abandoned the record
     */
    static void* listener_worker_func(void* data);

private:
    friend class internal::StompClientImpl;
    std::string subscriptionId; // set by the library when the queue is subscribed
};

} // namespace tavren

#endif
