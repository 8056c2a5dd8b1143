// The default thresholds in real time.
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "recorder.h"

TEST(DeadloopDefaultSlow, UnitOfThreeAndAHalfSecondsHasAllThreeReports)
{
    XelDeadloopThreshold threshold = {};
    ASSERT_EQ(XelDeadloopGetThreshold(&threshold, 100), 0U);
    ReportRecorder recorder;
    Registration registration(threshold);
    // Begin right behind a look, the longest way from the next.
    ASSERT_TRUE(AwaitLooks(3));
    uint64_t beginMs = NowMs();
    ASSERT_EQ(registration.Begin(), 0U);
    std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    ASSERT_TRUE(recorder.Await(3));
    ASSERT_EQ(registration.End(), 0U);
    ASSERT_TRUE(recorder.Await(4));
    ASSERT_EQ(registration.Unreg(), 0U);

    const struct {
        uint32_t kind;
        uint32_t level;
        uint64_t afterMs;
    } expected[] = {
        {XEL_DEADLOOP_FIRST, 80, 1000},
        {XEL_DEADLOOP_SECOND, 80, 2000},
        {XEL_DEADLOOP_DEAD, 100, 3000},
        {XEL_DEADLOOP_ENDED, 20, 3500},
    };
    auto entries = recorder.Entries();
    ASSERT_EQ(entries.size(), 4U);
    for (size_t i = 0; i < entries.size(); i++) {
        EXPECT_EQ(entries[i].report.kind, expected[i].kind);
        EXPECT_EQ(entries[i].report.level, expected[i].level);
        EXPECT_GE(entries[i].atMs - beginMs, expected[i].afterMs);
        RecordProperty("report" + std::to_string(i), std::to_string(entries[i].atMs - beginMs));
    }
    EXPECT_GE(entries[3].report.elapsedMs, entries[2].report.elapsedMs);
}

TEST(DeadloopDefaultSlow, UnitAfterALongSleepHasAllThreeReportsAsWell)
{
    ReportRecorder recorder;
    Registration registration({100, 100, 200, 300});
    std::this_thread::sleep_for(std::chrono::milliseconds(2350));
    uint64_t beginMs = NowMs();
    ASSERT_EQ(registration.Begin(), 0U);
    ASSERT_TRUE(recorder.Await(3));
    ASSERT_EQ(registration.End(), 0U);
    ASSERT_TRUE(recorder.Await(4));
    auto entries = recorder.Entries();
    ASSERT_EQ(entries.size(), 4U);
    for (uint32_t i = 0; i < 3; i++) {
        EXPECT_EQ(entries[i].report.kind, XEL_DEADLOOP_FIRST + i);
        EXPECT_GE(entries[i].atMs - beginMs, (i + 1) * 1000U);
        RecordProperty("report" + std::to_string(i), std::to_string(entries[i].atMs - beginMs));
    }
    EXPECT_EQ(entries[3].report.kind, XEL_DEADLOOP_ENDED);
}

TEST(DeadloopDefaultSlow, BusyThreadOfShortUnitsIsSilent)
{
    ReportRecorder recorder;
    Registration registration({100, 100, 200, 300});
    for (uint64_t start = NowMs(); NowMs() - start < 4000;) {
        ASSERT_EQ(registration.Begin(), 0U);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ASSERT_EQ(registration.End(), 0U);
    }
    ASSERT_EQ(registration.Unreg(), 0U);
    EXPECT_EQ(recorder.Count(), 0U);
}
