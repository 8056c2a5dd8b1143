// Entry points that the library itself does not go through, and answers of a policy or of epoll
// that no well-behaved one gives.
#include <algorithm>
#include <functional>
#include <optional>
#include <sys/eventfd.h>
#include <utility>

#include <gtest/gtest.h>

#include "sch_dispatch_support.h"
#include "scheduler/xel_fmm_tbl.h"
#include "scheduler/xel_sch_dbg_inner.h"
#include "scheduler/xel_sch_inner_event.h"

namespace
{

using namespace schtest;
using Seconds = std::vector<u32>;

class SchRare : public SchTest
{
protected:
    void SetUp() override
    {
        SchTest::SetUp();
        FakePolicy::Reset();
    }
};

// The event as epoll would report it for a task.
struct epoll_event EventOf(SchTaskCtrl* task)
{
    struct epoll_event event = {};
    event.events = EPOLLIN;
    event.data.ptr = task;
    return event;
}

TEST_F(SchRare, CycleWithoutTheSchedulersLockRunsAsWell)
{
    TestSch sch;
    HookRecorder hooks;
    const ReadyTask task(sch.Get(), {NoteProc, 3});
    (void)HookRecorder::Take();
    SchDispatch(sch.Get(), 9, NoteHook);
    const Notes notes = HookRecorder::Take();
    ASSERT_GE(notes.size(), 3U);
    EXPECT_EQ(notes[0], "hook 9 0");
    EXPECT_EQ(notes[1], "run 3");
    EXPECT_EQ(notes[2], "hook 9 1");
}

TEST_F(SchRare, CycleOfADestroyedRecordSleeps)
{
    TestSch sch;
    SchCtrl* stale = sch.Get();
    sch.Destroy();
    SchDispatch(stale, 0, nullptr);
    EXPECT_LINES(SchLine("Sch dispatch, magic is damaged, magic = 0."));
    EXPECT_EQ(xeltest::TakeSleeps(), Seconds{1});
}

TEST_F(SchRare, EventsHandedInAreRunInOrder)
{
    TestSch sch(Policy::None);
    HookRecorder hooks;
    const ReadyTask a(sch.Get(), {NoteProc, 1});
    const ReadyTask b(sch.Get(), {FailingProc, 2});
    struct epoll_event events[] = {EventOf(b.Task()), EventOf(a.Task())};
    (void)HookRecorder::Take();
    SchEventsProcess(sch.Get(), 0, nullptr, events, 2);
    Notes runs = HookRecorder::Take();
    std::erase_if(runs, [](const std::string& note) { return !note.starts_with("run"); });
    EXPECT_EQ(runs, (Notes{"run 2", "run 1"}));
    EXPECT_LINES(SchLine("User proc result, param = :2. (ret = 0x5).", 80));
}

TEST_F(SchRare, RecordBeforeARunTakesTheTaskAndTheStart)
{
    TestSch sch;
    const ReadyTask task(sch.Get(), {xeltest::NopProc, 0, 1, 7, "recorded"});
    SchTaskTraceInfo record = {};
    SchDbgInfoRecordBeforeProcess(task.Task(), 1234, &record);
    EXPECT_EQ(record.startTime, 1234U);
    EXPECT_EQ(record.fd, task.Fd());
    EXPECT_EQ(record.type, 1U);
    EXPECT_EQ(record.prio, 7U);
    EXPECT_STREQ(record.name, "recorded");
    SchDbgInfoRecordBeforeProcess(nullptr, 99, &record);
    EXPECT_EQ(record.startTime, 99U) << "the start is noted for a task that is gone too";
    EXPECT_LINES(TaskLine("task handle null."),
                 TaskLine("Sch get task name unsuccessfully, schTaskHandle null."));
}

TEST_F(SchRare, RecordAfterARunTakesTheEndAndTheCost)
{
    TestSch sch(Policy::None);
    HookRecorder hooks;
    SchTaskTraceInfo record = {};
    record.fd = 5;
    record.startTime = 100;
    SchDbgInfoRecordAfterProcess(sch.Get(), &record, 1000, 7);
    EXPECT_EQ(record.startTime, 100U);
    EXPECT_EQ(record.endTime, 1000U);
    EXPECT_EQ(record.procTime, 7U) << "what the caller says, not the difference";
    EXPECT_EQ(HookRecorder::Take(), (Notes{"stat 5 7", Text("trace %d 5 7", sch.EpFd())}));
    EXPECT_LINES();
}

TEST_F(SchRare, PolicyThatPreparesMoreThanTheBufferHoldsGetsTheBuffersSize)
{
    const SchPolicyOps policy = FakePolicy::Ops();
    EpollProbe probe;
    TestSch sch(probe.Ops(), &policy, 4);
    (void)probe.TakeWaits();
    FakePolicy::prepareResult = 5;
    probe.onWait = [](const EpollProbe::Wait&) { return 0; };
    XEL_SchDispatch(sch.Get());
    const std::vector<EpollProbe::Wait> waits = probe.TakeWaits();
    ASSERT_EQ(waits.size(), 1U);
    EXPECT_EQ(waits[0].maxEvents, 4);
    probe.onWait = nullptr;
}

TEST_F(SchRare, NoTableIsDestroyedAtOnce)
{
    EXPECT_EQ(FtCtrlDestroy(nullptr), 0U);
}

void EndBeforeTheBegin()
{
    EXPECT_EQ(SchFinal(), 0U);
    EXPECT_EQ(SchFinal(), 0U);
    EXPECT_EQ(g_xelSchRunCtrl.inited.load(), 0U);
    EXPECT_EQ(SchInit(), 0U);
    EXPECT_EQ(SchInit(), 0U) << "once is enough";
    EXPECT_EQ(SchFinal(), 0U);
}

TEST(SchRareFresh, EndBeforeTheBeginDoesNothing)
{
    XELTEST_IN_FRESH_PROCESS(EndBeforeTheBegin);
}

// What the callback of the first descriptor of a batch does to the task of the second.
struct Turnover {
    SchCtrl* sch;
    int doomed;
    int fresh;
    SchTaskCtrl* before;
    SchTaskCtrl* after;
};

u32 TurnOverProc(struct epoll_event* event, u64 data)
{
    (void)event;
    auto* turnover = reinterpret_cast<Turnover*>(data);
    turnover->before = SchTaskGetHandleByAppFd(turnover->doomed);
    EXPECT_EQ(DelFd(turnover->sch, turnover->doomed), 0U);
    turnover->after = MakeTask(turnover->fresh, {NoteProc, 77});
    return 0;
}

// A batch was fetched with the task of the second descriptor; the first callback ends that task,
// and a task of another descriptor, which no scheduler knows, takes its unit.
TEST_F(SchRare, TaskThatTookTheUnitOfADestroyedOneIsNotRunInItsPlace)
{
    TestSch sch(Policy::None);
    HookRecorder hooks;
    const Fd first = Fd::Event(1);
    const Fd doomed = Fd::Event(1);
    const Fd fresh = Fd::Event();
    Turnover turnover = {sch.Get(), doomed.Get(), fresh.Get(), nullptr, nullptr};
    ASSERT_EQ(AddFd(sch.Get(), first.Get(), {TurnOverProc, reinterpret_cast<u64>(&turnover)}), 0U);
    ASSERT_EQ(AddFd(sch.Get(), doomed.Get(), {NoteProc, 1}), 0U);
    (void)HookRecorder::Take();
    XEL_SchDispatch(sch.Get());
    ASSERT_EQ(turnover.after, turnover.before) << "the unit freed last is taken first";
    const Notes notes = HookRecorder::Take();
    EXPECT_EQ(std::count(notes.begin(), notes.end(), "run 77"), 0);
    EXPECT_LINES(TaskLine("Task get info process unsuccessfully, task is invalid."),
                 SchLine("Event process, invalid task-ctrl."));
    EXPECT_EQ(DelFd(sch.Get(), first.Get()), 0U);
    XEL_TaskDestroy(turnover.after);
}

// The refusal is for one batch only: what takes the unit next runs when its own readiness comes.
TEST_F(SchRare, TaskInATurnedOverUnitRunsWithItsOwnBatch)
{
    TestSch sch(Policy::None);
    HookRecorder hooks;
    const Fd first = Fd::Event(1);
    const Fd doomed = Fd::Event(1);
    const Fd fresh = Fd::Event(1);
    Turnover turnover = {sch.Get(), doomed.Get(), fresh.Get(), nullptr, nullptr};
    ASSERT_EQ(AddFd(sch.Get(), first.Get(), {TurnOverProc, reinterpret_cast<u64>(&turnover)}), 0U);
    ASSERT_EQ(AddFd(sch.Get(), doomed.Get(), {NoteProc, 1}), 0U);
    XEL_SchDispatch(sch.Get());
    xeltest::DropLog();
    EXPECT_EQ(DelFd(sch.Get(), first.Get()), 0U);
    XEL_TaskDestroy(turnover.after);
    ASSERT_EQ(AddFd(sch.Get(), fresh.Get(), {NoteProc, 78}), 0U);
    (void)HookRecorder::Take();
    XEL_SchDispatch(sch.Get());
    const Notes notes = HookRecorder::Take();
    EXPECT_EQ(std::count(notes.begin(), notes.end(), "run 78"), 1);
    EXPECT_EQ(DelFd(sch.Get(), fresh.Get()), 0U);
}

// A wait reports two tasks. When the first one is inserted, the other one has gone, and its unit is
// a task's that is not ready.
class SchAfterWait : public SchRare
{
protected:
    void SetUp() override
    {
        SchRare::SetUp();
        sch_.emplace();
        ASSERT_EQ(AddFd(sch_->Get(), first_.Get(), {.proc = NoteProc, .data = 1, .prio = 5}), 0U);
        ASSERT_EQ(AddFd(sch_->Get(), doomed_.Get(), {NoteProc, 2}), 0U);
    }
    void TearDown() override
    {
        EXPECT_EQ(DelFd(sch_->Get(), first_.Get()), 0U);
        EXPECT_EQ(DelFd(sch_->Get(), fresh_.Get()), 0U);
        sch_.reset();
        SchRare::TearDown();
    }
    // What runs in the cycle of that wait and some more; the new task comes with this priority.
    Notes RunsWith(u32 prio, int cycles)
    {
        const HookRecorder hooks;
        (void)HookRecorder::Take();
        const SchTaskCtrl* before = SchTaskGetHandleByAppFd(doomed_.Get());
        xeltest::RunAtNth(xeltest::Call::SystimeGetMicroSec, 1, [&] {
            EXPECT_EQ(DelFd(sch_->Get(), doomed_.Get()), 0U);
            EXPECT_EQ(AddFd(sch_->Get(), fresh_.Get(), {.proc = NoteProc, .data = 3, .prio = prio}),
                      0U);
            EXPECT_EQ(SchTaskGetHandleByAppFd(fresh_.Get()), before) << "taken first";
        });
        for (int i = 0; i < cycles; ++i) {
            XEL_SchDispatch(sch_->Get());
        }
        EXPECT_LINES(TaskLine("Task get info unsuccessfully, input is not valid."),
                     BfsLine("Event insert, invalid task-ctrl."));
        return OnlyRuns();
    }
    static Notes OnlyRuns()
    {
        Notes runs = HookRecorder::Take();
        std::erase_if(runs, [](const std::string& note) { return !note.starts_with("run"); });
        return runs;
    }

