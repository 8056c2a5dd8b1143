// Handles that are none: every public function that looks at its handle gets null, readable
// garbage, the handles of every other family, and what was a handle of its own. Each must be
// refused as documented, with a line, and nothing may change.
//
// Left out, since they trust their handle as documented:
//   SCH_DispatchWithDeadloop, SCH_Bfs*: used by whoever owns the scheduler or policy;
//   SCH_EpollCtrl with null;
//   XEL_ThreadCreate, XEL_TimerSetAttr, XEL_TimerCreate, XEL_TimerAddTimerType: the magic of the
//     attribute is not looked at, so only null is tried;
//   THREAD_GetSchTid with null, XelLightMq* but XelLightMqCreate: not checked;
//   XEL_EventNotify with a destroyed event, and attribute and thread functions with destroyed ones:
//     the magic lies in memory that was given back.
#include <cstring>
#include <functional>
#include <memory>
#include <random>

#include "event/xel_event_inner.h"
#include "scheduler/xel_scheduler_inner.h"
#include "service_msgque/xel_service_mq_inner.h"
#include "thread_support.h"
#include "timer/xel_timer_inner.h"
#include "xel_msgque_light.h"

namespace
{

using namespace threadtest;
using namespace xeltest;

enum class Family { TaskAttr, Task, Sch, ThreadAttr, Thread, EventAttr, Event, TimerAttr, Timer };
enum : u32 { kNull = 1, kGarbage = 2, kForeign = 4, kDestroyed = 8, kAnyLive = kNull | 6 };

u32 LiveTimers()
{
    (void)pthread_rwlock_rdlock(&g_xelTimerCtrl.timerLock);
    const u32 timers = g_xelTimerCtrl.timerCount;
    (void)pthread_rwlock_unlock(&g_xelTimerCtrl.timerLock);
    return timers;
}

u32 NopEvent(u64 /*data*/)
{
    return 0;
}

u32 NopTimer(XelTimerNode* /*timer*/, u64 /*expirations*/, void* /*data*/)
{
    return 0;
}

// One living object of each family, as foreign handles for all the others.
class Zoo
{
public:
    Zoo() : epoll_(Fd::Epoll()), fd_(Fd::Event()), worker_("zoo")
    {
        worker_.Run([] {}); // it has what it ever takes
        const XelTaskUsrCb taskCallback = {NopProc, 0};
        taskAttr = XEL_TaskCreateAttr();
        EXPECT_EQ(XEL_TaskSetAttr(taskAttr, XEL_TASK_ATTR_USR_CB, &taskCallback, 16), 0U);
        task = XEL_TaskCreate(fd_.Get(), taskAttr);
        sch = XEL_SchCreate(epoll_.U32(), 8);
        threadAttr = XEL_ThreadCreateAttr();
        thread = worker_.Get();
        const XelEventUsrCb eventCallback = {NopEvent, 0};
        eventAttr = XEL_EventCreateAttr();
        EXPECT_EQ(XEL_EventSetAttr(eventAttr, XEL_EVENT_ATTR_PROC_INFO, &eventCallback, 16), 0U);
        event = XEL_EventCreate(thread, eventAttr);
        const XelTimerUsrCb timerCallback = {NopTimer, nullptr};
        timerAttr = XEL_TimerCreateAttr();
        EXPECT_EQ(XEL_TimerSetAttr(timerAttr, XEL_TIMER_ATTR_USR_CB, &timerCallback, 16), 0U);
        timer = XEL_TimerCreate(thread, timerAttr);
    }
    ~Zoo()
    {
        const u32 timers = LiveTimers();
        XEL_TimerDestroy(timer);
        EXPECT_TRUE(AwaitTrue([timers] { return LiveTimers() == timers - 1; }));
        XEL_TimerDestroyAttr(timerAttr);
        XEL_EventDestroy(event);
        XEL_EventDestoryAttr(eventAttr);
        XEL_ThreadDestroyAttr(threadAttr);
        XEL_SchDestroy(sch);
        XEL_TaskDestroy(task);
        XEL_TaskDestroyAttr(taskAttr);
        EXPECT_NO_LOG();
    }
    void* Of(Family family) const
    {
        void* const all[] = {taskAttr,  task,  sch,       threadAttr, thread,
                             eventAttr, event, timerAttr, timer};
        return all[static_cast<u32>(family)];
    }
    // A descriptor without a task.
    int FreeFd() const { return free_.Get(); }
    // A handle whose object was destroyed; its memory can be read, or is not looked at.
    void* Destroyed(Family family);

