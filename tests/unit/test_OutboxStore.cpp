// SPDX-License-Identifier: Apache-2.0
// What every outbox does, in memory and in a file under both durabilities:
// order, paging, removal, bounds and both policies when full; and what a
// memory outbox costs.
#include "outbox/FileOutbox.h"
#include "outbox/OutboxStore.h"

#include "support/Memory.h"
#include "support/TempFolder.h"
#include "support/UuidText.h"

#include <tavren/OutboxException.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace tavren {
namespace internal {
namespace {

enum class Kind { Memory, FileCrash, FilePowerLoss };

std::string kindName(const testing::TestParamInfo<Kind>& info) {
    switch (info.param) {
    case Kind::Memory: return "Memory";
    case Kind::FileCrash: return "FileCrash";
    default: return "FilePowerLoss";
    }
}

class OutboxStoreTest : public testing::TestWithParam<Kind> {
protected:
    std::unique_ptr<OutboxStore> open(tavren::OutboxOptions options = tavren::OutboxOptions()) {
        if (GetParam() == Kind::Memory) return makeMemoryOutbox(options);
        options.file = folder.file("outbox.db");
        options.durability =
            GetParam() == Kind::FileCrash ? tavren::OutboxOptions::Crash : tavren::OutboxOptions::PowerLoss;
        return openFileOutbox(options, [](const std::string& line) { ADD_FAILURE() << line; });
    }

    std::vector<OutboxEntry> readAll(OutboxStore& store) {
        std::vector<OutboxEntry> out;
        store.readAfter(0, 1000000, &out);
        return out;
    }

    std::vector<std::string> bodies(OutboxStore& store) {
        std::vector<std::string> out;
        for (const OutboxEntry& entry : readAll(store)) out.push_back(entry.body);
        return out;
    }

