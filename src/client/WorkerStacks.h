// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_WORKERSTACKS_H
#define TAVREN_INTERNAL_WORKERSTACKS_H

#include <pthread.h>

#include <cstddef>
#include <vector>

namespace tavren {
namespace internal {

/**
 * The stacks that message workers run on, kept for reuse.
 *
 * The thread library keeps the stacks of joined threads too, but hands
 * their memory back to the kernel at every thread's end (madvise), so each
 * new worker faults its stack in again: a third of the cost of a worker.
 * These stacks stay mapped between workers. Each has a guard page below it,
 * as the thread library's own have.
 *
 * A worker that the listen thread gives up on keeps its stack until it has
 * ended: adopt() takes the thread over, and the stack comes back once the
 * thread has been joined. Safe to use from several threads.
 */
class WorkerStacks {
public:
    struct Stack {
        void* base = nullptr; // lowest usable address, just above the guard page
        size_t size = 0;      // usable bytes
    };

    WorkerStacks();
    /** Unmaps every stack; a stack whose adopted thread still runs is left mapped for it. */
    ~WorkerStacks();
    WorkerStacks(const WorkerStacks&) = delete;
    WorkerStacks& operator=(const WorkerStacks&) = delete;

    /** A stack of size usable bytes (whole pages); false when none could be mapped. */
    bool take(size_t size, Stack* out);
    /** Gives back a stack whose thread has been joined. */
    void give(const Stack& stack);
    /** Takes over a joinable thread that still runs on stack; it is joined once it has ended. */
    void adopt(pthread_t thread, const Stack& stack);

private:
    struct Adopted {
        pthread_t thread;
        Stack stack;
    };

    void reclaimEnded(); // with mutex held
    static void unmap(const Stack& stack);

    pthread_mutex_t mutex;
    std::vector<Stack> free;
    std::vector<Adopted> adopted;
};

} // namespace internal
} // namespace tavren

#endif