    std::optional<TestSch> sch_;
    Fd first_ = Fd::Event(1);
    Fd doomed_ = Fd::Event(1);
    Fd fresh_ = Fd::Event();
};

TEST_F(SchAfterWait, NewTaskIsNotRunInPlaceOfTheReportedOne)
{
    EXPECT_EQ(RunsWith(0, 1), Notes{"run 1"});
    Signal(fresh_.Get());
    const HookRecorder hooks;
    XEL_SchDispatch(sch_->Get());
    EXPECT_EQ(OnlyRuns(), Notes{"run 3"}) << "for its own readiness";
}

// Nor in a later cycle.
TEST_F(SchAfterWait, NewTaskIsNotQueuedInPlaceOfTheReportedOne)
{
    EXPECT_EQ(RunsWith(9, 3), (Notes{"run 1", "run 1", "run 1"}));
}

// The record was not filled while nobody was registered to see it.
TEST_F(SchRare, HooksThatComeDuringABindingAreNotCalledForIt)
{
    TestSch sch;
    const Fd fd = Fd::Event();
    SchTaskCtrl* task = MakeTask(fd.Get(), {NoteProc, 1});
    std::optional<HookRecorder> hooks;
    xeltest::RunAtNth(xeltest::Call::XelMemAllocF, 1, [&hooks] { hooks.emplace(); });
    EXPECT_EQ(XEL_TaskAdd(sch.Get(), task), 0U);
    ASSERT_TRUE(hooks.has_value());
    EXPECT_EQ(HookRecorder::Take(), Notes{});
    XEL_TaskDestroy(task);
}

// Two threads' work in one wait: when it has reported a task and before its result is looked at,
// the task goes, and another one gets its unit. That one may also be what was reported.
class SchDuringWait : public SchRare
{
protected:
    void SetUp() override
    {
        SchRare::SetUp();
        sch_.emplace();
        other_.emplace(Fd::Event(1));
        fresh_.emplace(Fd::Event());
        int ends[2] = {-1, -1};
        ASSERT_EQ(pipe(ends), 0);
        doomed_.emplace(ends[0]);
        EXPECT_EQ(write(ends[1], "x", 1), 1);
        EXPECT_EQ(close(ends[1]), 0); // readable, and hung up
        EXPECT_EQ(AddFd(sch_->Get(), doomed_->Get(), {NoteMask, 1}), 0U);
        g_turnOver = [this](u32 events) {
            const SchTaskCtrl* before = SchTaskGetHandleByAppFd(doomed_->Get());
            EXPECT_EQ(DelFd(sch_->Get(), doomed_->Get()), 0U);
            EXPECT_EQ(AddFd(sch_->Get(), fresh_->Get(), {NoteMask, 2}, events), 0U);
            EXPECT_EQ(SchTaskGetHandleByAppFd(fresh_->Get()), before) << "taken first";
        };
        g_sch = sch_->Get();
        g_masks.clear();
    }
    void TearDown() override
    {
        g_turnOver = nullptr;
        sch_.reset();
        other_.reset();
        doomed_.reset();
        fresh_.reset();
        SchRare::TearDown();
    }
    // One cycle, in whose wait it happens.
    void Cycle()
    {
        g_sch->epollOps.wait = WaitAndTurnOver;
        XEL_SchDispatch(g_sch);
    }
    static u32 NoteMask(struct epoll_event* event, u64 data)
    {
        const u32 mask = event->events;
        g_masks.emplace_back(data, mask);
        return 0;
    }
    static int WaitAndTurnOver(int epFd, struct epoll_event* events, int max, int timeoutMs)
    {
        const int n = epoll_wait(epFd, events, max, timeoutMs);
        g_sch->epollOps.wait = epoll_wait;
        g_turnOver(EPOLLIN);
        return n;
    }

