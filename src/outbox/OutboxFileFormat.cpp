// SPDX-License-Identifier: Apache-2.0
#include "outbox/OutboxFileFormat.h"

#include "outbox/SqliteStatement.h"

#include <kelvra/utility/Uuid.h>
#include <tavren/OutboxException.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace tavren {
namespace internal {
namespace {

// The counters say what was kept as of the last sequence they name; each
// message carries the number and bytes of all messages added up to it, so
// an add commit changes no page but the last of "messages", and opening the
// file reads the counters and the last message only.
const char* const schema = "BEGIN IMMEDIATE;"
                           "PRAGMA application_id = 1414942530;"
                           "PRAGMA user_version = 1;"
                           "CREATE TABLE meta (key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;"
                           "CREATE TABLE counters (id INTEGER PRIMARY KEY CHECK (id = 1), count INTEGER NOT NULL,"
                           " bytes INTEGER NOT NULL, last_sequence INTEGER NOT NULL, added_count INTEGER NOT NULL,"
                           " added_bytes INTEGER NOT NULL);"
                           "INSERT INTO counters VALUES (1, 0, 0, 0, 0, 0);"
                           "CREATE TABLE messages (sequence INTEGER PRIMARY KEY, size INTEGER NOT NULL,"
                           " added_count INTEGER NOT NULL, added_bytes INTEGER NOT NULL, destination TEXT NOT NULL,"
                           " headers BLOB NOT NULL, body BLOB NOT NULL);";

bool corruption(int code) {
    const int primary = code & 0xff;
    return primary == SQLITE_NOTADB || primary == SQLITE_CORRUPT || primary == SQLITE_FORMAT ||
           primary == SQLITE_SCHEMA || primary == SQLITE_ERROR || primary == SQLITE_MISMATCH;
}

long long fileSize(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

unsigned long bigEndian(const unsigned char* p, int n) {
    unsigned long v = 0;
    for (int i = 0; i < n; ++i) v = (v << 8) | p[i];
    return v;
}

/**
 * Looks at the file before SQLite does, which could change its log: a file
 * that is not an SQLite database at all, or one shorter than its own header
 * says when no write-ahead log can explain it.
 */
void checkFileHeader(const std::string& path) {
    const long long size = fileSize(path);
    if (size <= 0) return;
    unsigned char header[100];
    // "e": close-on-exec, so a program the application starts meanwhile does not inherit it.
    FILE* f = std::fopen(path.c_str(), "rbe");
    if (!f) return; // SQLite says why
    const std::size_t got = std::fread(header, 1, sizeof header, f);
    std::fclose(f);
    if (got < sizeof header || std::memcmp(header, "SQLite format 3", 16) != 0) {
        throw NotAnOutbox(sqlite3_errstr(SQLITE_NOTADB));
    }
    if (fileSize(path + "-wal") > 0) return;
    unsigned long pageSize = bigEndian(header + 16, 2);
    if (pageSize == 1) pageSize = 65536;
    if (pageSize < 512 || (pageSize & (pageSize - 1)) != 0) return;
    const bool sizeValid = bigEndian(header + 24, 4) == bigEndian(header + 92, 4);
    const unsigned long long pages = bigEndian(header + 28, 4);
    if (size % static_cast<long long>(pageSize) != 0 ||
        (sizeValid && size < static_cast<long long>(pages * pageSize))) {
        throw NotAnOutbox("the file is truncated");
    }
}

long long queryInteger(sqlite3* db, const char* sql) {
    SqliteStatement statement(db, sql);
    StatementReset resetting(statement);
    return statement.step() ? statement.integer(0) : 0;
}

std::string journalMode(sqlite3* db) {
    SqliteStatement mode(db, "PRAGMA journal_mode = WAL");
    StatementReset resetting(mode);
    return mode.step() ? mode.text(0) : std::string();
}

/** Checks what the file says it is; true when it is empty and still to be made. */
bool checkIdentity(sqlite3* db) {
    const long long application = queryInteger(db, "PRAGMA application_id");
    const long long format = queryInteger(db, "PRAGMA user_version");
    const long long tables = queryInteger(db, "SELECT count(*) FROM sqlite_master");
    if (application == 0 && format == 0 && tables == 0) return true;
    if (application != outboxApplicationId) throw NotAnOutbox("it is another application's SQLite database");
    if (format > outboxFormat) {
        throw NotAnOutbox("its format " + std::to_string(format) + " is newer than this library's " +
                          std::to_string(outboxFormat));
    }
    if (format < outboxFormat) throw NotAnOutbox("its format " + std::to_string(format) + " is unknown");
    return false;
}

void readState(OutboxDatabase& out) {
    SqliteStatement prefix(out.db, "SELECT value FROM meta WHERE key = 'id_prefix'");
    StatementReset resettingPrefix(prefix);
    if (!prefix.step()) throw NotAnOutbox("it has no id prefix");
    out.idPrefix = prefix.text(0);
    SqliteStatement counters(out.db, "SELECT count, bytes, last_sequence, added_count, added_bytes FROM counters"
                                     " WHERE id = 1");
    StatementReset resettingCounters(counters);
    if (!counters.step()) throw NotAnOutbox("it has no counters");
    out.count = counters.integer(0);
    out.bytes = counters.integer(1);
    out.lastSequence = counters.integer(2);
    out.addedCount = counters.integer(3);
    out.addedBytes = counters.integer(4);
    // Messages added since the counters were written, from the right edge of the table alone.
    SqliteStatement last(out.db,
                         "SELECT sequence, added_count, added_bytes FROM messages ORDER BY sequence DESC LIMIT 1");
    StatementReset resettingLast(last);
    if (last.step() && last.integer(0) > out.lastSequence) {
        out.count += last.integer(1) - out.addedCount;
        out.bytes += last.integer(2) - out.addedBytes;
        out.lastSequence = last.integer(0);
        out.addedCount = last.integer(1);
        out.addedBytes = last.integer(2);
    }
    if (out.count < 0 || out.bytes < 0) throw NotAnOutbox("its counters are negative");
}

void openChecked(OutboxDatabase& out, const std::string& path, const std::string& vfs) {
    checkFileHeader(path);
    const int rc = sqlite3_open_v2(path.c_str(), &out.db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                                   vfs.empty() ? nullptr : vfs.c_str());
    if (rc != SQLITE_OK) {
        if (corruption(rc)) throw NotAnOutbox(sqlite3_errstr(rc));
        throw OutboxException("The outbox file " + path + " cannot be opened (" + sqlite3_errstr(rc) + ").");
    }
    sqlite3_extended_result_codes(out.db, 1);
    try {
        const bool fresh = checkIdentity(out.db);
        // Only now that the file is known to be ours (or empty) is anything written to it.
        // The store holds the file alone: SQLite keeps its locks for the connection's life and its log's index
        // in memory (no -shm file), which spares a few system calls in every transaction.
        sqliteExec(out.db, "PRAGMA locking_mode = EXCLUSIVE");
        if (journalMode(out.db) != "wal") throw SqliteError(SQLITE_READONLY, "PRAGMA journal_mode = WAL");
        if (fresh) {
            sqliteExec(out.db, schema);
            SqliteStatement prefix(out.db, "INSERT INTO meta VALUES ('id_prefix', ?)");
            const std::string id = kelvra::utility::generateUuid();
            prefix.bind(1, id);
            prefix.run();
            sqliteExec(out.db, "COMMIT");
        }
        readState(out);
    } catch (const SqliteError& e) {
        if (corruption(e.code())) throw NotAnOutbox(e.reason());
        throw OutboxException("The outbox file " + path + " cannot be opened (" + e.reason() + ").");
    }
}

} // namespace

OutboxDatabase openOutboxDatabase(const std::string& path, const std::string& vfs) {
    OutboxDatabase out;
    try {
        openChecked(out, path, vfs);
    } catch (...) {
        sqlite3_close_v2(out.db);
        throw;
    }
    return out;
}

std::string moveOutboxAside(const std::string& path, const std::string& reason) {
    char stamp[32];
    const std::time_t now = std::time(nullptr);
    std::tm utc;
    gmtime_r(&now, &utc);
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%S", &utc);
    std::string aside = path + ".corrupt-" + stamp;
    for (int n = 2; fileSize(aside) >= 0; ++n) aside = path + ".corrupt-" + stamp + "-" + std::to_string(n);
    for (const char* suffix : {"-wal", "-shm", ""}) {
        const std::string from = path + suffix;
        if (std::rename(from.c_str(), (aside + suffix).c_str()) != 0 && errno != ENOENT) {
            throw OutboxException("The outbox file " + path + " could not be read as an outbox (" + reason +
                                  ") nor moved aside (" + std::strerror(errno) + ").");
        }
    }
    return aside;
}

} // namespace internal
} // namespace tavren
