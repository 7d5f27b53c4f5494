// SPDX-License-Identifier: Apache-2.0
// A file outbox when its storage fails: a full disk, an I/O error, a file it
// cannot write, and a power loss. Nothing kept before is harmed.
#include "support/OutboxFiles.h"
#include "support/TempFolder.h"
#include "support/TestVfs.h"

#include <tavren/OutboxException.h>

#include <sqlite3.h>

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <set>
#include <thread>

namespace tavren {
namespace test {
namespace {

#ifdef TAVREN_FILE_OUTBOX

std::string notKept(const std::string& path, const std::string& reason) {
    return "The outbox file " + path + " could not keep the message (" + reason + "); the message is not kept.";
}

std::vector<std::string> numbered(int from, int to) {
    std::vector<std::string> out;
    for (int i = from; i < to; ++i) out.push_back("message " + std::to_string(i));
    return out;
}

class FileOutboxFailures : public testing::Test {
protected:
    void SetUp() override { TestVfs::install(); }
    void TearDown() override { TestVfs::install(); }
    std::string path() const { return folder.file("outbox.db"); }

    /** A store on the test storage layer with messages 0 to n-1. */
    std::unique_ptr<internal::OutboxStore> storeWith(int n) {
        auto store = openOutbox(fileOptions(path()), nullptr, TestVfs::name());
        for (const std::string& body : numbered(0, n)) store->add("/queue/a", HeaderMap(), body, nullptr);
        return store;
    }

    void expectRefused(internal::OutboxStore& store, const std::string& body, const std::string& reason) {
        try {
            store.add("/queue/a", HeaderMap{{"k", "v"}}, body, nullptr);
            ADD_FAILURE() << "kept a message the storage failed to write";
        } catch (const tavren::OutboxException& e) {
            EXPECT_EQ(notKept(path(), reason), e.what());
        }
    }

    TempFolder folder;
};

TEST_F(FileOutboxFailures, AFullDiskRefusesTheMessageAndKeepsTheOthers) {
    auto store = storeWith(5);
    TestVfs::failWritesAfter(0, SQLITE_FULL);
    expectRefused(*store, "refused", "database or disk is full");
    EXPECT_EQ(5u, store->count());
    EXPECT_EQ(numbered(0, 5), bodiesOf(*store));
    // Part of a large message written before the disk filled.
    TestVfs::failWritesAfter(6000, SQLITE_FULL);
    expectRefused(*store, std::string(20000, 'x'), "database or disk is full");
    // Room again: the store goes on.
    TestVfs::failWritesAfter(-1, SQLITE_FULL);
    store->add("/queue/a", HeaderMap(), "message 5", nullptr);
    store.reset();
    EXPECT_EQ(numbered(0, 6), bodiesOf(*openOutbox(fileOptions(path()))));
}

TEST_F(FileOutboxFailures, AnIoErrorRefusesTheMessageAndKeepsTheOthers) {
    auto store = storeWith(3);
    TestVfs::failWritesAfter(100, SQLITE_IOERR_WRITE);
    expectRefused(*store, std::string(10000, 'x'), "disk I/O error");
    EXPECT_EQ(3u, store->count());
    TestVfs::failWritesAfter(-1, SQLITE_FULL);
    store.reset();
    EXPECT_EQ(numbered(0, 3), bodiesOf(*openOutbox(fileOptions(path()))));
}

TEST_F(FileOutboxFailures, ASmallFileSystemFillsUp) {
    if (!folder.mountTmpfs(256)) GTEST_SKIP() << "mounting a tmpfs needs root";
    auto store = openOutbox(fileOptions(path()));
    int kept = 0;
    std::string failure;
    for (; kept < 1000; ++kept) {
        try {
            store->add("/queue/a", HeaderMap(), "message " + std::to_string(kept) + std::string(1024, '.'), nullptr);
        } catch (const tavren::OutboxException& e) {
            failure = e.what();
            break;
        }
    }
    EXPECT_EQ(notKept(path(), "database or disk is full"), failure);
    EXPECT_LT(10, kept);
    EXPECT_EQ(static_cast<std::size_t>(kept), store->count());
    store.reset();
    // Room made again, the file holds every message kept, and no other.
    ASSERT_EQ(0, mount("tmpfs", folder.path.c_str(), "tmpfs", MS_REMOUNT, "size=1m"));
    auto reopened = openOutbox(fileOptions(path()));
    const std::vector<internal::OutboxEntry> all = readAll(*reopened);
    ASSERT_EQ(static_cast<std::size_t>(kept), all.size());
    for (int i = 0; i < kept; ++i) EXPECT_EQ("message " + std::to_string(i) + std::string(1024, '.'), all[i].body);
}

/** Opens the read-only outbox: what it keeps is read, a new message is refused. 0 when all is as it should be. */
int checkReadOnly(const std::string& path) {
    try {
        auto store = openOutbox(fileOptions(path));
        if (bodiesOf(*store) != numbered(0, 2)) return 2;
        try {
            store->add("/queue/a", HeaderMap(), "refused", nullptr);
            return 3;
        } catch (const tavren::OutboxException& e) {
            if (notKept(path, "attempt to write a readonly database") != e.what()) {
                std::fprintf(stderr, "%s\n", e.what());
                return 4;
            }
        }
        return store->count() == 2 ? 0 : 5;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 6;
    }
}

TEST_F(FileOutboxFailures, AReadOnlyFileIsReadButRefusesNewMessages) {
    storeWith(2).reset();
    ASSERT_EQ(0, chmod(path().c_str(), 0444));
    ASSERT_EQ(0, chmod(folder.path.c_str(), 0777));
    if (geteuid() != 0) {
        EXPECT_EQ(0, checkReadOnly(path()));
        return;
    }
    // Root writes any file: the check runs as nobody.
    const pid_t child = fork();
    if (child == 0) _exit(setgid(65534) == 0 && setuid(65534) == 0 ? checkReadOnly(path()) : 7);
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
}

TEST_F(FileOutboxFailures, TheTestStorageLosesWhatWasNotSynced) {
    TestVfs::holdUnsyncedWrites();
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK,
              sqlite3_open_v2(path().c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, TestVfs::name()));
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db,
                                      "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;"
                                      "CREATE TABLE t (x); INSERT INTO t VALUES (1);",
                                      nullptr, nullptr, nullptr));
    EXPECT_EQ(SQLITE_OK,
              sqlite3_exec(db, "PRAGMA synchronous = OFF; INSERT INTO t VALUES (2);", nullptr, nullptr, nullptr));
    TestVfs::losePower();
    sqlite3_close(db);
    TestVfs::install();
    ASSERT_EQ(SQLITE_OK, sqlite3_open(path().c_str(), &db));
    sqlite3_stmt* count = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, "SELECT group_concat(x) FROM t", -1, &count, nullptr));
    ASSERT_EQ(SQLITE_ROW, sqlite3_step(count));
    EXPECT_STREQ("1", reinterpret_cast<const char*>(sqlite3_column_text(count, 0)));
    sqlite3_finalize(count);
    sqlite3_close(db);
}

