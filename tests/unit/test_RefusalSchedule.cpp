// SPDX-License-Identifier: Apache-2.0
#include "client/RefusalSchedule.h"

#include "client/Defaults.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace tavren {
namespace internal {
namespace {

TEST(RefusalSchedule, EachRefusalInARowDoublesTheWaitUpToTheCap) {
    RefusalSchedule calm;
    const int period = 1000;
    for (int i = 0; i < 3; ++i) {
        calm.connected();
        calm.ended(true, false, period);
    }
    EXPECT_EQ(calm.count(), 3);
    EXPECT_EQ(calm.waitMs(period), 4000);
    for (int i = 0; i < 20; ++i) calm.ended(true, false, period);
    EXPECT_EQ(calm.waitMs(period), kRefusalBackoffCapMs);
}

TEST(RefusalSchedule, AConnectionThatStoodAPeriodStartsAgainUnlessItWasRefused) {
    RefusalSchedule calm;
    const int period = 20;
    calm.connected();
    calm.ended(true, false, period);
    calm.connected();
    calm.ended(true, false, period);
    ASSERT_EQ(calm.count(), 2);
    // Refused after a slow start: still a refusal in the row.
    calm.connected();
    std::this_thread::sleep_for(std::chrono::milliseconds(2 * period));
    calm.ended(true, false, period);
    EXPECT_EQ(calm.count(), 3);
    // Stood the period and ended without a refusal: the row is over.
    calm.connected();
    std::this_thread::sleep_for(std::chrono::milliseconds(2 * period));
    calm.ended(false, false, period);
    EXPECT_EQ(calm.count(), 0);
}

TEST(RefusalSchedule, AMessageMakesAShortConnectionNoRefusal) {
    RefusalSchedule calm;
    calm.connected();
    calm.messageCame();
    calm.ended(false, false, 60000);
    EXPECT_EQ(calm.count(), 0);
    calm.connected();
    calm.ended(false, false, 60000);
    EXPECT_EQ(calm.count(), 1);
}

TEST(BrokerRefusal, OnlyAnErrorRightBeforeTheEndClosedTheConnection) {
    BrokerRefusal error;
    EXPECT_FALSE(error.closedTheConnection());
    error.seen = true;
    error.at = std::chrono::steady_clock::now();
    EXPECT_TRUE(error.closedTheConnection());
    error.at -= std::chrono::milliseconds(kRefusalCloseMs + 100);
    EXPECT_FALSE(error.closedTheConnection());
}

} // namespace
} // namespace internal
} // namespace tavren
