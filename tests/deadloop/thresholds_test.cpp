// The table of four numbers and its rules.
#include <gtest/gtest.h>

#include "xel_deadloop.h"

static void ExpectWords(const XelDeadloopThreshold& threshold, uint32_t check, uint32_t first,
                        uint32_t second, uint32_t dead)
{
    EXPECT_EQ(threshold.checkTicks, check);
    EXPECT_EQ(threshold.firstTicks, first);
    EXPECT_EQ(threshold.secondTicks, second);
    EXPECT_EQ(threshold.deadTicks, dead);
}

TEST(DeadloopThreshold, OneHundredMakesTheDefault)
{
    XelDeadloopThreshold threshold = {};
    ASSERT_EQ(XelDeadloopGetThreshold(&threshold, 100), 0U);
    ExpectWords(threshold, 100, 100, 200, 300);
}

TEST(DeadloopThreshold, EveryMadeThresholdIsValid)
{
    for (uint32_t value : {1U, 7U, 10U, 5000U, UINT32_MAX / 3}) {
        XelDeadloopThreshold threshold = {};
        ASSERT_EQ(XelDeadloopGetThreshold(&threshold, value), 0U) << value;
        ExpectWords(threshold, value, value, 2 * value, 3 * value);
        EXPECT_EQ(XelDeadloopCheckThreshold(&threshold), 0U) << value;
    }
}

TEST(DeadloopThreshold, NullZeroAndOverflowMakeNothing)
{
    EXPECT_EQ(XelDeadloopGetThreshold(nullptr, 100), 0xFFFFFFFFU);
    for (uint32_t value : {0U, UINT32_MAX / 3 + 1, UINT32_MAX}) {
        XelDeadloopThreshold threshold = {1, 2, 3, 4};
        EXPECT_EQ(XelDeadloopGetThreshold(&threshold, value), 0xFFFFFFFFU) << value;
        ExpectWords(threshold, 1, 2, 3, 4);
    }
}

TEST(DeadloopThreshold, RisingWordsAreValid)
{
    const XelDeadloopThreshold valid[] = {
        {100, 100, 200, 300},
        {1, 1, 1, 1},
        {1, 5, 10, 15},
        {5, 5, 5, 6},
        {UINT32_MAX, UINT32_MAX, UINT32_MAX, UINT32_MAX},
    };
    for (const XelDeadloopThreshold& threshold : valid) {
        EXPECT_EQ(XelDeadloopCheckThreshold(&threshold), 0U) << threshold.checkTicks;
    }
}

TEST(DeadloopThreshold, ZeroWordsFallingWordsAndNullAreNot)
{
    const XelDeadloopThreshold invalid[] = {
        {0, 0, 0, 0}, {0, 1, 2, 3}, {1, 0, 2, 3}, {1, 1, 0, 3}, {1, 1, 2, 0},
        {6, 5, 7, 8}, {1, 5, 4, 8}, {1, 5, 8, 7}, {2, 1, 1, 1},
    };
    for (const XelDeadloopThreshold& t : invalid) {
        EXPECT_EQ(XelDeadloopCheckThreshold(&t), 0xFFFFFFFFU)
            << t.checkTicks << ' ' << t.firstTicks << ' ' << t.secondTicks << ' ' << t.deadTicks;
    }
    EXPECT_EQ(XelDeadloopCheckThreshold(nullptr), 0xFFFFFFFFU);
}
