// Registrations: their numbers, what is refused, and the thread that comes and goes with them.
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "recorder.h"

static constexpr uint32_t kFail = 0xFFFFFFFF;
static constexpr XelDeadloopThreshold kDefault = {100, 100, 200, 300};

TEST(DeadloopRegistration, NullsAndInvalidThresholdsStartNothing)
{
    const XelDeadloopThreshold invalid = {2, 1, 1, 1};
    uint32_t handle = 77;
    EXPECT_EQ(XelDeadloopMonReg(nullptr, &handle), kFail);
    EXPECT_EQ(XelDeadloopMonReg(&invalid, &handle), kFail);
    EXPECT_EQ(XelDeadloopMonReg(&kDefault, nullptr), kFail);
    EXPECT_EQ(handle, 77U);
    EXPECT_EQ(MonitorTid(), 0);
}

TEST(DeadloopRegistration, FullTableRefusesUntilOneEnds)
{
    std::vector<uint32_t> handles(XEL_DEADLOOP_MAX);
    for (uint32_t& handle : handles) {
        ASSERT_EQ(XelDeadloopMonReg(&kDefault, &handle), 0U);
    }
    std::set<uint32_t> distinct(handles.begin(), handles.end());
    EXPECT_EQ(distinct.size(), handles.size());
    EXPECT_FALSE(distinct.contains(kFail));
    EXPECT_FALSE(distinct.contains(0));

    uint32_t extra = 77;
    EXPECT_EQ(XelDeadloopMonReg(&kDefault, &extra), kFail);
    EXPECT_EQ(extra, 77U);
    uint32_t ended = handles[500];
    EXPECT_EQ(XelDeadloopMonUnreg(ended), 0U);
    ASSERT_EQ(XelDeadloopMonReg(&kDefault, &handles[500]), 0U);
    EXPECT_NE(handles[500], ended);
    for (uint32_t handle : handles) {
        EXPECT_EQ(XelDeadloopMonUnreg(handle), 0U);
    }
    EXPECT_TRUE(AwaitNoMonitor());
}

TEST(DeadloopRegistration, UnknownHandlesAreRefused)
{
    Registration registration(kDefault);
    for (uint32_t handle : {0U, 1U, XEL_DEADLOOP_MAX - 1, XEL_DEADLOOP_MAX,
                            registration.Handle() + 1, registration.Handle() + XEL_DEADLOOP_MAX,
                            registration.Handle() ^ 0x80000000U, kFail - 1, kFail}) {
        if (handle == registration.Handle()) {
            continue;
        }
        EXPECT_EQ(XelDeadloopMonProcSet(handle), kFail) << handle;
        EXPECT_EQ(XelDeadloopMonBegin(0, &handle), kFail) << handle;
        EXPECT_EQ(XelDeadloopMonEnd(handle, 1), kFail) << handle;
        EXPECT_EQ(XelDeadloopMonUnreg(handle), kFail) << handle;
    }
    EXPECT_EQ(XelDeadloopMonBegin(0, nullptr), kFail);
    EXPECT_EQ(registration.Begin(), 0U);
    EXPECT_EQ(registration.End(), 0U);
}

TEST(DeadloopRegistration, EndedHandleStaysRefusedWhenItsPlaceIsTakenAgain)
{
    Registration other(kDefault);
    Registration registration(kDefault);
    uint32_t ended = registration.Handle();
    ASSERT_EQ(registration.Unreg(), 0U);
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(XelDeadloopMonUnreg(ended), kFail);
        EXPECT_EQ(XelDeadloopMonProcSet(ended), kFail);
        EXPECT_EQ(XelDeadloopMonBegin(0, &ended), kFail);
        EXPECT_EQ(XelDeadloopMonEnd(ended, 1), kFail);
        Registration successor(kDefault); // the second round meets the place in use
        EXPECT_NE(successor.Handle(), ended);
        EXPECT_EQ(XelDeadloopMonUnreg(ended), kFail);
    }
}

TEST(DeadloopRegistration, BeginAndEndAcceptEveryReservedWordAndPhase)
{
    Registration registration(kDefault);
    uint32_t handle = registration.Handle();
    for (uint32_t word : {0U, 1U, 2U, kFail}) {
        EXPECT_EQ(XelDeadloopMonBegin(word, &handle), 0U);
        EXPECT_EQ(XelDeadloopMonEnd(handle, word), 0U);
    }
}

