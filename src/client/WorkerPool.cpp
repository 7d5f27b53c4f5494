// SPDX-License-Identifier: Apache-2.0
#include "client/WorkerPool.h"

#include "client/Defaults.h"
#include "client/WakeCounter.h"

#include <semaphore.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>

namespace tavren {
namespace internal {

// What the pool's threads share with it; it outlives the pool while a
// thread still runs a call it was left to finish.
struct WorkerPool::Shared {
    // The records of one lane after the one that is ready or in a call.
    struct Lane {
        std::deque<Listener::WorkerData*> waiting;
    };
    using Clock = std::chrono::steady_clock;

    // A record ready for a thread, and its lane (null: none).
    struct Ready {
        Listener::WorkerData* data;
        std::map<std::string, Lane>::iterator lane;
        bool inLane;
        Clock::time_point queuedAt{}; // when it began to wait in ready
    };

    // Where a sleeping thread is woken, and given its record: it takes the
    // record without the mutex, so threads woken together do not queue for it.
    struct Mailbox {
        sem_t wake;
        Ready given{nullptr, {}, false};
        std::atomic<bool> full{false};
        Mailbox() { sem_init(&wake, 0, 0); }
        ~Mailbox() { sem_destroy(&wake); }
    };

    // An answer waiting to be written by the pool (writeWith).
    struct Unwritten {
        Listener::WorkerData* data;
        int* answer;
        Clock::time_point since;
    };

    pthread_mutex_t mutex;
    pthread_cond_t answered;   // an answer was published
    pthread_cond_t watchEnded; // a thread left Watcher::watch()
    std::deque<Ready> ready;
    Writer* writer = nullptr;         // writes the answers, or null: the taker does
    bool writing = false;             // a thread writes answers now (one at a time, in order)
    std::vector<Unwritten> unwritten; // answers for the writer, in the order their calls returned
    std::vector<bool> answerWritten;  // by answers: whether it was written
    std::atomic<size_t> published{0}; // answers.size(), for readers without the mutex
    bool listenArmed = false;         // the listen thread waits for an answer, written or not
    // The lanes with a record ready or in a call; a lane without one has no entry.
    std::map<std::string, Lane> lanes;
    std::vector<Answer> answers;
    std::vector<bool> busy;                          // by thread: inside a call, or given a record
    std::atomic<int> busyCount{0};                   // of busy, for readers without the mutex
    std::vector<Clock::time_point> busySince;        // by thread: when it was last given or took a record
    long long averageCallNs = 4 * kPoolShortCallNs;  // of the last calls; taken as long until calls show otherwise
    std::vector<std::unique_ptr<Mailbox>> mailboxes; // by thread
    std::vector<size_t> asleep;                      // the threads waiting on their mailbox, not yet woken
    int takers = 0;                                  // callers of takeAnswer waiting
    bool notified = false;                           // wakeFd written since the last rearm()
    bool stopping = false;
    int wakeFd; // -1 once the pool has stopped: the descriptor may be closed after that
    // The thread that watches the socket (watchWith), and how it stands.
    Watcher* watcher = nullptr;
    long watcherThread = -1;     // the thread that watches, or runs calls between its watches; -1: none
    bool watchAllowed = true;    // cleared when the listen thread takes the socket back, until allowWatch()
    bool inWatch = false;        // watcherThread is inside Watcher::watch()
    bool interruptSent = false;  // interruptFd was written and not emptied yet
    Clock::time_point watchLeft; // when watcherThread last left watch()
    const int interruptFd;       // ends a watch early; -1 if none could be made (then no thread watches)

    explicit Shared(int fd) : wakeFd(fd), interruptFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
        // Held for a few instructions at a time by up to all threads at
        // once: a short spin is cheaper than a sleep and a wake-up.
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ADAPTIVE_NP);
        pthread_mutex_init(&mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
        pthread_cond_init(&answered, nullptr);
        pthread_cond_init(&watchEnded, nullptr);
    }
    ~Shared() {
        if (interruptFd >= 0) ::close(interruptFd);
        pthread_cond_destroy(&watchEnded);
        pthread_cond_destroy(&answered);
        pthread_mutex_destroy(&mutex);
    }

