// What a run leaves behind: the trace record, and the cases in which it belongs to another event.
#include <chrono>
#include <sys/time.h>

#include <gtest/gtest.h>

#include "sch_dispatch_support.h"

namespace
{

using namespace schtest;
using xeltest::Call;

class SchTrace : public SchTest
{
};

SchDbgTaskTrace g_trace;

// The time of day; time() may still tell the second before.
u64 Seconds()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<u64>(std::chrono::duration_cast<std::chrono::seconds>(now).count());
}

TEST_F(SchTrace, TraceCarriesTheRun)
{
    const SchDbgHookTable table{
        nullptr, nullptr, nullptr, nullptr,
        [](u32 /*epFd*/, const SchDbgTaskTrace* trace) { g_trace = *trace; }};
    SCH_RegisterDbgHookTable(&table);
    TestSch sch(Policy::None);
    const ReadyTask task(sch.Get(), {NopProc, 0, 1, 2, "traced"});
    SchTaskInsertInfo info = {};
    struct epoll_event pending = {EPOLLOUT, {nullptr}};
    ASSERT_EQ(SchTaskGetInfoInsert(nullptr, task.Task(), &pending, &info), 0U);
    const u64 before = Seconds();
    xeltest::ScriptMicroSec({50, 175});
    XEL_SchDispatch(sch.Get());
    SCH_DeregisterDbgHookTable();
    EXPECT_STREQ(g_trace.name, "traced");
    EXPECT_EQ(g_trace.fd, task.U32());
    EXPECT_EQ(g_trace.events, u32{EPOLLOUT}) << "what arrived again before the run";
    EXPECT_EQ(g_trace.procTime, 125U);
    EXPECT_GE(g_trace.tvSec, before);
    EXPECT_LE(g_trace.tvSec, Seconds());
    EXPECT_LT(g_trace.tvUsec, 1000000U);
}

// A hook that is registered during a run gets that run's record, with its time of day.
TEST_F(SchTrace, HookRegisteredDuringARunSeesTheTimeOfDay)
{
    static const SchDbgHookTable table{
        nullptr, nullptr, nullptr, nullptr,
        [](u32 /*epFd*/, const SchDbgTaskTrace* trace) { g_trace = *trace; }};
    TestSch sch(Policy::None);
    const XelTaskProc registering = [](struct epoll_event* /*event*/, u64 /*data*/) {
        SCH_RegisterDbgHookTable(&table);
        return 0U;
    };
    const ReadyTask task(sch.Get(), {registering});
    g_trace = {};
    const u64 before = Seconds();
    XEL_SchDispatch(sch.Get());
    SCH_DeregisterDbgHookTable();
    EXPECT_EQ(g_trace.fd, task.U32());
    EXPECT_GE(g_trace.tvSec, before);
    EXPECT_LE(g_trace.tvSec, Seconds());
}

// The time of day is taken before the callback: the run below lasts until the clock has moved.
TEST_F(SchTrace, TimeOfDayIsThatOfTheStart)
{
    static struct timeval begun;
    const SchDbgHookTable table{
        nullptr, nullptr, nullptr, nullptr,
        [](u32 /*epFd*/, const SchDbgTaskTrace* trace) { g_trace = *trace; }};
    SCH_RegisterDbgHookTable(&table);
    TestSch sch(Policy::None);
    const ReadyTask task(sch.Get(), {[](struct epoll_event* /*event*/, u64 /*data*/) {
                             struct timeval now = {};
                             (void)gettimeofday(&begun, nullptr);
                             do {
                                 (void)gettimeofday(&now, nullptr);
                             } while (!timercmp(&begun, &now, !=));
                             return 0U;
                         }});
    XEL_SchDispatch(sch.Get());
    SCH_DeregisterDbgHookTable();
    const struct timeval traced = {static_cast<time_t>(g_trace.tvSec),
                                   static_cast<suseconds_t>(g_trace.tvUsec)};
    EXPECT_FALSE(timercmp(&traced, &begun, >));
}

// What the hook of the dispatch takes belongs to the run, and so does the line of its failure.
TEST_F(SchTrace, TimeOfTheHookAndOfTheFailureBelongToTheRun)
{
    TestSch sch(Policy::None);
    HookRecorder hooks;
    const ReadyTask task(sch.Get(), {FailingProc, 1});
    (void)HookRecorder::Take();
    xeltest::SetMicroSec(1000);
    xeltest::RunAtNextLine([] { xeltest::AdvanceMicroSec(5000); });
    SCH_DispatchWithDeadloop(sch.Get(), 0, [](u64 /*context*/, u32 phase) {
        xeltest::AdvanceMicroSec(phase == 0 ? 10 : 300);
    });
    EXPECT_EQ(HookRecorder::Take(),
              (Notes{"run 1", Text("err %d 8", sch.EpFd()), Text("stat %d 5310", task.Fd()),
                     Text("trace %d %d 5310", sch.EpFd(), task.Fd())}));
    EXPECT_LINES(SchLine("User proc result, param = :1. (ret = 0x5).", 80));
}

