// SPDX-License-Identifier: Apache-2.0
// A file outbox across reopening, shared by threads, and kept to one client.
#include "support/Memory.h"
#include "support/OutboxFiles.h"
#include "support/TempFolder.h"

#include <tavren/OutboxException.h>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <thread>

namespace tavren {
namespace test {
namespace {

using internal::OutboxEntry;

#ifdef TAVREN_FILE_OUTBOX

TEST(FileOutbox, ReopeningKeepsTheMessagesTheirOrderAndTheIdPrefix) {
    TempFolder folder;
    const std::string path = folder.file("outbox.db");
    std::string prefix;
    std::uint64_t last = 0;
    {
        auto store = openOutbox(fileOptions(path));
        for (int i = 0; i < 10; ++i)
            last = store->add("/queue/" + std::to_string(i), HeaderMap{{"n", std::to_string(i)}},
                              "body " + std::to_string(i), nullptr);
        store->remove({last - 9, last - 8, last}); // the first two and the last
        prefix = store->idPrefix();
    }
    auto store = openOutbox(fileOptions(path, tavren::OutboxOptions::Crash));
    EXPECT_EQ(prefix, store->idPrefix());
    EXPECT_EQ(7u, store->count());
    EXPECT_EQ(7u * (8 + 1 + 1 + 6), store->bytes());
    const std::vector<OutboxEntry> all = readAll(*store);
    ASSERT_EQ(7u, all.size());
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(last - 7 + i, all[i].sequence);
        EXPECT_EQ("/queue/" + std::to_string(i + 2), all[i].destination);
        EXPECT_EQ((HeaderMap{{"n", std::to_string(i + 2)}}), all[i].headers);
        EXPECT_EQ("body " + std::to_string(i + 2), all[i].body);
    }
    // Sequences go on above the highest ever given, also one no longer kept.
    EXPECT_EQ(last + 1, store->add("/queue/a", HeaderMap(), "more", nullptr));
    // Counted again from the file: the adds since the last removal too.
    store.reset();
    store = openOutbox(fileOptions(path));
    EXPECT_EQ(8u, store->count());
    EXPECT_EQ(7u * (8 + 1 + 1 + 6) + 8 + 4, store->bytes());
    store->remove({last + 1, last - 7});
    store->add("/queue/b", HeaderMap(), "last", nullptr);
    store.reset();
    store = openOutbox(fileOptions(path));
    EXPECT_EQ(7u, store->count());
    EXPECT_EQ(6u * (8 + 1 + 1 + 6) + 8 + 4, store->bytes());
    EXPECT_EQ(last + 2, readAll(*store).back().sequence);
}

TEST(FileOutbox, TwoPrefixesForTwoFiles) {
    TempFolder folder;
    auto one = openOutbox(fileOptions(folder.file("one.db")));
    auto two = openOutbox(fileOptions(folder.file("two.db")));
    EXPECT_NE(one->idPrefix(), two->idPrefix());
}

TEST(FileOutbox, ASecondStoreOnTheFileIsRefusedInTheProcessAndInAnother) {
    TempFolder folder;
    const std::string path = folder.file("outbox.db");
    auto first = openOutbox(fileOptions(path));
    first->add("/queue/a", HeaderMap(), "kept", nullptr);
    try {
        openOutbox(fileOptions(path));
        FAIL() << "a second store opened the file";
    } catch (const tavren::OutboxException& e) {
        EXPECT_EQ("The outbox file " + path + " is used by another client.", std::string(e.what()));
    }
    const pid_t child = fork();
    if (child == 0) {
        try {
            internal::openFileOutbox(fileOptions(path), nullptr);
            _exit(1);
        } catch (const tavren::OutboxException& e) {
            _exit(std::string(e.what()) == "The outbox file " + path + " is used by another client." ? 0 : 2);
        } catch (...) {
            _exit(3);
        }
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    // The refusals took nothing from the first store.
    first->add("/queue/a", HeaderMap(), "still", nullptr);
    EXPECT_EQ((std::vector<std::string>{"kept", "still"}), bodiesOf(*first));
    first.reset();
    EXPECT_EQ((std::vector<std::string>{"kept", "still"}), bodiesOf(*openOutbox(fileOptions(path))));
}

TEST(FileOutbox, ThreadsAddingAtOnceKeepEveryMessageInTheOrderOfEachThread) {
    for (auto durability : {tavren::OutboxOptions::PowerLoss, tavren::OutboxOptions::Crash}) {
        TempFolder folder;
        auto store = openOutbox(fileOptions(folder.file("outbox.db"), durability));
        const int threads = 4, each = 200;
        std::vector<std::thread> adders;
        std::vector<std::vector<std::uint64_t>> sequences(threads);
        for (int t = 0; t < threads; ++t) {
            adders.emplace_back([&, t] {
                for (int i = 0; i < each; ++i) {
                    sequences[t].push_back(store->add("/queue/" + std::to_string(t), HeaderMap(),
                                                      std::to_string(t) + ":" + std::to_string(i), nullptr));
                }
            });
        }
        for (std::thread& adder : adders) adder.join();
        store.reset();
        store = openOutbox(fileOptions(folder.file("outbox.db"), durability));
        const std::vector<OutboxEntry> all = readAll(*store);
        ASSERT_EQ(static_cast<std::size_t>(threads * each), all.size());
        std::vector<int> next(threads, 0);
        for (std::size_t k = 0; k < all.size(); ++k) {
            if (k > 0) {
                EXPECT_LT(all[k - 1].sequence, all[k].sequence);
            }
            const int t = std::stoi(all[k].body.substr(0, 1));
            EXPECT_EQ(std::to_string(t) + ":" + std::to_string(next[t]), all[k].body);
            EXPECT_EQ(sequences[t][next[t]], all[k].sequence);
            ++next[t];
        }
    }
}

TEST(FileOutbox, OpeningAHundredThousandWaitingMessagesReadsNoBody) {
    SKIP_UNDER_SANITIZERS();
    SKIP_UNDER_VALGRIND();
    TempFolder folder;
    const std::string path = folder.file("outbox.db");
    tavren::OutboxOptions options = fileOptions(path, tavren::OutboxOptions::Crash);
    options.maxMessages = 100000;
    options.maxBytes = 200 * 1024 * 1024;
    const std::string body(100, 'm');
    {
        auto store = openOutbox(options);
        std::vector<std::thread> adders;
        for (int t = 0; t < 10; ++t) {
            adders.emplace_back([&] {
                for (int i = 0; i < 10000; ++i) store->add("/queue/readings", HeaderMap(), body, nullptr);
            });
        }
        for (std::thread& adder : adders) adder.join();
    }
    std::FILE* size = std::fopen(path.c_str(), "rb");
    ASSERT_NE(nullptr, size);
    std::fseek(size, 0, SEEK_END);
    const long fileBytes = std::ftell(size);
    std::fclose(size);
    const long rssBefore = residentKiB();
    const auto start = std::chrono::steady_clock::now();
    auto store = openOutbox(options);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(100000u, store->count());
    EXPECT_EQ(100000u * (15 + 100), store->bytes());
    const long rssAfter = residentKiB();
    std::printf("opening %ld KiB with 100000 messages took %.2f ms and %ld KiB of resident memory\n", fileBytes / 1024,
                std::chrono::duration<double, std::milli>(took).count(), rssAfter - rssBefore);
    // Reading every body would bring about the whole file in.
    EXPECT_LT(rssAfter - rssBefore, fileBytes / 1024 / 4);
    std::vector<OutboxEntry> first;
    store->readAfter(0, 1000, &first);
    ASSERT_EQ(1000u, first.size());
    EXPECT_EQ(1u, first[0].sequence);
}

#else

TEST(FileOutbox, IsNotBuiltIn) {
    try {
        internal::openFileOutbox(fileOptions("/tmp/outbox.db"), nullptr);
        FAIL() << "opened a file outbox";
    } catch (const std::logic_error& e) {
        EXPECT_STREQ("File outboxes are not built into this library: useOutbox needs an empty file.", e.what());
    }
}

#endif

} // namespace
} // namespace test
} // namespace tavren