    // With the mutex held.
    void setBusy(size_t index, bool now) {
        if (busy[index] != now) busyCount.fetch_add(now ? 1 : -1, std::memory_order_relaxed);
        busy[index] = now;
        if (now) busySince[index] = Clock::now();
    }

    // With the mutex held: whether a thread's call began less than
    // kPoolShortCallNs ago (or is about to begin): it will soon look for
    // the next record. A thread in a longer call is not waited for.
    bool aCallEndsSoon() const {
        // A thread that watches the socket takes what it read itself.
        if (watcherThread >= 0) return true;
        const Clock::time_point recent = Clock::now() - std::chrono::nanoseconds(kPoolShortCallNs);
        for (size_t index = 0; index < busy.size(); ++index) {
            if (busy[index] && busySince[index] > recent) return true;
        }
        return false;
    }

    // With the mutex held: whether thread index is to watch the socket
    // instead of sleeping: only while calls are short, one thread at a time.
    bool mayWatch(size_t index) const {
        return watcher && interruptFd >= 0 && !stopping && watchAllowed && averageCallNs < kPoolShortCallNs &&
               (watcherThread < 0 || watcherThread == static_cast<long>(index));
    }

    // With the mutex held: ends a watch under way. Written under the mutex,
    // the descriptor is emptied by the watching thread once its watch is over.
    void interrupt() {
        if (!inWatch || interruptSent) return;
        interruptSent = true;
        addWake(interruptFd);
    }

    // With the mutex held: record waits for the next free thread.
    void queue(const Ready& record) {
        ready.push_back(record);
        ready.back().queuedAt = Clock::now();
    }

    // With the mutex held: a sleeping thread is given record and returned,
    // to be woken once the mutex is released.
    long give(const Ready& record) {
        const size_t index = asleep.back();
        asleep.pop_back();
        setBusy(index, true);
        Mailbox& mailbox = *mailboxes[index];
        mailbox.given = record;
        mailbox.full.store(true, std::memory_order_release);
        return static_cast<long>(index);
    }

    // With the mutex held: a record is ready. A sleeping thread is given it
    // and returned, else it waits for the next free thread and -1 is
    // returned. With short calls, a thread whose call ends soon takes it
    // after that call instead of another being woken (kPoolShortCallNs).
    long makeReady(const Ready& record) {
        if (asleep.empty() || (averageCallNs < kPoolShortCallNs && aCallEndsSoon())) {
            queue(record);
            return -1;
        }
        return give(record);
    }

    // With the mutex held: queues data (in lane, unless null); as makeReady().
    long add(Listener::WorkerData* data, const std::string* lane) {
        data->wakeFd = -1; // the pool wakes the listen thread itself
        if (!lane) return makeReady(Ready{data, lanes.end(), false});
        auto entry = lanes.find(*lane);
        if (entry != lanes.end()) {
            entry->second.waiting.push_back(data); // behind the one ready or in a call
            return -1;
        }
        return makeReady(Ready{data, lanes.emplace(*lane, Lane()).first, true});
    }

    // With the mutex held: publishes the answer to data. Returns whether
    // the listen thread's descriptor is to be written (once the mutex is
    // released): for an answer it has to write, or while it waits for one.
    bool publish(Listener::WorkerData* data, int* answer, bool written) {
        answers.emplace_back(data, answer);
        answerWritten.push_back(written);
        published.store(answers.size(), std::memory_order_relaxed);
        if (takers > 0) pthread_cond_broadcast(&answered);
        if ((written && !listenArmed) || notified || wakeFd < 0) return false;
        return notified = true;
    }

    // With the mutex held, which it releases while it writes: writes the
    // answers waiting for the writer, unless another thread does already
    // (it then writes these too, in their order). As publish().
    bool flush() {
        bool wake = false;
        std::vector<Answer> batch;
        while (!writing && writer && !stopping && !unwritten.empty()) {
            writing = true;
            batch.clear();
            for (const Unwritten& waiting : unwritten) batch.emplace_back(waiting.data, waiting.answer);
            unwritten.clear();
            Writer* const by = writer;
            pthread_mutex_unlock(&mutex);
            const bool written = by->write(batch);
            pthread_mutex_lock(&mutex);
            writing = false;
            for (const Answer& answer : batch) wake = publish(answer.first, answer.second, written) || wake;
        }
        return wake;
    }