    XelTaskAttr* taskAttr;
    SchTaskCtrl* task;
    SchCtrl* sch;
    XelThreadAttr* threadAttr;
    XelThreadCtrl* thread;
    XelEventAttr* eventAttr;
    XelEventNode* event;
    XelTimerAttr* timerAttr;
    XelTimerNode* timer;

private:
    Fd epoll_;
    Fd fd_;
    Fd free_ = Fd::Event();
    Worker worker_;
};

void* Zoo::Destroyed(Family family)
{
    switch (family) {
    case Family::Task: {
        const Fd fd = Fd::Event();
        SchTaskCtrl* gone = XEL_TaskCreate(fd.Get(), taskAttr);
        XEL_TaskDestroy(gone);
        return gone;
    }
    case Family::Sch: {
        const Fd epoll = Fd::Epoll();
        SchCtrl* gone = XEL_SchCreate(epoll.U32(), 8);
        XEL_SchDestroy(gone);
        return gone;
    }
    case Family::Event: {
        XelEventNode* gone = XEL_EventCreate(thread, eventAttr);
        XEL_EventDestroy(gone);
        return gone;
    }
    case Family::Timer: {
        const Footprint before = Measure();
        XelTimerNode* gone = XEL_TimerCreate(thread, timerAttr);
        XEL_TimerDestroy(gone); // freed on its thread, a moment later
        EXPECT_TRUE(AwaitTrue([&before] { return Measure() == before; }));
        return gone;
    }
    default:
        ADD_FAILURE() << "the memory of this family cannot be read afterwards";
        return nullptr;
    }
}

// A function with one handle to be refused; answers whether it was.
struct Refusal {
    const char* name;
    Family family;
    u32 kinds;
    std::function<bool(void* handle)> isRefused;
};

template <typename Handle, typename Function>
std::function<bool(void*)> With(Function function)
{
    return [function](void* handle) { return function(static_cast<Handle*>(handle)); };
}

using List = std::vector<Refusal>;

void AddTaskFunctions(List& list, Zoo& zoo)
{
    static const XelTaskUsrCb callback = {NopProc, 0};
    list.push_back(
        {"XEL_TaskSetAttr", Family::TaskAttr, kAnyLive, With<XelTaskAttr>([](XelTaskAttr* attr) {
             return XEL_TaskSetAttr(attr, XEL_TASK_ATTR_USR_CB, &callback, 16) == 22;
         })});
    list.push_back({"XEL_TaskDestroyAttr", Family::TaskAttr, kAnyLive,
                    With<XelTaskAttr>([](XelTaskAttr* attr) {
                        XEL_TaskDestroyAttr(attr);
                        return true;
                    })});
    list.push_back(
        {"XEL_TaskCreate", Family::TaskAttr, kAnyLive, With<XelTaskAttr>([&zoo](XelTaskAttr* attr) {
             return XEL_TaskCreate(zoo.FreeFd(), attr) == nullptr;
         })});
    list.push_back({"XEL_TaskDestroy", Family::Task, kAnyLive | kDestroyed,
                    With<SchTaskCtrl>([](SchTaskCtrl* task) {
                        XEL_TaskDestroy(task);
                        return true;
                    })});
    list.push_back(
        {"XEL_TaskAdd, task", Family::Task, kAnyLive | kDestroyed,
         With<SchTaskCtrl>([&zoo](SchTaskCtrl* task) { return XEL_TaskAdd(zoo.sch, task) != 0; })});
    list.push_back({"XEL_TaskDel, task", Family::Task, kAnyLive | kDestroyed,
                    With<SchTaskCtrl>(
                        [&zoo](SchTaskCtrl* task) { return XEL_TaskDel(zoo.sch, task) == 22; })});
}

void AddSchedulerFunctions(List& list, Zoo& zoo)
{
    list.push_back(
        {"XEL_SchDestroy", Family::Sch, kAnyLive | kDestroyed, With<SchCtrl>([](SchCtrl* sch) {
             XEL_SchDestroy(sch);
             return true;
         })});
    list.push_back(
        {"XEL_SchDispatch", Family::Sch, kAnyLive | kDestroyed, With<SchCtrl>([](SchCtrl* sch) {
             XEL_SchDispatch(sch);
             return TakeSleeps() == std::vector<u32>{1};
         })});
    list.push_back(
        {"XEL_TaskAdd, scheduler", Family::Sch, kAnyLive | kDestroyed,
         With<SchCtrl>([&zoo](SchCtrl* sch) { return XEL_TaskAdd(sch, zoo.task) == 22; })});
    list.push_back(
        {"XEL_TaskDel, scheduler", Family::Sch, kAnyLive | kDestroyed,
         With<SchCtrl>([&zoo](SchCtrl* sch) { return XEL_TaskDel(sch, zoo.task) == 22; })});
    list.push_back({"SCH_EpollCtrl add", Family::Sch, kGarbage | kDestroyed,
                    With<SchCtrl>([&zoo](SchCtrl* sch) {
                        SchEpollCtlReq request = {EPOLLIN, zoo.taskAttr};
                        return SCH_EpollCtrl(sch, XEL_SCH_EPOLL_ADD, zoo.FreeFd(), &request) ==
                               kFail;
                    })});
    list.push_back({"SCH_EpollCtrl delete", Family::Sch, kGarbage | kDestroyed,
                    With<SchCtrl>([&zoo](SchCtrl* sch) {
                        return SCH_EpollCtrl(sch, XEL_SCH_EPOLL_DEL, zoo.task->fd, nullptr) ==
                               kFail;
                    })});
    list.push_back({"SCH_EpollCtrl, attribute", Family::TaskAttr, kAnyLive,
                    With<XelTaskAttr>([&zoo](XelTaskAttr* attr) {
                        SchEpollCtlReq request = {EPOLLIN, attr};
                        return SCH_EpollCtrl(zoo.sch, XEL_SCH_EPOLL_ADD, zoo.FreeFd(), &request) ==
                               kFail;
                    })});
}

void AddThreadFunctions(List& list, Zoo& zoo)
{
    list.push_back({"XEL_ThreadSetAttr", Family::ThreadAttr, kAnyLive,
                    With<XelThreadAttr>([](XelThreadAttr* attr) {
                        const u32 expected = attr == nullptr ? 22 : kFail;
                        return XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_NAME, "x", 1) == expected;
                    })});
    list.push_back({"XEL_ThreadDestroyAttr", Family::ThreadAttr, kAnyLive,
                    With<XelThreadAttr>([](XelThreadAttr* attr) {
                        XEL_ThreadDestroyAttr(attr);
                        return true;
                    })});
    list.push_back({"XEL_ThreadCreate", Family::ThreadAttr, kNull,
                    With<XelThreadAttr>(
                        [](XelThreadAttr* attr) { return XEL_ThreadCreate(attr) == nullptr; })});
    list.push_back({"SchEventThreadDestory", Family::Thread, kAnyLive,
                    With<XelThreadCtrl>([](XelThreadCtrl* thread) {
                        return SchEventThreadDestory(thread) == kFail;
                    })});
    list.push_back({"XEL_ThreadCtrl", Family::Thread, kAnyLive,
                    With<XelThreadCtrl>([&zoo](XelThreadCtrl* thread) {
                        return XEL_ThreadCtrl(thread, XEL_THREAD_CTRL_DEL, zoo.FreeFd(), nullptr) ==
                               kFail;
                    })});
    list.push_back({"SchCommonOperationTask", Family::Thread, kAnyLive,
                    With<XelThreadCtrl>([&zoo](XelThreadCtrl* thread) {
                        XelSchCommonTask common = {static_cast<u32>(zoo.FreeFd()), thread, 0, 0};
                        return SchCommonOperationTask(&common, NopProc, "x", 0) == kFail;
                    })});
    list.push_back({"XEL_ThreadGetInfo", Family::Thread, kAnyLive,
                    With<XelThreadCtrl>([](XelThreadCtrl* thread) {
                        u64 tid = 77;
                        return XEL_ThreadGetInfo(thread, XEL_THREAD_INFO_TID, &tid, 8) == 22 &&
                               tid == 77;
                    })});
    list.push_back({"THREAD_GetSchTid", Family::Thread, kGarbage | kForeign,
                    With<XelThreadCtrl>([](XelThreadCtrl* thread) {
                        u64 tid = 77;
                        return THREAD_GetSchTid(thread, &tid) == kFail && tid == 77;
                    })});
}

