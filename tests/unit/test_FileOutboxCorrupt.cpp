// SPDX-License-Identifier: Apache-2.0
// Files that are not outboxes are moved aside, said in one line, and a new outbox starts.
#include "support/OutboxFiles.h"
#include "support/TempFolder.h"

#include <tavren/OutboxException.h>

#include <sqlite3.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

namespace tavren {
namespace test {
namespace {

#ifdef TAVREN_FILE_OUTBOX

/** YYYYMMDDTHHMMSS */
bool isStamp(const std::string& text) {
    if (text.size() != 15 || text[8] != 'T') return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (i != 8 && (text[i] < '0' || text[i] > '9')) return false;
    }
    return true;
}

class FileOutboxCorrupt : public testing::Test {
protected:
    std::string path() const { return folder.file("outbox.db"); }

    void fillOutbox(int messages) {
        auto store = openOutbox(fileOptions(path()));
        for (int i = 0; i < messages; ++i) store->add("/queue/a", HeaderMap(), std::string(1000, 'b'), nullptr);
    }

    void sql(const char* statements) {
        sqlite3* db = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open(path().c_str(), &db));
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, statements, nullptr, nullptr, nullptr)) << sqlite3_errmsg(db);
        sqlite3_close(db);
    }

    /** Opens the outbox over the bad file and checks the line, the file moved aside and the new, empty outbox. */
    void expectMovedAside(const std::string& reason, const std::vector<std::string>& asideFiles = {""}) {
        std::string before;
        {
            std::ifstream in(path(), std::ios::binary);
            before.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        }
        std::vector<std::string> lines;
        auto store = openOutbox(fileOptions(path()), &lines);
        const std::vector<std::string> names = folder.names();
        std::string aside;
        for (const std::string& name : names) {
            if (name.compare(0, 18, "outbox.db.corrupt-") == 0 && (aside.empty() || name.size() < aside.size())) {
                aside = name;
            }
        }
        EXPECT_TRUE(isStamp(aside.substr(18))) << aside;
        std::vector<std::string> expected{"outbox.db"};
        for (const std::string& suffix : asideFiles) expected.push_back(aside + suffix);
        std::sort(expected.begin(), expected.end());
        // The new outbox's log is there while it is open.
        std::vector<std::string> kept;
        for (const std::string& name : names) {
            if (name != "outbox.db-wal" && name != "outbox.db-shm") kept.push_back(name);
        }
        EXPECT_EQ(expected, kept);
        ASSERT_EQ(1u, lines.size());
        EXPECT_EQ("The outbox file " + path() + " could not be read as an outbox (" + reason + "): moved aside to " +
                      folder.file(aside) + "; a new outbox is started.",
                  lines[0]);
        std::string after;
        {
            std::ifstream in(folder.file(aside), std::ios::binary);
            after.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        }
        EXPECT_TRUE(before == after) << "the file moved aside was changed";
        EXPECT_EQ(0u, store->count());
        store->add("/queue/a", HeaderMap(), "new", nullptr);
        store.reset();
        EXPECT_EQ(std::vector<std::string>{"new"}, bodiesOf(*openOutbox(fileOptions(path()))));
    }

    TempFolder folder;
};

TEST_F(FileOutboxCorrupt, GarbageIsMovedAside) {
    std::ofstream out(path(), std::ios::binary);
    for (int i = 0; i < 5000; ++i) out.put(static_cast<char>((i * 7919) % 251));
    out.close();
    expectMovedAside("file is not a database");
}

TEST_F(FileOutboxCorrupt, AFileCutShortIsMovedAside) {
    fillOutbox(100);
    struct stat st;
    ASSERT_EQ(0, stat(path().c_str(), &st));
    ASSERT_EQ(0, truncate(path().c_str(), st.st_size / 2));
    expectMovedAside("the file is truncated");
}

TEST_F(FileOutboxCorrupt, AFileCutWithinAPageIsMovedAside) {
    fillOutbox(10);
    struct stat st;
    ASSERT_EQ(0, stat(path().c_str(), &st));
    ASSERT_EQ(0, truncate(path().c_str(), st.st_size - 100));
    expectMovedAside("the file is truncated");
}

TEST_F(FileOutboxCorrupt, AnotherApplicationsDatabaseIsMovedAside) {
    sql("CREATE TABLE readings (at INTEGER, value REAL); INSERT INTO readings VALUES (1, 2.5);");
    expectMovedAside("it is another application's SQLite database");
}

TEST_F(FileOutboxCorrupt, ANewerFormatIsMovedAside) {
    fillOutbox(3);
    sql("PRAGMA user_version = 2;");
    expectMovedAside("its format 2 is newer than this library's 1");
}

TEST_F(FileOutboxCorrupt, AFileWithTheOutboxsMarksButNotItsTablesIsMovedAside) {
    // In the log mode outboxes use, which opening turns on before it reads the tables.
    sql("PRAGMA journal_mode = WAL; PRAGMA application_id = 1414942530; PRAGMA user_version = 1;"
        " CREATE TABLE notes (text TEXT);");
    expectMovedAside("SQL logic error");
}

TEST_F(FileOutboxCorrupt, TheLogAndSharedMemoryGoAsideWithTheFile) {
    std::ofstream(path(), std::ios::binary) << std::string(4096, 'x');
    std::ofstream(path() + "-wal", std::ios::binary) << "log";
    std::ofstream(path() + "-shm", std::ios::binary) << "shm";
    expectMovedAside("file is not a database", {"", "-shm", "-wal"});
}

/** 0 when opening the garbage in path fails as it should in a folder that cannot be changed; else what went wrong. */
int checkNotMovedAside(const std::string& path) {
    std::vector<std::string> lines;
    try {
        openOutbox(fileOptions(path), &lines);
        return 1;
    } catch (const tavren::OutboxException& e) {
        const std::string expected = "The outbox file " + path +
                                     " could not be read as an outbox (file is not a database) nor moved aside"
                                     " (Permission denied).";
        if (e.what() != expected) {
            std::fprintf(stderr, "%s\n", e.what());
            return 2;
        }
    }
    return lines.empty() ? 0 : 3;
}

TEST_F(FileOutboxCorrupt, GarbageThatCannotBeMovedAsideIsNotOpened) {
    std::ofstream(path(), std::ios::binary) << std::string(4096, 'x');
    ASSERT_EQ(0, chmod(path().c_str(), 0666));
    ASSERT_EQ(0, chmod(folder.path.c_str(), 0555));
    if (geteuid() != 0) {
        EXPECT_EQ(0, checkNotMovedAside(path()));
    } else {
        // Root changes any folder: the check runs as nobody.
        const pid_t child = fork();
        if (child == 0) _exit(setgid(65534) == 0 && setuid(65534) == 0 ? checkNotMovedAside(path()) : 7);
        int status = -1;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(0, WEXITSTATUS(status));
    }
    ASSERT_EQ(0, chmod(folder.path.c_str(), 0700));
    EXPECT_EQ(std::vector<std::string>{"outbox.db"}, folder.names());
}

TEST_F(FileOutboxCorrupt, AnEmptyFileBecomesAnOutboxWithoutALine) {
    std::ofstream(path(), std::ios::binary).close();
    auto store = openOutbox(fileOptions(path()));
    store->add("/queue/a", HeaderMap(), "kept", nullptr);
    EXPECT_EQ(std::vector<std::string>{"kept"}, bodiesOf(*store));
}

#endif

} // namespace
} // namespace test
} // namespace tavren