    // With the mutex held: the call of record has ended with answer (null:
    // abandoned, the record deleted) after callNs; its lane's next record
    // becomes ready, for the thread that ran this one. The answer is
    // published, or left for the writer. As publish().
    bool ended(const Ready& record, int* answer, long long callNs) {
        averageCallNs += (callNs - averageCallNs) / 8;
        bool wake = false;
        if (answer) {
            // The writer writes answers in the order their calls returned, so
            // a lane's answers leave in its order though its next call starts
            // at once.
            if (writer && !stopping) {
                unwritten.push_back(Unwritten{record.data, answer, Clock::now()});
            } else {
                wake = publish(record.data, answer, false);
            }
        }
        if (!record.inLane) return wake;
        Lane& lane = record.lane->second;
        if (lane.waiting.empty()) {
            lanes.erase(record.lane);
            return wake;
        }
        // Behind the records that were ready before it: a lane with many
        // messages does not keep a thread from the others.
        queue(Ready{lane.waiting.front(), record.lane, true});
        lane.waiting.pop_front();
        return wake;
    }
};

WorkerPool::WorkerPool(int count, WorkerStacks& s, size_t stackSize, int wakeFd)
    : shared(std::make_shared<Shared>(wakeFd)), stacks(s), stopped(false) {
    shared->busy.assign(static_cast<size_t>(count), false);
    shared->busySince.assign(static_cast<size_t>(count), Shared::Clock::time_point());
    for (int i = 0; i < count; ++i) shared->mailboxes.emplace_back(new Shared::Mailbox());
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
    Shared::Mailbox& mailbox = *pool.mailboxes[start->index];
    pthread_mutex_lock(&pool.mutex);
    for (;;) {
        if (pool.stopping) break;
        Shared::Ready record{nullptr, {}, false};
        if (!pool.ready.empty()) {
            record = pool.ready.front();
            pool.ready.pop_front();
            pool.setBusy(start->index, true);
            pthread_mutex_unlock(&pool.mutex);
        } else if (pool.mayWatch(start->index)) {
            watch(pool, start->index);
            continue;
        } else {
            if (pool.watcherThread == static_cast<long>(start->index)) {
                // Calls turned long: the listen thread reads again.
                pool.watcherThread = -1;
                wakeListenThread(pool);
            }
            pool.asleep.push_back(start->index);
            pthread_mutex_unlock(&pool.mutex);
            while (sem_wait(&mailbox.wake) != 0 && errno == EINTR) {
            }
            // Woken with a record, or to stop (or the record was withdrawn).
            if (!mailbox.full.exchange(false, std::memory_order_acq_rel)) {
                pthread_mutex_lock(&pool.mutex);
                continue;
            }
            record = mailbox.given;
        }

        // The record's wakeFd is -1: the pool wakes the listen thread itself,
        // once the answer is where the listen thread looks for it.
        const Shared::Clock::time_point began = Shared::Clock::now();
        int* answer = static_cast<int*>(Listener::listener_worker_func(record.data));
        const long long callNs =
            std::chrono::duration_cast<std::chrono::nanoseconds>(Shared::Clock::now() - began).count();

        pthread_mutex_lock(&pool.mutex);
        pool.setBusy(start->index, false);
        bool wake = pool.ended(record, answer, callNs);
        // The answers of a run of short calls go out together once this
        // thread has no next record; a call that was not short, or a full
        // batch, writes them at once.
        if (pool.ready.empty() || callNs >= kPoolShortCallNs || pool.unwritten.size() >= kPoolAnswersPerWrite) {
            wake = pool.flush() || wake;
        }
        if (wake) {
            // Outside the mutex: the other threads go on meanwhile. The
            // descriptor stays open until the pool has stopped, and stop()
            // waits for this thread.
            const int fd = pool.wakeFd;
            pthread_mutex_unlock(&pool.mutex);
            addWake(fd);
            pthread_mutex_lock(&pool.mutex);
        }
    }
    pthread_mutex_unlock(&pool.mutex);
    return nullptr;
}

void WorkerPool::watch(Shared& pool, size_t index) {
    // With the mutex held, which is released while the thread watches.
    pool.watcherThread = static_cast<long>(index);
    pool.inWatch = true;
    Watcher* const watcher = pool.watcher;
    pthread_mutex_unlock(&pool.mutex);
    const bool goOn = watcher->watch(pool.interruptFd);
    pthread_mutex_lock(&pool.mutex);
    pool.inWatch = false;
    pool.watchLeft = Shared::Clock::now();
    pthread_cond_broadcast(&pool.watchEnded);
    if (pool.interruptSent) { // emptied for the next watch
        pool.interruptSent = false;
        takeWakes(pool.interruptFd);
    }
    if (!goOn && pool.watcherThread == static_cast<long>(index)) {
        // The listen thread reads from now on, and is woken to do so.
        pool.watcherThread = -1;
        pool.watchAllowed = false;
        wakeListenThread(pool);
    }
}

void WorkerPool::wakeListenThread(Shared& pool) {
    // With the mutex held; the descriptor stays open until the pool has stopped.
    if (pool.wakeFd >= 0) addWake(pool.wakeFd);
}

void WorkerPool::watchWith(Watcher* watcher) {
    pthread_mutex_lock(&shared->mutex);
    shared->watcher = watcher;
    pthread_mutex_unlock(&shared->mutex);
}

WorkerPool::Watch WorkerPool::watchState(int lateMs) const {
    pthread_mutex_lock(&shared->mutex);
    Watch state = Watch::none;
    if (shared->watcherThread >= 0) {
        state = Watch::watching;
        if (!shared->inWatch) {
            const bool late = shared->watchLeft < Shared::Clock::now() - std::chrono::milliseconds(lateMs);
            state = late ? Watch::late : Watch::away;
        }
    }
    pthread_mutex_unlock(&shared->mutex);
    return state;
}

void WorkerPool::reclaimSocket(bool awaitWatchEnd) {
    pthread_mutex_lock(&shared->mutex);
    shared->watcherThread = -1;
    shared->watchAllowed = false;
    shared->interrupt();
    while (awaitWatchEnd && shared->inWatch) pthread_cond_wait(&shared->watchEnded, &shared->mutex);
    pthread_mutex_unlock(&shared->mutex);
}

void WorkerPool::allowWatch() {
    pthread_mutex_lock(&shared->mutex);
    shared->watchAllowed = true;
    pthread_mutex_unlock(&shared->mutex);
}

void WorkerPool::hand(Listener::WorkerData* data) { handAll({{data, nullptr}}); }

void WorkerPool::hand(Listener::WorkerData* data, const std::string& lane) { handAll({{data, &lane}}); }

void WorkerPool::handAll(const std::vector<Handed>& records) {
    std::vector<long> woken;
    pthread_mutex_lock(&shared->mutex);
    for (const Handed& record : records) {
        const long index = shared->add(record.first, record.second);
        if (index >= 0) woken.push_back(index);
    }
    pthread_mutex_unlock(&shared->mutex);
    // Woken outside the mutex, a thread does not wait for it at once.
    for (long index : woken) sem_post(&shared->mailboxes[static_cast<size_t>(index)]->wake);
}

void WorkerPool::nudge() {
    std::vector<long> woken;
    pthread_mutex_lock(&shared->mutex);
    const Shared::Clock::time_point late = Shared::Clock::now() - std::chrono::milliseconds(kPoolNudgeMs);
    if (!shared->ready.empty() && !shared->asleep.empty()) {
        while (!shared->ready.empty() && !shared->asleep.empty() && shared->ready.front().queuedAt <= late) {
            woken.push_back(shared->give(shared->ready.front()));
            shared->ready.pop_front();
        }
    }
    // Answers held for the end of a run of calls whose next call turned
    // long are written here (the caller is the one it would wake).
    if (!shared->unwritten.empty() && shared->unwritten.front().since <= late) shared->flush();
    pthread_mutex_unlock(&shared->mutex);
    for (long index : woken) sem_post(&shared->mailboxes[static_cast<size_t>(index)]->wake);
}

void WorkerPool::writeWith(Writer* writer) {
    pthread_mutex_lock(&shared->mutex);
    shared->writer = writer;
    pthread_mutex_unlock(&shared->mutex);
}

void WorkerPool::collect(std::vector<Answer>* out) { collect(out, nullptr); }

void WorkerPool::collect(std::vector<Answer>* out, std::vector<Listener::WorkerData*>* written) {
    pthread_mutex_lock(&shared->mutex);
    out->insert(out->end(), shared->answers.begin(), shared->answers.end());
    if (written) {
        for (size_t i = 0; i < shared->answers.size(); ++i) {
            if (shared->answerWritten[i]) written->push_back(shared->answers[i].first);
        }
    }
    shared->answers.clear();
    shared->answerWritten.clear();
    shared->published.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&shared->mutex);
}

