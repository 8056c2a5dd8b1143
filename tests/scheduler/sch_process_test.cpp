// Running the selected events: the order of the calls around a callback, failures that stay with
// their event, the order in which ready tasks run, slow runs, and the event cache by descriptor.
#include <cerrno>

#include <gtest/gtest.h>

#include "sch_dispatch_support.h"
#include "scheduler/xel_sch_dbg_inner.h"
#include "xel_clock.h"

namespace
{

using namespace schtest;
using Seconds = std::vector<u32>;

class SchProcess : public SchTest
{
protected:
    void SetUp() override
    {
        SchTest::SetUp();
        FakePolicy::Reset();
    }

    // Notes of one cycle, the policy's own calls left out.
    static Notes Cycle(SchCtrl* sch)
    {
        (void)HookRecorder::Take();
        XEL_SchDispatch(sch);
        return HookRecorder::Take();
    }

    static size_t Runs(const Notes& notes)
    {
        return static_cast<size_t>(std::count_if(
            notes.begin(), notes.end(), [](const std::string& n) { return n.starts_with("run"); }));
    }
};

// Callbacks that take a scripted time.
u64 g_callbackUs;

u32 SlowProc(struct epoll_event* event, u64 data)
{
    u64 now = 0;
    (void)SystimeGetMicroSec(&now);
    xeltest::SetMicroSec(now + g_callbackUs);
    return NoteProc(event, data);
}

TEST_F(SchProcess, CallsAroundACallbackComeInOrder)
{
    const SchPolicyOps ops = FakePolicy::Ops();
    TestSch sch(LinuxOps(), &ops);
    HookRecorder hooks;
    const ReadyTask task(sch.Get(), {FailingProc, 42});
    (void)HookRecorder::Take();
    xeltest::SetMicroSec(1000);
    SCH_DispatchWithDeadloop(sch.Get(), 17, NoteHook);
    EXPECT_EQ(HookRecorder::Take(),
              (Notes{"prepare", "insert 1", "select", "hook 17 0", "run 42", "hook 17 1",
                     Text("err %d 8", sch.EpFd()), Text("stat %d 0", task.Fd()),
                     Text("trace %d %d 0", sch.EpFd(), task.Fd()), "left"}));
    EXPECT_LINES(SchLine("User proc result, param = :42. (ret = 0x5).", 80));
    EXPECT_EQ(xeltest::TakeSleeps(), Seconds{});
}

TEST_F(SchProcess, PlainDispatchCallsNoHook)
{
    TestSch sch(Policy::None);
    HookRecorder hooks;
    const ReadyTask task(sch.Get(), {NoteProc, 1});
    xeltest::SetMicroSec(1000);
    EXPECT_EQ(Cycle(sch.Get()), (Notes{"run 1", Text("stat %d 0", task.Fd()),
                                       Text("trace %d %d 0", sch.EpFd(), task.Fd())}));
}

TEST_F(SchProcess, HookSurroundsEachCallbackOfACycle)
{
    TestSch sch(Policy::None);
    const ReadyTask a(sch.Get(), {NoteProc, 1});
    const ReadyTask b(sch.Get(), {NoteProc, 2});
    (void)HookRecorder::Take();
    SCH_DispatchWithDeadloop(sch.Get(), 0xFFFFFFFFFFFFFFFF, NoteHook);
    const Notes around = {"hook 18446744073709551615 0", "run 1", "hook 18446744073709551615 1",
                          "hook 18446744073709551615 0", "run 2", "hook 18446744073709551615 1"};
    EXPECT_EQ(HookRecorder::Take(), around);
}

struct epoll_event g_seen;

u32 SeeingProc(struct epoll_event* event, u64 /*data*/)
{
    g_seen = *event;
    return 0;
}

TEST_F(SchProcess, CallbackSeesTheMaskAndItsTask)
{
    for (const Policy policy : {Policy::None, Policy::Bfs}) {
        TestSch sch(policy);
        const ReadyTask task(sch.Get(), {SeeingProc}, 1, EPOLLOUT);
        XEL_SchDispatch(sch.Get());
        EXPECT_EQ(u32{g_seen.events}, u32{EPOLLIN | EPOLLOUT});
        EXPECT_EQ(static_cast<void*>(g_seen.data.ptr), task.Task());
    }
}

TEST_F(SchProcess, MaskIsTheUnionOfAllReadinessSinceTheLastRun)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), &g_schBfsPolicyOps);
    const ReadyTask urgent(sch.Get(), {NopProc, 0, 0}, 0);
    const ReadyTask task(sch.Get(), {SeeingProc, 0, 3}, 0);
    u32 mask = EPOLLIN;
    probe.onWait = [&](const EpollProbe::Wait& wait) {
        wait.events[0] = {mask, {urgent.Task()}};
        wait.events[1] = {mask, {task.Task()}};
        return mask != 0 ? 2 : 0;
    };
    g_seen = {};
    XEL_SchDispatch(sch.Get());
    mask = EPOLLRDHUP;
    XEL_SchDispatch(sch.Get());
    EXPECT_EQ(u32{g_seen.events}, 0U);
    mask = 0;
    XEL_SchDispatch(sch.Get());
    EXPECT_EQ(u32{g_seen.events}, u32{EPOLLIN | EPOLLRDHUP});
}