    using Masks = std::vector<std::pair<u64, u32>>;
    inline static SchCtrl* g_sch = nullptr;
    inline static std::function<void(u32)> g_turnOver = nullptr;
    inline static Masks g_masks;
    std::optional<TestSch> sch_;
    std::optional<Fd> other_;
    std::optional<Fd> doomed_;
    std::optional<Fd> fresh_;
};

TEST_F(SchDuringWait, TaskThatIsNotReadyIsNotRun)
{
    Cycle();
    EXPECT_EQ(g_masks, Masks{});
    Signal(fresh_->Get());
    XEL_SchDispatch(g_sch);
    EXPECT_EQ(g_masks, (Masks{{2, EPOLLIN}}));
    EXPECT_EQ(schtest::TakeLines(), schtest::Lines{});
    EXPECT_EQ(DelFd(g_sch, fresh_->Get()), 0U);
}

TEST_F(SchDuringWait, TaskOfABatchThatIsNotReadyIsNotRun)
{
    EXPECT_EQ(AddFd(g_sch, other_->Get(), {NoteMask, 3}), 0U);
    Cycle();
    XEL_SchDispatch(g_sch);
    EXPECT_EQ(g_masks, (Masks{{3, EPOLLIN}, {3, EPOLLIN}}));
    EXPECT_EQ(schtest::TakeLines(), schtest::Lines{});
    EXPECT_EQ(DelFd(g_sch, fresh_->Get()), 0U);
    EXPECT_EQ(DelFd(g_sch, other_->Get()), 0U);
}

TEST_F(SchDuringWait, TaskThatIsReadyRunsForWhatItIsReady)
{
    Signal(fresh_->Get());
    Cycle();
    EXPECT_EQ(g_masks, (Masks{{2, EPOLLIN}})) << "it has not hung up";
    EXPECT_EQ(schtest::TakeLines(), schtest::Lines{});
    EXPECT_EQ(DelFd(g_sch, fresh_->Get()), 0U);
}

TEST_F(SchDuringWait, TaskThatWasAddedAndReportedRunsAtOnce)
{
    EXPECT_EQ(DelFd(g_sch, doomed_->Get()), 0U);
    Signal(fresh_->Get());
    xeltest::RunAtNth(xeltest::Call::EpollWait, 1, [this] {
        EXPECT_EQ(AddFd(g_sch, fresh_->Get(), {NoteMask, 2}), 0U);
        EXPECT_EQ(AddFd(g_sch, doomed_->Get(), {NoteMask, 1}), 0U);
    });
    XEL_SchDispatch(g_sch);
    XEL_SchDispatch(g_sch);
    Masks masks = g_masks;
    std::sort(masks.begin(), masks.end());
    EXPECT_EQ(masks, (Masks{{1, EPOLLIN | EPOLLHUP}, {2, EPOLLIN}}));
    EXPECT_EQ(schtest::TakeLines(), schtest::Lines{});
    EXPECT_EQ(DelFd(g_sch, fresh_->Get()), 0U);
    EXPECT_EQ(DelFd(g_sch, doomed_->Get()), 0U);
}

// A wait that reports a task which ends before the dispatcher looks at it: another thread destroys
// it, and makes a task in its unit.
class SchTurnover : public SchRare
{
protected:
    void SetUp() override
    {
        SchRare::SetUp();
        probe_.onWait = [this](const EpollProbe::Wait& wait) { return WaitAndTurnOver(wait); };
        sch_.emplace(probe_.Ops(), nullptr);
        doomed_.emplace(Fd::Event(1));
        fresh_.emplace(Fd::Event());
        EXPECT_EQ(AddFd(Sch(), doomed_->Get(), {NoteProc, 1}), 0U);
    }

