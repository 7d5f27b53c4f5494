// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_SQLITESTATEMENT_H
#define TAVREN_INTERNAL_SQLITESTATEMENT_H

#include <sqlite3.h>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace tavren {
namespace internal {

/** An SQLite failure: its result code, and what was being done. */
class SqliteError : public std::runtime_error {
public:
    SqliteError(int code, const std::string& doing);
    int code() const { return rc; }
    /** sqlite3_errstr of the code: "database or disk is full", "disk I/O error", ... */
    const char* reason() const { return sqlite3_errstr(rc); }

private:
    int rc;
};

/** Runs SQL without results (several statements may be given); throws SqliteError. */
void sqliteExec(sqlite3* db, const char* sql);

/** A prepared statement, kept for the life of its connection and reset after each use. */
class SqliteStatement {
public:
    SqliteStatement(sqlite3* db, const char* sql);
    ~SqliteStatement();
    SqliteStatement(const SqliteStatement&) = delete;
    SqliteStatement& operator=(const SqliteStatement&) = delete;

    void bind(int index, std::int64_t value);
    /** Binds without a copy: the text must outlive the step. */
    void bind(int index, const std::string& text);
    void bindBlob(int index, const std::string& bytes);
    /** Steps once: true while there is a row, false when done; throws SqliteError. */
    bool step();
    /** Steps to the end and resets. */
    void run();
    void reset();

    std::int64_t integer(int column) const { return sqlite3_column_int64(stmt, column); }
    std::string text(int column) const;

private:
    sqlite3_stmt* stmt = nullptr;
    sqlite3* db;
};

/** Resets a statement when leaving a scope, so that it holds no read lock and no bound text. */
class StatementReset {
public:
    explicit StatementReset(SqliteStatement& s) : statement(s) {}
    ~StatementReset() { statement.reset(); }
    StatementReset(const StatementReset&) = delete;
    StatementReset& operator=(const StatementReset&) = delete;

private:
    SqliteStatement& statement;
};

} // namespace internal
} // namespace tavren

#endif
