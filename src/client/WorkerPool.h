// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_WORKERPOOL_H
#define TAVREN_INTERNAL_WORKERPOOL_H

#include "client/WorkerStacks.h"

#include <tavren/Listener.h>

#include <pthread.h>

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tavren {
namespace internal {

/**
 * A fixed number of long-lived threads that run listener calls, for one
 * connection (StompClient::useWorkerPool). The listen thread hands each
 * record to the pool; a free thread calls its listener and publishes the
 * answer, then wakes the listen thread through its eventfd. Given a writer
 * (writeWith()), the threads write the answers (ACK or NACK) themselves and
 * publish them as written: the listen thread then only releases the records,
 * on its next pass, and is woken for an answer only while it waits for one
 * (armWake()) or when a write failed.
 *
 * Records handed with a lane (in-order delivery: the destination) run one
 * at a time and in the order handed: a lane's next record becomes ready
 * when its last call returns, and the thread that ran it goes on with the
 * oldest ready record, of its own lane or another.
 *
 * Wake-ups cost system calls and are kept to those needed: a record is
 * given straight to a sleeping thread (which takes it without the mutex)
 * and only that thread is woken; a thread that finds a record ready does
 * not sleep; while calls are short (kPoolShortCallNs) and a thread is
 * awake, records wait for it instead of waking another, and nudge() (on
 * each pass of the listen thread) wakes one for a record that waited
 * kPoolNudgeMs; the answers of a run of short calls are written together;
 * the listen thread's eventfd is written only for the first answer it has
 * to see since it last emptied it (rearm()); and a caller of takeAnswer()
 * is woken only while one waits.
 *
 * A record keeps the life it has with a thread of its own: the listen
 * thread may abandon it (Listener::WorkerData::abandoned) when its call does
 * not return in time, and the pool thread then deletes it once the call has
 * ended. stop() ends the idle threads at once and leaves a thread still in a
 * call to the stacks (WorkerStacks::adopt), which join it once it has ended:
 * a listener that never returns blocks one thread, not the close.
 */
class WorkerPool {
public:
    /** A record and the listener's answer (a heap int, owned by the taker). */
    using Answer = std::pair<Listener::WorkerData*, int*>;

    /** Writes the answers to calls (ACK or NACK) for the pool's threads; see writeWith(). */
    class Writer {
    public:
        virtual ~Writer() {}
        /** Writes the answers, in this order, in one write; false when the write failed. */
        virtual bool write(const std::vector<Answer>& answers) = 0;
    };

    /**
     * Reads the connection for the pool's threads (watchWith): while calls
     * are short, an idle thread watches the socket instead of sleeping, reads
     * what comes and runs the calls it handed itself, as a single thread
     * reading and answering would: one wake-up for a burst instead of two.
     */
    class Watcher {
    public:
        virtual ~Watcher() {}
        /**
         * Waits until the socket has something (or interruptFd is readable,
         * or a while passed) and reads it, handing the messages to the pool;
         * false when the thread is to stop watching (the listen thread then
         * reads).
         */
        virtual bool watch(int interruptFd) = 0;
    };
    /** Where the thread that watches the socket for the pool stands. */
    enum class Watch {
        none,     // no thread watches: the listen thread reads
        watching, // a thread waits for the socket or reads it
        away,     // the watching thread runs calls, for less than lateMs so far
        late      // the watching thread has run calls for longer: it holds up reading
    };

    /** Starts up to threads threads on stacks of stackSize bytes; wakeFd (or -1) is written once per answer. */
    WorkerPool(int threads, WorkerStacks& stacks, size_t stackSize, int wakeFd);
    /** stop(), and deletes the records handed but never started. */
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /** The threads that could be started (possibly fewer than asked, 0 when none). */
    int size() const { return static_cast<int>(threads.size()); }
    /** Queues a record for the next free thread. */
    void hand(Listener::WorkerData* data);
    /** Queues a record behind the records of lane not yet ended: one call of a lane at a time, in this order. */
    void hand(Listener::WorkerData* data, const std::string& lane);
    /** A record and its lane (null: none). */
    using Handed = std::pair<Listener::WorkerData*, const std::string*>;
    /** hand() for each, in this order, at the cost of one. */
    void handAll(const std::vector<Handed>& records);
    /**
     * Wakes sleeping threads for the records that have waited kPoolNudgeMs
     * for the threads awake, and writes the answers that have waited as long
     * for their thread's next call to end.
     */
    void nudge();
    /**
     * From now on the threads write the answers to their calls with writer
     * (null: they leave them to the taker, the default): those of a run of
     * short calls together, once no record is ready (kPoolAnswersPerWrite at
     * most), in the order the calls returned, one write at a time. An answer
     * is published once written; one whose write failed, or that was not
     * written when the pool was withdrawn from, is published unwritten.
     */
    void writeWith(Writer* writer);
    /** From now on an idle thread watches with watcher while calls are short (null: never, the default). */
    void watchWith(Watcher* watcher);
    /** Where the watching thread stands (late: in calls that began more than lateMs ago). */
    Watch watchState(int lateMs) const;
    /**
     * The listen thread reads from now on; no thread watches again before
     * allowWatch(). With awaitWatchEnd, returns once no thread waits for the
     * socket any more (before it is closed): a watch is interrupted at once.
     */
    void reclaimSocket(bool awaitWatchEnd = false);
    /** A thread may watch again, once it is idle. */
    void allowWatch();
    /** Moves the answers published since the last call into out. */
    void collect(std::vector<Answer>* out);
    /** As collect(); the records whose answers were written go into written too. */
    void collect(std::vector<Answer>* out, std::vector<Listener::WorkerData*>* written);
    /**
     * The caller is about to wait for a published answer (reading paused for
     * a free thread): false when one is already published (no wait needed);
     * else until disarm() the next answer wakes it, written or not.
     */
    bool armWake();
    void disarm();
    /** The answers published and not yet collected or taken (read without the mutex: may be a moment old). */
    size_t published() const;
    /** The threads in a call or given a record (read without the mutex: may be a moment old). */
    int busyThreads() const;
    /** The records of the longest lane whose calls have not returned: the one ready or in a call, and those behind it.
     */
    size_t longestLane() const;
    /** The wake-up descriptor has been emptied: the next answer writes it again. */
    void rearm();
    /** Whether the descriptor was written since the last rearm(): else there is nothing to empty. */
    bool notifiedSinceRearm() const;
    /** The answer to data, once published: for a record marked done, whose answer follows at once. */
    int* takeAnswer(Listener::WorkerData* data, bool* written = nullptr);
    /** No more calls start; the records handed but not started are given back (no call, no answer). */
    std::vector<Listener::WorkerData*> withdraw();
    /** Ends the threads: idle ones are joined, those still in a call left to the stacks. */
    void stop();

private:
    struct Shared;
    struct Thread {
        pthread_t id;
        WorkerStacks::Stack stack;
        size_t index;
    };
    struct Start {
        std::shared_ptr<Shared> shared;
        size_t index;
    };
    static void* threadBody(void* arg);
    /** An idle thread watches the socket (the mutex held, released meanwhile). */
    static void watch(Shared& pool, size_t index);
    static void wakeListenThread(Shared& pool);

    std::shared_ptr<Shared> shared; // also held by every thread, which may outlive the pool
    WorkerStacks& stacks;
    std::vector<Thread> threads;
    bool stopped;
};

} // namespace internal
} // namespace tavren

#endif