    void TearDown() override
    {
        sch_.reset();
        doomed_.reset();
        fresh_.reset();
        probe_.onWait = nullptr;
        SchRare::TearDown();
    }

    SchCtrl* Sch() const { return sch_->Get(); }

    int WaitAndTurnOver(const EpollProbe::Wait& wait)
    {
        const int n = epoll_wait(wait.epFd, wait.events, wait.maxEvents, 0);
        if (makeSuccessor_ && n == 1) {
            const void* before = wait.events[0].data.ptr;
            EXPECT_EQ(DelFd(Sch(), doomed_->Get()), 0U);
            std::exchange(makeSuccessor_, nullptr)();
            const int fd = successorFd_ >= 0 ? successorFd_ : fresh_->Get();
            EXPECT_EQ(SchTaskGetHandleByAppFd(fd), before) << "taken first";
        }
        return n;
    }

    // What ran in the one cycle whose wait met the turnover.
    std::vector<u32> RunsWith(std::function<void()> makeSuccessor)
    {
        makeSuccessor_ = std::move(makeSuccessor);
        const HookRecorder hooks;
        (void)HookRecorder::Take();
        XEL_SchDispatch(Sch());
        std::vector<u32> runs;
        for (const std::string& note : HookRecorder::Take()) {
            if (note.starts_with("run ")) {
                runs.push_back(static_cast<u32>(std::stoul(note.substr(4))));
            }
        }
        return runs;
    }