TEST_F(SchProcess, FailingCallbackLeavesTheOthersAlone)
{
    TestSch sch(Policy::None);
    HookRecorder hooks;
    const ReadyTask bad(sch.Get(), {FailingProc, 0xFFFFFFFFFFFFFFFF});
    const ReadyTask good(sch.Get(), {NoteProc, 2});
    const Notes notes = Cycle(sch.Get());
    EXPECT_EQ(Runs(notes), 2U);
    EXPECT_LINES(SchLine("User proc result, param = :18446744073709551615. (ret = 0x5).", 80));
}

u32 AllOnesProc(struct epoll_event* /*event*/, u64 /*data*/)
{
    return 0xFFFFFFFF;
}

TEST_F(SchProcess, CallbackResultIsShownAsUnsigned)
{
    TestSch sch(Policy::None);
    const ReadyTask bad(sch.Get(), {AllOnesProc, 3});
    XEL_SchDispatch(sch.Get());
    EXPECT_LINES(SchLine("User proc result, param = :3. (ret = 0xffffffff).", 80));
}

TEST_F(SchProcess, InvalidTaskIsCountedAndTheNextEventRuns)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), nullptr);
    HookRecorder hooks;
    const ReadyTask task(sch.Get(), {NoteProc, 1});
    SchTaskCtrl* alive = task.Task();
    SchTaskCtrl* dead = MakeTask(400000);
    XEL_TaskDestroy(dead);
    probe.onWait = [&](const EpollProbe::Wait& wait) {
        wait.events[0] = {EPOLLIN, {dead}};
        wait.events[1] = {EPOLLIN, {alive}};
        return 2;
    };
    const Notes notes = Cycle(sch.Get());
    ASSERT_GE(notes.size(), 2U);
    EXPECT_EQ(notes[0], Text("err %d 7", sch.EpFd()));
    EXPECT_EQ(notes[1], "run 1");
    EXPECT_LINES(TaskLine("Task has damaged. (magic = 0)"),
                 TaskLine("Task get info process unsuccessfully, task is invalid."),
                 SchLine("Event process, invalid task-ctrl."));
    EXPECT_EQ(xeltest::TakeSleeps(), Seconds{});
}

