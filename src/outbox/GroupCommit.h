// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_GROUPCOMMIT_H
#define TAVREN_INTERNAL_GROUPCOMMIT_H

#include <condition_variable>
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
        while (!request->done) {
            if (leading) {
                finished.wait(guard);
                continue;
            }
            leading = true;
            std::vector<Request*> batch;
            batch.swap(queue);
            guard.unlock();
            commit(batch);
            guard.lock();
            for (Request* done : batch) done->done = true;
            leading = false;
            finished.notify_all();
        }
    }

private:
    std::mutex lock;
    std::condition_variable finished;
    std::vector<Request*> queue;
    bool leading = false;
};

} // namespace internal
} // namespace tavren

#endif