    void ExpectRefusal()
    {
        EXPECT_LINES(TaskLine("Task get info process unsuccessfully, task is invalid."),
                     SchLine("Event process, invalid task-ctrl."));
    }

    EpollProbe probe_;
    std::optional<TestSch> sch_;
    std::optional<Fd> doomed_;
    std::optional<Fd> fresh_;
    std::function<void()> makeSuccessor_;
    int successorFd_ = -1; // when it is not for fresh_
};

TEST_F(SchTurnover, TaskOfAnotherSchedulerIsNotRunHere)
{
    TestSch other(Policy::None);
    EXPECT_EQ(eventfd_write(fresh_->Get(), 1), 0);
    EXPECT_EQ(RunsWith([&] {
                  EXPECT_EQ(AddFd(other.Get(), fresh_->Get(), {NoteProc, 2}), 0U);
              }),
              std::vector<u32>{});
    ExpectRefusal();
    XEL_SchDispatch(other.Get());
    EXPECT_EQ(HookRecorder::Take(), Notes{"run 2"}) << "it runs where it belongs";
    EXPECT_EQ(DelFd(other.Get(), fresh_->Get()), 0U);
}

TEST_F(SchTurnover, TaskThatNobodyHasRegisteredIsNotRun)
{
    SchTaskCtrl* task = nullptr;
    EXPECT_EQ(RunsWith([&] { task = MakeTask(fresh_->Get(), {NoteProc, 3}); }), std::vector<u32>{});
    ExpectRefusal();
    XEL_TaskDestroy(task);
}

// It is bound nowhere and ready, but it is another destroyer's.
TEST_F(SchTurnover, WakeUpOfAnotherSchedulerIsNotRunHere)
{
    TestSch other(Policy::None);
    const SchEpollOps ops = LinuxOps();
    SchTaskCtrl* inner = nullptr;
    EXPECT_EQ(RunsWith([&] {
                  inner = SchInnerEventCreate(other.EpFd(), &ops);
                  successorFd_ = static_cast<int>(SchTaskGetFdBySchHandle(inner));
                  Signal(successorFd_);
              }),
              std::vector<u32>{});
    ExpectRefusal();
    eventfd_t left = 0;
    EXPECT_EQ(eventfd_read(successorFd_, &left), 0) << "nobody has taken it";
    SchInnerEventDestroy(other.EpFd(), inner, &ops);
}

TEST_F(SchTurnover, TaskOfThisSchedulerIsRun)
{
    EXPECT_EQ(RunsWith([&] {
                  EXPECT_EQ(AddFd(Sch(), fresh_->Get(), {NoteProc, 4}), 0U);
              }),
              std::vector<u32>{4});
    EXPECT_EQ(DelFd(Sch(), fresh_->Get()), 0U);
}

TEST_F(SchTurnover, TaskOfSeveralSchedulersIsRun)
{
    TestSch other(Policy::None);
    SchTaskCtrl* task = nullptr;
    EXPECT_EQ(RunsWith([&] {
                  task = MakeTask(fresh_->Get(), {NoteProc, 5});
                  EXPECT_EQ(XEL_TaskAdd(Sch(), task), 0U);
                  EXPECT_EQ(XEL_TaskAdd(other.Get(), task), 0U);
              }),
              std::vector<u32>{5});
    XEL_TaskDestroy(task);
}

TEST_F(SchTurnover, TaskThatTheApplicationRegistersItselfIsRun)
{
    SchTaskCtrl* task = nullptr;
    EXPECT_EQ(eventfd_write(fresh_->Get(), 1), 0);
    EXPECT_EQ(RunsWith([&] {
                  task = MakeTask(fresh_->Get(), {NoteProc, 6});
              }),
              std::vector<u32>{6});
    XEL_TaskDestroy(task);
}

} // namespace
