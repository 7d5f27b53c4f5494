// SPDX-License-Identifier: Apache-2.0
#include <tavren/Listener.h>

#include "client/WakeCounter.h"
#include "frames/ServerFrame.h"

#include <cxxabi.h>
#include <unistd.h>

#include <cstdint>

namespace tavren {

Listener::Listener() {}

Listener::~Listener() {}

Listener::WorkerData::WorkerData()
    : listener(nullptr), thread(nullptr), mutex(nullptr), done(false), abandoned(false), wakeFd(-1) {
    thread = new pthread_t;
    mutex = new pthread_mutex_t;
    pthread_mutex_init(mutex, nullptr);
}

Listener::WorkerData::~WorkerData() {
    pthread_mutex_destroy(mutex);
    delete mutex;
    delete thread;
    frame.clean();
}

void* Listener::listener_worker_func(void* arg) {
    WorkerData* data = static_cast<WorkerData*>(arg);
    int answer = 1;
    {
        kelvra::SharedPtr<Message> message(new Message(data->frame.get()));
        try {
            answer = data->listener->onMessage(message);
        } catch (abi::__forced_unwind&) {
            throw; // pthread_exit or cancellation inside onMessage must go on unwinding
        } catch (...) {
            // A listener that throws has not processed its message: NACK it
            // rather than let the exception end the whole process.
            answer = 1;
        }
        // The worker's own reference goes here, so the Message does not
        // outlive the thread.
    }
    int* result = new int(answer);

    pthread_mutex_lock(data->mutex);
    data->done = true;
    const bool abandoned = data->abandoned;
    const int wakeFd = data->wakeFd;
    pthread_mutex_unlock(data->mutex);
    if (abandoned) {
        // The listen thread has given up on this worker (and detached it):
        // the record is ours now, and nobody will read the answer.
        delete data;
        delete result;
        return nullptr;
    }
    // Not abandoned: the listen thread joins this thread before it closes the
    // descriptor, so it is still open here.
    if (wakeFd >= 0) internal::addWake(wakeFd);
    // A plain return gives the joiner the same exit value as pthread_exit,
    // without the forced unwind.
    return result;
}

} // namespace tavren
