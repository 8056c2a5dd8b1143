// Scheduler threads on the alternative epoll implementation: real descriptors run there, and a
// library that fails does not harm the process.
#include <cerrno>

#include "mox_support.h"
#include "xel_event.h"

namespace
{

using namespace moxtest;

constexpr char kNoEvents[] = "Sch dispatch, get events unsuccessfully. (ret = -1).";

class MoxThread : public MoxTest
{
protected:
    void SetUp() override
    {
        MoxTest::SetUp();
        stand_ = Stand();
    }
    static void ExpectRuns(Worker& worker)
    {
        bool ran = false;
        worker.Run([&ran] { ran = true; });
        EXPECT_TRUE(ran);
    }
    void FailEverything(int error)
    {
        for (const standin::Function function :
             {standin::kCreate, standin::kCtl, standin::kWait, standin::kClose}) {
            stand_->failWith[function].store(error);
        }
    }

    standin::Control* stand_ = nullptr;
};

TEST_F(MoxThread, RunsTasksAndIsDestroyed)
{
    Worker worker{MoxAttr("mox-thread")};
    EXPECT_EQ(worker->epollType, 2U);
    EXPECT_EQ(worker->sch->epollOps.wait, THREAD_MoxEpollWaitAdapt);
    for (int i = 0; i < 20; ++i) {
        ExpectRuns(worker);
    }
    const int epFd = worker->epFd;
    worker.Destroy();
    EXPECT_EQ(stand_->lastClosed, epFd);
    EXPECT_FALSE(IsOpen(epFd));
    EXPECT_EQ(Calls(Call::EpollCtl), 0U);
    EXPECT_EQ(Calls(Call::EpollWait), 0U);
    EXPECT_TRUE(AwaitGone("mox-thread"));
    EXPECT_NO_LOG();
}

TEST_F(MoxThread, RunsWithoutPolicyToo)
{
    MoxAttr attr;
    attr.Set(XEL_THREAD_ATTR_SCHEDULE_POLICY, XEL_SCH_POLICY_NONE).Set(XEL_THREAD_ATTR_EP_SIZE, 3);
    Worker worker(attr);
    ExpectRuns(worker);
    EXPECT_EQ(stand_->lastWait[1], 3);
}

TEST_F(MoxThread, SteadyWaitsAllocateNothing)
{
    Worker worker{MoxAttr()};
    ExpectRuns(worker);
    const Fd fd = Fd::Event();
    std::atomic<u32> runs{0};
    const Body body = [&](u32) {
        fd.Drain();
        runs.fetch_add(1);
        return 0U;
    };
    ASSERT_EQ(AddFd(worker.Get(), fd.Get(), SpecOf(body)), 0U);
    const u64 allocations = Calls(Call::XelMemAllocF);
    for (u32 n = 1; n <= 50; ++n) {
        fd.Signal();
        ASSERT_TRUE(AwaitTrue([&] { return runs.load() == n; }));
    }
    EXPECT_EQ(Calls(Call::XelMemAllocF), allocations);
    EXPECT_EQ(DelFd(worker.Get(), fd.Get()), 0U);
}

TEST_F(MoxThread, DescriptorTypeReachesTheLibrary)
{
    const Worker worker{MoxAttr()};
    for (const u32 type : {1U, 0U}) {
        const Fd fd = Fd::Event();
        TaskSpec spec;
        spec.fdType = type;
        ASSERT_EQ(AddFd(worker.Get(), fd.Get(), spec), 0U);
        EXPECT_EQ(stand_->lastCtlRecord.bytes[4], type);
        EXPECT_EQ(At<u64>(stand_->lastCtlRecord.bytes, 24),
                  reinterpret_cast<u64>(SchTaskGetHandleByAppFd(fd.Get())));
        ASSERT_EQ(DelFd(worker.Get(), fd.Get()), 0U);
    }
}

u32 CountRun(u64 data)
{
    reinterpret_cast<std::atomic<u32>*>(data)->fetch_add(1);
    return 0;
}

TEST_F(MoxThread, EventsLiveOnIt)
{
    Worker worker{MoxAttr()};
    std::atomic<u32> runs{0};
    XelEventNode* event =
        XelEventInnerCreate(worker.Get(), CountRun, "mox-event", reinterpret_cast<u64>(&runs));
    ASSERT_NE(event, nullptr);
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(XEL_EventNotify(event), 0U);
    }
    EXPECT_TRUE(AwaitTrue([&runs] { return runs.load() == 30; }));
    ExpectRuns(worker);
    EXPECT_EQ(runs.load(), 30U);
    XEL_EventDestroy(event);
}

