// The test support itself: what the other tests rely on must really take effect.
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "scheduler/xel_fmm_tbl.h"
#include "scheduler/xel_sch_task_inner.h"
#include "scheduler/xel_scheduler_inner.h"
#include "support/xel_test.h"
#include "xel_clock.h"
#include "xel_log.h"
#include "xel_mem.h"

using namespace xeltest;

namespace
{

class Support : public CleanProcess
{
};

TEST_F(Support, LinesOfTheLibraryAreRecorded)
{
    EXPECT_FALSE(SchTaskHandleIsValid(nullptr));
    const std::vector<LogLine> lines = TakeLog();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].file, "scheduler/xel_sch_task");
    EXPECT_EQ(lines[0].fileNo, 80U);
    EXPECT_EQ(lines[0].level, 100U);
    EXPECT_EQ(lines[0].text, "task handle null.");
    EXPECT_TRUE(TakeLog().empty());
}

TEST_F(Support, ComparisonTellsTextLevelSourceOrderAndNumber)
{
    const auto log = [] {
        LOG_InnerPrint(0, "scheduler/xel_sch_task", 80, "<unknown>", 9, 1, 100, "one %d", 1);
        LOG_InnerPrint(0, "scheduler/xel_scheduler", 81, "<unknown>", 9, 1, 80, "two");
    };
    log();
    EXPECT_LOG(kTaskSource, "one 1", From(kSchSource, "two", 80));
    log();
    EXPECT_FALSE(LogIs(kTaskSource, {"one 1"}));
    log();
    EXPECT_FALSE(LogIs(kTaskSource, {From(kSchSource, "two", 80), "one 1"}));
    log();
    EXPECT_FALSE(LogIs(kTaskSource, {"one 1", From(kSchSource, "two", 100)}));
    log();
    EXPECT_FALSE(LogIs(kTaskSource, {"one 1", From(kDbgSource, "two", 80)}));
    log();
    EXPECT_FALSE(LogIs(kTaskSource, {"one 2", From(kSchSource, "two", 80)}));
    log();
    EXPECT_FALSE(LogIsEmpty());
    EXPECT_TRUE(LogIsEmpty());
}

TEST_F(Support, OnlyTheNthCallFails)
{
    FailNth(Call::XelMemAllocF, 2);
    XelTaskAttr* first = XEL_TaskCreateAttr();
    XelTaskAttr* second = XEL_TaskCreateAttr();
    XelTaskAttr* third = XEL_TaskCreateAttr();
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_NE(third, nullptr);
    EXPECT_EQ(Calls(Call::XelMemAllocF), 3U);
    XEL_TaskDestroyAttr(first);
    XEL_TaskDestroyAttr(third);
    EXPECT_EQ(Calls(Call::XelMemFreeF), 2U);
}

TEST_F(Support, AllCallsFailUntilTheReset)
{
    FailAll(Call::XelMemAllocF);
    EXPECT_EQ(XEL_TaskCreateAttr(), nullptr);
    EXPECT_EQ(XEL_TaskCreateAttr(), nullptr);
    ResetFaults();
    EXPECT_EQ(Calls(Call::XelMemAllocF), 0U);
    const Attr attr;
    EXPECT_NE(attr.Get(), nullptr);
}

TEST_F(Support, CallsOfTheTestAreLeftAlone)
{
    FailAll(Call::Eventfd, -1, EMFILE);
    FailAll(Call::Close, -1, EIO);
    FailAll(Call::XelMemAllocF);
    Fd fd = Fd::Event();
    EXPECT_GE(fd.Get(), 0);
    EXPECT_EQ(close(fd.Release()), 0);
    void* block = XEL_MemAllocF(8, "here", 1, 0);
    EXPECT_NE(block, nullptr);
    XEL_MemFreeF(block, "here", 1, 0);
    EXPECT_EQ(Calls(Call::Eventfd), 0U);
    EXPECT_EQ(Calls(Call::XelMemAllocF), 0U);
}

