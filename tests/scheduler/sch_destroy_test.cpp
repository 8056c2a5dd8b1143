// Destruction of a scheduler: its refusals, its handshake with a dispatcher, and what callbacks may
// do meanwhile.
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "sch_dispatch_support.h"

namespace
{

using namespace schtest;
using xeltest::Call;
using xeltest::i64;

class SchDestroy : public SchTest
{
protected:
    void SetUp() override
    {
        SchTest::SetUp();
        FakePolicy::Reset();
    }

    // A refused destruction leaves a scheduler that works, and nothing of its own.
    static void ExpectUsable(SchCtrl* sch, const Footprint& before)
    {
        EXPECT_EQ(Measure(), before);
        EXPECT_EQ(sch->magic.load(), 0xFBADBEEFU);
        EXPECT_EQ(sch->lock.gate, 0xFFFFFFFFU);
        EXPECT_TRUE(RegistryIsFree());
        const ReadyTask task(sch, {NoteProc, 1});
        (void)HookRecorder::Take();
        XEL_SchDispatch(sch);
        EXPECT_EQ(HookRecorder::Take(), Notes{"run 1"});
        EXPECT_LINES();
    }
};

TEST_F(SchDestroy, NullIsLogged)
{
    XEL_SchDestroy(nullptr);
    EXPECT_LINES(SchLine("Sch destroy, null handle."));
}

TEST_F(SchDestroy, DamagedMagicIsLogged)
{
    TestSch sch;
    sch->magic.store(0x77);
    sch->state.store(0);
    XEL_SchDestroy(sch.Get());
    EXPECT_LINES(SchLine("magic is damaged, magic = 0x77."));
    sch->magic.store(0xFBADBEEF);
    sch->state.store(3);
}

TEST_F(SchDestroy, ClearedAliveBitIsLogged)
{
    TestSch sch;
    const Footprint before = Measure();
    sch->state.store(2);
    XEL_SchDestroy(sch.Get());
    EXPECT_LINES(SchLine("handle has been destroyed already, state = 0x2."));
    sch->state.store(3);
    ExpectUsable(sch.Get(), before);
}

TEST_F(SchDestroy, SecondCallFindsMagicZero)
{
    TestSch sch;
    SchCtrl* stale = sch.Get();
    sch.Destroy();
    XEL_SchDestroy(stale);
    EXPECT_LINES(SchLine("magic is damaged, magic = 0."));
    EXPECT_EQ(stale->state.load(), 0U);
    EXPECT_EQ(stale->eventBuf, nullptr);
}

TEST_F(SchDestroy, GivesEverythingBackButTasksAndDescriptors)
{
    Fd epoll = Fd::Epoll();
    Fd fd = Fd::Event(1);
    const Footprint before = Measure();
    SchCtrl* sch = XEL_SchCreate(epoll.U32(), 4096);
    ASSERT_NE(sch, nullptr);
    ASSERT_EQ(AddFd(sch, fd.Get(), {NopProc}), 0U);
    SchTaskCtrl* task = SchTaskGetHandleByAppFd(fd.Get());
    XEL_SchDispatch(sch);
    XEL_SchDestroy(sch);
    EXPECT_EQ(task->magic.load(), 0x3DFFE844U);
    EXPECT_EQ(task->schCount, 1U);
    struct epoll_event event = {};
    EXPECT_EQ(epoll_wait(epoll.Get(), &event, 1, 0), 1) << "still registered";
    EXPECT_EQ(static_cast<void*>(event.data.ptr), task);
    XEL_TaskDestroy(task);
    EXPECT_EQ(Measure(), before);
}

TEST_F(SchDestroy, PolicyIsDestroyedOnce)
{
    const SchPolicyOps ops = FakePolicy::Ops();
    HookRecorder hooks;
    TestSch sch(LinuxOps(), &ops);
    sch.Destroy();
    EXPECT_EQ(HookRecorder::Take(), (Notes{"create", "destroy"}));
}

// The inner event: added, written with 3, removed; nobody reads it when nobody dispatches.
TEST_F(SchDestroy, WritesThreeToItsSemaphore)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), nullptr);
    int readable = 0;
    probe.onCtl = [&](const EpollProbe::Ctl& ctl) {
        if (ctl.op == 2) {
            u64 value = 0;
            while (::read(ctl.fd, &value, sizeof(value)) == 8) {
                EXPECT_EQ(value, 1U);
                ++readable;
            }
        }
        return 0;
    };
    xeltest::ResetFaults();
    sch.Destroy();
    EXPECT_EQ(readable, 3);
    EXPECT_EQ(xeltest::Calls(Call::EventfdWrite), 1U);
    EXPECT_EQ(xeltest::Calls(Call::EventfdRead), 0U);
    const auto ctls = probe.TakeCtls();
    ASSERT_EQ(ctls.size(), 2U);
    EXPECT_EQ(ctls[0].op, 0U);
    EXPECT_EQ(ctls[1].op, 2U);
    EXPECT_EQ(fcntl(ctls[0].fd, F_GETFD), -1) << "closed";
    EXPECT_TRUE(xeltest::TakeSleeps().empty());
}