TEST_F(MoxThread, SeveralThreadsWaitAtOnce)
{
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < 4; ++i) {
        workers.push_back(std::make_unique<Worker>(MoxAttr()));
    }
    for (int round = 0; round < 10; ++round) {
        for (const auto& worker : workers) {
            ExpectRuns(*worker);
        }
    }
}

TEST_F(MoxThread, ExcessEventsDoNoHarm)
{
    Worker worker{MoxAttr()};
    stand_->excess.store(5000);
    for (int i = 0; i < 20; ++i) {
        ExpectRuns(worker);
    }
    stand_->excess.store(0);
    ExpectRuns(worker);
    DropLog(); // what lies beyond the real events is no task
}

// The library's error number decides and is printed; the pause is made.
TEST_F(MoxThread, FailedWaitsAreLoggedAndTheLoopGoesOn)
{
    Worker worker{MoxAttr()};
    std::atomic<u32> pauses{0};
    SetSleepHook([&](u32) {
        stand_->failWith[standin::kWait].store(0);
        pauses.fetch_add(1);
    });
    worker.Run([this] { stand_->failWith[standin::kWait].store(77); });
    EXPECT_TRUE(AwaitTrue([&pauses] { return pauses.load() == 1; }));
    EXPECT_LOG(kSchSource, "Event get, epoll wait with time-out[0] unsuccessfully. (errNo:77).",
               kNoEvents);
    EXPECT_EQ(TakeSleeps(), std::vector<u32>{1});
    ExpectRuns(worker);
}

TEST_F(MoxThread, InterruptedWaitIsAnEmptyCycle)
{
    Worker worker{MoxAttr()};
    worker.Run([this] { stand_->failWith[standin::kWait].store(EINTR); });
    const u32 calls = stand_->calls[standin::kWait].load();
    EXPECT_TRUE(AwaitTrue([&] { return stand_->calls[standin::kWait].load() > calls + 3; }));
    stand_->failWith[standin::kWait].store(0);
    ExpectRuns(worker);
    EXPECT_TRUE(TakeSleeps().empty());
    EXPECT_NO_LOG();
}

TEST_F(MoxThread, RefusedControlIsToldWithTheLibrarysNumber)
{
    Worker worker{MoxAttr()};
    const Fd fd = Fd::Event();
    stand_->failWith[standin::kCtl].store(78);
    EXPECT_EQ(AddFd(worker.Get(), fd.Get(), {}), kFail);
    EXPECT_LOG(kSchSource,
               Text("Sch fd add to epoll unsuccessfully. (epollFd = %d, fd = %d, mistake = 78)",
                    worker->epFd, fd.Get()),
               Text("Sch operation unsuccessfully. (fd = %d, op = 0, ret = 0xffffffff)", fd.Get()));
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), nullptr);
    stand_->failWith[standin::kCtl].store(0);
    ASSERT_EQ(AddFd(worker.Get(), fd.Get(), {}), 0U);
    stand_->failWith[standin::kCtl].store(79);
    EXPECT_EQ(DelFd(worker.Get(), fd.Get()), kFail);
    EXPECT_LOG(kSchSource,
               Text("Sch epoll del fd unsuccessfully. (epFd = %d, fd = %d, errno = 79)",
                    worker->epFd, fd.Get()),
               Text("Sch operation unsuccessfully. (fd = %d, op = 2, ret = 0xffffffff)", fd.Get()));
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), nullptr);
    stand_->failWith[standin::kCtl].store(0);
    ExpectRuns(worker);
}

