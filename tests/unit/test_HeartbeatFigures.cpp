// SPDX-License-Identifier: Apache-2.0
#include "client/Heartbeats.h"

#include <gtest/gtest.h>

namespace tavren {
namespace internal {
namespace {

TEST(Heartbeats, EachDirectionRunsAtTheLargerOfItsTwoFigures) {
    // Client: sends every 100, wants every 300. Broker: sends every 500, wants every 200.
    const Heartbeats agreed = Heartbeats::agree("100", "300", "500", "200");
    EXPECT_EQ(agreed.sendEveryMs, 200);
    EXPECT_EQ(agreed.expectEveryMs, 500);
}

TEST(Heartbeats, AZeroOnEitherSideSwitchesThatDirectionOff) {
    EXPECT_EQ(Heartbeats::agree("0", "300", "500", "200").sendEveryMs, 0);
    EXPECT_EQ(Heartbeats::agree("100", "300", "500", "0").sendEveryMs, 0);
    EXPECT_EQ(Heartbeats::agree("100", "0", "500", "200").expectEveryMs, 0);
    EXPECT_EQ(Heartbeats::agree("100", "300", "0", "200").expectEveryMs, 0);
}

TEST(Heartbeats, FiguresThatAreNotNumbersCountAsZero) {
    EXPECT_EQ(Heartbeats::figure(""), 0);
    EXPECT_EQ(Heartbeats::figure("abc"), 0);
    EXPECT_EQ(Heartbeats::figure("10x"), 0);
    EXPECT_EQ(Heartbeats::figure("-5"), 0);
    EXPECT_EQ(Heartbeats::figure("99999999999999999999999"), 0);
    EXPECT_EQ(Heartbeats::figure("1000"), 1000);
    EXPECT_EQ(Heartbeats::agree("x", "y", "1000", "1000").sendEveryMs, 0);
}

} // namespace
} // namespace internal
} // namespace tavren