size_t WorkerPool::published() const { return shared->published.load(std::memory_order_relaxed); }

int WorkerPool::busyThreads() const { return shared->busyCount.load(std::memory_order_relaxed); }

size_t WorkerPool::longestLane() const {
    pthread_mutex_lock(&shared->mutex);
    size_t longest = 0;
    for (const auto& lane : shared->lanes) longest = std::max(longest, lane.second.waiting.size() + 1);
    pthread_mutex_unlock(&shared->mutex);
    return longest;
}

bool WorkerPool::armWake() {
    pthread_mutex_lock(&shared->mutex);
    const bool wait = shared->answers.empty();
    if (wait) shared->listenArmed = true;
    pthread_mutex_unlock(&shared->mutex);
    return wait;
}

void WorkerPool::disarm() {
    pthread_mutex_lock(&shared->mutex);
    shared->listenArmed = false;
    pthread_mutex_unlock(&shared->mutex);
}

bool WorkerPool::notifiedSinceRearm() const {
    pthread_mutex_lock(&shared->mutex);
    const bool notified = shared->notified;
    pthread_mutex_unlock(&shared->mutex);
    return notified;
}

void WorkerPool::rearm() {
    pthread_mutex_lock(&shared->mutex);
    shared->notified = false;
    pthread_mutex_unlock(&shared->mutex);
}

