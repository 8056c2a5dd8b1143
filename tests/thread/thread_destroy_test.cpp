// The destroy handshake: the refusals, every step failing in turn with the thread left running, the
// wait for the thread, and what is freed in the end.
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "thread_support.h"
#include "xel_mem.h"

namespace
{

using namespace threadtest;
using namespace xeltest;

constexpr char kDiscarded[] = "Thread discard to trigger destroy event.";

// A thread that has run, and so has everything that it ever takes for itself.
class LiveWorker : public Worker
{
public:
    LiveWorker()
    {
        Run([] {});
    }
};

class ThreadDestroy : public ThreadTest
{
protected:
    // A destroy that fails: the lines, everything as before, and a thread that still dispatches.
    void ExpectFails(Worker& worker, const std::vector<ExpectedLine>& lines)
    {
        const Footprint before = Measure();
        EXPECT_EQ(SchEventThreadDestory(worker.Get()), kFail);
        EXPECT_TRUE(LogIs(kThreadSource, lines));
        EXPECT_EQ(Measure(), before);
        EXPECT_EQ(worker->destroyFd.load(), -1);
        ExpectAlive(worker);
    }
    static void ExpectAlive(Worker& worker)
    {
        bool ran = false;
        worker.Run([&ran] { ran = true; });
        EXPECT_TRUE(ran);
        EXPECT_EQ(worker->exited.load(), 0U);
        EXPECT_EQ(worker->exitValue.load(), 0U);
        EXPECT_EQ(worker->magic, 0xFBADBFFFU);
    }
};

TEST_F(ThreadDestroy, NullHandleIsRefused)
{
    EXPECT_EQ(SchEventThreadDestory(nullptr), kFail);
    EXPECT_LOG(kThreadSource, "Thread handle is null handle.");
}

TEST_F(ThreadDestroy, DamagedMagicIsRefused)
{
    Worker worker;
    worker->magic = 0xFBADBFFE;
    EXPECT_EQ(SchEventThreadDestory(worker.Get()), kFail);
    EXPECT_LOG(kThreadSource, "Thread magic damaged.magic = 0xfbadbffe.");
    worker->magic = 0xFBADBFFF;
    ExpectAlive(worker);
}

TEST_F(ThreadDestroy, EverythingIsFreed)
{
    Worker worker("mortal");
    const SchCtrl* sch = worker->sch;
    const int epFd = worker->epFd;
    EXPECT_EQ(SchEventThreadDestory(worker.Release()), 0U);
    EXPECT_NO_LOG();
    EXPECT_EQ(sch->magic.load(), 0U);
    EXPECT_FALSE(IsOpen(epFd));
    EXPECT_EQ(g_xelThreadCtrlMng.count, listed_);
    EXPECT_EQ(g_xelThreadCtrlMng.head.next, &g_xelThreadCtrlMng.head);
    EXPECT_TRUE(AwaitGone("mortal"));
}

TEST_F(ThreadDestroy, PollsEveryTenMilliseconds)
{
    for (int i = 0; i < 5; ++i) {
        Worker worker;
        (void)TakeUsleeps();
        const auto start = std::chrono::steady_clock::now();
        worker.Destroy();
        const auto elapsed = std::chrono::steady_clock::now() - start;
        const std::vector<u32> pauses = TakeUsleeps();
        EXPECT_GE(pauses.size(), 1U);
        EXPECT_EQ(pauses, std::vector<u32>(pauses.size(), 10000));
        EXPECT_GE(elapsed, pauses.size() * std::chrono::milliseconds(10));
    }
}

// The flag is read before the pause and judged after it: one pause when it was set all along.
TEST_F(ThreadDestroy, PausesOnceForAThreadThatHasEnded)
{
    const ThreadAttr attr("stillborn");
    FailNth(Call::XelDeadloopMonReg, 1);
    XelThreadCtrl* thread = XEL_ThreadCreate(attr.Get());
    ASSERT_NE(thread, nullptr);
    EXPECT_TRUE(AwaitTrue([] { return LogCount() == 1; }));
    DropLog();
    thread->exited.store(1);
    EXPECT_EQ(SchEventThreadDestory(thread), 0U);
    EXPECT_EQ(Calls(Call::Usleep), 1U);
}

TEST_F(ThreadDestroy, WaitsForTheRunningCallback)
{
    Worker worker;
    const Fd fd = Fd::Event(1);
    Gate gate;
    std::atomic<bool> left{false};
    const Body body = [&](u32) {
        fd.Drain();
        gate.Pass();
        left.store(true);
        return 0U;
    };
    ASSERT_EQ(AddFd(worker.Get(), fd.Get(), SpecOf(body)), 0U);
    ASSERT_TRUE(gate.AwaitArrival());
    XelThreadCtrl* thread = worker.Release();
    Runner destroyer([&] {
        EXPECT_EQ(SchEventThreadDestory(thread), 0U);
        EXPECT_TRUE(left.load());
    });
    const u64 polls = Calls(Call::Usleep);
    EXPECT_TRUE(AwaitTrue([polls] { return Calls(Call::Usleep) >= polls + 3; }));
    EXPECT_FALSE(destroyer.HasEnded());
    gate.Open();
    destroyer.Join();
    XEL_TaskDestroy(SchTaskGetHandleByAppFd(fd.Get()));
}

// The owners of what is bound destroy it; the thread does not.
TEST_F(ThreadDestroy, BoundTasksAreNotReleased)
{
    Worker worker;
    const Fd fd = Fd::Event();
    ASSERT_EQ(AddFd(worker.Get(), fd.Get(), {}), 0U);
    SchTaskCtrl* task = SchTaskGetHandleByAppFd(fd.Get());
    worker.Destroy();
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), task);
    EXPECT_TRUE(IsOpen(fd.Get()));
    XEL_TaskDestroy(task);
}

