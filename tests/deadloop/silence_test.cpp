// Silence: what must not be reported.
#include <chrono>
#include <csignal>
#include <cstdint>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "recorder.h"

using namespace std::chrono_literals;

// Reports would come after one second inside one unit: a thread of this test must not be kept from
// the processor for as long as that.
static constexpr XelDeadloopThreshold kSecond = {1, 100, 101, 102};

TEST(DeadloopSilence, ShortUnitsAreNeverAddedUp)
{
    ReportRecorder recorder;
    Registration registration(kSecond);
    uint64_t units = 0;
    for (uint64_t start = NowMs(); NowMs() - start < 1500; units++) {
        ASSERT_EQ(registration.Begin(), 0U);
        ASSERT_EQ(registration.End(), 0U);
    }
    EXPECT_GT(units, 1000U);
    EXPECT_EQ(registration.Unreg(), 0U);
    EXPECT_EQ(recorder.Count(), 0U);
}

TEST(DeadloopSilence, UnitsAcrossManyLooksAreNotAddedUp)
{
    ReportRecorder recorder;
    Registration registration(kSecond);
    for (uint64_t start = NowMs(); NowMs() - start < 1500;) {
        ASSERT_EQ(registration.Begin(), 0U);
        ASSERT_TRUE(AwaitLooks(5));
        ASSERT_EQ(registration.End(), 0U); // and at once the next
    }
    EXPECT_EQ(registration.Unreg(), 0U);
    EXPECT_EQ(recorder.Count(), 0U);
}

TEST(DeadloopSilence, ThreadBetweenUnitsMaySleepForEver)
{
    ReportRecorder recorder;
    Registration registration({1, 2, 3, 4});
    ASSERT_TRUE(AwaitLooks(20));
    ASSERT_EQ(registration.Begin(), 0U);
    ASSERT_EQ(registration.End(), 0U);
    ASSERT_TRUE(AwaitLooks(20));
    EXPECT_EQ(registration.Unreg(), 0U);
    EXPECT_EQ(recorder.Count(), 0U);
}

TEST(DeadloopSilence, UnitBelowTheFirstThresholdHasNoEndLine)
{
    ReportRecorder recorder;
    Registration registration(kSecond);
    ASSERT_EQ(registration.Begin(), 0U);
    ASSERT_TRUE(AwaitLooks(20));
    ASSERT_EQ(registration.End(), 0U);
    ASSERT_TRUE(AwaitLooks(20));
    EXPECT_EQ(registration.Unreg(), 0U);
    EXPECT_EQ(recorder.Count(), 0U);
}

TEST(DeadloopSilence, StoppedProcessIsNotAtWork)
{
    // The child stops inside a unit that takes a few looks, and answers with its reports.
    pid_t child = 0;
    char path[] = DEADLOOP_STOPPED_CHILD;
    char* arguments[] = {path, nullptr};
    ASSERT_EQ(posix_spawn(&child, path, nullptr, nullptr, arguments, environ), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, WUNTRACED), child);
    ASSERT_TRUE(WIFSTOPPED(status)) << status;
    std::this_thread::sleep_for(1200ms); // longer than the child's dead-loop threshold
    ASSERT_EQ(kill(child, SIGCONT), 0);
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
}
