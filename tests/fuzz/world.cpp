// The frame of an input: the two threads that stay, the start from empty slots, and the end, after
// which everything has to be given back.
#include "world.h"

#include <csignal>
#include <cstdlib>
#include <cstring>

namespace xelfuzz
{

World g_world = {};

namespace
{

Footprint g_before = {};

u32 OnPing(u64 slot)
{
    g_world.threads[slot].pings.fetch_add(1);
    return 0;
}

void StartThread(u32 slot, u32 policy)
{
    XelThreadAttr* attr = XEL_ThreadCreateAttr();
    FUZZ_CHECK(XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_NAME, "stays", 5) == XEL_OK);
    FUZZ_CHECK(XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_SCHEDULE_POLICY, &policy, sizeof(policy)) ==
               XEL_OK);
    // With the smallest batch the policy keeps the same number of units at rest, whatever it had.
    const i32 epSize = 8;
    FUZZ_CHECK(XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_EP_SIZE, &epSize, sizeof(epSize)) == XEL_OK);
    ThreadSlot& thread = g_world.threads[slot];
    thread.thread = XEL_ThreadCreate(attr);
    XEL_ThreadDestroyAttr(attr);
    FUZZ_CHECK(thread.thread != nullptr);
    thread.ping = XelEventInnerCreate(thread.thread, OnPing, "ping", slot);
    FUZZ_CHECK(thread.ping != nullptr);
}

// What stays would look like a leak to those who search memory for it: its list stands in a pool.
void StopThreads()
{
    for (ThreadSlot& slot : g_world.threads) {
        if (slot.thread != nullptr) {
            XEL_EventDestroy(slot.ping);
            FUZZ_CHECK(SchEventThreadDestory(slot.thread) == XEL_OK);
        }
    }
}

// The table of services is made by the first creation and stays.
void MakeServiceTable()
{
    const XelServiceMqConfig config = {1, g_world.threads[0].thread, [](XelServiceMsg*, void*) {},
                                       nullptr};
    FUZZ_CHECK(XEL_ServiceMqCreate("first", &config, nullptr) == XEL_OK);
    XEL_ServiceMqDestroy("first");
}

void ForgetSlots()
{
    for (FdSlot& slot : g_world.fds) {
        slot = {-1, FdKind::None, 0, 0};
    }
    for (SchTaskCtrl*& task : g_world.tasks) {
        task = nullptr;
    }
    for (SchedSlot& slot : g_world.scheds) {
        slot = {nullptr, -1, false, false};
    }
    for (EventSlot& slot : g_world.events) {
        slot.event = nullptr;
        slot.isLive = false;
        slot.notified = 0;
        slot.runs = 0;
    }
    for (TimerSlot& slot : g_world.timers) {
        slot = {nullptr, 0, false};
    }
    for (ServiceSlot& slot : g_world.services) {
        slot.isLive = false;
        slot.sent = 0;
        slot.delivered = 0;
    }
    memset(g_world.hasGroup, 0, sizeof(g_world.hasGroup));
    memset(g_world.hasType, 0, sizeof(g_world.hasType));
    g_world.isEnding = false;
    g_world.boxCount = 0;
    g_world.taskRuns = 0;
}

// Late work of a thread (a destroyed timer's expiry, events of tasks that are gone) ends with a
// cycle or two more.
bool IsCleanedUp()
{
    Quiesce(0);
    Quiesce(1);
    return Measure() == g_before;
}

void CheckBoxes()
{
    for (u32 i = 0; i < g_world.boxCount; ++i) {
        const Box& box = g_world.boxes[i];
        FUZZ_CHECK(box.released.load() == (box.mustBeReleased ? 1U : 0U));
    }
}

} // namespace

void StartThreads()
{
    static bool isDone = false;
    if (isDone) {
        return;
    }
    isDone = true;
    (void)signal(SIGPIPE, SIG_IGN); // the other end of a pipe may be replaced
    StartThread(0, XEL_SCH_POLICY_BFS);
    StartThread(1, XEL_SCH_POLICY_NONE);
    MakeServiceTable();
    Quiesce(0);
    Quiesce(1);
    FUZZ_CHECK(atexit(StopThreads) == 0);
}

void BeginInput()
{
    StartThreads();
    ForgetSlots();
    g_before = Measure();
}

void EndInput()
{
    {
        const Hold hold(g_world.lock);
        g_world.isEnding = true;
    }
    EndServices(kThreads);
    EndQueues(kThreads);
    EndEvents(kThreads);
    EndTimers(kThreads);
    EndTasks();
    EndOwnThread();
    for (u32 i = 0; i < 20000 && !IsCleanedUp(); ++i) {
    }
    if (!(Measure() == g_before)) {
        Print("before", g_before);
        Print("after ", Measure());
        Die(__FILE__, __LINE__, "everything is given back");
    }
    CheckBoxes();
}

void Quiesce(u32 thread)
{
    ThreadSlot& slot = g_world.threads[thread];
    const u64 seen = slot.pings.load();
    FUZZ_CHECK(XEL_EventNotify(slot.ping) == XEL_OK);
    Await("ping", [&slot, seen] { return slot.pings.load() > seen; });
}

void* Foreign(u32 magic)
{
    memset(g_world.foreign, 0, sizeof(g_world.foreign));
    const u32 words[3] = {magic, 0, 0xFFFFFFFFU}; // an open lock behind the magic
    memcpy(g_world.foreign, words, sizeof(words));
    return g_world.foreign;
}

u32 PickThread(Input& input)
{
    const u32 thread = input.Below(kThreads);
    return g_world.threads[thread].thread != nullptr ? thread : 0;
}

// self: the slot of the object whose callback runs, of its own kind.
void RunScript(u8 script, u32 self)
{
    if (g_world.isEnding) {
        return;
    }
    const u32 other = (self + script / 16) % kEvents;
    switch (script % 8) {
    case 1:
        NotifyEvent(other);
        break;
    case 2:
        DestroyEvent(other);
        break;
    case 3:
        DestroyTimer(other);
        break;
    case 4:
        CreateTimer(other, script / 16 % 2, script / 32, script / 64);
        break;
    case 5:
        SendToService(other % kServices, script);
        break;
    case 6:
        WriteQueue(other % kQueues);
        break;
    case 7:
        DeleteFd(script % kFds);
        break;
    default:
        break;
    }
}

} // namespace xelfuzz