TEST_F(SchDestroy, KeepsWakingWhileItWaits)
{
    TestSch sch;
    SchCtrl* raw = sch.Get();
    xeltest::ResetFaults();
    XelRwlockReadLock(&raw->lock);
    Runner destroyer([&sch] { sch.Destroy(); });
    EXPECT_TRUE(AwaitTrue([] { return xeltest::Calls(Call::EventfdWrite) >= 3; }));
    EXPECT_TRUE(WriterWaits(raw));
    XelRwlockReadUnLock(&raw->lock);
    EXPECT_TRUE(destroyer.AwaitEnd());
}

SchCtrl* g_watched;

// The magic, who is inside the scheduler's lock, and what another writer of the registry is told.
std::string Standing()
{
    return Text("magic %#x count %#x registry %d", g_watched->magic.load(), g_watched->lock.count,
                pthread_rwlock_trywrlock(&g_xelSchRunCtrl.lock));
}

// The inner event goes first, the policy after it and the magic last, all under both locks.
TEST_F(SchDestroy, RemovesTheInnerEventThenThePolicyUnderBothLocks)
{
    EpollProbe probe;
    probe.onCtl = [](const EpollProbe::Ctl& ctl) {
        if (ctl.op == 2) {
            const bool isTask = SchTaskGetHandleByAppFd(ctl.fd) != nullptr;
            HookRecorder::Note(Text("event task %d ", isTask) + Standing());
        }
        return 0;
    };
    SchPolicyOps ops = FakePolicy::Ops();
    ops.destroy = [](void* /*policy*/) { HookRecorder::Note("policy " + Standing()); };
    FakePolicy::noting = false;
    TestSch sch(probe.Ops(), &ops);
    g_watched = sch.Get();
    (void)HookRecorder::Take();
    sch.Destroy();
    const std::string held = Text("magic 0xfbadbeef count 0xffffffff registry %d", EBUSY);
    EXPECT_EQ(HookRecorder::Take(), (Notes{"event task 1 " + held, "policy " + held}));
    EXPECT_TRUE(RegistryIsFree());
}

TEST_F(SchDestroy, FailingEventfdIsRefused)
{
    TestSch sch;
    const Footprint before = Measure();
    xeltest::FailNth(Call::Eventfd, 1, -1, ENFILE);
    XEL_SchDestroy(sch.Get());
    EXPECT_LINES(SchLine("create event fd unsuccessfully, errno = 23."),
                 SchLine("Sch create inner event unsuccess."));
    ExpectUsable(sch.Get(), before);
}

TEST_F(SchDestroy, FailingInnerTaskIsRefused)
{
    TestSch sch;
    const Footprint before = Measure();
    xeltest::FailNth(Call::FmmUnitAlloc, 2);
    XEL_SchDestroy(sch.Get());
    EXPECT_LINES(TaskLine("Task create unsuccessfully, alloc task-ctrl unsuccessfully!"),
                 SchLine("Sch create inner event unsuccess."));
    ExpectUsable(sch.Get(), before);
}