TEST_F(Support, AnyCallerCountsTheTestItself)
{
    FailAll(Call::Eventfd, -1, EMFILE);
    const AnyCaller any;
    EXPECT_EQ(eventfd(0, 0), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(Calls(Call::Eventfd), 1U);
}

// Functions of the library whose last act is the call.
TEST_F(Support, LastCallsOfTheLibraryAreCountedToo)
{
    XEL_TaskDestroyAttr(XEL_TaskCreateAttr());
    EXPECT_EQ(Calls(Call::XelMemFreeF), 1U);
    FailAll(Call::EpollCtl, -1, ENOSPC);
    EXPECT_EQ(SchLinuxEpollCtlAdapt(0, XEL_SCH_EPOLL_DEL, 0, nullptr), -1);
    EXPECT_EQ(Calls(Call::EpollCtl), 1U);
}

TEST_F(Support, SystemCallsOfTheLibraryFailWithResultAndErrno)
{
    const Fd epoll = Fd::Epoll();
    const SchEpollOps ops{epoll_wait, SchLinuxEpollCtlAdapt, SchLinuxEpollGetErrNoAdapt, nullptr};
    FailNth(Call::Eventfd, 1, -1, EMFILE);
    EXPECT_EQ(SchInnerEventCreate(epoll.Get(), &ops), nullptr);
    EXPECT_EQ(LogCount(Text("create event fd unsuccessfully, errno = %d.", EMFILE)), 1U);
    DropLog();
}

TEST_F(Support, ServicesAndStringsFail)
{
    FailNth(Call::FmmCtrlCreate, 1);
    EXPECT_EQ(FtCtrlCreate(8, 32), nullptr);
    const Fd event = Fd::Event();
    FailNth(Call::StrcpyS, 1);
    const Task task(event.Get());
    EXPECT_EQ(LogCount("Task set name unsuccessfully."), 1U);
    DropLog();
}

TEST_F(Support, LocksFail)
{
    FailNth(Call::PthreadRwlockRdlock, 1, -5);
    EXPECT_EQ(SchTaskGetHandleByAppFd(0), nullptr);
    EXPECT_EQ(LogCount("Get task handle unsuccessfully, read lock unsuccessfully, ret = -5."), 1U);
    DropLog();
}

TEST_F(Support, HookRunsInsideTheNthCall)
{
    int runs = 0;
    RunAtNth(Call::XelMemAllocF, 2, [&runs] { ++runs; });
    const Attr first;
    EXPECT_EQ(runs, 0);
    const Attr second;
    EXPECT_EQ(runs, 1);
    const Attr third;
    EXPECT_EQ(runs, 1);
}

TEST_F(Support, SleepIsNotedAndItsHookRuns)
{
    u32 seen = 0;
    SetSleepHook([&seen](u32 seconds) { seen = seconds; });
    const AnyCaller any;
    EXPECT_EQ(sleep(100), 0U);
    EXPECT_EQ(TakeSleeps(), std::vector<u32>{100});
    EXPECT_EQ(seen, 100U);
    EXPECT_TRUE(TakeSleeps().empty());
}

TEST_F(Support, ShortSleepIsNoted)
{
    const AnyCaller any;
    EXPECT_EQ(usleep(17), 0);
    EXPECT_EQ(TakeUsleeps(), std::vector<u32>{17});
    EXPECT_EQ(Calls(Call::Usleep), 1U);
}

TEST_F(Support, ClockIsFixedScriptedAndReal)
{
    u64 now = 0;
    SetMicroSec(5000);
    EXPECT_EQ(SystimeGetMicroSec(&now), 0U);
    EXPECT_EQ(now, 5000U);
    EXPECT_EQ(SystimeGetMilliSec(&now), 0U);
    EXPECT_EQ(now, 5U);
    AdvanceMicroSec(7);
    (void)SystimeGetMicroSec(&now);
    EXPECT_EQ(now, 5007U);
    ScriptMicroSec({1, 2});
    for (const u64 expected : {1U, 2U, 2U}) {
        (void)SystimeGetMicroSec(&now);
        EXPECT_EQ(now, expected);
    }
    UseRealClock();
    u64 later = 0;
    (void)SystimeGetMicroSec(&now);
    EXPECT_GT(now, 5007U);
    EXPECT_TRUE(AwaitTrue([&] { return SystimeGetMicroSec(&later) == 0 && later > now; }));
}

TEST_F(Support, FootprintSeesWhatIsHeld)
{
    const Footprint before = Measure();
    {
        const Fd event = Fd::Event();
        EXPECT_EQ(Measure().descriptors, before.descriptors + 1);
        const Task task(event.Get());
        EXPECT_EQ(Measure().units, before.units + 2); // entry and list node
        const Attr attr;
        EXPECT_EQ(Measure().blocks, before.blocks + 1);
        FtCtrl* table = FtCtrlCreate(8, 1);
        EXPECT_EQ(Measure().pools, before.pools + 2);
        (void)FtCtrlDestroy(table);
        std::atomic<bool> leave{false};
        const Runner runner([&leave] { EXPECT_TRUE(AwaitTrue([&] { return leave.load(); })); });
        EXPECT_EQ(Measure().threads, before.threads + 1);
        leave.store(true);
    }
    EXPECT_TRUE(AwaitTrue([&before] { return Measure() == before; }));
}

// Each interposed call that the library makes on the straight path is seen at least once.
TEST_F(Support, CallsOfTheLibraryAreCounted)
{
    const Fd epoll = Fd::Epoll();
    const Fd event = Fd::Event(1);
    SchCtrl* sch = XEL_SchCreate(epoll.U32(), 8);
    const Attr attr;
    SchEpollCtlReq request{EPOLLIN, attr.Get()};
    EXPECT_EQ(SCH_EpollCtrl(sch, XEL_SCH_EPOLL_ADD, event.Get(), &request), 0U);
    XEL_SchDispatch(sch);
    EXPECT_EQ(SCH_EpollCtrl(sch, XEL_SCH_EPOLL_DEL, event.Get(), nullptr), 0U);
    XEL_SchDestroy(sch);
    DropLog();
    for (const Call call :
         {Call::Eventfd, Call::EventfdWrite, Call::EpollWait, Call::Close,
          Call::PthreadRwlockRdlock, Call::PthreadRwlockWrlock, Call::PthreadRwlockUnlock,
          Call::XelMemAllocF, Call::XelMemFreeF, Call::FmmCtrlCreate, Call::FmmUnitAlloc,
          Call::XelQueCreate, Call::XelQueEnqueue, Call::XelQueDequeue, Call::MemsetS,
          Call::StrcpyS, Call::SystimeGetMicroSec}) {
        EXPECT_GT(Calls(call), 0U) << static_cast<u32>(call);
    }
}

TEST(SupportAlone, FreshProcessReportsFailures)
{
    XELTEST_IN_FRESH_PROCESS([] { EXPECT_EQ(g_xelTaskRunCtrl.init.load(), 0); });
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RunBodyAndExit([] { EXPECT_EQ(1, 2); }), ::testing::ExitedWithCode(1),
                "Expected equality");
}

} // namespace
