// The clock against CLOCK_MONOTONIC read around each call.
#include "xel_clock.h"

#include <ctime>

#include <gtest/gtest.h>

namespace
{

uint64_t MonotonicNano()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000U + static_cast<uint64_t>(now.tv_nsec);
}

TEST(Clock, MicrosecondsAreThoseOfTheMonotonicClock)
{
    for (int i = 0; i < 1000; i++) {
        const uint64_t before = MonotonicNano() / 1000;
        uint64_t now = 0;
        ASSERT_EQ(SystimeGetMicroSec(&now), XEL_OK);
        const uint64_t after = MonotonicNano() / 1000;
        ASSERT_LE(before, now);
        ASSERT_LE(now, after);
    }
}

TEST(Clock, MillisecondsAreThoseOfTheMonotonicClock)
{
    for (int i = 0; i < 1000; i++) {
        const uint64_t before = MonotonicNano() / 1000000;
        uint64_t now = 0;
        ASSERT_EQ(SystimeGetMilliSec(&now), XEL_OK);
        const uint64_t after = MonotonicNano() / 1000000;
        ASSERT_LE(before, now);
        ASSERT_LE(now, after);
    }
}

TEST(Clock, NullIsRefused)
{
    EXPECT_EQ(SystimeGetMicroSec(nullptr), XEL_FAIL);
    EXPECT_EQ(SystimeGetMilliSec(nullptr), XEL_FAIL);
}

} // namespace
