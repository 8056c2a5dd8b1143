// One dispatch cycle: its refusals, its wait, its policy, and what it leaves behind.
#include <cerrno>

#include <gtest/gtest.h>

#include "sch_dispatch_support.h"

namespace
{

using namespace schtest;
using Seconds = std::vector<u32>;

class SchDispatchCycle : public SchTest
{
protected:
    void SetUp() override
    {
        SchTest::SetUp();
        FakePolicy::Reset();
    }
};

TEST_F(SchDispatchCycle, NullHandleIsLoggedAndPausesOneSecond)
{
    XEL_SchDispatch(nullptr);
    EXPECT_LINES(SchLine("Sch dispatch, sch handle is null."));
    EXPECT_EQ(xeltest::TakeSleeps(), Seconds{1});
}

TEST_F(SchDispatchCycle, DamagedMagicIsLoggedAndPausesOneSecond)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), nullptr);
    HookRecorder hooks;
    sch->magic.store(0x12345678);
    sch->state.store(0);
    XEL_SchDispatch(sch.Get());
    EXPECT_LINES(SchLine("Sch dispatch, magic is damaged, magic = 0x12345678."));
    EXPECT_EQ(xeltest::TakeSleeps(), Seconds{1});
    SCH_DispatchWithDeadloop(sch.Get(), 0, nullptr);
    EXPECT_LINES(SchLine("Sch dispatch, magic is damaged, magic = 0x12345678."));
    EXPECT_EQ(xeltest::TakeSleeps(), Seconds{1});
    EXPECT_FALSE(SchIsCtrlValid(sch.Get()));
    EXPECT_LINES(SchLine("Sch dispatch, magic is damaged, magic = 0x12345678."));
    (void)xeltest::TakeSleeps();
    EXPECT_TRUE(probe.TakeWaits().empty());
    EXPECT_EQ(HookRecorder::Take(), Notes{});
    sch->magic.store(0xFBADBEEF);
    sch->state.store(3);
}

TEST_F(SchDispatchCycle, ClearedAliveBitIsCountedLoggedAndPausesOneSecond)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), nullptr);
    HookRecorder hooks;
    sch->state.store(2);
    XEL_SchDispatch(sch.Get());
    EXPECT_LINES(SchLine("Sch dispatch, handle had been destroyed, state = 0x2."));
    EXPECT_EQ(xeltest::TakeSleeps(), Seconds{1});
    EXPECT_EQ(HookRecorder::Take(), Notes{Text("err %d 1", sch.EpFd())});
    EXPECT_TRUE(probe.TakeWaits().empty());
    sch->state.store(3);
}

TEST_F(SchDispatchCycle, DestroyedHandleIsLoggedAndPausesOneSecond)
{
    TestSch sch;
    SchCtrl* stale = sch.Get();
    sch.Destroy();
    XEL_SchDispatch(stale);
    EXPECT_LINES(SchLine("Sch dispatch, magic is damaged, magic = 0."));
    EXPECT_EQ(xeltest::TakeSleeps(), Seconds{1});
}

// The lock of a running cycle is tried, never waited for, and a refused caller leaves it alone.
TEST_F(SchDispatchCycle, SecondThreadIsRefused)
{
    EpollProbe probe;
    std::atomic<bool> inside{false};
    std::atomic<bool> leave{false};
    probe.onWait = [&](const EpollProbe::Wait&) {
        inside.store(true);
        EXPECT_TRUE(AwaitTrue([&] { return leave.load(); }));
        return 0;
    };
    TestSch sch(probe.Ops(), nullptr);
    HookRecorder hooks;
    {
        Runner first([&] { XEL_SchDispatch(sch.Get()); });
        ASSERT_TRUE(AwaitTrue([&] { return inside.load(); }));
        for (int i = 0; i < 2; ++i) {
            XEL_SchDispatch(sch.Get());
            EXPECT_LINES(SchLine("Sch dispatch, try lock unsuccessfully, handle is looped in "
                                 "multi-thread, ret = 0."));
            EXPECT_EQ(xeltest::TakeSleeps(), Seconds{1});
            EXPECT_EQ(HookRecorder::Take(), Notes{Text("err %d 0", sch.EpFd())});
        }
        leave.store(true);
    }
    EXPECT_EQ(probe.TakeWaits().size(), 1U);
    XEL_SchDispatch(sch.Get());
    EXPECT_EQ(probe.TakeWaits().size(), 1U) << "free again";
    EXPECT_LINES();
    EXPECT_EQ(xeltest::TakeSleeps(), Seconds{});
}