void AddEventFunctions(List& list, Zoo& zoo)
{
    static const XelEventUsrCb callback = {NopEvent, 0};
    list.push_back({"XEL_EventSetAttr", Family::EventAttr, kAnyLive,
                    With<XelEventAttr>([](XelEventAttr* attr) {
                        return XEL_EventSetAttr(attr, XEL_EVENT_ATTR_PROC_INFO, &callback, 16) == 2;
                    })});
    list.push_back({"XEL_EventDestoryAttr", Family::EventAttr, kAnyLive,
                    With<XelEventAttr>([](XelEventAttr* attr) {
                        XEL_EventDestoryAttr(attr);
                        return true;
                    })});
    list.push_back({"XEL_EventCreate, attribute", Family::EventAttr, kAnyLive,
                    With<XelEventAttr>([&zoo](XelEventAttr* attr) {
                        return XEL_EventCreate(zoo.thread, attr) == nullptr;
                    })});
    list.push_back({"XEL_EventCreate, thread", Family::Thread, kAnyLive,
                    With<XelThreadCtrl>([&zoo](XelThreadCtrl* thread) {
                        return XEL_EventCreate(thread, zoo.eventAttr) == nullptr;
                    })});
    list.push_back({"XelEventInnerCreate", Family::Thread, kAnyLive,
                    With<XelThreadCtrl>([](XelThreadCtrl* thread) {
                        return XelEventInnerCreate(thread, NopEvent, "x", 0) == nullptr;
                    })});
    list.push_back(
        {"XEL_EventNotify", Family::Event, kAnyLive,
         With<XelEventNode>([](XelEventNode* event) { return XEL_EventNotify(event) == 2; })});
    list.push_back({"XEL_EventDestroy", Family::Event, kAnyLive | kDestroyed,
                    With<XelEventNode>([](XelEventNode* event) {
                        XEL_EventDestroy(event);
                        return true;
                    })});
}