TEST_F(SchDestroy, FailingRegistrationIsRefused)
{
    TestSch sch;
    const Footprint before = Measure();
    xeltest::FailNth(Call::EpollCtl, 1, -1, ENOSPC);
    XEL_SchDestroy(sch.Get());
    const Lines lines = TakeLines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(lines[0].text.starts_with("inner event add epoll unsuccessfully:"));
    EXPECT_TRUE(lines[0].text.ends_with(", errno:28."));
    EXPECT_EQ(lines[1], SchLine("Sch create inner event unsuccess."));
    ExpectUsable(sch.Get(), before);
}

// The first write lock is the task table's, for the inner event; the second is the registry's.
TEST_F(SchDestroy, FailingRegistryLockIsRefused)
{
    TestSch sch;
    const Footprint before = Measure();
    xeltest::FailNth(Call::PthreadRwlockWrlock, 2, -16);
    XEL_SchDestroy(sch.Get());
    EXPECT_LINES(SchLine("Sch destroy, write lock unsuccessfully, ret = -16."));
    xeltest::ResetFaults();
    ExpectUsable(sch.Get(), before);
}

// Two faults at once: the inner event is removed before the refusal is logged.
TEST_F(SchDestroy, RefusalIsLoggedAfterTheInnerEventIsGone)
{
    const auto failWith = [](Call call, u64 nth, i64 result, int errnoValue) {
        TestSch sch;
        xeltest::ResetFaults();
        xeltest::FailNth(call, nth, result, errnoValue);
        xeltest::FailNth(Call::EpollCtl, 2, -1, EBADF);
        XEL_SchDestroy(sch.Get());
        xeltest::ResetFaults();
        Lines lines = TakeLines();
        std::erase(lines, SchLine("event fd write unsuccessfully, errno = 11."));
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_TRUE(lines[0].text.starts_with("Sch innner event del epoll unsuccessfully."));
        EXPECT_TRUE(lines[1].text.starts_with("Sch destroy")) << lines[1].text;
    };
    failWith(Call::PthreadRwlockWrlock, 2, -16, 0);
    failWith(Call::EventfdWrite, 1, -1, EAGAIN);
}

TEST_F(SchDestroy, PositiveResultOfTheRegistryLockPasses)
{
    TestSch sch;
    xeltest::FailNth(Call::PthreadRwlockWrlock, 2, EDEADLK);
    SchCtrl* stale = sch.Get();
    sch.Destroy();
    EXPECT_EQ(stale->magic.load(), 0U);
    // What was not taken is not given back.
    EXPECT_EQ(pthread_rwlock_trywrlock(&g_xelSchRunCtrl.lock), 0);
    EXPECT_EQ(pthread_rwlock_unlock(&g_xelSchRunCtrl.lock), 0);
    EXPECT_LINES();
}

TEST_F(SchDestroy, FailingWriteIsRefused)
{
    TestSch sch;
    const Footprint before = Measure();
    xeltest::FailNth(Call::EventfdWrite, 1, -1, EAGAIN);
    XEL_SchDestroy(sch.Get());
    EXPECT_LINES(SchLine("event fd write unsuccessfully, errno = 11."),
                 SchLine("Sch destroy unsuccessfully, event fd notify unsuccessfully."));
    xeltest::ResetFaults();
    ExpectUsable(sch.Get(), before);
}

TEST_F(SchDestroy, InterruptedWriteIsRepeated)
{
    TestSch sch;
    SchCtrl* stale = sch.Get();
    xeltest::ResetFaults();
    xeltest::FailNth(Call::EventfdWrite, 1, -1, EINTR);
    xeltest::FailNth(Call::EventfdWrite, 2, -1, EINTR);
    sch.Destroy();
    EXPECT_EQ(stale->magic.load(), 0U);
    EXPECT_EQ(xeltest::Calls(Call::EventfdWrite), 3U);
    EXPECT_LINES();
}