TEST_F(ThreadDestroy, NoEventfdLeavesTheThreadRunning)
{
    LiveWorker worker;
    FailNth(Call::Eventfd, 1, -1, EMFILE);
    ExpectFails(worker, {"Destroy event create unsuccessful.", kDiscarded});
}

// Every later fault is there as well.
TEST_F(ThreadDestroy, EventfdComesFirst)
{
    LiveWorker worker;
    FailNth(Call::Eventfd, 1, -1, EMFILE);
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(SchEventThreadDestory(worker.Get()), kFail);
    ResetFaults();
    EXPECT_LOG(kThreadSource, "Destroy event create unsuccessful.", kDiscarded);
}

TEST_F(ThreadDestroy, NoTaskAttributeLeavesTheThreadRunning)
{
    LiveWorker worker;
    FailNth(Call::XelMemAllocF, 1);
    ExpectFails(worker, {"Destroy event attr create unsuccess.", kDiscarded});
}

TEST_F(ThreadDestroy, RefusedTaskAttributeLeavesTheThreadRunning)
{
    LiveWorker worker;
    FailNth(Call::StrcpyS, 1);
    ExpectFails(worker,
                {From(kTaskSource, "Scheduler set name unsuccessfully, copy name unsuccessfully."),
                 "Thread set task attr unsuccess. (cmd = 3, ret = 4294967295)",
                 "Destroy event attr set unsuccess. (ret = 0xffffffff)", kDiscarded});
}

// The first refusal ends the settings, and its result is passed on.
TEST_F(ThreadDestroy, FirstRefusedCommandGivesTheResult)
{
    XelThreadCtrl record = {};
    EXPECT_EQ(SchThreadSetTaskAttr(nullptr, &record), 22U);
    EXPECT_LOG(kThreadSource, From(kTaskSource, "param taskAttr is NULL"),
               From(kTaskSource, "scheduler set attribute unsuccessfully, param is invalid."),
               "Thread set task attr unsuccess. (cmd = 0, ret = 22)");
}

