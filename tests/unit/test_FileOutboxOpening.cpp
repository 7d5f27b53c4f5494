// SPDX-License-Identifier: Apache-2.0
// A file outbox that cannot be opened: the file locked by another program,
// storage that fails while a new outbox is made, a statement SQLite will not
// prepare. The caller gets one exception; nothing is moved aside that is not
// broken, and the file is left unlocked for the next try.
#include "support/OutboxFiles.h"
#include "support/TempFolder.h"
#include "support/TestVfs.h"

#include <tavren/OutboxException.h>

#include <sqlite3.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

namespace tavren {
namespace test {
namespace {

#ifdef TAVREN_FILE_OUTBOX

class FileOutboxOpening : public testing::Test {
protected:
    void SetUp() override { TestVfs::install(); }
    void TearDown() override {
        TestVfs::install();
        sqlite3_reset_auto_extension();
    }
    std::string path() const { return folder.file("outbox.db"); }

    /** Opens the outbox and returns what it threw ("" if it opened); no line may be logged. */
    std::string openingFailure(const std::string& vfs = std::string()) {
        try {
            openOutbox(fileOptions(path()), nullptr, vfs);
        } catch (const tavren::OutboxException& e) {
            return e.what();
        }
        return std::string();
    }

    /** The outbox opens again as it should, keeps a message and gives it back. */
    void expectUsable() {
        auto store = openOutbox(fileOptions(path()));
        EXPECT_EQ(0u, store->count());
        store->add("/queue/a", HeaderMap(), "kept", nullptr);
        EXPECT_EQ(std::vector<std::string>{"kept"}, bodiesOf(*store));
    }

    TempFolder folder;
};

TEST_F(FileOutboxOpening, AFileLockedByAnotherProgramIsNeitherOpenedNorMovedAside) {
    // What the sqlite3 shell holds in the middle of "BEGIN EXCLUSIVE".
    sqlite3* other = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(path().c_str(), &other));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr)) << sqlite3_errmsg(other);
    const std::vector<std::string> names = folder.names(); // the file and the other program's journal
    EXPECT_EQ("The outbox file " + path() + " cannot be opened (database is locked).", openingFailure());
    EXPECT_EQ(names, folder.names());
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr));
    sqlite3_close(other);
    expectUsable();
}

TEST_F(FileOutboxOpening, AStorageThatFailsTheFirstWriteOfANewOutboxLeavesNoOutbox) {
    TestVfs::failWritesAfter(0, SQLITE_IOERR_WRITE);
    EXPECT_EQ("The outbox file " + path() + " cannot be opened (disk I/O error).", openingFailure(TestVfs::name()));
    TestVfs::failWritesAfter(-1, SQLITE_FULL);
    EXPECT_EQ(std::vector<std::string>{"outbox.db"}, folder.names());
    expectUsable();
}

TEST_F(FileOutboxOpening, ANewFileTheStorageCallsMalformedIsNotMovedAsideAgain) {
    // The unreadable file is moved aside once; when the storage answers that the new, empty file is malformed too,
    // the caller is told and nothing more is moved.
    {
        std::ofstream garbage(path(), std::ios::binary);
        garbage << std::string(4096, 'x');
    }
    TestVfs::failWritesAfter(0, SQLITE_CORRUPT);
    std::vector<std::string> lines;
    try {
        openOutbox(fileOptions(path()), &lines, TestVfs::name());
        ADD_FAILURE() << "opened an outbox the storage calls malformed";
    } catch (const tavren::OutboxException& e) {
        EXPECT_EQ("The outbox file " + path() + " cannot be made (database disk image is malformed).",
                  std::string(e.what()));
    }
    ASSERT_EQ(1u, lines.size());
    const std::vector<std::string> names = folder.names();
    ASSERT_EQ(2u, names.size());
    EXPECT_EQ("outbox.db", names[0]);
    EXPECT_EQ(0, names[1].compare(0, 18, "outbox.db.corrupt-")) << names[1];
    EXPECT_EQ("The outbox file " + path() +
                  " could not be read as an outbox (file is not a database): moved aside to " + folder.file(names[1]) +
                  "; a new outbox is started.",
              lines[0]);
    TestVfs::failWritesAfter(-1, SQLITE_FULL);
    expectUsable();
}

TEST_F(FileOutboxOpening, APathLongerThanSQLiteTakesIsNotOpened) {
    // Linux opens and locks it; SQLite takes paths of 512 bytes at the most.
    std::vector<std::string> folders;
    std::string path = folder.path;
    for (int i = 0; i < 3; ++i) {
        path += "/" + std::string(200, static_cast<char>('a' + i));
        ASSERT_EQ(0, mkdir(path.c_str(), 0700));
        folders.push_back(path);
    }
    path += "/outbox.db";
    try {
        openOutbox(fileOptions(path));
        ADD_FAILURE() << "opened an outbox SQLite cannot name";
    } catch (const tavren::OutboxException& e) {
        EXPECT_EQ("The outbox file " + path + " cannot be opened (unable to open database file).",
                  std::string(e.what()));
    }
    EXPECT_EQ(0, unlink(path.c_str()));
    for (auto it = folders.rbegin(); it != folders.rend(); ++it) EXPECT_EQ(0, rmdir(it->c_str()));
}

/** Makes every connection opened after it refuse statements of more than six parameters. */
int sixParametersAtMost(sqlite3* db, char**, const sqlite3_api_routines*) {
    sqlite3_limit(db, SQLITE_LIMIT_VARIABLE_NUMBER, 6);
    return SQLITE_OK;
}

TEST_F(FileOutboxOpening, AStatementSQLiteWillNotPrepareClosesAndUnlocksTheFile) {
    // The file is made and checked; the store's insert (seven parameters) then fails to prepare.
    ASSERT_EQ(SQLITE_OK, sqlite3_auto_extension(reinterpret_cast<void (*)()>(&sixParametersAtMost)));
    EXPECT_EQ("The outbox file " + path() + " cannot be opened (SQL logic error).", openingFailure());
    sqlite3_reset_auto_extension();
    expectUsable();
}

#endif

} // namespace
} // namespace test
} // namespace tavren
