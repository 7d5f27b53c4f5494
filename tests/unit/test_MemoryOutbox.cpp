// SPDX-License-Identifier: Apache-2.0
// What a memory outbox costs, and its id prefix.
#include "outbox/OutboxStore.h"

#include "support/Memory.h"
#include "support/UuidText.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace tavren {
namespace internal {
namespace {

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

} // namespace
} // namespace internal
} // namespace tavren