TEST_F(ThreadDestroy, NoTaskLeavesTheThreadRunning)
{
    LiveWorker worker;
    const int fd = NextFd();
    FailNth(Call::FmmUnitAlloc, 1);
    ExpectFails(
        worker,
        {From(kTaskSource, "Task create unsuccessfully, alloc task-ctrl unsuccessfully!"),
         From(kTaskSource, Text("scheduler create task unsuccessfully, create task handle "
                                "unsuccessfully, task = %d.",
                                fd)),
         From(kSchSource, Text("Sch task handle create unsuccessfully. (fd = %d)", fd)),
         From(kSchSource,
              Text("Sch operation unsuccessfully. (fd = %d, op = 0, ret = 0xffffffff)", fd)),
         "Destroy event add to epoll unsuccess. (ret = 0xffffffff)", kDiscarded});
}

TEST_F(ThreadDestroy, RefusedRegistrationLeavesTheThreadRunning)
{
    LiveWorker worker;
    const int fd = NextFd();
    FailNth(Call::EpollCtl, 1, -1, ENOSPC);
    ExpectFails(
        worker,
        {From(kSchSource, Text("Sch fd add to epoll unsuccessfully. (epollFd = %d, "
                               "fd = %d, mistake = 28)",
                               worker->epFd, fd)),
         From(kSchSource,
              Text("Sch operation unsuccessfully. (fd = %d, op = 0, ret = 0xffffffff)", fd)),
         "Destroy event add to epoll unsuccess. (ret = 0xffffffff)", kDiscarded});
}

// The callback reads from there, and it may run as soon as the task is added.
TEST_F(ThreadDestroy, DescriptorIsKnownBeforeItsTask)
{
    LiveWorker worker;
    const XelThreadCtrl* thread = worker.Get();
    int early = -1;
    RunAtNth(Call::EpollCtl, 1, [&] { early = thread->destroyFd.load(); });
    worker.Destroy();
    EXPECT_GE(early, 0);
}

TEST_F(ThreadDestroy, InterruptedWriteIsRepeated)
{
    Worker worker;
    for (u64 n = 1; n <= 3; ++n) {
        FailNth(Call::EventfdWrite, n, -1, EINTR);
    }
    RunAtNth(Call::Usleep, 1, [] { EXPECT_EQ(Calls(Call::EventfdWrite), 4U); });
    worker.Destroy();
    EXPECT_NO_LOG();
}

// The task stays behind with its descriptor closed; the next destroy meets its number again.
TEST_F(ThreadDestroy, FailedWriteCanBeTriedAgain)
{
    Worker worker;
    for (const int error : {EAGAIN, EIO, EBADF}) {
        const int fd = NextFd();
        const u64 ctls = Calls(Call::EpollCtl);
        const size_t descriptors = Measure().descriptors;
        FailNth(Call::EventfdWrite, 1, -1, error);
        EXPECT_EQ(SchEventThreadDestory(worker.Get()), kFail);
        EXPECT_LOG(kThreadSource, "Destroy eventfd write unsuccessfully. (ret = -1)", kDiscarded);
        EXPECT_EQ(Calls(Call::EpollCtl), ctls + 1); // the add, and no delete
        EXPECT_EQ(worker->destroyFd.load(), -1);
        EXPECT_FALSE(IsOpen(fd));
        EXPECT_EQ(Measure().descriptors, descriptors);
        EXPECT_EQ(worker->exited.load(), 0U);
        const SchTaskCtrl* left = SchTaskGetHandleByAppFd(fd);
        ASSERT_NE(left, nullptr);
        EXPECT_EQ(left->proc, ThreadEventFdProc);
    }
    worker.Destroy();
    EXPECT_NO_LOG();
}

TEST_F(ThreadDestroy, FailedWriteIsLoggedWhenItsDescriptorIsGone)
{
    LiveWorker worker;
    const int fd = NextFd();
    int known = fd;
    bool open = true;
    FailNth(Call::EventfdWrite, 1, -1, EIO);
    xeltest::RunAtNextLine([&] {
        known = worker->destroyFd.load();
        open = IsOpen(fd);
    });
    EXPECT_EQ(SchEventThreadDestory(worker.Get()), kFail);
    EXPECT_LOG(kThreadSource, "Destroy eventfd write unsuccessfully. (ret = -1)", kDiscarded);
    EXPECT_EQ(known, -1);
    EXPECT_FALSE(open);
}