// Something destroys the inner event's task behind the destroyer's back.
TEST_F(SchDestroy, DamagedInnerTaskIsRefused)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), nullptr);
    int fd = -1;
    probe.onCtl = [&](const EpollProbe::Ctl& ctl) {
        fd = ctl.fd;
        XEL_TaskDestroy(reinterpret_cast<SchTaskCtrl*>(ctl.data));
        return 0;
    };
    XEL_SchDestroy(sch.Get());
    const Line dead = TaskLine("task handle magic destroy, magic = 0.");
    const Line invalid = TaskLine("Sch get fd, schTaskHandle invalid.");
    const Line damage = SchLine("scheduler inner event task damage.");
    EXPECT_LINES(dead, invalid, damage, dead, invalid, damage,
                 SchLine("Sch destroy unsuccessfully, event fd notify unsuccessfully."));
    EXPECT_EQ(sch->magic.load(), 0xFBADBEEFU);
    ::close(fd);
    probe.onCtl = nullptr;
}

// The inner event is not bound to the policy: its wake-up is refused there, and ends the wait.
TEST_F(SchDestroy, WakesABlockedDispatcherOfAPolicy)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), &g_schBfsPolicyOps);
    SchCtrl* stale = sch.Get();
    Runner dispatcher([&] { XEL_SchDispatch(stale); });
    ASSERT_TRUE(AwaitTrue([&] { return !probe.TakeWaits().empty(); }));
    sch.Destroy();
    ASSERT_TRUE(dispatcher.AwaitEnd());
    EXPECT_EQ(stale->magic.load(), 0U);
    // The descriptor stays readable while the destroyer has not removed it.
    const Lines lines = TakeLines();
    EXPECT_EQ(lines, (Lines{TaskLine("Task get info unsuccessfully, task is not bind scheduler. "
                                     "(taskName = schInnerEvent)"),
                            BfsLine("Event insert, invalid task-ctrl.")}));
    XEL_SchDispatch(stale);
    EXPECT_LINES(SchLine("Sch dispatch, magic is damaged, magic = 0."));
    EXPECT_EQ(xeltest::TakeSleeps(), std::vector<u32>{1});
}

TEST_F(SchDestroy, WakesABlockedDispatcherWithoutPolicy)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), nullptr);
    SchCtrl* stale = sch.Get();
    Runner dispatcher([&] { XEL_SchDispatch(stale); });
    ASSERT_TRUE(AwaitTrue([&] { return !probe.TakeWaits().empty(); }));
    sch.Destroy();
    ASSERT_TRUE(dispatcher.AwaitEnd());
    EXPECT_EQ(stale->magic.load(), 0U);
    EXPECT_GE(xeltest::Calls(Call::EventfdRead), 1U);
    EXPECT_LINES();
}

// Two at once: the second has its inner event ready while the first holds the locks; it finds
// nothing left to destroy and takes its own event away again.
TEST_F(SchDestroy, TwoAtOnceDestroyOnce)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), nullptr);
    SchCtrl* raw = sch.Get();
    const Footprint before = Measure();
    std::atomic<int> adds{0};
    probe.onCtl = [&](const EpollProbe::Ctl& ctl) {
        if (ctl.op == 0) {
            ++adds;
            EXPECT_TRUE(AwaitTrue([&] { return adds.load() >= 2; }));
        }
        return 0;
    };
    {
        Runner first([&] { XEL_SchDestroy(raw); });
        Runner second([&] { XEL_SchDestroy(raw); });
    }
    EXPECT_LINES(SchLine("magic is damaged, magic = 0."));
    const auto ctls = probe.TakeCtls();
    EXPECT_EQ(ctls.size(), 4U);
    for (const EpollProbe::Ctl& ctl : ctls) {
        EXPECT_EQ(fcntl(ctl.fd, F_GETFD), -1) << "closed";
    }
    EXPECT_EQ(Measure().descriptors, before.descriptors);
    sch.Forget();
}

// The scheduler goes while its destroyer has no lock yet: what is its own is removed, then it
// looks.
TEST_F(SchDestroy, SchedulerThatIsGoneIsNoticedAfterTheInnerEventIsRemoved)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), nullptr);
    SchCtrl* raw = sch.Get();
    int adds = 0;
    int removals = 0;
    probe.onCtl = [&](const EpollProbe::Ctl& ctl) {
        if (ctl.op == 0 && ++adds == 1) {
            XEL_SchDestroy(raw);
        }
        return ctl.op == 2 && ++removals == 2 ? -1 : 0;
    };
    sch.Destroy();
    const Lines lines = TakeLines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(lines[0].text.starts_with("Sch innner event del epoll unsuccessfully."));
    EXPECT_EQ(lines[1], SchLine("magic is damaged, magic = 0."));
    EXPECT_TRUE(RegistryIsFree());
}