void AddTimerFunctions(List& list, Zoo& zoo)
{
    static const u32 mode = 0;
    list.push_back(
        {"XEL_TimerSetAttr", Family::TimerAttr, kNull, With<XelTimerAttr>([](XelTimerAttr* attr) {
             return XEL_TimerSetAttr(attr, XEL_TIMER_ATTR_MODE, &mode, 4) == 22;
         })});
    list.push_back({"XEL_TimerDestroyAttr", Family::TimerAttr, kAnyLive,
                    With<XelTimerAttr>([](XelTimerAttr* attr) {
                        XEL_TimerDestroyAttr(attr);
                        return true;
                    })});
    list.push_back({"XEL_TimerCreate, attribute", Family::TimerAttr, kNull,
                    With<XelTimerAttr>([&zoo](XelTimerAttr* attr) {
                        return XEL_TimerCreate(zoo.thread, attr) == nullptr;
                    })});
    list.push_back({"XEL_TimerCreate, thread", Family::Thread, kAnyLive,
                    With<XelThreadCtrl>([&zoo](XelThreadCtrl* thread) {
                        return XEL_TimerCreate(thread, zoo.timerAttr) == nullptr;
                    })});
    list.push_back({"XelTimerCreateOneShotAndStart", Family::Thread, kAnyLive,
                    With<XelThreadCtrl>([](XelThreadCtrl* thread) {
                        const XelTimerOneShotParam param = {1000, thread, NopTimer, nullptr};
                        return XelTimerCreateOneShotAndStart(&param, "x") == nullptr;
                    })});
    const auto add = [&list](const char* name, auto function) {
        list.push_back({name, Family::Timer, kAnyLive | kDestroyed, With<XelTimerNode>(function)});
    };
    add("XEL_TimerStart", [](XelTimerNode* timer) { return XEL_TimerStart(timer) == 22; });
    add("XEL_TimerStop", [](XelTimerNode* timer) { return XEL_TimerStop(timer) == 22; });
    add("XEL_TimerResize", [](XelTimerNode* timer) { return XEL_TimerResize(timer, 5) == 22; });
    add("TimerGetTimerRemainTime", [](XelTimerNode* timer) {
        u32 left = 77;
        return TimerGetTimerRemainTime(timer, &left) == kFail && left == 77;
    });
    add("XEL_TimerDestroy", [](XelTimerNode* timer) {
        XEL_TimerDestroy(timer);
        return true;
    });
}

// A type keeps the thread that it was given; its timers cannot be made with a bad one.
bool TypeRefuses(XelThreadCtrl* thread, const XelTimerAttr* attr)
{
    EXPECT_EQ(XEL_TimerCreateGroup(9), 0U);
    const u32 added = XEL_TimerAddTimerType(9, 1, thread, attr);
    const bool isRefused = thread == nullptr
                               ? added == kFail
                               : added == 0 && XEL_TimerCreateAndStart(9, 1, nullptr) == nullptr;
    XEL_TimerDestroyGroup(9);
    return isRefused;
}