TEST_F(SchDispatchCycle, FailedWaitIsCountedLoggedAndPausesOneSecond)
{
    EpollProbe probe;
    probe.onWait = [](const EpollProbe::Wait&) { return -7; };
    probe.errNo.store(EBADF);
    TestSch sch(probe.Ops(), nullptr);
    HookRecorder hooks;
    XEL_SchDispatch(sch.Get());
    EXPECT_LINES(SchLine("Event get, epoll wait with time-out[-1] unsuccessfully. (errNo:9)."),
                 SchLine("Sch dispatch, get events unsuccessfully. (ret = -1)."));
    EXPECT_EQ(xeltest::TakeSleeps(), Seconds{1});
    EXPECT_EQ(HookRecorder::Take(), Notes{Text("err %d 2", sch.EpFd())});
    EXPECT_EQ(sch->dispatchLock.word, 0U);
    sch->state.store(1);
    XEL_SchDispatch(sch.Get());
    EXPECT_LINES(SchLine("Event get, epoll wait with time-out[0] unsuccessfully. (errNo:9)."),
                 SchLine("Sch dispatch, get events unsuccessfully. (ret = -1)."));
    EXPECT_EQ(sch->state.load(), 1U) << "a failed cycle leaves the state";
    (void)xeltest::TakeSleeps();
}

TEST_F(SchDispatchCycle, ClosedEpollDescriptorIsAFailedWait)
{
    Fd epoll = Fd::Epoll();
    SchCtrl* sch = XEL_SchCreate(epoll.U32(), 8);
    ASSERT_NE(sch, nullptr);
    const int number = epoll.Get();
    Fd spare(dup(number));
    epoll.Reset();
    XEL_SchDispatch(sch);
    EXPECT_LINES(SchLine("Event get, epoll wait with time-out[-1] unsuccessfully. (errNo:9)."),
                 SchLine("Sch dispatch, get events unsuccessfully. (ret = -1)."));
    EXPECT_EQ(xeltest::TakeSleeps(), Seconds{1});
    ASSERT_EQ(dup2(spare.Get(), number), number);
    epoll.Reset(number);
    XEL_SchDestroy(sch);
}

TEST_F(SchDispatchCycle, InterruptedWaitIsAnEmptyCycle)
{
    EpollProbe probe;
    probe.onWait = [](const EpollProbe::Wait&) { return -1; };
    probe.errNo.store(EINTR);
    const SchPolicyOps ops = FakePolicy::Ops();
    TestSch sch(probe.Ops(), &ops);
    HookRecorder hooks;
    sch->state.store(1);
    XEL_SchDispatch(sch.Get());
    EXPECT_EQ(sch->state.load(), 3U);
    EXPECT_EQ(HookRecorder::Take(), (Notes{"prepare", "insert 0", "select"}));
    EXPECT_LINES();
    EXPECT_EQ(xeltest::TakeSleeps(), Seconds{});
    sch.Destroy();
}

TEST_F(SchDispatchCycle, WaitIsAskedForWhatThePolicyPrepared)
{
    EpollProbe probe;
    probe.onWait = [](const EpollProbe::Wait&) { return 0; };
    TestSch none(probe.Ops(), nullptr, 4096);
    XEL_SchDispatch(none.Get());
    auto waits = probe.TakeWaits();
    ASSERT_EQ(waits.size(), 1U);
    EXPECT_EQ(waits[0].epFd, none.EpFd());
    EXPECT_EQ(waits[0].events, none->eventBuf);
    EXPECT_EQ(waits[0].maxEvents, 4096);
    TestSch bfs(probe.Ops(), &g_schBfsPolicyOps, 4096);
    XEL_SchDispatch(bfs.Get());
    EXPECT_EQ(probe.TakeWaits().at(0).maxEvents, 8);
    TestSch small(probe.Ops(), &g_schBfsPolicyOps, 4);
    XEL_SchDispatch(small.Get());
    EXPECT_EQ(probe.TakeWaits().at(0).maxEvents, 4);
}

TEST_F(SchDispatchCycle, MaxEventCountIsThePoliciesOrTheSize)
{
    TestSch none(Policy::None, 77);
    EXPECT_EQ(SchGetMaxEventCnt(none.Get()), 77U);
    const SchPolicyOps ops = FakePolicy::Ops();
    TestSch fake(LinuxOps(), &ops);
    FakePolicy::prepareResult = 5;
    EXPECT_EQ(SchGetMaxEventCnt(fake.Get()), 5U);
}

