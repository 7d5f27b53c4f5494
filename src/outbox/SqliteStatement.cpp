// SPDX-License-Identifier: Apache-2.0
#include "outbox/SqliteStatement.h"

namespace tavren {
namespace internal {

SqliteError::SqliteError(int code, const std::string& doing)
    : std::runtime_error(doing + ": " + sqlite3_errstr(code)), rc(code) {}

void sqliteExec(sqlite3* db, const char* sql) {
    const int rc = sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) throw SqliteError(rc, sql);
}

SqliteStatement::SqliteStatement(sqlite3* connection, const char* sql) : db(connection) {
    const int rc = sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr);
    if (rc != SQLITE_OK) throw SqliteError(rc, sql);
}

SqliteStatement::~SqliteStatement() { sqlite3_finalize(stmt); }

void SqliteStatement::bind(int index, std::int64_t value) { sqlite3_bind_int64(stmt, index, value); }

void SqliteStatement::bind(int index, const std::string& text) {
    sqlite3_bind_text(stmt, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

void SqliteStatement::bindBlob(int index, const std::string& bytes) {
    sqlite3_bind_blob(stmt, index, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
}

bool SqliteStatement::step() {
    const int rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    // The extended code names the failure better ("disk I/O error" rather than a generic one).
    throw SqliteError(sqlite3_extended_errcode(db) ? sqlite3_extended_errcode(db) : rc, sqlite3_sql(stmt));
}

void SqliteStatement::run() {
    StatementReset resetting(*this);
    while (step()) {
    }
}

void SqliteStatement::reset() {
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
}

std::string SqliteStatement::text(int column) const {
    const void* data = sqlite3_column_blob(stmt, column);
    const int size = sqlite3_column_bytes(stmt, column);
    return data ? std::string(static_cast<const char*>(data), static_cast<std::size_t>(size)) : std::string();
}

} // namespace internal
} // namespace tavren