TEST_F(SchProcess, TaskWithoutCallbackIsPassedOver)
{
    TestSch sch(Policy::None);
    HookRecorder hooks;
    const ReadyTask task(sch.Get(), {NoteProc, 1});
    const ReadyTask next(sch.Get(), {NoteProc, 2});
    const Attr attr;
    attr.Get()->proc = nullptr;
    ASSERT_EQ(SchFdModify(task.Task(), attr.Get()), 0U);
    (void)HookRecorder::Take();
    xeltest::SetMicroSec(1);
    SCH_DispatchWithDeadloop(sch.Get(), 1, NoteHook);
    EXPECT_EQ(HookRecorder::Take(),
              (Notes{"hook 1 0", "run 2", "hook 1 1", Text("stat %d 0", next.Fd()),
                     Text("trace %d %d 0", sch.EpFd(), next.Fd())}));
    EXPECT_LINES();
    next.Task()->proc = nullptr;
    sch->state.store(3);
    SCH_DispatchWithDeadloop(sch.Get(), 1, NoteHook);
    EXPECT_EQ(HookRecorder::Take(), Notes{});
    EXPECT_EQ(sch->state.load(), 1U) << "they were events all the same";
}

u32 StateProc(struct epoll_event* /*event*/, u64 data)
{
    HookRecorder::Note(Text("state %u", reinterpret_cast<SchCtrl*>(data)->state.load()));
    return 0;
}

// That the next wait only polls is settled before the first callback.
TEST_F(SchProcess, CallbackFindsTheStateOfTheNextWait)
{
    for (const Policy policy : {Policy::None, Policy::Bfs}) {
        TestSch sch(policy);
        const ReadyTask task(sch.Get(), {StateProc, reinterpret_cast<u64>(sch.Get())});
        EXPECT_EQ(Cycle(sch.Get()), Notes{"state 1"});
    }
}

TEST_F(SchProcess, WithoutPolicyAllReadyRunInTheOrderOfTheWait)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), nullptr);
    std::vector<ReadyTask> tasks;
    for (u64 i = 0; i < 5; ++i) {
        tasks.emplace_back(sch.Get(), TaskSpec{NoteProc, i, static_cast<u32>(4 - i) % 4});
    }
    probe.onWait = [&](const EpollProbe::Wait& wait) {
        for (u32 i = 0; i < 5; ++i) {
            wait.events[i] = {EPOLLIN, {tasks[(i * 2) % 5].Task()}};
        }
        return 5;
    };
    EXPECT_EQ(Cycle(sch.Get()), (Notes{"run 0", "run 2", "run 4", "run 1", "run 3"}));
}

TEST_F(SchProcess, FiveReadyTakeOneCycleWithoutPolicyAndAtLeastThreeWith)
{
    for (u32 type = 0; type < 4; ++type) {
        TestSch none(Policy::None);
        TestSch bfs(Policy::Bfs);
        bfs->waitTimeout = 0;
        std::vector<ReadyTask> tasks;
        for (u64 i = 0; i < 5; ++i) {
            tasks.emplace_back(none.Get(), TaskSpec{NoteProc, i, type, 24}, 1, EPOLLET);
            tasks.emplace_back(bfs.Get(), TaskSpec{NoteProc, i, type, 24}, 1, EPOLLET);
        }
        EXPECT_EQ(Runs(Cycle(none.Get())), 5U);
        size_t runs = 0;
        int cycles = 0;
        for (; runs < 5 && cycles < 20; ++cycles) {
            const size_t now = Runs(Cycle(bfs.Get()));
            EXPECT_LE(now, 2U);
            runs += now;
        }
        EXPECT_EQ(runs, 5U);
        EXPECT_GE(cycles, 3);
    }
}

int g_urgentFd;

u32 RaisingProc(struct epoll_event* event, u64 data)
{
    if (data == 0) {
        Signal(g_urgentFd);
    }
    return NoteProc(event, data);
}

