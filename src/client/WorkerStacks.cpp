// SPDX-License-Identifier: Apache-2.0
#include "client/WorkerStacks.h"

#include "client/Defaults.h"

#include <sys/mman.h>
#include <unistd.h>

namespace tavren {
namespace internal {

namespace {

size_t pageSize() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

} // namespace

WorkerStacks::WorkerStacks() { pthread_mutex_init(&mutex, nullptr); }

WorkerStacks::~WorkerStacks() {
    pthread_mutex_lock(&mutex);
    reclaimEnded();
    for (const Stack& stack : free) unmap(stack);
    // A worker that never ends keeps its stack: it runs on it.
    for (const Adopted& orphan : adopted) pthread_detach(orphan.thread);
    pthread_mutex_unlock(&mutex);
    pthread_mutex_destroy(&mutex);
}

bool WorkerStacks::take(size_t size, Stack* out) {
    pthread_mutex_lock(&mutex);
    if (!adopted.empty()) reclaimEnded();
    while (!free.empty()) {
        const Stack stack = free.back();
        free.pop_back();
        if (stack.size == size) {
            pthread_mutex_unlock(&mutex);
            *out = stack;
            return true;
        }
        unmap(stack); // from before the size was changed
    }
    pthread_mutex_unlock(&mutex);

    const size_t guard = pageSize();
    void* block = mmap(nullptr, size + guard, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (block == MAP_FAILED) return false;
    // The stack grows down: an overflow runs into the guard page and faults.
    if (mprotect(block, guard, PROT_NONE) != 0) {
        munmap(block, size + guard);
        return false;
    }
    out->base = static_cast<char*>(block) + guard;
    out->size = size;
    return true;
}

void WorkerStacks::give(const Stack& stack) {
    pthread_mutex_lock(&mutex);
    if (free.size() < kKeptWorkerStacks) {
        free.push_back(stack);
        pthread_mutex_unlock(&mutex);
        return;
    }
    pthread_mutex_unlock(&mutex);
    unmap(stack);
}

void WorkerStacks::adopt(pthread_t thread, const Stack& stack) {
    pthread_mutex_lock(&mutex);
    adopted.push_back(Adopted{thread, stack});
    pthread_mutex_unlock(&mutex);
}

void WorkerStacks::reclaimEnded() {
    for (size_t i = 0; i < adopted.size();) {
        if (pthread_tryjoin_np(adopted[i].thread, nullptr) == 0) {
            unmap(adopted[i].stack);
            adopted[i] = adopted.back();
            adopted.pop_back();
        } else {
            ++i;
        }
    }
}

void WorkerStacks::unmap(const Stack& stack) {
    const size_t guard = pageSize();
    munmap(static_cast<char*>(stack.base) - guard, stack.size + guard);
}

} // namespace internal
} // namespace tavren