// Only the thread that left it behind removes it.
TEST_F(ThreadDestroy, LeftoverOfAnotherThreadIsLeftAlone)
{
    LiveWorker first;
    LiveWorker second;
    const int fd = NextFd();
    FailNth(Call::EventfdWrite, 1, -1, EIO);
    EXPECT_EQ(SchEventThreadDestory(first.Get()), kFail);
    EXPECT_LOG(kThreadSource, "Destroy eventfd write unsuccessfully. (ret = -1)", kDiscarded);
    const SchTaskCtrl* left = SchTaskGetHandleByAppFd(fd);
    ASSERT_NE(left, nullptr);
    EXPECT_EQ(SchEventThreadDestory(second.Get()), kFail);
    EXPECT_EQ(LogCount(Text("Task fd has already create task. (fd = %d)", fd)), 1U);
    DropLog();
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd), left);
    EXPECT_EQ(left->data, reinterpret_cast<u64>(first.Get()));
    first.Destroy();
    second.Destroy();
    EXPECT_NO_LOG();
}

// The number of a descriptor that has a task of somebody else is no left-over.
TEST_F(ThreadDestroy, TaskOfSomebodyElseIsNoLeftover)
{
    Worker worker;
    const int fd = NextFd();
    const xeltest::Attr attr;
    SchTaskCtrl* other = XEL_TaskCreate(fd, attr.Get());
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(SchEventThreadDestory(worker.Get()), kFail);
    EXPECT_LOG(kThreadSource,
               From(kTaskSource, Text("Task fd has already create task. (fd = %d)", fd)),
               From(kSchSource, Text("Sch task handle create unsuccessfully. (fd = %d)", fd)),
               From(kSchSource,
                    Text("Sch operation unsuccessfully. (fd = %d, op = 0, ret = 0xffffffff)", fd)),
               "Destroy event add to epoll unsuccess. (ret = 0xffffffff)", kDiscarded);
    EXPECT_EQ(worker->destroyFd.load(), -1);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd), other);
    XEL_TaskDestroy(other);
    ExpectAlive(worker);
}

// The destroy event as it stands in the thread's own scheduler, while the thread is busy.
TEST_F(ThreadDestroy, DestroyEventIsEdgeTriggeredAndFirstInLine)
{
    Worker worker("busy");
    XelThreadCtrl* thread = worker.Release();
    const Fd holdFd = Fd::Event(1);
    Gate gate;
    const Body hold = [&](u32) {
        gate.Pass();
        return 0U;
    };
    ASSERT_EQ(AddFd(thread, holdFd.Get(), SpecOf(hold)), 0U);
    ASSERT_TRUE(gate.AwaitArrival());
    ASSERT_EQ(DelFd(thread, holdFd.Get()), 0U);
    ASSERT_EQ(SchThreadTriggerDestroyEvent(thread), 0U);
    const int fd = thread->destroyFd.load();
    ASSERT_GE(fd, 0);
    SchTaskCtrl* task = SchTaskGetHandleByAppFd(fd);
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->proc, ThreadEventFdProc);
    EXPECT_EQ(task->data, reinterpret_cast<u64>(thread));
    EXPECT_EQ(task->type, 0U);
    EXPECT_EQ(task->prio, 0U);
    EXPECT_STREQ(task->name, "busy");
    // The kernel adds EPOLLERR and EPOLLHUP.
    EXPECT_EQ(Registration(thread->epFd, fd),
              Text("0x80000019 %#lx", reinterpret_cast<unsigned long>(task)));
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    // The second count stays, since each read of a semaphore takes one.
    EXPECT_EQ(eventfd_write(fd, 1), 0);
    gate.Open();
    EXPECT_TRUE(AwaitTrue([thread] { return thread->exited.load() == 1; }));
    EXPECT_EQ(thread->exitValue.load(), 1U);
    eventfd_t rest = 0;
    EXPECT_EQ(eventfd_read(fd, &rest), 0);
    EXPECT_EQ(eventfd_read(fd, &rest), -1);
    SchThreadCtrlFree(thread);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd), nullptr);
}