// Whoever comes late with the old handle holds the lock of a unit that becomes another scheduler.
TEST_F(SchDestroy, LockOfAUnitIsTakenNotOverwrittenByTheNextScheduler)
{
    TestSch old;
    SchCtrl* unit = old.Get();
    old.Destroy();
    const Fd epoll = Fd::Epoll();
    SchCtrl* made = nullptr;
    XelRwlockReadLock(&unit->lock);
    Runner creator([&] { made = XEL_SchCreate(epoll.U32(), 8); });
    EXPECT_TRUE(AwaitTrue([&] { return WriterWaits(unit) || creator.HasEnded(); }));
    ASSERT_FALSE(creator.HasEnded());
    EXPECT_EQ(std::atomic_ref<u32>(unit->lock.count).load(), 1U);
    XelRwlockReadUnLock(&unit->lock);
    creator.Join();
    ASSERT_EQ(made, unit) << "the unit freed last is taken first";
    EXPECT_EQ(unit->lock.count, 0U);
    XEL_SchDestroy(made);
}

// What a callback may do while a destroyer waits for its cycle: one body, run on the dispatching
// thread once the destroyer has closed the scheduler's lock.
std::function<void()> g_whileWaiting;
SchCtrl* g_waitedFor;

u32 WaitingProc(struct epoll_event* /*event*/, u64 data)
{
    if (data == 0) {
        return 0; // the cycles before the destruction
    }
    HookRecorder::Note("inside");
    EXPECT_TRUE(AwaitTrue([] { return WriterWaits(g_waitedFor); }));
    g_whileWaiting();
    return 0;
}

void RunWhileDestroyed(TestSch& sch, std::function<void()> body)
{
    g_whileWaiting = std::move(body);
    g_waitedFor = sch.Get();
    (void)HookRecorder::Take();
    const Fd fd = Fd::Event(1);
    ASSERT_EQ(AddFd(sch.Get(), fd.Get(), {WaitingProc, 1, 0}), 0U);
    SchTaskCtrl* task = SchTaskGetHandleByAppFd(fd.Get());
    SchCtrl* raw = sch.Get();
    Runner dispatcher([raw] { XEL_SchDispatch(raw); });
    ASSERT_TRUE(AwaitTrue([] { return !HookRecorder::Take().empty(); }));
    Runner destroyer([&sch] { sch.Destroy(); });
    EXPECT_TRUE(dispatcher.AwaitEnd());
    EXPECT_TRUE(destroyer.AwaitEnd());
    EXPECT_EQ(raw->magic.load(), 0U);
    XEL_TaskDestroy(task);
    g_whileWaiting = nullptr;
}

void AddModifyDelete(SchCtrl* sch)
{
    for (int i = 0; i < 20; ++i) {
        const Fd fd = Fd::Event();
        EXPECT_EQ(AddFd(sch, fd.Get(), {NopProc, 1}), 0U);
        EXPECT_EQ(ModFd(sch, fd.Get(), {NopProc, 2}), 0U);
        EXPECT_EQ(DelFd(sch, fd.Get()), 0U);
        SchTaskCtrl* task = MakeTask(fd.Get());
        EXPECT_EQ(XEL_TaskAdd(sch, task), 0U);
        EXPECT_EQ(XEL_TaskDel(sch, task), 0U);
        XEL_TaskDestroy(task);
    }
}

TEST_F(SchDestroy, CallbackMayAddModifyAndDeleteMeanwhile)
{
    for (const Policy policy : {Policy::None, Policy::Bfs}) {
        TestSch sch(policy);
        SchCtrl* raw = sch.Get();
        RunWhileDestroyed(sch, [raw] { AddModifyDelete(raw); });
        EXPECT_LINES();
    }
}

