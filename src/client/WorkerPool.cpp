// SPDX-License-Identifier: Apache-2.0
#include "client/WorkerPool.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <deque>

namespace tavren {
namespace internal {

// What the pool's threads share with it; it outlives the pool while a
// thread still runs a call it was left to finish.
struct WorkerPool::Shared {
    pthread_mutex_t mutex;
    pthread_cond_t work;     // a record was handed, or the pool stops
    pthread_cond_t answered; // an answer was published
    std::deque<Listener::WorkerData*> queue;
    std::vector<Answer> answers;
    std::vector<bool> busy; // by thread: inside a call
    bool stopping = false;
    int wakeFd; // -1 once the pool has stopped: the descriptor may be closed after that

    explicit Shared(int fd) : wakeFd(fd) {
        pthread_mutex_init(&mutex, nullptr);
        pthread_cond_init(&work, nullptr);
        pthread_cond_init(&answered, nullptr);
    }
    ~Shared() {
        pthread_cond_destroy(&answered);
        pthread_cond_destroy(&work);
        pthread_mutex_destroy(&mutex);
    }
};

WorkerPool::WorkerPool(int count, WorkerStacks& s, size_t stackSize, int wakeFd)
    : shared(std::make_shared<Shared>(wakeFd)), stacks(s), stopped(false) {
    shared->busy.assign(static_cast<size_t>(count), false);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    for (int i = 0; i < count; ++i) {
        Thread thread{};
        thread.index = threads.size();
        if (!stacks.take(stackSize, &thread.stack)) break;
        pthread_attr_setstack(&attributes, thread.stack.base, thread.stack.size);
        Start* start = new Start{shared, thread.index};
        if (pthread_create(&thread.id, &attributes, &WorkerPool::threadBody, start) != 0) {
            delete start;
            stacks.give(thread.stack);
            break;
        }
        threads.push_back(thread);
    }
    pthread_attr_destroy(&attributes);
}

WorkerPool::~WorkerPool() {
    for (Listener::WorkerData* data : withdraw()) delete data;
    stop();
    for (Answer& answer : shared->answers) delete answer.second;
}

void* WorkerPool::threadBody(void* arg) {
    std::unique_ptr<Start> start(static_cast<Start*>(arg));
    Shared& pool = *start->shared;
    pthread_mutex_lock(&pool.mutex);
    for (;;) {
        while (pool.queue.empty() && !pool.stopping) pthread_cond_wait(&pool.work, &pool.mutex);
        if (pool.stopping) break;
        Listener::WorkerData* data = pool.queue.front();
        pool.queue.pop_front();
        pool.busy[start->index] = true;
        pthread_mutex_unlock(&pool.mutex);

        // The record's wakeFd is -1: the pool wakes the listen thread itself,
        // once the answer is where the listen thread looks for it.
        int* answer = static_cast<int*>(Listener::listener_worker_func(data));

        pthread_mutex_lock(&pool.mutex);
        pool.busy[start->index] = false;
        if (answer) { // null: abandoned, and the record deleted
            pool.answers.emplace_back(data, answer);
            pthread_cond_broadcast(&pool.answered);
            if (pool.wakeFd >= 0) {
                const uint64_t one = 1;
                ssize_t ignored = ::write(pool.wakeFd, &one, sizeof one);
                (void)ignored; // a full counter already wakes the listen thread
            }
        }
    }
    pthread_mutex_unlock(&pool.mutex);
    return nullptr;
}

void WorkerPool::hand(Listener::WorkerData* data) {
    data->wakeFd = -1;
    pthread_mutex_lock(&shared->mutex);
    shared->queue.push_back(data);
    pthread_cond_signal(&shared->work);
    pthread_mutex_unlock(&shared->mutex);
}

void WorkerPool::collect(std::vector<Answer>* out) {
    pthread_mutex_lock(&shared->mutex);
    out->insert(out->end(), shared->answers.begin(), shared->answers.end());
    shared->answers.clear();
    pthread_mutex_unlock(&shared->mutex);
}

int* WorkerPool::takeAnswer(Listener::WorkerData* data) {
    pthread_mutex_lock(&shared->mutex);
    for (;;) {
        auto it = std::find_if(shared->answers.begin(), shared->answers.end(),
                               [data](const Answer& answer) { return answer.first == data; });
        if (it != shared->answers.end()) {
            int* answer = it->second;
            shared->answers.erase(it);
            pthread_mutex_unlock(&shared->mutex);
            return answer;
        }
        pthread_cond_wait(&shared->answered, &shared->mutex);
    }
}

std::vector<Listener::WorkerData*> WorkerPool::withdraw() {
    pthread_mutex_lock(&shared->mutex);
    std::vector<Listener::WorkerData*> unstarted(shared->queue.begin(), shared->queue.end());
    shared->queue.clear();
    shared->stopping = true;
    pthread_cond_broadcast(&shared->work);
    pthread_mutex_unlock(&shared->mutex);
    return unstarted;
}

void WorkerPool::stop() {
    if (stopped) return;
    stopped = true;
    withdraw(); // nothing is left queued by now: the listen loop withdrew it
    pthread_mutex_lock(&shared->mutex);
    shared->wakeFd = -1;
    std::vector<bool> busy = shared->busy;
    pthread_mutex_unlock(&shared->mutex);
    for (const Thread& thread : threads) {
        if (busy[thread.index]) {
            // In a call that was given up on: it ends on its own, and the
            // stacks join it then.
            stacks.adopt(thread.id, thread.stack);
        } else {
            pthread_join(thread.id, nullptr);
            stacks.give(thread.stack);
        }
    }
}

} // namespace internal
} // namespace tavren
