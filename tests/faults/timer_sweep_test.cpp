// Faults in timers, and in their groups and types.
#include "objects.h"
#include "timer/xel_timer_inner.h"

namespace
{

using namespace faulttest;

constexpr u32 kGroup = 7;
constexpr u32 kType = 3;
constexpr u32 kSoonMs = 1;
constexpr u32 kLateMs = 600000;

u32 CountTimer(XelTimerNode* /*timer*/, u64 /*expirations*/, void* data)
{
    static_cast<Counts*>(data)->runs.fetch_add(1);
    return 0;
}

void CountRelease(void* data)
{
    static_cast<Counts*>(data)->released.fetch_add(1);
}

// A timer whose task could not be removed is out of the list, with its descriptor open and its
// memory there. It is put back, with a task, and torn down again.
void TearDownByHand(XelTimerNode* timer, const XelThreadCtrl* thread, bool isListed)
{
    const Attr attr;
    SchTaskCtrl* task = SchTaskGetHandleByAppFd(timer->fd);
    if (task != nullptr) {
        XEL_TaskDestroy(task);
    }
    (void)::epoll_ctl(thread->epFd, EPOLL_CTL_DEL, timer->fd, nullptr);
    SchEpollCtlReq request = {EPOLLIN, attr.Get()};
    EXPECT_EQ(XEL_ThreadCtrl(timer->thread, XEL_THREAD_CTRL_ADD, timer->fd, &request), 0U);
    if (!isListed) {
        TimerAddNode(timer);
    }
    InnerTimerDestroy(timer);
}

constexpr char kNotRemoved[] = "Timer task delete unsuccessfully. (ret = 0xffffffff)";

// Waits for a timer that ends on its thread, by itself or because it was told to.
void AwaitTimerEnd(Trial& run, XelTimerNode* timer, const Counts& counts, u32 released,
                   const XelThreadCtrl* thread)
{
    run.Expect("the timer ends",
               [&] { return counts.released.load() == released + 1 || LogCount(kNotRemoved) > 0; });
    if (counts.released.load() == released) {
        EXPECT_NE(Hits(), 0U);
        TearDownByHand(timer, thread, false);
        run.Expect("its run is over", [&] { return counts.released.load() == released + 1; });
    }
    run.MayLeaveTasks({TaskTable()});
}

XelTimerAttr* MakeTimerAttr(Trial& run, Counts& counts)
{
    XelTimerAttr* attr = nullptr;
    (void)run.Do("XEL_TimerCreateAttr", {Call::XelMemAllocF},
                 [&] { return (attr = XEL_TimerCreateAttr()) != nullptr; });
    if (attr == nullptr) {
        return nullptr;
    }
    const XelTimerUsrCb callback = {CountTimer, &counts};
    const u32 mode = XEL_TIMER_MODE_PERIODIC;
    run.End("XelTimerSetAllAttr", {Call::StrcpyS},
            [&] { return XelTimerSetAllAttr(attr, &callback, &mode, &kLateMs, "timer") == 0; });
    (void)run.Do("set destructor", {}, [&] {
        return XEL_TimerSetAttr(attr, XEL_TIMER_ATTR_DESTRUCTOR,
                                reinterpret_cast<const void*>(CountRelease), 8) == 0;
    });
    return attr;
}

void UseTimer(Trial& run, XelTimerNode* timer, const Counts& counts)
{
    u32 remain = 0;
    (void)run.Do("XEL_TimerStart", {Call::TimerfdSettime},
                 [&] { return XEL_TimerStart(timer) == 0; });
    (void)run.Do("TimerGetTimerRemainTime", {Call::TimerfdGettime},
                 [&] { return TimerGetTimerRemainTime(timer, &remain) == 0; });
    (void)run.Do("XEL_TimerStop", {Call::TimerfdSettime},
                 [&] { return XEL_TimerStop(timer) == 0; });
    const u32 runs = counts.runs.load();
    run.End("XEL_TimerResize", {Call::TimerfdSettime},
            [&] { return XEL_TimerResize(timer, kSoonMs) == 0; });
    run.Expect("the timer runs", [&] { return counts.runs.load() > runs; });
}

// A timer that cannot be armed for its end is marked all the same, and ends at the next expiry.
void PeriodicLife(Trial& run, XelThreadCtrl* thread)
{
    Counts counts;
    XelTimerAttr* attr = MakeTimerAttr(run, counts);
    if (attr == nullptr) {
        return;
    }
    XelTimerNode* timer = nullptr;
    (void)run.Do("XEL_TimerCreate",
                 {Call::TimerfdCreate, TASK_FATALS, Fatal(Call::StrcpyS, 1), TaskTable()},
                 [&] { return (timer = XEL_TimerCreate(thread, attr)) != nullptr; });
    XEL_TimerDestroyAttr(attr);
    if (timer == nullptr) {
        return;
    }
    UseTimer(run, timer, counts);
    const u32 released = counts.released.load();
    XEL_TimerDestroy(timer);
    AwaitTimerEnd(run, timer, counts, released, thread);
}

void OneShotLife(Trial& run, XelThreadCtrl* thread)
{
    Counts counts;
    const XelTimerOneShotParam param = {kSoonMs, thread, CountTimer, &counts};
    XelTimerNode* timer = nullptr;
    const u32 timers = LiveTimers();
    const int fd = threadtest::NextFd();
    (void)run.Do("XelTimerCreateOneShotAndStart",
                 {Call::TimerfdCreate, Call::TimerfdSettime, TASK_FATALS, Fatal(Call::StrcpyS, 2),
                  TaskTable()},
                 [&] {
                     timer = XelTimerCreateOneShotAndStart(&param, "one-shot");
                     return timer != nullptr;
                 });
    if (timer == nullptr) {
        return;
    }
    run.Expect("the timer runs", [&] { return counts.runs.load() == 1; });
    run.Expect("the timer ends", [&] { return LiveTimers() == timers; });
    // The timer may be freed at any time, so only its descriptor is looked at.
    run.Expect("its descriptor is closed, or its task left",
               [fd] { return LogCount(kNotRemoved) > 0 || !threadtest::IsOpen(fd); });
    if (LogCount(kNotRemoved) > 0) {
        TearDownByHand(timer, thread, false);
    }
    run.MayLeaveTasks({TaskTable()});
}

// Ends a timer whose type or group could not remove its task, and was deleted nevertheless.
void EndLeftTimer(XelTimerNode* timer, u32 timers, const XelThreadCtrl* thread)
{
    if (LiveTimers() != timers) {
        EXPECT_NE(Hits(), 0U);
        TearDownByHand(timer, thread, true);
    }
}

XelTimerNode* StartOfType(Trial& run, void* userData)
{
    XelTimerNode* timer = nullptr;
    (void)run.Do("XEL_TimerCreateAndStart",
                 {Call::TimerfdCreate, Call::TimerfdSettime, TASK_FATALS, Fatal(Call::StrcpyS, 1),
                  TaskTable()},
                 [&] {
                     timer = XEL_TimerCreateAndStart(kGroup, kType, userData);
                     return timer != nullptr;
                 });
    run.MayLeaveTasks({Call::TimerfdSettime, TaskTable(), TaskLookUp()});
    return timer;
}

void UseType(Trial& run, XelThreadCtrl* thread)
{
    u32 word = 0;
    (void)run.Do("TimerGetParamByGroupAndType", {Call::MemcpyS}, [&] {
        return TimerGetParamByGroupAndType(kGroup, kType, &word, sizeof(word)) == 0;
    });
    const u32 timers = LiveTimers();
    XelTimerNode* ofType = StartOfType(run, nullptr);
    (void)run.Do("XEL_TimerDelTimerType", {},
                 [&] { return XEL_TimerDelTimerType(kGroup, kType) == 0; });
    EndLeftTimer(ofType, timers, thread);
    run.EndLeftTasks({Call::TimerfdSettime, TaskTable(), TaskLookUp()});
}

void GroupLife(Trial& run, XelThreadCtrl* thread)
{
    Counts typeCounts;
    Counts own;
    XelTimerAttr* attr = MakeTimerAttr(run, typeCounts);
    if (attr == nullptr) {
        return;
    }
    run.End("XEL_TimerCreateGroup", {Call::XelMemAllocF},
            [] { return XEL_TimerCreateGroup(kGroup) == 0; });
    const auto addType = [&] { return XEL_TimerAddTimerType(kGroup, kType, thread, attr) == 0; };
    run.End("XEL_TimerAddTimerType", {Call::XelMemAllocF, Call::MemcpyS}, addType);
    UseType(run, thread);
    run.End("XEL_TimerAddTimerType again", {Call::XelMemAllocF, Call::MemcpyS}, addType);
    const u32 timers = LiveTimers();
    XelTimerNode* timer = StartOfType(run, &own);
    (void)run.Do("XEL_TimerDestroyGroup", {}, [] {
        XEL_TimerDestroyGroup(kGroup);
        return g_xelTimerCtrl.groupCount == 0;
    });
    EndLeftTimer(timer, timers, thread);
    EXPECT_EQ(own.released.load(), timer == nullptr ? 0U : 1U);
    EXPECT_EQ(typeCounts.released.load(), 2U); // by the two types
    XEL_TimerDestroyAttr(attr);
    MayLeaveBoundTasks(run);
}

using FaultsInTimers = Objects;
using FaultsInTimerGroups = Objects;

TEST_F(FaultsInTimers, OfAPeriodLeaveNothing)
{
    SweepBoth("timers", "periodic", PeriodicLife);
}

TEST_F(FaultsInTimers, OfOneShotLeaveNothing)
{
    SweepBoth("timers", "one-shot", OneShotLife);
}

TEST_F(FaultsInTimerGroups, LeaveNothing)
{
    SweepBoth("groups", "group, types and timers", GroupLife);
}

} // namespace
