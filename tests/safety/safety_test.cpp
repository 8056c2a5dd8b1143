// What must hold when several hands work on one object, through the public calls and from both
// sides at once. The single steps have tests of their own beside their modules.
#include <cstring>
#include <memory>
#include <unistd.h>

#include "event/xel_event_inner.h"
#include "msgque_light/xel_msgque_light_inner.h"
#include "scheduler/xel_scheduler_inner.h"
#include "thread_support.h"
#include "xel_msgque_light.h"

namespace
{

using namespace threadtest;
using namespace xeltest;

using Safety = ThreadTest;

constexpr int kRounds = IsSanitized() ? 20 : 100;

// Consumers are called with the queue, which may be gone only when none of them is under way.
struct Reader {
    XelLightMq* queue = nullptr;
    std::atomic<u32> reads{0};
};

u32 ReadOne(u64 data)
{
    auto* reader = reinterpret_cast<Reader*>(data);
    u32 value = 0;
    (void)XelLightMqRead(reader->queue, &value);
    reader->reads.fetch_add(1);
    return 0;
}

// At the moment when the elements go, no wake-up can reach the consumer any more: the event that
// leads there has been destroyed.
TEST_F(Safety, LightQueueLosesItsEventBeforeItsElements)
{
    Worker worker;
    Reader reader;
    XelLightMqConfig config = {4, sizeof(u32), "light", ReadOne, reinterpret_cast<u64>(&reader)};
    reader.queue = XelLightMqCreate(worker.Get(), &config);
    ASSERT_NE(reader.queue, nullptr);
    const XelEventNode* event = reader.queue->event;
    const int fd = event->fd;
    ASSERT_TRUE(IsOpen(fd));
    // The event's block is freed first; then the record, which is the last to go.
    bool wasOpenAtLastFree = true;
    RunAtNth(Call::XelMemFreeF, 2, [&] { wasOpenAtLastFree = IsOpen(fd); });
    XelLightMqDestroy(reader.queue);
    EXPECT_FALSE(wasOpenAtLastFree);
    EXPECT_FALSE(IsOpen(fd));
}

// Wake-ups are ready on the thread while the queue goes: they find no event, and no queue either.
TEST_F(Safety, LightQueueGoesWhileItsWakeUpsAreReady)
{
    for (int round = 0; round < kRounds / 4; ++round) {
        Worker worker;
        Reader reader;
        XelLightMqConfig config = {8, sizeof(u32), "light", ReadOne,
                                   reinterpret_cast<u64>(&reader)};
        reader.queue = XelLightMqCreate(worker.Get(), &config);
        ASSERT_NE(reader.queue, nullptr);
        {
            const HeldWorker held(worker);
            for (u32 i = 0; i < 8; ++i) {
                ASSERT_EQ(XelLightMqWrite(reader.queue, &i), 0U);
            }
            XelLightMqDestroy(reader.queue);
        }
        worker.Run([] {});
        EXPECT_EQ(reader.reads.load(), 0U);
        EXPECT_NO_LOG();
    }
}

// An application's loop on a scheduler of its own.
class Loop
{
public:
    Loop() : epoll_(Fd::Epoll()), sch_(XEL_SchCreate(epoll_.U32(), 16))
    {
        EXPECT_NE(sch_, nullptr);
    }
    SchCtrl* Get() const { return sch_; }
    int EpFd() const { return epoll_.Get(); }
    // Dispatches until the scheduler is destroyed; such a cycle ends with a pause.
    void Dispatch()
    {
        while (!isOver_.load()) {
            XEL_SchDispatch(sch_);
        }
    }
    void End() { isOver_.store(true); }

private:
    Fd epoll_;
    SchCtrl* sch_;
    std::atomic<bool> isOver_{false};
};

struct Binder {
    SchCtrl* sch;
    int fd;
    XelTaskAttr* attr;
    std::atomic<u32> runs{0};
};

// A callback that binds and unbinds another descriptor, and looks its own scheduler up, all the
// time; its own descriptor stays ready.
u32 BindAndUnbind(struct epoll_event* /*events*/, u64 data)
{
    auto* binder = reinterpret_cast<Binder*>(data);
    SchEpollCtlReq request = {EPOLLIN, binder->attr};
    EXPECT_EQ(SCH_EpollCtrl(binder->sch, XEL_SCH_EPOLL_ADD, binder->fd, &request), 0U);
    SchEventCacheInfo records[4];
    u32 count = 4;
    EXPECT_EQ(SCH_GetTasksEventCache(SchGetEpollFdBySchHandle(binder->sch), records, &count), 0U);
    EXPECT_EQ(SCH_EpollCtrl(binder->sch, XEL_SCH_EPOLL_DEL, binder->fd, nullptr), 0U);
    binder->runs.fetch_add(1);
    return 0;
}

// Two threads destroy a scheduler whose callbacks are binding all the while: one of them does it,
// the other is told, and all three come to an end.
TEST_F(Safety, TwoDestroyersOfASchedulerWhoseCallbacksBind)
{
    const Attr plain;
    for (int round = 0; round < kRounds / 4; ++round) {
        Loop loop;
        const Fd ready = Fd::Event(1);
        const Fd other = Fd::Event();
        Binder binder{loop.Get(), other.Get(), plain.Get()};
        TaskSpec spec;
        spec.proc = BindAndUnbind;
        spec.data = reinterpret_cast<u64>(&binder);
        const Attr attr(spec);
        SchEpollCtlReq request = {EPOLLIN, attr.Get()};
        ASSERT_EQ(SCH_EpollCtrl(loop.Get(), XEL_SCH_EPOLL_ADD, ready.Get(), &request), 0U);
        Runner dispatcher([&loop] { loop.Dispatch(); });
        EXPECT_TRUE(AwaitTrue([&binder] { return binder.runs.load() > 2; }));
        Runner first([&loop] { XEL_SchDestroy(loop.Get()); });
        Runner second([&loop] { XEL_SchDestroy(loop.Get()); });
        first.Join();
        second.Join();
        loop.End();
        dispatcher.Join();
        EXPECT_EQ(loop.Get()->magic.load(), 0U);
        XEL_TaskDestroy(SchTaskGetHandleByAppFd(ready.Get()));
        DropLog(); // the slower destroyer, and cycles on what was a scheduler
    }
    (void)TakeSleeps();
}

u32 CountAndDrain(struct epoll_event* event, u64 data)
{
    const auto* task = static_cast<const SchTaskCtrl*>(event->data.ptr);
    u64 value = 0;
    while (::read(task->fd, &value, sizeof(value)) > 0) {
    }
    reinterpret_cast<std::atomic<u32>*>(data)->fetch_add(1);
    return 0;
}

// What was queued in a policy when its scheduler went runs on the next one that its task is bound
// to: no task keeps the mark of being queued somewhere.
TEST_F(Safety, TasksQueuedInADestroyedSchedulerRunOnTheNext)
{
    constexpr u32 kCount = 12;
    std::atomic<u32> runs{0};
    const Fd epoll = Fd::Epoll();
    TaskSpec spec;
    spec.proc = CountAndDrain;
    spec.data = reinterpret_cast<u64>(&runs);
    std::vector<Fd> fds;
    std::vector<std::unique_ptr<Task>> tasks;
    SchCtrl* sch = XEL_SchCreate(epoll.U32(), 32);
    for (u32 i = 0; i < kCount; ++i) {
        spec.type = i % 4;
        fds.push_back(Fd::Event(1));
        tasks.push_back(std::make_unique<Task>(fds.back().Get(), spec));
        ASSERT_EQ(XEL_TaskAdd(sch, tasks.back()->Get()), 0U);
        struct epoll_event event = {};
        event.events = EPOLLIN;
        event.data.ptr = tasks.back()->Get();
        ASSERT_EQ(epoll_ctl(epoll.Get(), EPOLL_CTL_ADD, fds.back().Get(), &event), 0);
    }
    XEL_SchDispatch(sch); // queues several, runs one or two
    const u32 before = runs.load();
    EXPECT_LT(before, kCount);
    XEL_SchDestroy(sch);
    sch = XEL_SchCreate(epoll.U32(), 32);
    for (const auto& task : tasks) {
        ASSERT_EQ(XEL_TaskAdd(sch, task->Get()), 0U);
    }
    for (u32 cycle = 0; cycle < 4 * kCount && runs.load() < kCount; ++cycle) {
        sch->waitTimeout.store(0);
        XEL_SchDispatch(sch);
    }
    EXPECT_EQ(runs.load(), kCount);
    XEL_SchDestroy(sch);
    DropLog();
}

std::atomic<u32> g_hookCalls{0};

void OnInsert(const SchDbgTaskInfo* /*info*/)
{
    g_hookCalls.fetch_add(1);
}

void OnFd(u32 /*fd*/)
{
    g_hookCalls.fetch_add(1);
}

void OnPair(u32 /*first*/, u32 /*second*/)
{
    g_hookCalls.fetch_add(1);
}

void OnTrace(u32 /*epFd*/, const SchDbgTaskTrace* /*trace*/)
{
    g_hookCalls.fetch_add(1);
}

// Hooks come and go while two threads bind, unbind and run.
TEST_F(Safety, HooksComeAndGoWhileThreadsDispatch)
{
    Worker first("first");
    Worker second("second");
    first.Run([] {});
    second.Run([] {});
    std::atomic<bool> isOver{false};
    Runner changer([&isOver] {
        const SchDbgHookTable table = {OnInsert, OnFd, OnPair, OnPair, OnTrace};
        while (!isOver.load()) {
            (void)SCH_RegisterDbgHookTable(&table);
            std::this_thread::yield();
            SCH_DeregisterDbgHookTable();
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        first.Run([] {});
        second.Run([] {});
    }
    EXPECT_TRUE(AwaitTrue([&first] {
        first.Run([] {});
        return g_hookCalls.load() > 0;
    }));
    isOver.store(true);
    changer.Join();
    SCH_DeregisterDbgHookTable();
    first.Destroy();
    second.Destroy();
}

// A thread's destroy that fails everywhere it can, one after the other, is refused each time, and
// the next one works: the scheduler goes with its thread.
TEST_F(Safety, ThreadIsDestroyedAfterEveryKindOfRefusal)
{
    Worker worker;
    worker.Run([] {});
    const SchCtrl* sch = worker->sch;
    const int epFd = worker->epFd;
    for (const Call call : {Call::Eventfd, Call::XelMemAllocF, Call::FmmUnitAlloc, Call::EpollCtl,
                            Call::EventfdWrite}) {
        FailNth(call, 1);
        EXPECT_EQ(SchEventThreadDestory(worker.Get()), kFail);
        EXPECT_GT(LogCount(), 0U);
        DropLog();
    }
    FailNth(Call::Eventfd, 2); // the first wakes the thread, the second is for the scheduler
    worker.Destroy();
    EXPECT_EQ(sch->magic.load(), 0U);
    EXPECT_FALSE(IsOpen(epFd));
    DropLog();
}

} // namespace