    test::TempFolder folder;
};

TEST_P(OutboxStoreTest, KeepsMessagesInTheOrderOfTheirAdds) {
    auto store = open();
    const HeaderMap headers{{"priority", "4"}, {"type", "reading"}};
    const std::uint64_t first = store->add("/queue/a", headers, "one", nullptr);
    const std::uint64_t second = store->add("/queue/b", HeaderMap(), std::string("t\0o", 3), nullptr);
    const std::uint64_t third = store->add("/queue/a", HeaderMap(), "", nullptr);
    EXPECT_LT(first, second);
    EXPECT_LT(second, third);
    const std::vector<OutboxEntry> all = readAll(*store);
    ASSERT_EQ(3u, all.size());
    EXPECT_EQ(first, all[0].sequence);
    EXPECT_EQ("/queue/a", all[0].destination);
    EXPECT_EQ(headers, all[0].headers);
    EXPECT_EQ("one", all[0].body);
    EXPECT_EQ(std::string("t\0o", 3), all[1].body);
    EXPECT_TRUE(all[1].headers.empty());
    EXPECT_EQ(third, all[2].sequence);
    EXPECT_EQ(3u, store->count());
    // Bodies, destinations, header names and values.
    EXPECT_EQ((8u + 8 + 1 + 4 + 7 + 3) + (8 + 3) + (8 + 0), store->bytes());
    EXPECT_EQ(36u, store->idPrefix().size());
    EXPECT_EQ(GetParam() != Kind::Memory, store->durable());
}

TEST_P(OutboxStoreTest, ReadsInPagesAfterASequence) {
    auto store = open();
    std::vector<std::uint64_t> sequences;
    for (int i = 0; i < 25; ++i) sequences.push_back(store->add("/queue/a", HeaderMap(), std::to_string(i), nullptr));
    std::vector<OutboxEntry> page;
    store->readAfter(0, 10, &page);
    ASSERT_EQ(10u, page.size());
    EXPECT_EQ("9", page.back().body);
    store->readAfter(page.back().sequence, 10, &page);
    ASSERT_EQ(20u, page.size());
    EXPECT_EQ("10", page[10].body);
    store->readAfter(page.back().sequence, 10, &page);
    ASSERT_EQ(25u, page.size());
    for (int i = 0; i < 25; ++i) EXPECT_EQ(sequences[i], page[i].sequence);
    store->readAfter(page.back().sequence, 10, &page);
    EXPECT_EQ(25u, page.size());
    store->readAfter(sequences[3], 2, &page);
    ASSERT_EQ(27u, page.size());
    EXPECT_EQ("4", page[25].body);
    EXPECT_EQ("5", page[26].body);
}

TEST_P(OutboxStoreTest, RemovesWhatIsConfirmedAndIgnoresWhatIsNotKept) {
    auto store = open();
    std::vector<std::uint64_t> s;
    for (int i = 0; i < 5; ++i) s.push_back(store->add("/queue/a", HeaderMap(), "body" + std::to_string(i), nullptr));
    store->remove({s[0], s[2], s[2], 999999});
    EXPECT_EQ((std::vector<std::string>{"body1", "body3", "body4"}), bodies(*store));
    EXPECT_EQ(3u, store->count());
    EXPECT_EQ(3u * (8 + 5), store->bytes());
    store->remove({});
    store->remove({s[1], s[3], s[4]});
    EXPECT_EQ(0u, store->count());
    EXPECT_EQ(0u, store->bytes());
    // Sequences are never given twice.
    EXPECT_GT(store->add("/queue/a", HeaderMap(), "again", nullptr), s[4]);
}

TEST_P(OutboxStoreTest, RefusesANewMessageWhenFullOfMessages) {
    tavren::OutboxOptions options;
    options.maxMessages = 3;
    auto store = open(options);
    for (int i = 0; i < 3; ++i) store->add("/queue/a", HeaderMap(), std::to_string(i), nullptr);
    try {
        store->add("/queue/a", HeaderMap(), "3", nullptr);
        FAIL() << "kept a fourth message";
    } catch (const tavren::OutboxException& e) {
        EXPECT_STREQ("The outbox is full: 3 messages of at most 3 are kept; the message is not kept.", e.what());
    }
    EXPECT_EQ((std::vector<std::string>{"0", "1", "2"}), bodies(*store));
    store->remove({readAll(*store)[0].sequence});
    store->add("/queue/a", HeaderMap(), "3", nullptr);
    EXPECT_EQ((std::vector<std::string>{"1", "2", "3"}), bodies(*store));
}

TEST_P(OutboxStoreTest, RefusesANewMessageWhenFullOfBytes) {
    tavren::OutboxOptions options;
    options.maxBytes = 100;
    auto store = open(options);
    store->add("/queue/a", HeaderMap(), std::string(80, 'x'), nullptr); // 88 bytes
    try {
        store->add("/queue/a", HeaderMap{{"k", "v"}}, "12345", nullptr); // 15 bytes
        FAIL() << "kept more than 100 bytes";
    } catch (const tavren::OutboxException& e) {
        EXPECT_STREQ("The outbox is full: 88 bytes of at most 100 are kept, and the message has 15; the message is not "
                     "kept.",
                     e.what());
    }
    store->add("/queue/a", HeaderMap(), "1234", nullptr); // 12 bytes: exactly 100
    EXPECT_EQ(100u, store->bytes());
    EXPECT_EQ(2u, store->count());
}

TEST_P(OutboxStoreTest, DropsTheOldestToMakeRoom) {
    tavren::OutboxOptions options;
    options.maxMessages = 3;
    options.maxBytes = 60;
    options.whenFull = tavren::OutboxOptions::DropOldest;
    auto store = open(options);
    std::vector<std::uint64_t> s;
    s.push_back(store->add("/queue/a", HeaderMap(), "0", nullptr));
    s.push_back(store->add("/queue/b", HeaderMap(), "1", nullptr));
    s.push_back(store->add("/queue/c", HeaderMap(), "2", nullptr));
    std::vector<DroppedEntry> dropped;
    s.push_back(store->add("/queue/d", HeaderMap(), "3", &dropped));
    ASSERT_EQ(1u, dropped.size());
    EXPECT_EQ(s[0], dropped[0].sequence);
    EXPECT_EQ("/queue/a", dropped[0].destination);
    // 43 bytes need two to go: the count allows two beside it, the bytes only one of 9.
    dropped.clear();
    store->add("/queue/e", HeaderMap(), std::string(35, 'x'), &dropped);
    ASSERT_EQ(2u, dropped.size());
    EXPECT_EQ(s[1], dropped[0].sequence);
    EXPECT_EQ("/queue/b", dropped[0].destination);
    EXPECT_EQ(s[2], dropped[1].sequence);
    EXPECT_EQ("/queue/c", dropped[1].destination);
    EXPECT_EQ((std::vector<std::string>{"3", std::string(35, 'x')}), bodies(*store));
    EXPECT_EQ(52u, store->bytes());
    // Dropping without a list to report to still drops.
    store->add("/queue/f", HeaderMap(), std::string(20, 'y'), nullptr);
    EXPECT_EQ((std::vector<std::string>{std::string(20, 'y')}), bodies(*store));
    EXPECT_EQ(1u, store->count());
    EXPECT_EQ(28u, store->bytes());
}

TEST_P(OutboxStoreTest, RefusesAMessageLargerThanTheWholeOutboxUnderBothPolicies) {
    for (auto policy : {tavren::OutboxOptions::RefuseNew, tavren::OutboxOptions::DropOldest}) {
        tavren::OutboxOptions options;
        options.maxBytes = 50;
        options.whenFull = policy;
        auto store = open(options);
        store->add("/queue/a", HeaderMap(), "kept", nullptr);
        std::vector<DroppedEntry> dropped;
        try {
            store->add("/queue/a", HeaderMap(), std::string(43, 'x'), &dropped);
            FAIL() << "kept a message larger than the outbox";
        } catch (const tavren::OutboxException& e) {
            EXPECT_STREQ("The message has 51 bytes, more than the outbox keeps at most (50); the message is not kept.",
                         e.what());
        }
        EXPECT_TRUE(dropped.empty());
        EXPECT_EQ((std::vector<std::string>{"kept"}), bodies(*store));
        store->remove({readAll(*store)[0].sequence});
    }
}

TEST(MemoryOutbox, EachOutboxHasAFreshUuidAsItsPrefix) {
    auto one = makeMemoryOutbox(tavren::OutboxOptions());
    auto two = makeMemoryOutbox(tavren::OutboxOptions());
    EXPECT_TRUE(test::isUuid(one->idPrefix())) << one->idPrefix();
    EXPECT_NE(one->idPrefix(), two->idPrefix());
    EXPECT_FALSE(one->durable());
}

TEST(MemoryOutbox, TenThousandMessagesOfOneKibGrowTheProcessByAtMostSixteenMib) {
    SKIP_UNDER_SANITIZERS();
    SKIP_UNDER_VALGRIND();
    const HeaderMap headers{{"content-type", "application/json"}};
    const std::string body(1024, 'r');
    auto store = makeMemoryOutbox(tavren::OutboxOptions());
    const long before = test::residentKiB();
    for (int i = 0; i < 10000; ++i) store->add("/queue/readings", headers, body, nullptr);
    const long grown = test::residentKiB() - before;
    std::printf("10000 messages of 1 KiB in a memory outbox: RSS grew by %ld KiB (%.0f bytes a message)\n", grown,
                grown * 1024.0 / 10000);
    EXPECT_EQ(10000u, store->count());
    EXPECT_LE(grown, 16 * 1024);
}

INSTANTIATE_TEST_SUITE_P(, OutboxStoreTest,
#ifdef TAVREN_FILE_OUTBOX
                         testing::Values(Kind::Memory, Kind::FileCrash, Kind::FilePowerLoss),
#else
                         testing::Values(Kind::Memory),
#endif
                         kindName);

} // namespace
} // namespace internal
} // namespace tavren