TEST_F(SchDestroy, CallbackOfAnInnerSchedulerMayDoSoToo)
{
    TestSch outer;
    TestSch inner;
    SchCtrl* rawOuter = outer.Get();
    static SchCtrl* target;
    target = rawOuter;
    const ReadyTask nested(inner.Get(), {[](struct epoll_event* /*event*/, u64 /*data*/) -> u32 {
                               AddModifyDelete(target);
                               HookRecorder::Note("nested ran");
                               return 0;
                           }});
    SchCtrl* rawInner = inner.Get();
    RunWhileDestroyed(outer, [rawInner] { XEL_SchDispatch(rawInner); });
    EXPECT_EQ(HookRecorder::Take(), Notes{"nested ran"});
    EXPECT_LINES();
}

// A forbidden call, but no reason to hang: refused like that of a second thread.
TEST_F(SchDestroy, CallbackThatDispatchesItsOwnSchedulerMeanwhileIsRefused)
{
    TestSch sch;
    SchCtrl* raw = sch.Get();
    RunWhileDestroyed(sch, [raw] { XEL_SchDispatch(raw); });
    EXPECT_LINES(SchLine("Sch dispatch, try lock unsuccessfully, handle is looped in "
                         "multi-thread, ret = 0."));
}

TEST_F(SchDestroy, CallbackMayLookUpByDescriptorMeanwhile)
{
    TestSch sch;
    TestSch other;
    SchCtrl* raw = sch.Get();
    SchCtrl* rawOther = other.Get();
    RunWhileDestroyed(sch, [raw, rawOther] {
        EXPECT_EQ(SchGetSchHandleByEpFd(static_cast<u32>(raw->epFd)), raw);
        EXPECT_EQ(SchGetSchHandleByEpFd(static_cast<u32>(rawOther->epFd)), rawOther);
        SchEventCacheInfo records[8];
        u32 count = 8;
        EXPECT_EQ(SCH_GetTasksEventCache(static_cast<u32>(raw->epFd), records, &count), 0U);
        count = 8;
        EXPECT_EQ(SCH_GetTasksEventCache(static_cast<u32>(rawOther->epFd), records, &count), 0U);
        void* policy = nullptr;
        EXPECT_EQ(SchGetPolicyHandleBySchHandle(raw, &policy), 0U);
        EXPECT_EQ(policy, raw->policy);
    });
    EXPECT_LINES();
}

TEST_F(SchDestroy, CallbackMayCreateAnotherSchedulerMeanwhile)
{
    TestSch sch;
    std::unique_ptr<TestSch> another;
    RunWhileDestroyed(sch, [&another] {
        another = std::make_unique<TestSch>();
        EXPECT_EQ(SchGetSchHandleByEpFd(static_cast<u32>(another->EpFd())), another->Get());
    });
    EXPECT_LINES();
}

TEST_F(SchDestroy, CallbackMayDestroyAnotherSchedulerMeanwhile)
{
    TestSch sch;
    TestSch other;
    RunWhileDestroyed(sch, [&other] { other.Destroy(); });
    EXPECT_LINES();
}

TEST_F(SchDestroy, WaitsForTheCallbackToEnd)
{
    TestSch sch;
    std::atomic<bool> leave{false};
    static std::atomic<bool>* gate;
    gate = &leave;
    const Fd fd = Fd::Event(1);
    ASSERT_EQ(AddFd(sch.Get(), fd.Get(), {[](struct epoll_event* /*event*/, u64 /*data*/) -> u32 {
                        HookRecorder::Note("inside");
                        EXPECT_TRUE(AwaitTrue([] { return gate->load(); }));
                        return 0;
                    }}),
              0U);
    SchTaskCtrl* task = SchTaskGetHandleByAppFd(fd.Get());
    (void)HookRecorder::Take();
    SchCtrl* raw = sch.Get();
    {
        Runner dispatcher([raw] { XEL_SchDispatch(raw); });
        ASSERT_TRUE(AwaitTrue([] { return !HookRecorder::Take().empty(); }));
        Runner destroyer([raw] { XEL_SchDestroy(raw); });
        EXPECT_FALSE(destroyer.AwaitEnd(50));
        EXPECT_EQ(raw->magic.load(), 0xFBADBEEFU);
        leave.store(true);
    }
    EXPECT_EQ(raw->magic.load(), 0U);
    sch.Forget();
    XEL_TaskDestroy(task);
    (void)xeltest::TakeLog();
}

} // namespace