// Everything fails, for a while: nothing can be added, the thread cannot even be told to stop.
TEST_F(MoxThread, LibraryThatFailsEverywhereDoesNotHarmTheProcess)
{
    SetSleepHook([](u32) { (void)AwaitTrue([] { return false; }, 1); });
    Worker worker{MoxAttr()};
    worker.Run([this] { stand_->failWith[standin::kWait].store(77); });
    FailEverything(77);
    EXPECT_TRUE(AwaitTrue([] { return LogCount(kNoEvents) > 3; }));
    const Fd fd = Fd::Event();
    EXPECT_EQ(AddFd(worker.Get(), fd.Get(), {}), kFail);
    EXPECT_EQ(SchEventThreadDestory(worker.Get()), kFail);
    EXPECT_EQ(LogCount("Thread discard to trigger destroy event."), 1U);
    std::atomic<u32> runs{0};
    EXPECT_EQ(XelEventInnerCreate(worker.Get(), CountRun, "e", reinterpret_cast<u64>(&runs)),
              nullptr);
    const MoxAttr attr;
    EXPECT_EQ(XEL_ThreadCreate(attr.Get()), nullptr);
    g_xelThreadCtrlMng.count = listed_ + 1;
    Worker healthy("healthy");
    ExpectRuns(healthy);
    FailEverything(0);
    ExpectRuns(worker);
    DropLog();
}

// A close that fails is nobody's business.
TEST_F(MoxThread, FailedCloseIsIgnored)
{
    Worker worker{MoxAttr()};
    ExpectRuns(worker);
    const Fd epFd(worker->epFd);
    stand_->failWith[standin::kClose].store(9);
    worker.Destroy();
    EXPECT_EQ(stand_->lastClosed, epFd.Get());
    EXPECT_NO_LOG();
}

// Out of the task table, a descriptor cannot be taken out of the library any more.
TEST_F(MoxThread, DeleteWithoutTaskIsRefused)
{
    const Worker worker{MoxAttr()};
    const Fd fd = Fd::Event();
    ASSERT_EQ(AddFd(worker.Get(), fd.Get(), {}), 0U);
    XEL_TaskDestroy(SchTaskGetHandleByAppFd(fd.Get()));
    EXPECT_EQ(worker->sch->epollOps.ctl(worker->epFd, 2, fd.Get(), nullptr), -1);
    EXPECT_LOG(kMoxSource,
               "Thread adapt mox epoll_ctl unsuccessfully, fd type is invalid. (fdType = 2)");
    EXPECT_EQ(DelFd(worker.Get(), fd.Get()), kFail);
    EXPECT_LOG(kSchSource, "Sch delete fd unsuccessfully, invalid task handle.",
               Text("Sch operation unsuccessfully. (fd = %d, op = 2, ret = 0xffffffff)", fd.Get()));
}

// A thread without memory for its buffer pauses and tries again with a larger count only.
TEST_F(MoxThread, NoBufferIsAFailedWait)
{
    std::atomic<u32> pauses{0};
    SetSleepHook([&](u32) { pauses.fetch_add(1); });
    MoxAttr attr;
    attr.Set(XEL_THREAD_ATTR_SCHEDULE_POLICY, XEL_SCH_POLICY_NONE);
    // The first cycle's allocation is the thread's own record.
    RunAtNth(Call::XelDeadloopMonProcSet, 1, [] { FailNth(Call::XelMemAllocF, 1); });
    Worker worker(attr);
    EXPECT_TRUE(AwaitTrue([&pauses] { return pauses.load() == 1; }));
    EXPECT_LOG(
        kSchSource, From(kMoxSource, "Thread adapt epoll wait, memory alloc unsuccessfully."),
        Text("Event get, epoll wait with time-out[-1] unsuccessfully. (errNo:%d).", 0), kNoEvents);
    ExpectRuns(worker);
}

} // namespace