// Whoever sees the end of the monitoring sees the end of the loop.
TEST_F(ThreadDestroy, ThreadSaysThatItsLoopEndedBeforeItsMonitoringEnds)
{
    LiveWorker worker;
    XelThreadCtrl* thread = worker.Release();
    std::atomic<i64> exited{-1};
    RunAtNth(Call::XelDeadloopMonUnreg, 1, [&] { exited.store(thread->exited.load()); });
    ASSERT_EQ(SchThreadTriggerDestroyEvent(thread), 0U);
    EXPECT_TRUE(AwaitTrue([&exited] { return exited.load() != -1; }));
    EXPECT_EQ(exited.load(), 1);
    EXPECT_TRUE(AwaitGone("worker"));
    SchThreadCtrlFree(thread);
}

// The thread's side reads 8 bytes, and only when the mask says so.
TEST_F(ThreadDestroy, CallbackReadsTheDestroyEvent)
{
    const Fd fd = Fd::Event(1);
    XelThreadCtrl record = {};
    record.magic = 0xFBADBFFF;
    record.destroyFd.store(fd.Get());
    const u64 data = reinterpret_cast<u64>(&record);
    struct epoll_event events = {};
    events.events = EPOLLOUT;
    (void)ThreadEventFdProc(&events, data);
    EXPECT_EQ(Calls(Call::Read), 0U);
    EXPECT_EQ(record.exitValue.load(), 0U);
    events.events = EPOLLIN | EPOLLHUP;
    EXPECT_EQ(ThreadEventFdProc(&events, data), 0U);
    EXPECT_EQ(record.exitValue.load(), 1U);
    EXPECT_NO_LOG();
    record.exitValue.store(0);
    EXPECT_EQ(ThreadEventFdProc(&events, data), kFail);
    EXPECT_LOG(kThreadSource,
               Text("Thread proc, eventfd %d read unsuccessfully -1, errno:11.", fd.Get()));
    FailNth(Call::Read, 1, 3, EIO);
    EXPECT_EQ(ThreadEventFdProc(&events, data), kFail);
    EXPECT_LOG(kThreadSource,
               Text("Thread proc, eventfd %d read unsuccessfully 3, errno:5.", fd.Get()));
    EXPECT_EQ(record.exitValue.load(), 0U);
}

// A read that fails once leaves the thread running, and the event is edge-triggered: the destroyer,
// who waits, writes again.
TEST_F(ThreadDestroy, FailedReadKeepsTheLoopRunningUntilTheNextWrite)
{
    Worker worker;
    XelThreadCtrl* thread = worker.Release();
    std::atomic<int> fd{-1};
    RunAtNth(Call::Read, 1, [thread, &fd] { fd.store(thread->destroyFd.load()); });
    FailNth(Call::Read, 1, -1, EIO);
    Runner destroyer([thread] { EXPECT_EQ(SchEventThreadDestory(thread), 0U); });
    EXPECT_TRUE(AwaitTrue([] { return LogCount() == 2; }));
    EXPECT_LOG(kThreadSource,
               Text("Thread proc, eventfd %d read unsuccessfully -1, errno:5.", fd.load()),
               From(kSchSource,
                    Text("User proc result, param = :%lu. (ret = 0xffffffff).",
                         reinterpret_cast<unsigned long>(thread)),
                    80));
    destroyer.Join();
    EXPECT_GE(Calls(Call::Read), 2U);
}

TEST_F(ThreadDestroy, FreeRefusesNullAndADamagedMagic)
{
    SchThreadCtrlFree(nullptr);
    EXPECT_NO_LOG();
    XelThreadCtrl record = {};
    record.magic = 0x10;
    SchThreadCtrlFree(&record);
    EXPECT_LOG(kThreadSource, "Thread magic damaged.magic = 0x10.");
    EXPECT_EQ(g_xelThreadCtrlMng.count, listed_);
}

