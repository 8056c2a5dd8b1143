// First-time initialisation: what it creates, what it undoes, and that threads may race for it.
// Each body runs in a process of its own, where nothing was initialised before.
#include <gtest/gtest.h>

#include "sch_support.h"

namespace
{

using namespace schtest;
using xeltest::Call;

u32 g_hookCalls;
u32 g_hookResult;

u32 CountingHook()
{
    ++g_hookCalls;
    return g_hookResult;
}

u32 OtherHook()
{
    ADD_FAILURE() << "the first registration wins";
    return 9;
}

const Line kInitFailed = SchLine("Sch create unsuccessfully, scheduler init unsuccessfully.");
const Line kTaskTableFailed = TaskLine("Task init unsuccessfully, create fd table unsuccessfully, "
                                       "unit = 128, number = 32.");
const Line kSchTableFailed = SchLine("create sch table unsuccessfully, unit = 136, number = 8.");

void NothingBeforeTheFirstCreation()
{
    EXPECT_EQ(g_xelSchRunCtrl.inited.load(), 0);
    EXPECT_EQ(g_xelSchRunCtrl.table, nullptr);
    EXPECT_EQ(SchGetSchHandleByEpFd(3), nullptr);
    EXPECT_LINES(SchLine("Sch is not available."));
    SchEventCacheInfo record;
    u32 count = 1;
    EXPECT_EQ(SCH_GetTasksEventCache(3, &record, &count), 0xFFFFFFFFU);
    EXPECT_LINES(SchLine("Sch is not available."));
    const SchEpollOps ops = LinuxOps();
    EXPECT_EQ(SchCtrlCreate(3, 8, &ops, nullptr), nullptr);
    EXPECT_LINES(SchLine("Sch ctrl create, scheduler table handle is null."));
}

TEST(SchInitialisation, NothingExistsBeforeTheFirstCreation)
{
    XELTEST_IN_FRESH_PROCESS(NothingBeforeTheFirstCreation);
}

void InitialisesOnce()
{
    SCH_RegisterCmdDbgInitHook(nullptr);
    SCH_RegisterCmdDbgInitHook(CountingHook);
    SCH_RegisterCmdDbgInitHook(OtherHook);
    EXPECT_EQ(SchInit(), 0U);
    EXPECT_EQ(g_hookCalls, 1U);
    EXPECT_EQ(g_xelSchRunCtrl.inited.load(), 1);
    EXPECT_EQ(g_xelTaskRunCtrl.init.load(), 1);
    EXPECT_EQ(g_xelSchRunCtrl.created, 0U);
    EXPECT_EQ(
        xeltest::TakePoolRequests(),
        (std::vector<xeltest::PoolRequest>{{24, 32, 2}, {136, 32, 6}, {24, 32, 2}, {144, 32, 6}}))
        << "the table of the tasks, then that of the schedulers";
    FtCtrl* table = g_xelSchRunCtrl.table;
    EXPECT_EQ(SchInit(), 0U);
    TestSch sch;
    EXPECT_EQ(g_hookCalls, 1U);
    EXPECT_EQ(g_xelSchRunCtrl.table, table);
    EXPECT_EQ(g_xelSchRunCtrl.created, 1U);
    EXPECT_LINES();
}

TEST(SchInitialisation, HappensOnceAndTheFirstHookWins)
{
    XELTEST_IN_FRESH_PROCESS(InitialisesOnce);
}

// Arguments are checked before anything is initialised.
void ArgumentsComeFirst()
{
    SCH_RegisterCmdDbgInitHook(CountingHook);
    g_hookResult = 5;
    EXPECT_EQ(XEL_SchCreate(0xFFFFFFFF, 8), nullptr);
    EXPECT_EQ(XEL_SchCreate(0, 4097), nullptr);
    EXPECT_LINES(
        SchLine("Sch create unsuccessfully, invalid epFd or epoll size."),
        SchLine("Sch create unsuccessfully, epoll size is too large. (epoll size = 4097)"));
    EXPECT_EQ(g_hookCalls, 0U);
    EXPECT_EQ(g_xelTaskRunCtrl.init.load(), 0);
}

TEST(SchInitialisation, ArgumentsAreCheckedFirst)
{
    XELTEST_IN_FRESH_PROCESS(ArgumentsComeFirst);
}

void HookFails()
{
    SCH_RegisterCmdDbgInitHook(CountingHook);
    g_hookResult = 5;
    const Fd epoll = Fd::Epoll();
    const Footprint before = Measure();
    for (u32 i = 1; i <= 3; ++i) {
        EXPECT_EQ(XEL_SchCreate(epoll.U32(), 8), nullptr);
        EXPECT_LINES(SchLine("Xel scheduler dfx init unsuccessfully. (ret = 0x5)"), kInitFailed);
        EXPECT_EQ(g_hookCalls, i) << "each creation tries again";
        EXPECT_EQ(g_xelSchRunCtrl.inited.load(), 0);
        EXPECT_EQ(g_xelTaskRunCtrl.init.load(), 0);
        EXPECT_NE(g_xelSchRunCtrl.table, nullptr) << "the pointer is left";
        EXPECT_EQ(Measure(), before);
    }
    EXPECT_EQ(SchInit(), 5U);
    EXPECT_EQ(SchGetSchHandleByEpFd(epoll.U32()), nullptr);
    EXPECT_LINES(SchLine("Xel scheduler dfx init unsuccessfully. (ret = 0x5)"),
                 SchLine("Sch is not available."));
    xeltest::FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(XEL_SchCreate(epoll.U32(), 8), nullptr);
    EXPECT_LINES(kTaskTableFailed, kInitFailed);
    xeltest::ResetFaults();
    EXPECT_EQ(Measure(), before) << "tables that are gone already are not destroyed again";
    g_hookResult = 0;
    SchCtrl* sch = XEL_SchCreate(epoll.U32(), 8);
    ASSERT_NE(sch, nullptr);
    EXPECT_EQ(g_xelSchRunCtrl.created, 1U);
    XEL_SchDestroy(sch);
    EXPECT_LINES();
}

TEST(SchInitialisation, FailingHookIsUndoneEachTime)
{
    XELTEST_IN_FRESH_PROCESS(HookFails);
}

struct InitFault {
    Call call;
    u32 nth;
    Lines lines;
};

void Plan(const InitFault& fault)
{
    xeltest::ResetFaults();
    if (fault.call == Call::PthreadRwlockInit) {
        xeltest::FailNth(fault.call, fault.nth, -1);
    } else {
        xeltest::FailNth(fault.call, fault.nth);
    }
}

// Every step of the first creation, up to the registry's own lock, in the order of the calls.
void EachStepFails()
{
    const InitFault faults[] = {
        {Call::XelMemAllocF, 1, {kTaskTableFailed, kInitFailed}},
        {Call::FmmCtrlCreate, 1, {kTaskTableFailed, kInitFailed}},
        {Call::FmmCtrlCreate, 2, {kTaskTableFailed, kInitFailed}},
        {Call::PthreadRwlockInit, 1, {kInitFailed}},
        {Call::XelMemAllocF, 2, {kSchTableFailed, kInitFailed}},
        {Call::FmmCtrlCreate, 3, {kSchTableFailed, kInitFailed}},
        {Call::FmmCtrlCreate, 4, {kSchTableFailed, kInitFailed}},
        {Call::PthreadRwlockInit, 2, {kInitFailed}},
    };
    const Fd epoll = Fd::Epoll();
    const Footprint before = Measure();
    for (const InitFault& fault : faults) {
        Plan(fault);
        EXPECT_EQ(XEL_SchCreate(epoll.U32(), 8), nullptr);
        EXPECT_EQ(TakeLines(), fault.lines);
        Plan(fault);
        EXPECT_EQ(SchInit(), 0xFFFFFFFFU);
        EXPECT_EQ(TakeLines(), Lines(fault.lines.begin(), fault.lines.end() - 1));
        EXPECT_EQ(g_xelSchRunCtrl.inited.load(), 0);
        EXPECT_EQ(g_xelTaskRunCtrl.init.load(), 0);
        EXPECT_EQ(Measure(), before);
    }
    xeltest::ResetFaults();
    SchCtrl* sch = XEL_SchCreate(epoll.U32(), 8);
    ASSERT_NE(sch, nullptr);
    XEL_SchDestroy(sch);
}

TEST(SchInitialisation, EachFailingStepIsUndone)
{
    XELTEST_IN_FRESH_PROCESS(EachStepFails);
}

void PositiveLockInitPasses()
{
    xeltest::FailNth(Call::PthreadRwlockInit, 2, ENOMEM);
    EXPECT_EQ(SchInit(), 0U);
    xeltest::ResetFaults();
    TestSch sch;
    EXPECT_LINES();
}

TEST(SchInitialisation, PositiveResultOfTheLockInitPasses)
{
    XELTEST_IN_FRESH_PROCESS(PositiveLockInitPasses);
}

void FinalAndAgain()
{
    const Footprint before = Measure();
    SCH_RegisterCmdDbgInitHook(CountingHook);
    for (u32 round = 1; round <= 3; ++round) {
        const Fd epoll = Fd::Epoll();
        SchCtrl* sch = XEL_SchCreate(epoll.U32(), 8);
        ASSERT_NE(sch, nullptr);
        EXPECT_EQ(g_xelSchRunCtrl.created, 1U) << "counted from the initialisation";
        XEL_SchDestroy(sch);
        EXPECT_EQ(SchFinal(), 0U);
        EXPECT_EQ(g_xelSchRunCtrl.inited.load(), 0);
        EXPECT_EQ(g_xelTaskRunCtrl.init.load(), 0);
        EXPECT_NE(g_xelSchRunCtrl.table, nullptr);
        EXPECT_EQ(g_hookCalls, round);
    }
    EXPECT_EQ(Measure(), before);
    EXPECT_LINES();
}

TEST(SchInitialisation, CanBeFinalisedAndRepeated)
{
    XELTEST_IN_FRESH_PROCESS(FinalAndAgain);
}

// A scheduler that still lives when its table goes reads as destroyed.
void FinalTakesTheSchedulers()
{
    const Fd epoll = Fd::Epoll();
    SchCtrl* sch = XEL_SchCreate(epoll.U32(), 8);
    ASSERT_NE(sch, nullptr);
    EXPECT_EQ(SchFinal(), 0U);
    EXPECT_FALSE(SchSchedulerHandleIsValid(sch));
    EXPECT_LINES(SchLine("sch handle magic destroy, magic = 0."));
}

TEST(SchInitialisation, HandleOfAFinalisedRegistryIsRefused)
{
    XELTEST_IN_FRESH_PROCESS(FinalTakesTheSchedulers);
}

// The pointers to the tables stay after the end, and are not followed.
void NothingIsMadeAfterTheEnd()
{
    const SchEpollOps ops = LinuxOps();
    const Attr attr;
    EXPECT_EQ(SchInit(), 0U);
    EXPECT_EQ(SchFinal(), 0U);
    EXPECT_NE(g_xelSchRunCtrl.table, nullptr);
    EXPECT_NE(g_xelTaskRunCtrl.fdTbl, nullptr);
    EXPECT_EQ(SchCtrlCreate(3, 8, &ops, nullptr), nullptr);
    EXPECT_LINES(SchLine("Sch ctrl create, scheduler table handle is null."));
    EXPECT_EQ(SchTaskCreate(0, attr.Get()), nullptr);
    EXPECT_LINES(TaskLine("Task manage handle null."));
    EXPECT_TRUE(RegistryIsFree());
}

TEST(SchInitialisation, TablesAreNotUsedAfterTheEnd)
{
    XELTEST_IN_FRESH_PROCESS(NothingIsMadeAfterTheEnd);
}

void ThreadsRace()
{
    constexpr int kThreads = 8;
    SCH_RegisterCmdDbgInitHook(CountingHook);
    std::vector<Fd> epolls;
    std::vector<SchCtrl*> made(kThreads, nullptr);
    std::vector<SchTaskCtrl*> tasks(kThreads, nullptr);
    for (int i = 0; i < kThreads; ++i) {
        epolls.push_back(Fd::Epoll());
    }
    std::atomic<int> ready{0};
    {
        std::vector<std::unique_ptr<Runner>> runners;
        for (size_t i = 0; i < kThreads; ++i) {
            runners.push_back(std::make_unique<Runner>([&, i] {
                ++ready;
                while (ready.load() < kThreads) {
                }
                if (i % 2 == 0) {
                    tasks[i] = MakeTask(500000 + static_cast<int>(i));
                }
                made[i] = XEL_SchCreate(epolls[i].U32(), 8);
            }));
        }
    }
    EXPECT_EQ(g_hookCalls, 1U);
    EXPECT_EQ(g_xelSchRunCtrl.created, u64{kThreads});
    for (size_t i = 0; i < kThreads; ++i) {
        ASSERT_NE(made[i], nullptr);
        EXPECT_EQ(SchGetSchHandleByEpFd(epolls[i].U32()), made[i]);
        if (i % 2 == 0) {
            EXPECT_EQ(SchTaskGetHandleByAppFd(500000 + static_cast<int>(i)), tasks[i]);
        }
    }
    for (SchCtrl* sch : made) {
        XEL_SchDestroy(sch);
    }
    EXPECT_LINES();
}

TEST(SchInitialisation, ThreadsMayRaceForTheFirstCreation)
{
    for (int i = 0; i < 3; ++i) {
        XELTEST_IN_FRESH_PROCESS(ThreadsRace);
    }
}

} // namespace