// The clock is read twice around each callback, and nothing else lies between.
TEST_F(SchTrace, EachRunReadsTheClockTwice)
{
    TestSch sch(Policy::None);
    HookRecorder hooks;
    const ReadyTask a(sch.Get(), {NoteProc, 1});
    const ReadyTask b(sch.Get(), {NoteProc, 2});
    (void)HookRecorder::Take();
    xeltest::ScriptMicroSec({100, 101, 200, 220});
    xeltest::ResetFaults();
    SCH_DispatchWithDeadloop(sch.Get(), 0, nullptr);
    EXPECT_EQ(xeltest::Calls(Call::SystimeGetMicroSec), 4U);
    EXPECT_EQ(
        HookRecorder::Take(),
        (Notes{"run 1", Text("stat %d 1", a.Fd()), Text("trace %d %d 1", sch.EpFd(), a.Fd()),
               "run 2", Text("stat %d 20", b.Fd()), Text("trace %d %d 20", sch.EpFd(), b.Fd())}));
}

// The duration is handed to the statistic as 32 bits, to the trace whole.
TEST_F(SchTrace, LongRunIsCutForTheStatistic)
{
    TestSch sch(Policy::None);
    HookRecorder hooks;
    const ReadyTask task(sch.Get(), {NoteProc, 1});
    (void)HookRecorder::Take();
    xeltest::ScriptMicroSec({0, 0x100000007});
    XEL_SchDispatch(sch.Get());
    EXPECT_EQ(HookRecorder::Take(), (Notes{"run 1", Text("stat %d 7", task.Fd()),
                                           Text("trace %d %d 4294967303", sch.EpFd(), task.Fd())}));
    EXPECT_EQ(TakeLines().size(), 2U) << "slow, in 64 bits";
}

// The task dies right after the cycle has copied it: it still runs, and is traced as copied.
TEST_F(SchTrace, TaskThatDiesRightAfterItsCopyRunsAndIsTraced)
{
    TestSch sch(Policy::None);
    HookRecorder hooks;
    const ReadyTask first(sch.Get(), {NoteProc, 1});
    Fd dying = Fd::Event(1);
    ASSERT_EQ(AddFd(sch.Get(), dying.Get(), {NoteProc, 2}), 0U);
    SchTaskCtrl* task = SchTaskGetHandleByAppFd(dying.Get());
    (void)HookRecorder::Take();
    xeltest::SetMicroSec(1);
    xeltest::RunAtNth(Call::SystimeGetMicroSec, 3, [task] { XEL_TaskDestroy(task); });
    XEL_SchDispatch(sch.Get());
    EXPECT_EQ(HookRecorder::Take(), (Notes{"run 1", Text("stat %d 0", first.Fd()),
                                           Text("trace %d %d 0", sch.EpFd(), first.Fd()), "run 2",
                                           Text("stat %d 0", dying.Get()),
                                           Text("trace %d %d 0", sch.EpFd(), dying.Get())}));
    EXPECT_EQ(task->magic.load(), 0U);
    EXPECT_LINES();
}

// A cycle inside a cycle of the same scheduler is refused like a second thread.
TEST_F(SchTrace, CallbackThatDispatchesItsOwnSchedulerIsRefused)
{
    TestSch sch;
    HookRecorder hooks;
    const ReadyTask task(sch.Get(), {[](struct epoll_event* event, u64 data) -> u32 {
                                         XEL_SchDispatch(reinterpret_cast<SchCtrl*>(data));
                                         return NoteProc(event, 1);
                                     },
                                     reinterpret_cast<u64>(sch.Get())});
    (void)HookRecorder::Take();
    xeltest::SetMicroSec(1);
    XEL_SchDispatch(sch.Get());
    EXPECT_EQ(HookRecorder::Take(),
              (Notes{Text("err %d 0", sch.EpFd()), "run 1", Text("stat %d 0", task.Fd()),
                     Text("trace %d %d 0", sch.EpFd(), task.Fd())}));
    EXPECT_LINES(SchLine("Sch dispatch, try lock unsuccessfully, handle is looped in "
                         "multi-thread, ret = 0."));
    EXPECT_EQ(xeltest::TakeSleeps(), std::vector<u32>{1});
}

TEST_F(SchTrace, EventsGetAnswersOnItsOwn)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), nullptr);
    struct epoll_event room[64] = {};
    u32 count = 64; // the caller's room, whatever the scheduler's own is
    probe.onWait = [](const EpollProbe::Wait&) { return 0; };
    EXPECT_EQ(SchEventsGet(sch.Get(), room, &count), 0U);
    EXPECT_EQ(probe.TakeWaits().at(0).maxEvents, 64);
    struct epoll_event events[4] = {};
    count = 4;
    probe.onWait = [](const EpollProbe::Wait& wait) { return wait.maxEvents - 1; };
    EXPECT_EQ(SchEventsGet(sch.Get(), events, &count), 0U);
    EXPECT_EQ(count, 3U);
    EXPECT_EQ(probe.TakeWaits().at(0).events, events);
    probe.onWait = [](const EpollProbe::Wait&) { return -1; };
    probe.errNo.store(EINTR);
    EXPECT_EQ(SchEventsGet(sch.Get(), events, &count), 0U);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(probe.errNoCalls.load(), 1U);
    probe.errNo.store(EPERM);
    EXPECT_EQ(SchEventsGet(sch.Get(), events, &count), 0xFFFFFFFFU);
    EXPECT_LINES(SchLine("Event get, epoll wait with time-out[-1] unsuccessfully. (errNo:1)."));
}

} // namespace