// A burst of ordinary work; its first callback makes urgent work ready, which comes next.
TEST_F(SchProcess, UrgentWorkRunsRightAfterTheCurrentCallback)
{
    TestSch sch;
    const ReadyTask urgent(sch.Get(), {NoteProc, 100, 0, 0}, 0, EPOLLET);
    g_urgentFd = urgent.Fd();
    std::vector<ReadyTask> burst;
    for (u64 i = 0; i < 5; ++i) {
        const u32 prio = i == 0 ? 1 : 5;
        burst.emplace_back(sch.Get(), TaskSpec{RaisingProc, i, 2, prio}, 1, EPOLLET);
    }
    Notes road;
    for (int i = 0; i < 6; ++i) {
        for (const std::string& note : Cycle(sch.Get())) {
            road.push_back(note);
        }
    }
    EXPECT_EQ(road, (Notes{"run 0", "run 100", "run 1", "run 2", "run 3", "run 4"}));
}

TEST_F(SchProcess, RunOfJustUnder400MsIsNotReported)
{
    TestSch sch(Policy::None);
    HookRecorder hooks;
    const ReadyTask task(sch.Get(), {SlowProc, 1});
    xeltest::SetMicroSec(7000);
    g_callbackUs = 399999;
    EXPECT_EQ(Cycle(sch.Get()), (Notes{"run 1", Text("stat %d 399999", task.Fd()),
                                       Text("trace %d %d 399999", sch.EpFd(), task.Fd())}));
    EXPECT_LINES();
}

TEST_F(SchProcess, RunOf400MsIsReportedWithTheFreshEventsLeft)
{
    const SchPolicyOps ops = FakePolicy::Ops();
    TestSch sch(LinuxOps(), &ops);
    const ReadyTask task(sch.Get(), {SlowProc, 1, 3, 31, "slow"});
    task.Task()->insertTime = 5;
    FakePolicy::left = 9;
    xeltest::SetMicroSec(7000);
    g_callbackUs = 400000;
    XEL_SchDispatch(sch.Get());
    char name[32] = {};
    (void)DbgGetFuncName(reinterpret_cast<const void*>(SlowProc), name, sizeof(name));
    EXPECT_LINES(MonLine(Text("Proc time timeout. (epFd = %d)", sch.EpFd()), 80),
                 MonLine(Text("fd:%d, procFunc:%s, name:slow, type:3, prio:31, insertTime:5, "
                              "startTime:7000,endTime:407000, procTime:400000, eventLeft:9",
                              task.Fd(), name),
                         20));
}

TEST_F(SchProcess, SlowFailingRunIsReportedAfterItsFailure)
{
    TestSch sch(Policy::None);
    const ReadyTask task(
        sch.Get(),
        {[](struct epoll_event* event, u64 data) -> u32 { return SlowProc(event, data) + 3; }, 6});
    xeltest::SetMicroSec(1);
    g_callbackUs = 5000000;
    XEL_SchDispatch(sch.Get());
    const Lines lines = TakeLines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], SchLine("User proc result, param = :6. (ret = 0x3).", 80));
    EXPECT_EQ(lines[1].fileNo, 93U);
    EXPECT_NE(lines[2].text.find("procTime:5000000, eventLeft:0"), std::string::npos);
}

// A policy that offers neither query is never asked for them.
TEST_F(SchProcess, PolicyWithoutQueriesIsServed)
{
    SchPolicyOps ops = FakePolicy::Ops();
    ops.getEventCache = nullptr;
    ops.getEventLeft = nullptr;
    TestSch sch(LinuxOps(), &ops);
    const ReadyTask task(sch.Get(), {NoteProc, 1});
    EXPECT_EQ(Cycle(sch.Get()), (Notes{"prepare", "insert 1", "select", "run 1"}));
    SchEventCacheInfo records[2] = {};
    u32 count = 2;
    EXPECT_EQ(SCH_GetTasksEventCache(static_cast<u32>(sch.EpFd()), records, &count), 0U);
    EXPECT_EQ(count, 0U);
}

TEST_F(SchProcess, EventCacheOfADescriptorWithoutSchedulerFails)
{
    const Fd epoll = Fd::Epoll();
    SchEventCacheInfo record = {};
    u32 count = 1;
    EXPECT_EQ(SCH_GetTasksEventCache(epoll.U32(), &record, &count), 0xFFFFFFFFU);
    EXPECT_EQ(count, 1U);
    EXPECT_LINES();
}

