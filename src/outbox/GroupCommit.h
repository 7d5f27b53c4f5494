// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_GROUPCOMMIT_H
#define TAVREN_INTERNAL_GROUPCOMMIT_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

namespace tavren {
namespace internal {

/**
 * Lets threads that write at once share one commit. A caller queues its
 * request; when no commit runs, it becomes the leader, takes every request
 * queued so far and commits them together, while later callers queue behind
 * it and wait. The next leader is one of those whose request is still
 * waiting. The queue's lock is never held while a commit runs.
 *
 * The threads a commit released come back at about the same time, and the
 * first of them would commit alone: a leader that finds fewer requests than
 * the last commit had waits for as many, at most half as long as the last
 * commit took, which costs a lone writer nothing.
 */
template <typename Request>
class GroupCommit {
public:
    /**
     * Commits this request with whatever else is queued. commit(batch) must
     * not throw; what it writes into the requests is seen by their threads
     * once they are done.
     */
    template <typename Commit>
    void submit(Request* request, Commit&& commit) {
        std::unique_lock<std::mutex> guard(lock);
        queue.push_back(request);
        if (leading) arrived.notify_one();
        while (!request->done) {
            if (leading) {
                finished.wait(guard);
                continue;
            }
            leading = true;
            if (queue.size() < lastBatch) {
                arrived.wait_for(guard, lastCommit / 2, [this] { return queue.size() >= lastBatch; });
            }
            std::vector<Request*> batch;
            batch.swap(queue);
            lastBatch = batch.size();
            guard.unlock();
            const auto start = std::chrono::steady_clock::now();
            commit(batch);
            const auto took = std::chrono::steady_clock::now() - start;
            guard.lock();
            lastCommit = std::chrono::duration_cast<std::chrono::microseconds>(took);
            for (Request* done : batch) done->done = true;
            leading = false;
            finished.notify_all();
        }
    }

private:
    std::mutex lock;
    std::condition_variable finished, arrived;
    std::vector<Request*> queue;
    bool leading = false;
    std::size_t lastBatch = 0;
    std::chrono::microseconds lastCommit{0};
};

} // namespace internal
} // namespace tavren

#endif
