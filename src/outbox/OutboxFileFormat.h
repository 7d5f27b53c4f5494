// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_OUTBOXFILEFORMAT_H
#define TAVREN_INTERNAL_OUTBOXFILEFORMAT_H

#include <sqlite3.h>

#include <stdexcept>
#include <string>

namespace tavren {
namespace internal {

/** The SQLite application_id of an outbox file ("TVOB"), and the format this library writes. */
const int outboxApplicationId = 0x54564f42;
const int outboxFormat = 1;

/** A file that is not an outbox of this library; what() says why, in a few words. */
class NotAnOutbox : public std::runtime_error {
public:
    explicit NotAnOutbox(const std::string& reason) : std::runtime_error(reason) {}
};

/** An open outbox database in WAL mode, with its schema, and what its file says about itself. */
struct OutboxDatabase {
    sqlite3* db = nullptr;
    std::string idPrefix;
    long long count = 0, bytes = 0, lastSequence = 0;
    long long addedCount = 0, addedBytes = 0; // every message ever added, and their bytes
};

/**
 * Opens the outbox in path through the SQLite VFS named (empty: the
 * default), made when missing or empty. Reads no message: the count and
 * bytes are kept in the file. Throws NotAnOutbox for a file that is not an
 * outbox (the connection is closed then), and OutboxException when it cannot
 * be opened at all.
 */
OutboxDatabase openOutboxDatabase(const std::string& path, const std::string& vfs);

/**
 * Renames path, and its -wal and -shm files, to path.corrupt-YYYYMMDDTHHMMSS
 * (UTC; a number is added when that exists) and returns the new name; throws
 * OutboxException when it cannot.
 */
std::string moveOutboxAside(const std::string& path, const std::string& reason);

} // namespace internal
} // namespace tavren

#endif