// A record without scheduler and destroy event: its memory, and last its epoll descriptor.
TEST_F(ThreadDestroy, FreeGivesBackARecordThatWasNeverListed)
{
    const ThreadAttr attr;
    auto* record =
        static_cast<XelThreadCtrl*>(XEL_MemAllocF(sizeof(XelThreadCtrl), "thread_test", 1, 0));
    memset(static_cast<void*>(record), 0, sizeof(*record));
    ASSERT_EQ(ThreadCtrlInit(record, attr.Get()), 0U);
    record->epFd = Fd::Epoll().Release();
    const int epFd = record->epFd;
    u32 magic = 0;
    bool open = false;
    RunAtNth(Call::XelMemFreeF, 1, [&] {
        magic = record->magic;
        open = IsOpen(epFd);
    });
    SchThreadCtrlFree(record);
    EXPECT_EQ(magic, 0xFBADBFFFU);
    EXPECT_TRUE(open);
    EXPECT_FALSE(IsOpen(epFd));
    EXPECT_EQ(g_xelThreadCtrlMng.count, listed_ - 1);
    g_xelThreadCtrlMng.count = listed_;
    EXPECT_NO_LOG();
}

// The destroy event of the scheduler is the second one; by then the thread's own is given back.
TEST_F(ThreadDestroy, ThreadIsListedUntilItsSchedulerIsGone)
{
    LiveWorker worker;
    const XelThreadCtrl* thread = worker.Get();
    u32 listed = 0;
    bool open = true;
    RunAtNth(Call::Eventfd, 2, [&] {
        listed = g_xelThreadCtrlMng.count;
        open = IsOpen(thread->destroyFd.load());
    });
    worker.Destroy();
    EXPECT_EQ(listed, listed_ + 1);
    EXPECT_FALSE(open);
}

TEST_F(ThreadDestroy, ListChangesUnderItsLockForWriting)
{
    XelThreadCtrl record = {};
    Held held = Held::Not;
    u32 listed = 0;
    const auto look = [&] {
        held = HoldOf(g_xelThreadCtrlMng.lock);
        listed = g_xelThreadCtrlMng.count;
    };
    const AnyCaller any; // the unlock may be the last act of the calls
    RunAtNth(Call::PthreadRwlockUnlock, 1, look);
    ThreadAddCtrlNode(&record);
    EXPECT_EQ(held, Held::ForWriting);
    EXPECT_EQ(listed, listed_ + 1);
    held = Held::Not;
    RunAtNth(Call::PthreadRwlockUnlock, 1, look);
    ThreadRmCtrlNode(&record);
    EXPECT_EQ(held, Held::ForWriting);
    EXPECT_EQ(listed, listed_);
}

TEST_F(ThreadDestroy, ListOperationsLinkAndUnlink)
{
    XelThreadCtrl first = {};
    XelThreadCtrl second = {};
    const ThreadAttr attr;
    ASSERT_EQ(ThreadCtrlInit(&first, attr.Get()), 0U);
    ASSERT_EQ(ThreadCtrlInit(&second, attr.Get()), 0U);
    ThreadAddCtrlNode(&first);
    ThreadAddCtrlNode(&second);
    EXPECT_EQ(g_xelThreadCtrlMng.count, listed_ + 2);
    EXPECT_EQ(g_xelThreadCtrlMng.head.next, &second.link);
    EXPECT_EQ(g_xelThreadCtrlMng.head.prev, &first.link);
    ThreadRmCtrlNode(&second);
    EXPECT_EQ(g_xelThreadCtrlMng.head.next, &first.link);
    ThreadRmCtrlNode(&first);
    EXPECT_EQ(g_xelThreadCtrlMng.head.next, &g_xelThreadCtrlMng.head);
    EXPECT_EQ(g_xelThreadCtrlMng.count, listed_);
}

} // namespace