int* WorkerPool::takeAnswer(Listener::WorkerData* data, bool* written) {
    pthread_mutex_lock(&shared->mutex);
    for (;;) {
        auto it = std::find_if(shared->answers.begin(), shared->answers.end(),
                               [data](const Answer& answer) { return answer.first == data; });
        if (it != shared->answers.end()) {
            int* answer = it->second;
            const size_t index = static_cast<size_t>(it - shared->answers.begin());
            if (written) *written = shared->answerWritten[index];
            shared->answers.erase(it);
            shared->answerWritten.erase(shared->answerWritten.begin() + static_cast<std::ptrdiff_t>(index));
            shared->published.store(shared->answers.size(), std::memory_order_relaxed);
            pthread_mutex_unlock(&shared->mutex);
            return answer;
        }
        ++shared->takers;
        pthread_cond_wait(&shared->answered, &shared->mutex);
        --shared->takers;
    }
}

std::vector<Listener::WorkerData*> WorkerPool::withdraw() {
    pthread_mutex_lock(&shared->mutex);
    std::vector<Listener::WorkerData*> unstarted;
    for (const Shared::Ready& record : shared->ready) unstarted.push_back(record.data);
    shared->ready.clear();
    for (auto& lane : shared->lanes) {
        unstarted.insert(unstarted.end(), lane.second.waiting.begin(), lane.second.waiting.end());
        lane.second.waiting.clear();
    }
    // A record given to a thread that has not taken it yet is taken back.
    for (size_t index = 0; index < shared->mailboxes.size(); ++index) {
        Shared::Mailbox& mailbox = *shared->mailboxes[index];
        if (!mailbox.full.exchange(false, std::memory_order_acq_rel)) continue;
        unstarted.push_back(mailbox.given.data);
        shared->setBusy(index, false);
    }
    shared->stopping = true;
    shared->watcherThread = -1;
    shared->interrupt();
    // Answers not written yet are left to the taker; one being written is
    // published once its write has ended.
    for (const Shared::Unwritten& waiting : shared->unwritten) shared->publish(waiting.data, waiting.answer, false);
    shared->unwritten.clear();
    std::vector<size_t> asleep;
    asleep.swap(shared->asleep);
    pthread_mutex_unlock(&shared->mutex);
    for (size_t index : asleep) sem_post(&shared->mailboxes[index]->wake);
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