TEST_F(FileOutboxFailures, EveryMessageAcceptedUnderPowerLossSurvivesAPowerLoss) {
    TestVfs::holdUnsyncedWrites();
    auto store = openOutbox(fileOptions(path()), nullptr, TestVfs::name());
    std::mutex lock;
    std::vector<std::string> accepted;
    std::vector<std::thread> adders;
    for (int t = 0; t < 4; ++t) {
        adders.emplace_back([&, t] {
            for (int i = 0; i < 150; ++i) {
                const std::string body = std::to_string(t) + "/" + std::to_string(i);
                store->add("/queue/a", HeaderMap{{"n", body}}, body + std::string(500, '.'), nullptr);
                std::lock_guard<std::mutex> guard(lock);
                accepted.push_back(body);
            }
        });
    }
    // Confirmations meanwhile: removals are not synced, so these may come back.
    std::vector<internal::OutboxEntry> first;
    while (first.size() < 100) {
        first.clear();
        store->readAfter(0, 100, &first);
    }
    std::vector<std::uint64_t> confirmed;
    for (const internal::OutboxEntry& entry : first) confirmed.push_back(entry.sequence);
    store->remove(confirmed);
    for (std::thread& adder : adders) adder.join();
    TestVfs::losePower();
    store.reset();
    TestVfs::install();
    auto reopened = openOutbox(fileOptions(path()));
    std::set<std::string> found;
    for (const internal::OutboxEntry& entry : readAll(*reopened)) found.insert(entry.headers.at("n"));
    for (const internal::OutboxEntry& entry : first) found.insert(entry.headers.at("n"));
    for (const std::string& body : accepted) EXPECT_EQ(1u, found.count(body)) << body << " was lost";
}

TEST_F(FileOutboxFailures, PowerLossSyncsOnceACommitAndNeverForARemoval) {
    auto store = openOutbox(fileOptions(path()), nullptr, TestVfs::name());
    const long before = TestVfs::syncs();
    std::vector<std::uint64_t> sequences;
    for (const std::string& body : numbered(0, 50))
        sequences.push_back(store->add("/queue/a", HeaderMap(), body, nullptr));
    const long afterAdds = TestVfs::syncs();
    EXPECT_LE(afterAdds - before, 50 + 1) << "syncs for 50 adds one after another";
    EXPECT_GE(afterAdds - before, 50);
    for (std::uint64_t sequence : sequences) store->remove({sequence});
    EXPECT_EQ(afterAdds, TestVfs::syncs()) << "removals synced";
    EXPECT_EQ(0u, store->count());
}

#endif

} // namespace
} // namespace test
} // namespace tavren
