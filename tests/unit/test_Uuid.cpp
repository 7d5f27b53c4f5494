// SPDX-License-Identifier: Apache-2.0
#include <kelvra/utility/Uuid.h>

#include "support/UuidText.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kelvra {
namespace utility {
namespace {

using tavren::test::isUuid;

TEST(Uuid, Form) {
    for (int i = 0; i < 100; ++i) {
        const std::string id = generateUuid();
        EXPECT_EQ(36u, id.size());
        EXPECT_TRUE(isUuid(id)) << id;
        EXPECT_EQ('4', id[14]) << id;
    }
}

TEST(Uuid, Distinct) {
    std::set<std::string> ids;
    for (int i = 0; i < 10000; ++i) ids.insert(generateUuid());
    EXPECT_EQ(10000u, ids.size());
}

TEST(Uuid, DistinctAcrossThreads) {
    const int threads = 4;
    const int each = 1000;
    std::vector<std::vector<std::string>> made(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&made, t, each] {
            for (int i = 0; i < each; ++i) made[t].push_back(generateUuid());
        });
    for (std::thread& w : workers) w.join();
    std::set<std::string> ids;
    for (const std::vector<std::string>& v : made) ids.insert(v.begin(), v.end());
    EXPECT_EQ(static_cast<size_t>(threads * each), ids.size());
}

} // namespace
} // namespace utility
} // namespace kelvra
