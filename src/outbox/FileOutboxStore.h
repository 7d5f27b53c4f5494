// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_FILEOUTBOXSTORE_H
#define TAVREN_INTERNAL_FILEOUTBOXSTORE_H

#include "outbox/GroupCommit.h"
#include "outbox/OutboxFileFormat.h"
#include "outbox/OutboxFileLock.h"
#include "outbox/OutboxLimits.h"
#include "outbox/OutboxStore.h"
#include "outbox/SqliteStatement.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>

namespace tavren {
namespace internal {

/**
 * An outbox in an SQLite file in WAL mode. Adds from many threads share a
 * transaction (GroupCommit): under PowerLoss its commit is fsynced
 * (synchronous=FULL) before any of them returns; under Crash it is written
 * to the log without a sync (synchronous=NORMAL), and a thread of the store
 * syncs the log at most syncDelay after the first commit that was not synced.
 * Removals are committed without a sync under either.
 */
class FileOutboxStore : public OutboxStore {
public:
    /** Under Crash, the longest a commit waits for the log's sync: the window a power loss can take. */
    static constexpr std::chrono::milliseconds syncDelay{1000};

    FileOutboxStore(const tavren::OutboxOptions& options, std::unique_ptr<OutboxFileLock> lock,
                    const OutboxDatabase& database);
    ~FileOutboxStore() override;

    std::uint64_t add(const std::string& destination, const HeaderMap& headers, const std::string& body,
                      std::vector<DroppedEntry>* dropped) override;
    void readAfter(std::uint64_t after, std::size_t maxCount, std::vector<OutboxEntry>* out) override;
    void remove(const std::vector<std::uint64_t>& sequences) override;
    std::size_t count() const override { return keptCount.load(std::memory_order_relaxed); }
    std::size_t bytes() const override { return keptBytes.load(std::memory_order_relaxed); }
    const std::string& idPrefix() const override { return prefix; }
    bool durable() const override { return true; }

private:
    struct Request {
        const std::string* destination;
        const std::string* body;
        std::string headers; // encoded
        std::size_t size;
        std::uint64_t sequence = 0;
        std::vector<DroppedEntry> dropped;
        std::exception_ptr error;
        bool done = false;
    };
    struct Counters {
        long long count, bytes, lastSequence;
        long long addedCount, addedBytes; // ever added
    };

    void commitBatch(const std::vector<Request*>& batch);
    /** Inserts what fits; true when it dropped messages, which the counters must then say. */
    bool insertBatch(const std::vector<Request*>& batch);
    void dropOldest(Request* request);
    void writeCounters();
    void rollBack(const Counters& before);
    void publishCounters();
    void setSync(bool full);
    void syncLoop();
    void syncLog();

    const OutboxLimits limits;
    const std::string path;
    const std::string prefix;
    const bool powerLoss;
    std::unique_ptr<OutboxFileLock> fileLock;
    sqlite3* db;

    GroupCommit<Request> group;
    std::mutex dbLock; // the connection, its statements and the counters
    Counters counters;
    std::atomic<std::size_t> keptCount{0}, keptBytes{0};
    SqliteStatement begin, commit, rollback, insert, oldest, erase, saveCounters, select;

    // Under Crash: the thread that syncs the log.
    std::mutex syncLock;
    std::condition_variable syncWake;
    bool unsynced = false, stopping = false;
    std::thread syncer;
};

} // namespace internal
} // namespace tavren

#endif
