// SPDX-License-Identifier: Apache-2.0
#include "outbox/FileOutbox.h"

#include "outbox/FileOutboxStore.h"
#include "outbox/OutboxFileFormat.h"
#include "outbox/OutboxFileLock.h"
#include "outbox/SqliteStatement.h"

#include <tavren/OutboxException.h>

namespace tavren {
namespace internal {

std::unique_ptr<OutboxStore> openFileOutbox(const tavren::OutboxOptions& options,
                                            const std::function<void(const std::string&)>& logError,
                                            const std::string& vfs) {
    std::unique_ptr<OutboxFileLock> lock(new OutboxFileLock(options.file));
    OutboxDatabase database;
    try {
        database = openOutboxDatabase(options.file, vfs);
    } catch (const NotAnOutbox& e) {
        // The lock goes with the old file; the new one is locked afresh.
        lock.reset();
        const std::string aside = moveOutboxAside(options.file, e.what());
        if (logError) {
            logError("The outbox file " + options.file + " could not be read as an outbox (" + e.what() +
                     "): moved aside to " + aside + "; a new outbox is started.");
        }
        lock.reset(new OutboxFileLock(options.file));
        try {
            database = openOutboxDatabase(options.file, vfs);
        } catch (const NotAnOutbox& again) {
            throw OutboxException("The outbox file " + options.file + " cannot be made (" + again.what() + ").");
        }
    }
    try {
        return std::unique_ptr<OutboxStore>(new FileOutboxStore(options, std::move(lock), database));
    } catch (const SqliteError& e) {
        sqlite3_close_v2(database.db);
        throw OutboxException("The outbox file " + options.file + " cannot be opened (" + e.reason() + ").");
    }
}

std::unique_ptr<OutboxStore> openFileOutbox(const tavren::OutboxOptions& options,
                                            const std::function<void(const std::string&)>& logError) {
    return openFileOutbox(options, logError, std::string());
}

} // namespace internal
} // namespace tavren