TEST_F(SchProcess, EventCacheWithoutPolicyIsEmpty)
{
    TestSch sch(Policy::None);
    SchEventCacheInfo record = {};
    u32 count = 1;
    EXPECT_EQ(SCH_GetTasksEventCache(static_cast<u32>(sch.EpFd()), &record, &count), 0U);
    EXPECT_EQ(count, 0U);
}

TEST_F(SchProcess, EventCacheIsThePolicies)
{
    const SchPolicyOps ops = FakePolicy::Ops();
    TestSch sch(LinuxOps(), &ops);
    SchEventCacheInfo record = {};
    u32 count = 1;
    EXPECT_EQ(SCH_GetTasksEventCache(static_cast<u32>(sch.EpFd()), &record, &count), 0U);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(record.fd, 77);
}

SchCtrl* g_asked;

// The policy is asked under the read side of both locks.
TEST_F(SchProcess, EventCacheIsAskedForUnderBothLocks)
{
    SchPolicyOps ops = FakePolicy::Ops();
    ops.getEventCache = [](void* /*policy*/, SchEventCacheInfo* /*records*/, u32* count) {
        *count = 0;
        const int another = pthread_rwlock_tryrdlock(&g_xelSchRunCtrl.lock);
        if (another == 0) {
            (void)pthread_rwlock_unlock(&g_xelSchRunCtrl.lock);
        }
        HookRecorder::Note(Text("readers %u, another reader %d, a writer %d", g_asked->lock.count,
                                another, pthread_rwlock_trywrlock(&g_xelSchRunCtrl.lock)));
        return 0U;
    };
    TestSch sch(LinuxOps(), &ops);
    g_asked = sch.Get();
    (void)HookRecorder::Take();
    SchEventCacheInfo record = {};
    u32 count = 1;
    EXPECT_EQ(SCH_GetTasksEventCache(static_cast<u32>(sch.EpFd()), &record, &count), 0U);
    EXPECT_EQ(HookRecorder::Take(), Notes{Text("readers 1, another reader 0, a writer %d", EBUSY)});
    EXPECT_EQ(sch->lock.count, 0U);
    EXPECT_TRUE(RegistryIsFree());
}

TEST_F(SchProcess, EventCacheListsWhatTheCycleLeft)
{
    TestSch sch;
    const ReadyTask a(sch.Get(), {NoteProc, 1, 0, 1, "first"}, 1, EPOLLET);
    const ReadyTask b(sch.Get(), {NoteProc, 2, 0, 2, "second"}, 1, EPOLLET);
    XEL_SchDispatch(sch.Get());
    SchEventCacheInfo records[4] = {};
    u32 count = 4;
    EXPECT_EQ(SCH_GetTasksEventCache(static_cast<u32>(sch.EpFd()), records, &count), 0U);
    ASSERT_EQ(count, 1U);
    EXPECT_STREQ(records[0].name, "second");
    EXPECT_EQ(records[0].fd, b.Fd());
    EXPECT_EQ(records[0].type, 0U);
    EXPECT_EQ(records[0].events, u32{EPOLLIN});
}

// The lookups of the event cache wait for nobody but take the scheduler's lock for reading.
TEST_F(SchProcess, EventCacheCanBeAskedFromACallback)
{
    static u32 result;
    static u32 count;
    TestSch sch;
    const ReadyTask task(sch.Get(), {[](struct epoll_event* /*event*/, u64 data) -> u32 {
                                         SchEventCacheInfo records[4];
                                         count = 4;
                                         result = SCH_GetTasksEventCache(static_cast<u32>(data),
                                                                         records, &count);
                                         return 0;
                                     },
                                     static_cast<u64>(sch.EpFd())});
    result = 1;
    XEL_SchDispatch(sch.Get());
    EXPECT_EQ(result, 0U);
    EXPECT_EQ(count, 0U);
}

} // namespace