// The first wait blocks; while something was run the next one polls; after nothing it blocks.
void CheckTimeOuts(const SchPolicyOps* policy)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), policy);
    ReadyTask task(sch.Get(), {DrainProc});
    ASSERT_EQ(ModFd(sch.Get(), task.Fd(), {DrainProc, task.U32()}), 0U);
    std::vector<int> timeouts;
    const auto cycle = [&] {
        XEL_SchDispatch(sch.Get());
        timeouts.push_back(probe.TakeWaits().at(0).timeoutMs);
    };
    cycle();
    EXPECT_EQ(sch->state.load(), 1U);
    cycle();
    EXPECT_EQ(sch->state.load(), 3U);
    Signal(task.Fd());
    cycle();
    cycle();
    sch->waitTimeout = 3;
    cycle();
    cycle();
    EXPECT_EQ(timeouts, (std::vector<int>{-1, 0, -1, 0, 3, 3}));
}

TEST_F(SchDispatchCycle, WaitBlocksOnlyAfterACycleThatRanNothing)
{
    CheckTimeOuts(nullptr);
    CheckTimeOuts(&g_schBfsPolicyOps);
}

// Type 3 events whose quotas are spent do not keep the scheduler polling.
TEST_F(SchDispatchCycle, SpentQuotasLetTheNextWaitBlock)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), &g_schBfsPolicyOps);
    HookRecorder hooks;
    const ReadyTask a(sch.Get(), {NoteProc, 1, 3}, 1, EPOLLET);
    const ReadyTask b(sch.Get(), {NoteProc, 2, 3}, 1, EPOLLET);
    (void)HookRecorder::Take();
    sch->waitTimeout = 1;
    std::vector<int> timeouts;
    std::vector<u32> states;
    for (int i = 0; i < 4; ++i) {
        XEL_SchDispatch(sch.Get());
        timeouts.push_back(probe.TakeWaits().at(0).timeoutMs);
        states.push_back(sch->state.load());
    }
    EXPECT_EQ(timeouts, (std::vector<int>{1, 0, 1, 0}));
    EXPECT_EQ(states, (std::vector<u32>{1, 3, 1, 3}));
}

// Whatever a wait claims, no more than the request is believed.
TEST_F(SchDispatchCycle, WaitThatReturnsTooMuchIsCut)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), nullptr, 2);
    HookRecorder hooks;
    const ReadyTask task(sch.Get(), {NoteProc, 9});
    (void)HookRecorder::Take();
    SchTaskCtrl* handle = task.Task();
    for (const int claimed : {3, 100000, 0x7FFFFFFF}) {
        probe.onWait = [&](const EpollProbe::Wait& wait) {
            for (int i = 0; i < wait.maxEvents; ++i) {
                wait.events[i].events = EPOLLIN;
                wait.events[i].data.ptr = handle;
            }
            return claimed;
        };
        XEL_SchDispatch(sch.Get());
        const Notes notes = HookRecorder::Take();
        EXPECT_EQ(std::count(notes.begin(), notes.end(), "run 9"), 2);
    }
    EXPECT_LINES();
}

TEST_F(SchDispatchCycle, PolicyGetsTheCutCount)
{
    EpollProbe probe;
    probe.onWait = [](const EpollProbe::Wait&) { return 50; };
    const SchPolicyOps ops = FakePolicy::Ops();
    TestSch sch(probe.Ops(), &ops, 16);
    HookRecorder hooks;
    FakePolicy::prepareResult = 3;
    FakePolicy::selectLimit = 0;
    XEL_SchDispatch(sch.Get());
    EXPECT_EQ(HookRecorder::Take(), (Notes{"prepare", "insert 3", "select"}));
}

TEST_F(SchDispatchCycle, FailedPrepareMakesTheLinuxWaitFail)
{
    const SchPolicyOps ops = FakePolicy::Ops();
    TestSch sch(LinuxOps(), &ops, 16);
    HookRecorder hooks;
    for (const u32 result : {0U, 0xFFFFFFFFU}) {
        FakePolicy::prepareResult = result;
        XEL_SchDispatch(sch.Get());
        EXPECT_LINES(SchLine("Event get, epoll wait with time-out[-1] unsuccessfully. (errNo:22)."),
                     SchLine("Sch dispatch, get events unsuccessfully. (ret = -1)."));
        EXPECT_EQ(HookRecorder::Take(), (Notes{"prepare", Text("err %d 2", sch.EpFd())}));
        EXPECT_EQ(xeltest::TakeSleeps(), Seconds{1});
    }
}

