// The thread itself: its name, its dispatch loop with and without policy, and the marks that it
// sets for the dead-loop monitor.
#include <algorithm>
#include <cerrno>
#include <pthread.h>
#include <set>
#include <sys/resource.h>

#include "deadloop_probe.h"
#include "thread_support.h"
#include "xel_deadloop.h"

namespace
{

using namespace threadtest;
using namespace xeltest;

class ThreadRun : public ThreadTest
{
protected:
    void SetUp() override
    {
        ThreadTest::SetUp();
        (void)TakeMarks();
    }
    void TearDown() override
    {
        ThreadTest::TearDown();
        (void)TakeMarks();
    }
};

TEST_F(ThreadRun, NameIsSetOnTheThread)
{
    Worker worker("named-thread-15");
    char name[16] = {};
    worker.Run([&name] { EXPECT_EQ(pthread_getname_np(pthread_self(), name, sizeof(name)), 0); });
    EXPECT_STREQ(name, "named-thread-15");
    // The monitor's thread, which this one starts, has its creator's name until it takes its own.
    EXPECT_TRUE(AwaitTrue([] { return ThreadsNamed("named-thread-15") == 1; }));
}

TEST_F(ThreadRun, ThreadIsDetachedAndKnownByItsId)
{
    Worker worker;
    int state = -1;
    pthread_t self = 0;
    worker.Run([&] {
        self = pthread_self();
        pthread_attr_t attr;
        ASSERT_EQ(pthread_getattr_np(self, &attr), 0);
        EXPECT_EQ(pthread_attr_getdetachstate(&attr, &state), 0);
        EXPECT_EQ(pthread_attr_destroy(&attr), 0);
    });
    EXPECT_EQ(Calls(Call::PthreadDetach), 1U);
    EXPECT_EQ(state, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(worker->tid.load(), self);
}

TEST_F(ThreadRun, ReadyDescriptorRunsItsCallback)
{
    const Worker worker;
    const Fd fd = Fd::Event();
    std::atomic<u32> runs{0};
    std::atomic<u32> mask{0};
    const Body body = [&](u32 events) {
        fd.Drain();
        mask.store(events);
        runs.fetch_add(1);
        return 0U;
    };
    ASSERT_EQ(AddFd(worker.Get(), fd.Get(), SpecOf(body)), 0U);
    for (u32 n = 1; n <= 20; ++n) {
        fd.Signal();
        ASSERT_TRUE(AwaitTrue([&] { return runs.load() == n; }));
    }
    EXPECT_EQ(mask.load(), static_cast<u32>(EPOLLIN));
    EXPECT_EQ(DelFd(worker.Get(), fd.Get()), 0U);
}

// Five descriptors become ready while the thread is held; who ran after how many waits.
struct FiveReady {
    explicit FiveReady(Worker& worker)
    {
        HeldWorker held(worker);
        std::vector<Fd> fds;
        std::vector<Body> bodies;
        fds.reserve(5);
        bodies.reserve(5);
        for (u32 i = 0; i < 5; ++i) {
            fds.push_back(Fd::Event());
            bodies.emplace_back([this, &fds, i](u32) {
                fds[i].Drain();
                order.push_back(i);
                waits.push_back(Calls(Call::EpollWait));
                ran.fetch_add(1);
                return 0U;
            });
            TaskSpec spec = SpecOf(bodies[i]);
            spec.type = 1;
            EXPECT_EQ(AddFd(worker.Get(), fds[i].Get(), spec), 0U);
        }
        for (const u32 i : {3U, 0U, 4U, 1U, 2U}) {
            fds[i].Signal();
        }
        held.Open();
        EXPECT_TRUE(AwaitTrue([this] { return ran.load() == 5; }));
        for (const Fd& fd : fds) {
            EXPECT_EQ(DelFd(worker.Get(), fd.Get()), 0U);
        }
        worker.Run([] {});
    }
    size_t Cycles() const { return std::set<u64>(waits.begin(), waits.end()).size(); }

    std::vector<u32> order; // written by the thread, read after ran
    std::vector<u64> waits;
    std::atomic<u32> ran{0};
};

TEST_F(ThreadRun, WithoutPolicyAllReadyOnesRunInOneCycleInEpollOrder)
{
    ThreadAttr attr;
    attr.Set(XEL_THREAD_ATTR_SCHEDULE_POLICY, XEL_SCH_POLICY_NONE);
    Worker worker(attr);
    const FiveReady five(worker);
    EXPECT_EQ(five.Cycles(), 1U);
    EXPECT_EQ(five.order, (std::vector<u32>{3, 0, 4, 1, 2}));
}

TEST_F(ThreadRun, WithBfsReadyOnesAreSpreadOverCycles)
{
    Worker worker;
    const FiveReady five(worker);
    EXPECT_EQ(five.Cycles(), 5U);
}

TEST_F(ThreadRun, WithBfsThePriorityDecides)
{
    Worker worker;
    std::vector<u32> order;
    std::atomic<u32> ran{0};
    std::vector<Fd> fds;
    std::vector<Body> bodies;
    fds.reserve(4);
    bodies.reserve(4);
    {
        HeldWorker held(worker);
        for (u32 i = 0; i < 4; ++i) {
            fds.push_back(Fd::Event(1));
            bodies.emplace_back([&, i](u32) {
                fds[i].Drain();
                order.push_back(i);
                ran.fetch_add(1);
                return 0U;
            });
            TaskSpec spec = SpecOf(bodies[i]);
            spec.type = 0;
            spec.prio = 20 - i;
            ASSERT_EQ(AddFd(worker.Get(), fds[i].Get(), spec), 0U);
        }
    }
    ASSERT_TRUE(AwaitTrue([&ran] { return ran.load() == 4; }));
    EXPECT_EQ(order, (std::vector<u32>{3, 2, 1, 0}));
    for (const Fd& fd : fds) {
        EXPECT_EQ(DelFd(worker.Get(), fd.Get()), 0U);
    }
}

TEST_F(ThreadRun, CallbackMayAddAndDeleteOnItsOwnThread)
{
    Worker worker;
    const Fd inner = Fd::Event(1);
    std::atomic<u32> runs{0};
    const Body body = [&](u32) {
        inner.Drain();
        EXPECT_EQ(DelFd(worker.Get(), inner.Get()), 0U);
        runs.fetch_add(1);
        return 0U;
    };
    worker.Run([&] { EXPECT_EQ(AddFd(worker.Get(), inner.Get(), SpecOf(body)), 0U); });
    EXPECT_TRUE(AwaitTrue([&runs] { return runs.load() == 1; }));
    worker.Run([] {});
    EXPECT_EQ(SchTaskGetHandleByAppFd(inner.Get()), nullptr);
}

TEST_F(ThreadRun, FailingCallbackIsLoggedAndTheLoopGoesOn)
{
    Worker worker;
    const Fd fd = Fd::Event(1);
    const Body body = [&fd](u32) {
        fd.Drain();
        return 5U;
    };
    const std::string line = Text("User proc result, param = :%lu. (ret = 0x5).",
                                  static_cast<unsigned long>(DataOf(body)));
    ASSERT_EQ(AddFd(worker.Get(), fd.Get(), SpecOf(body)), 0U);
    EXPECT_TRUE(AwaitTrue([&line] { return LogCount(line) == 1; }));
    EXPECT_LOG(kSchSource, Warning(line));
    EXPECT_EQ(DelFd(worker.Get(), fd.Get()), 0U);
    worker.Run([] {});
}

// A wait that fails is logged, and the loop goes on after the pause.
TEST_F(ThreadRun, FailedWaitsDoNotEndTheLoop)
{
    Worker worker;
    {
        HeldWorker held(worker);
        FailNth(Call::EpollWait, 1, -1, EBADF);
        FailNth(Call::EpollWait, 2, -1, EIO);
        FailNth(Call::EpollWait, 3, -1, EINTR);
    }
    const std::vector<ExpectedLine> lines = {
        "Event get, epoll wait with time-out[0] unsuccessfully. (errNo:9).",
        "Sch dispatch, get events unsuccessfully. (ret = -1).",
        "Event get, epoll wait with time-out[0] unsuccessfully. (errNo:5).",
        "Sch dispatch, get events unsuccessfully. (ret = -1)."};
    EXPECT_TRUE(LogIs(kSchSource, lines));
    EXPECT_EQ(TakeSleeps(), (std::vector<u32>{1, 1}));
}

// The destroy event counts one by one, so no other value is an exit.
TEST_F(ThreadRun, OnlyAnExitValueOfOneEndsTheLoop)
{
    Worker worker;
    for (const u64 value : {u64{2}, u64{UINT64_MAX}}) {
        worker->exitValue.store(value);
        worker.Run([] {});
        worker.Run([] {}); // the value was looked at in between
        EXPECT_EQ(worker->exited.load(), 0U);
    }
    worker->exitValue.store(0);
}

TEST_F(ThreadRun, EachCallbackIsMarkedForTheMonitor)
{
    Worker worker;
    worker.Run([] { NoteMark("run"); });
    worker.Run([] {});
    const std::vector<Mark> marks = TakeMarks();
    ASSERT_GE(marks.size(), 4U);
    const u32 handle = marks[0].handle;
    EXPECT_NE(handle, 0U);
    EXPECT_NE(handle, kFail);
    EXPECT_EQ(marks[0], (Mark{"begin 0", handle}));
    EXPECT_EQ(marks[1].what, "run");
    EXPECT_EQ(marks[2], (Mark{"end 1", handle}));
    EXPECT_EQ(marks[3], (Mark{"begin 0", handle}));
}

TEST_F(ThreadRun, HookTranslatesItsPhases)
{
    SchThreadDeadloopMon(0xABCD, 0);
    SchThreadDeadloopMon(0xABCD, 1);
    SchThreadDeadloopMon(0xABCD, 7);
    const std::vector<Mark> marks = TakeMarks();
    EXPECT_EQ(marks,
              (std::vector<Mark>{{"begin 0", 0xABCD}, {"end 1", 0xABCD}, {"end 7", 0xABCD}}));
}

// What the monitor says about a callback that stays too long.
struct Reports {
    std::mutex mutex;
    std::vector<XelDeadloopReport> list; // guarded by mutex

    static void Note(void* self, const XelDeadloopReport* report)
    {
        auto* reports = static_cast<Reports*>(self);
        const std::lock_guard<std::mutex> guard(reports->mutex);
        reports->list.push_back(*report);
    }
    size_t Count()
    {
        const std::lock_guard<std::mutex> guard(mutex);
        return list.size();
    }
};

// The thresholds of the attribute reach the monitor, bound to this very thread.
TEST_F(ThreadRun, StuckCallbackIsReportedUnderTheThreadsName)
{
    Reports reports;
    ASSERT_EQ(XelDeadloopSetReport(Reports::Note, &reports), 0U);
    ThreadAttr attr("stuck");
    const XelDeadloopThreshold threshold{1, 2, 3, 5};
    ASSERT_EQ(XEL_ThreadSetAttr(attr.Get(), XEL_THREAD_ATTR_DEADLOOP_PARAM, &threshold, 16), 0U);
    Worker worker(attr);
    worker.Run([&reports] { EXPECT_TRUE(AwaitTrue([&] { return reports.Count() == 3; })); });
    EXPECT_TRUE(AwaitTrue([&] { return reports.Count() == 4; }));
    const u64 tid = worker->tid.load();
    worker.Destroy();
    ASSERT_EQ(XelDeadloopSetReport(nullptr, nullptr), 0U);
    const u32 kinds[] = {XEL_DEADLOOP_FIRST, XEL_DEADLOOP_SECOND, XEL_DEADLOOP_DEAD,
                         XEL_DEADLOOP_ENDED};
    ASSERT_EQ(reports.list.size(), 4U);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(reports.list[i].kind, kinds[i]);
        EXPECT_STREQ(reports.list[i].threadName, "stuck");
        EXPECT_EQ(reports.list[i].pthreadId, tid);
    }
}

TEST_F(ThreadRun, MonitoringEndsWithTheThread)
{
    Worker worker;
    worker.Run([] {});
    EXPECT_EQ(Calls(Call::XelDeadloopMonReg), 1U);
    EXPECT_EQ(Calls(Call::XelDeadloopMonProcSet), 1U);
    EXPECT_EQ(Calls(Call::XelDeadloopMonUnreg), 0U);
    worker.Destroy();
    EXPECT_TRUE(AwaitTrue([] { return Calls(Call::XelDeadloopMonUnreg) == 1; }));
    EXPECT_TRUE(AwaitGone("XelDeadloop"));
}

} // namespace