TEST(DeadloopRegistration, OneThreadServesAllAndEndsWithTheLast)
{
    ASSERT_EQ(MonitorTid(), 0);
    Registration first(kDefault);
    int tid = AwaitMonitorTid();
    ASSERT_NE(tid, 0);
    size_t threads = ThreadCount();
    Registration second(kDefault);
    Registration third(kDefault);
    EXPECT_EQ(ThreadCount(), threads);
    EXPECT_EQ(first.Unreg(), 0U);
    EXPECT_EQ(third.Unreg(), 0U);
    EXPECT_EQ(MonitorTid(), tid);
    EXPECT_EQ(second.Unreg(), 0U);
    EXPECT_TRUE(AwaitNoMonitor());
}

TEST(DeadloopRegistration, ThousandRoundsLeaveNoThreadBehind)
{
    // The first thread of a process may bring one of a sanitizer's along.
    std::thread([] {}).join();
    {
        Registration warmUp(kDefault);
    }
    ASSERT_TRUE(AwaitNoMonitor());
    size_t before = ThreadCount();
    for (int round = 0; round < 1000; round++) {
        uint32_t handle = kFail;
        ASSERT_EQ(XelDeadloopMonReg(&kDefault, &handle), 0U);
        ASSERT_EQ(XelDeadloopMonProcSet(handle), 0U);
        ASSERT_EQ(XelDeadloopMonBegin(0, &handle), 0U);
        ASSERT_EQ(XelDeadloopMonUnreg(handle), 0U);
    }
    EXPECT_TRUE(AwaitThreadCount(before));
    EXPECT_EQ(MonitorTid(), 0);
    EXPECT_TRUE(LogLines().empty());
}

TEST(DeadloopRegistration, StopDoesNotWaitForTheNextLook)
{
    // Looks once per minute at most; the stop must interrupt that.
    const XelDeadloopThreshold rare = {60000, 60000, 60000, 60000};
    uint32_t handle = kFail;
    ASSERT_EQ(XelDeadloopMonReg(&rare, &handle), 0U);
    int tid = AwaitMonitorTid();
    ASSERT_NE(tid, 0);
    ASSERT_TRUE(AwaitMonitorSleeps(tid, 1));
    uint64_t before = NowMs();
    ASSERT_EQ(XelDeadloopMonUnreg(handle), 0U);
    EXPECT_LT(NowMs() - before, 20'000U);
    EXPECT_TRUE(AwaitNoMonitor());
}

TEST(DeadloopRegistration, NewRegistrationDoesNotWaitForTheNextLook)
{
    ReportRecorder recorder;
    Registration rare({60000, 60000, 60000, 60000});
    int tid = AwaitMonitorTid();
    ASSERT_NE(tid, 0);
    ASSERT_TRUE(AwaitMonitorSleeps(tid, 1));
    Registration quick({1, 2, 3, 4});
    uint64_t before = NowMs();
    ASSERT_EQ(quick.Begin(), 0U);
    ASSERT_TRUE(recorder.AwaitKind(quick.Handle(), XEL_DEADLOOP_DEAD));
    EXPECT_LT(NowMs() - before, 30'000U); // the rare one alone is looked at once per minute
    EXPECT_EQ(quick.End(), 0U);
}

TEST(DeadloopRegistration, SleepingProcessIsLookedAtOncePerTenthOfTheShortestInterval)
{
    Registration shortest({100, 100, 200, 300});
    Registration longer({150, 150, 200, 300});
    Registration longest({1000, 1000, 2000, 3000});
    Registration equal({100, 100, 200, 300});
    int tid = AwaitMonitorTid();
    ASSERT_NE(tid, 0);
    ASSERT_TRUE(AwaitMonitorSleeps(tid, MonitorSleeps(tid) + 4)); // all registrations are noticed
    uint64_t sleeps = MonitorSleeps(tid);
    uint64_t start = NowMs();
    ASSERT_TRUE(AwaitMonitorSleeps(tid, sleeps + 5));
    // The first of the five may have come at once.
    EXPECT_GE(NowMs() - start, 4 * 100U - 1);
}