TEST_F(SchDispatchCycle, FailedPrepareWithACarelessWaitTouchesNoMemory)
{
    EpollProbe probe;
    probe.onWait = [](const EpollProbe::Wait&) { return 500; };
    const SchPolicyOps ops = FakePolicy::Ops();
    TestSch sch(probe.Ops(), &ops, 16);
    FakePolicy::noting = false;
    FakePolicy::selectLimit = 0;
    for (const u32 result : {0U, 0xFFFFFFFFU}) {
        FakePolicy::prepareResult = result;
        XEL_SchDispatch(sch.Get());
        EXPECT_LE(FakePolicy::queue.size(), 16U);
        (void)xeltest::TakeLog();
        (void)xeltest::TakeSleeps();
    }
}

TEST_F(SchDispatchCycle, RefusedInsertIsCountedLoggedAndPausesOneSecond)
{
    EpollProbe probe;
    probe.onWait = [](const EpollProbe::Wait&) { return 0; };
    const SchPolicyOps ops = FakePolicy::Ops();
    TestSch sch(probe.Ops(), &ops);
    HookRecorder hooks;
    FakePolicy::insertResult = 7;
    sch->state.store(1);
    XEL_SchDispatch(sch.Get());
    EXPECT_LINES(SchLine("Sch dispatch, insert event unsuccessfully. (ret = 0x7)."));
    EXPECT_EQ(xeltest::TakeSleeps(), Seconds{1});
    EXPECT_EQ(HookRecorder::Take(), (Notes{"prepare", "insert 0", Text("err %d 5", sch.EpFd())}));
    EXPECT_EQ(sch->state.load(), 1U);
    EXPECT_EQ(sch->dispatchLock.word, 0U);
    FakePolicy::insertResult = 0;
    XEL_SchDispatch(sch.Get());
    EXPECT_LINES();
}

// A failing step is logged, then slept for, and only then may another thread dispatch.
TEST_F(SchDispatchCycle, FailedStepSleepsAfterItsLinesUnderTheDispatchLock)
{
    EpollProbe probe;
    const SchPolicyOps ops = FakePolicy::Ops();
    FakePolicy::noting = false;
    TestSch sch(probe.Ops(), &ops);
    std::vector<std::pair<u32, size_t>> found; // the dispatch lock, and the lines so far
    xeltest::SetSleepHook(
        [&](u32 /*seconds*/) { found.emplace_back(sch->dispatchLock.word, xeltest::LogCount()); });
    probe.onWait = [](const EpollProbe::Wait&) { return -1; };
    probe.errNo.store(EBADF);
    XEL_SchDispatch(sch.Get());
    EXPECT_EQ(TakeLines().size(), 2U);
    probe.onWait = [](const EpollProbe::Wait&) { return 0; };
    FakePolicy::insertResult = 7;
    XEL_SchDispatch(sch.Get());
    EXPECT_EQ(TakeLines().size(), 1U);
    EXPECT_EQ(found, (std::vector<std::pair<u32, size_t>>{{1, 2}, {1, 1}}));
}

// Each code that was counted, and the lines that were in the log by then.
std::vector<std::pair<u32, size_t>> g_counted;

