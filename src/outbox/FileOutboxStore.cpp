// SPDX-License-Identifier: Apache-2.0
#include "outbox/FileOutboxStore.h"

#include "outbox/OutboxHeaders.h"

#include <tavren/OutboxException.h>

namespace tavren {
namespace internal {

constexpr std::chrono::milliseconds FileOutboxStore::syncDelay;

FileOutboxStore::FileOutboxStore(const tavren::OutboxOptions& options, std::unique_ptr<OutboxFileLock> lock,
                                 const OutboxDatabase& database)
    : limits(options),
      path(options.file),
      prefix(database.idPrefix),
      powerLoss(options.durability == tavren::OutboxOptions::PowerLoss),
      fileLock(std::move(lock)),
      db(database.db),
      counters{database.count, database.bytes, database.lastSequence, database.addedCount, database.addedBytes},
      begin(db, "BEGIN IMMEDIATE"),
      commit(db, "COMMIT"),
      rollback(db, "ROLLBACK"),
      insert(db, "INSERT INTO messages (sequence, size, added_count, added_bytes, destination, headers, body)"
                 " VALUES (?, ?, ?, ?, ?, ?, ?)"),
      oldest(db, "SELECT sequence, size, destination FROM messages ORDER BY sequence LIMIT 1"),
      erase(db, "DELETE FROM messages WHERE sequence = ? RETURNING size"),
      saveCounters(db, "UPDATE counters SET count = ?, bytes = ?, last_sequence = ?, added_count = ?, added_bytes = ?"
                       " WHERE id = 1"),
      select(db, "SELECT sequence, destination, headers, body FROM messages WHERE sequence > ?"
                 " ORDER BY sequence LIMIT ?") {
    setSync(powerLoss);
    publishCounters();
    if (!powerLoss) syncer = std::thread(&FileOutboxStore::syncLoop, this);
}

FileOutboxStore::~FileOutboxStore() {
    if (syncer.joinable()) {
        {
            std::lock_guard<std::mutex> guard(syncLock);
            stopping = true;
        }
        syncWake.notify_all();
        syncer.join();
    }
    // The statements are finalized by their destructors, after which sqlite3_close_v2 closes the
    // connection (it waits for them); closing checkpoints the log into the file.
    sqlite3_close_v2(db);
}

std::uint64_t FileOutboxStore::add(const std::string& destination, const HeaderMap& headers, const std::string& body,
                                   std::vector<DroppedEntry>* dropped) {
    Request request;
    request.destination = &destination;
    request.body = &body;
    request.headers = encodeOutboxHeaders(headers);
    request.size = outboxEntryBytes(destination, headers, body);
    limits.checkAlone(request.size);
    group.submit(&request, [this](const std::vector<Request*>& batch) { commitBatch(batch); });
    if (request.error) std::rethrow_exception(request.error);
    if (dropped) dropped->insert(dropped->end(), request.dropped.begin(), request.dropped.end());
    return request.sequence;
}

void FileOutboxStore::commitBatch(const std::vector<Request*>& batch) {
    {
        std::lock_guard<std::mutex> guard(dbLock);
        const Counters before = counters;
        try {
            begin.run();
            if (insertBatch(batch)) writeCounters();
            commit.run();
        } catch (const SqliteError& e) {
            rollBack(before);
            const OutboxException failure("The outbox file " + path + " could not keep the message (" + e.reason() +
                                          "); the message is not kept.");
            for (Request* request : batch) {
                if (!request->error) request->error = std::make_exception_ptr(failure);
                request->dropped.clear();
            }
        } catch (...) {
            rollBack(before);
            for (Request* request : batch) request->error = std::current_exception();
        }
        publishCounters();
    }
    if (!powerLoss) {
        std::lock_guard<std::mutex> guard(syncLock);
        if (!unsynced) {
            unsynced = true;
            syncWake.notify_all();
        }
    }
}

bool FileOutboxStore::insertBatch(const std::vector<Request*>& batch) {
    bool dropped = false;
    for (Request* request : batch) {
        while (!limits.fits(static_cast<std::size_t>(counters.count), static_cast<std::size_t>(counters.bytes),
                            request->size)) {
            if (!limits.dropsOldest()) break;
            dropOldest(request);
            dropped = true;
        }
        if (!limits.fits(static_cast<std::size_t>(counters.count), static_cast<std::size_t>(counters.bytes),
                         request->size)) {
            try {
                limits.refuse(static_cast<std::size_t>(counters.count), static_cast<std::size_t>(counters.bytes),
                              request->size);
            } catch (...) {
                request->error = std::current_exception();
            }
            continue;
        }
        const long long sequence = counters.lastSequence + 1;
        StatementReset resetting(insert);
        insert.bind(1, static_cast<std::int64_t>(sequence));
        insert.bind(2, static_cast<std::int64_t>(request->size));
        insert.bind(3, static_cast<std::int64_t>(counters.addedCount + 1));
        insert.bind(4, static_cast<std::int64_t>(counters.addedBytes + static_cast<long long>(request->size)));
        insert.bind(5, *request->destination);
        insert.bindBlob(6, request->headers);
        insert.bindBlob(7, *request->body);
        insert.step();
        counters.lastSequence = sequence;
        counters.count += 1;
        counters.bytes += static_cast<long long>(request->size);
        counters.addedCount += 1;
        counters.addedBytes += static_cast<long long>(request->size);
        request->sequence = static_cast<std::uint64_t>(sequence);
    }
    return dropped;
}

void FileOutboxStore::dropOldest(Request* request) {
    StatementReset resetting(oldest);
    if (!oldest.step()) throw SqliteError(SQLITE_CORRUPT, "the outbox counts messages it does not have");
    const std::int64_t sequence = oldest.integer(0);
    const long long size = oldest.integer(1);
    request->dropped.push_back(DroppedEntry{static_cast<std::uint64_t>(sequence), oldest.text(2)});
    StatementReset resettingErase(erase);
    erase.bind(1, sequence);
    erase.step();
    counters.count -= 1;
    counters.bytes -= size;
}

void FileOutboxStore::writeCounters() {
    saveCounters.bind(1, static_cast<std::int64_t>(counters.count));
    saveCounters.bind(2, static_cast<std::int64_t>(counters.bytes));
    saveCounters.bind(3, static_cast<std::int64_t>(counters.lastSequence));
    saveCounters.bind(4, static_cast<std::int64_t>(counters.addedCount));
    saveCounters.bind(5, static_cast<std::int64_t>(counters.addedBytes));
    saveCounters.run();
}

void FileOutboxStore::rollBack(const Counters& before) {
    counters = before;
    // A failed COMMIT (a full disk) may have rolled back already.
    if (!sqlite3_get_autocommit(db)) {
        try {
            rollback.run();
        } catch (const SqliteError&) {
        }
    }
}

void FileOutboxStore::publishCounters() {
    keptCount.store(static_cast<std::size_t>(counters.count), std::memory_order_relaxed);
    keptBytes.store(static_cast<std::size_t>(counters.bytes), std::memory_order_relaxed);
}

void FileOutboxStore::readAfter(std::uint64_t after, std::size_t maxCount, std::vector<OutboxEntry>* out) {
    std::lock_guard<std::mutex> guard(dbLock);
    StatementReset resetting(select);
    select.bind(1, static_cast<std::int64_t>(after));
    select.bind(2, static_cast<std::int64_t>(maxCount));
    try {
        while (select.step()) {
            out->push_back(OutboxEntry{static_cast<std::uint64_t>(select.integer(0)), select.text(1),
                                       decodeOutboxHeaders(select.text(2)), select.text(3)});
        }
    } catch (const SqliteError& e) {
        throw OutboxException("The outbox file " + path + " could not be read (" + e.reason() + ").");
    }
}

void FileOutboxStore::remove(const std::vector<std::uint64_t>& sequences) {
    if (sequences.empty()) return;
    std::lock_guard<std::mutex> guard(dbLock);
    const Counters before = counters;
    try {
        // A lost removal only means a message sent twice: never worth a sync.
        if (powerLoss) setSync(false);
        begin.run();
        for (std::uint64_t sequence : sequences) {
            StatementReset resetting(erase);
            erase.bind(1, static_cast<std::int64_t>(sequence));
            if (!erase.step()) continue;
            counters.count -= 1;
            counters.bytes -= erase.integer(0);
        }
        writeCounters();
        commit.run();
        if (powerLoss) setSync(true);
    } catch (const SqliteError& e) {
        rollBack(before);
        if (powerLoss) {
            try {
                setSync(true);
            } catch (const SqliteError&) {
            }
        }
        publishCounters();
        throw OutboxException("The outbox file " + path + " could not forget confirmed messages (" + e.reason() +
                              "); they are sent again.");
    }
    publishCounters();
}

void FileOutboxStore::setSync(bool full) {
    // Not a prepared statement: SQLite applies this pragma when it compiles it.
    sqliteExec(db, full ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
}

void FileOutboxStore::syncLoop() {
    std::unique_lock<std::mutex> guard(syncLock);
    for (;;) {
        syncWake.wait(guard, [this] { return unsynced || stopping; });
        if (stopping) return;
        // Commits that come meanwhile share this sync.
        syncWake.wait_for(guard, syncDelay, [this] { return stopping; });
        unsynced = false;
        guard.unlock();
        syncLog();
        guard.lock();
    }
}

void FileOutboxStore::syncLog() {
    std::lock_guard<std::mutex> guard(dbLock);
    sqlite3_file* log = nullptr;
    if (sqlite3_file_control(db, "main", SQLITE_FCNTL_JOURNAL_POINTER, &log) != SQLITE_OK || !log || !log->pMethods) {
        return;
    }
    // A failed sync leaves the commits to the next one, or to the checkpoint at close.
    log->pMethods->xSync(log, SQLITE_SYNC_NORMAL);
}

} // namespace internal
} // namespace tavren