void AddOtherFunctions(List& list, Zoo& zoo)
{
    list.push_back({"XEL_TimerCreateAndStart", Family::Thread, kAnyLive,
                    With<XelThreadCtrl>([&zoo](XelThreadCtrl* thread) {
                        return TypeRefuses(thread, zoo.timerAttr);
                    })});
    list.push_back({"XelLightMqCreate", Family::Thread, kAnyLive,
                    With<XelThreadCtrl>([](XelThreadCtrl* thread) {
                        const XelLightMqConfig config = {1, 4, "x", NopEvent, 0};
                        return XelLightMqCreate(thread, &config) == nullptr;
                    })});
    list.push_back(
        {"XEL_ServiceMqCreate", Family::Thread, kGarbage | kForeign,
         With<XelThreadCtrl>([](XelThreadCtrl* thread) {
             const XelServiceMqConfig config = {1, thread, [](XelServiceMsg*, void*) {}, nullptr};
             return XEL_ServiceMqCreate("garbage", &config, nullptr) == kFail;
         })});
}

struct Totals {
    u32 tried = 0;
    u32 refused = 0;
};

// Every byte of the handle's block must be as before; a handle is at most this long.
constexpr size_t kBlockSize = 4096;

void TryOne(const Refusal& refusal, void* handle, const char* kind, Totals& totals)
{
    SCOPED_TRACE(std::string(refusal.name) + " with " + kind);
    const Footprint before = Measure();
    const u32 events = g_xelEventList.count;
    const u32 timers = LiveTimers();
    const bool isRefused = refusal.isRefused(handle);
    totals.tried += 1;
    totals.refused += isRefused ? 1 : 0;
    EXPECT_TRUE(isRefused);
    EXPECT_GT(LogCount(), 0U) << "refused without a line";
    DropLog();
    EXPECT_EQ(Measure(), before);
    EXPECT_EQ(g_xelEventList.count, events);
    EXPECT_EQ(LiveTimers(), timers);
}

void TryGarbage(const Refusal& refusal, Totals& totals)
{
    std::mt19937 random(20240229);
    for (int pattern = 0; pattern < 10; ++pattern) {
        alignas(64) static u8 block[kBlockSize];
        for (u8& byte : block) {
            byte = pattern == 0 ? 0 : pattern == 1 ? 0xFF : static_cast<u8>(random());
        }
        const std::vector<u8> copy(block, block + kBlockSize);
        TryOne(refusal, block, "garbage", totals);
        EXPECT_EQ(memcmp(block, copy.data(), kBlockSize), 0) << refusal.name << " wrote into it";
    }
}

void TryAll(const Refusal& refusal, Zoo& zoo, Totals& totals)
{
    if ((refusal.kinds & kNull) != 0) {
        TryOne(refusal, nullptr, "null", totals);
    }
    if ((refusal.kinds & kGarbage) != 0) {
        TryGarbage(refusal, totals);
    }
    for (u32 i = 0; (refusal.kinds & kForeign) != 0 && i <= static_cast<u32>(Family::Timer); ++i) {
        if (static_cast<Family>(i) != refusal.family) {
            TryOne(refusal, zoo.Of(static_cast<Family>(i)), "another family's", totals);
        }
    }
    if ((refusal.kinds & kDestroyed) != 0) {
        TryOne(refusal, zoo.Destroyed(refusal.family), "a destroyed one", totals);
    }
}

// The table of services, and the descriptors of the list, stay for the life of the process.
class Garbage : public ThreadTest
{
protected:
    void SetUp() override
    {
        ServiceMqInit();
        ThreadTest::SetUp();
    }
};

TEST_F(Garbage, IsRefusedByEveryFunctionThatLooksAtItsHandle)
{
    {
        Zoo zoo;
        List list;
        AddTaskFunctions(list, zoo);
        AddSchedulerFunctions(list, zoo);
        AddThreadFunctions(list, zoo);
        AddEventFunctions(list, zoo);
        AddTimerFunctions(list, zoo);
        AddOtherFunctions(list, zoo);
        Totals totals;
        for (const Refusal& refusal : list) {
            TryAll(refusal, zoo, totals);
        }
        printf("%zu functions and parameters, %u calls, %u refused\n", list.size(), totals.tried,
               totals.refused);
        EXPECT_EQ(totals.refused, totals.tried);
        EXPECT_GT(totals.tried, 300U);
    }
}

} // namespace