TEST_F(SchDispatchCycle, FailureIsCountedBeforeItsLine)
{
    const SchDbgHookTable table{
        nullptr, nullptr, nullptr,
        [](u32 /*epFd*/, u32 code) { g_counted.emplace_back(code, xeltest::LogCount()); }, nullptr};
    SCH_RegisterDbgHookTable(&table);
    EpollProbe probe;
    const SchPolicyOps ops = FakePolicy::Ops();
    FakePolicy::noting = false;
    TestSch sch(probe.Ops(), &ops);
    const ReadyTask failing(sch.Get(), {FailingProc, 1});
    SchTaskCtrl* dead = MakeTask(400000);
    XEL_TaskDestroy(dead);
    const auto cycle = [&](std::function<int(const EpollProbe::Wait&)> onWait) {
        probe.onWait = std::move(onWait);
        XEL_SchDispatch(sch.Get());
        xeltest::DropLog();
    };
    g_counted.clear();
    sch->state.store(2);
    cycle(nullptr);
    sch->state.store(3);
    probe.errNo.store(EBADF);
    cycle([](const EpollProbe::Wait&) { return -1; });
    FakePolicy::insertResult = 7;
    cycle([](const EpollProbe::Wait&) { return 0; });
    FakePolicy::insertResult = 0;
    cycle([dead](const EpollProbe::Wait& wait) {
        wait.events[0] = {EPOLLIN, {dead}};
        return 1;
    });
    cycle(nullptr);
    cycle([&](const EpollProbe::Wait&) {
        XEL_SchDispatch(sch.Get());
        return 0;
    });
    SCH_DeregisterDbgHookTable();
    // A failed wait has a line of its own before it is counted, an invalid task has two.
    EXPECT_EQ(g_counted, (std::vector<std::pair<u32, size_t>>{
                             {1, 0}, {2, 1}, {5, 0}, {7, 2}, {8, 0}, {0, 0}}));
}

// Prepared, inserted, and then failing waits: what is queued stays queued.
TEST_F(SchDispatchCycle, QueuedEventsSurviveAFailedWait)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), &g_schBfsPolicyOps);
    HookRecorder hooks;
    const ReadyTask a(sch.Get(), {NoteProc, 1}, 1, EPOLLET);
    const ReadyTask b(sch.Get(), {NoteProc, 2}, 1, EPOLLET);
    XEL_SchDispatch(sch.Get());
    probe.onWait = [](const EpollProbe::Wait&) { return -1; };
    probe.errNo.store(EIO);
    XEL_SchDispatch(sch.Get());
    EXPECT_EQ(TakeLines().size(), 2U);
    EXPECT_EQ(xeltest::TakeSleeps(), Seconds{1});
    EXPECT_EQ(SCH_BfsGetEventLeft(sch->policy), 1U);
    probe.onWait = nullptr;
    (void)HookRecorder::Take();
    XEL_SchDispatch(sch.Get());
    const Notes notes = HookRecorder::Take();
    ASSERT_FALSE(notes.empty());
    EXPECT_EQ(notes[0].substr(0, 3), "run");
    EXPECT_EQ(SCH_BfsGetEventLeft(sch->policy), 0U);
}

u32 LocksProc(struct epoll_event* /*event*/, u64 data)
{
    auto* sch = reinterpret_cast<SchCtrl*>(data);
    HookRecorder::Note(Text("readers %u dispatch %u", sch->lock.count, sch->dispatchLock.word));
    return 0;
}

TEST_F(SchDispatchCycle, LocksAreHeldThroughWaitAndCallbackAndGivenBack)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), nullptr);
    HookRecorder hooks;
    const ReadyTask task(sch.Get(), {LocksProc, reinterpret_cast<u64>(sch.Get())});
    (void)HookRecorder::Take();
    probe.onWait = [&](const EpollProbe::Wait& wait) {
        (void)LocksProc(nullptr, reinterpret_cast<u64>(sch.Get()));
        return epoll_wait(wait.epFd, wait.events, wait.maxEvents, 0);
    };
    XEL_SchDispatch(sch.Get());
    const Notes notes = HookRecorder::Take();
    ASSERT_GE(notes.size(), 2U);
    EXPECT_EQ(notes[0], "readers 1 dispatch 1");
    EXPECT_EQ(notes[1], "readers 1 dispatch 1");
    EXPECT_EQ(sch->lock.count, 0U);
    EXPECT_EQ(sch->lock.gate, 0xFFFFFFFFU);
    EXPECT_EQ(sch->dispatchLock.word, 0U);
}

TEST_F(SchDispatchCycle, WarmCycleAllocatesNothing)
{
    TestSch sch;
    const ReadyTask task(sch.Get(), {NopProc});
    for (int i = 0; i < 10; ++i) {
        XEL_SchDispatch(sch.Get());
    }
    xeltest::ResetFaults();
    for (int i = 0; i < 100; ++i) {
        XEL_SchDispatch(sch.Get());
    }
    EXPECT_EQ(xeltest::Calls(xeltest::Call::XelMemAllocF), 0U);
    EXPECT_EQ(xeltest::Calls(xeltest::Call::FmmUnitAlloc), 0U);
    EXPECT_EQ(xeltest::Calls(xeltest::Call::EpollWait), 100U);
}

} // namespace
