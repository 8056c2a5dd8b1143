// Events, and a scheduler thread that an input creates and ends.
#include <cstring>

#include "event/xel_event_inner.h"
#include "event/xel_event_list.h"
#include "world.h"

namespace xelfuzz
{

namespace
{

constexpr u32 kOwnThread = kThreads - 1;
constexpr u32 kMaxScriptRuns = 24;

u64 DataOf(u32 slot)
{
    return u64{g_world.events[slot].generation} << 8 | slot;
}

u32 OnEvent(u64 data)
{
    const Hold hold(g_world.lock);
    const u32 self = static_cast<u32>(data & 0xFF);
    FUZZ_CHECK(self < kEvents);
    EventSlot& slot = g_world.events[self];
    if (DataOf(self) != data) {
        return 0;
    }
    const u64 runs = slot.runs.fetch_add(1) + 1;
    FUZZ_CHECK(runs <= slot.notified.load());
    if (runs > kMaxScriptRuns) {
        return 0; // events that notify one another would never end
    }
    if (slot.script >= 0xE8 && !g_world.isEnding) {
        DestroyServicesOf(slot.thread);
    }
    RunScript(slot.script, self);
    return slot.script >= 0xF0 ? 7 : 0;
}

XelEventAttr* MakeAttr(Input& input, u32 slot)
{
    XelEventAttr* attr = XEL_EventCreateAttr();
    FUZZ_CHECK(attr != nullptr);
    const u8 odd = input.Byte();
    const XelEventUsrCb callback = {OnEvent, DataOf(slot)};
    if (odd < 0xF8) {
        FUZZ_CHECK(XEL_EventSetAttr(attr, XEL_EVENT_ATTR_PROC_INFO, &callback, sizeof(callback)) ==
                   XEL_OK);
    }
    char name[XEL_NAME_SIZE] = {};
    input.Fill(name, odd % XEL_NAME_SIZE);
    FUZZ_CHECK(XEL_EventSetAttr(attr, XEL_EVENT_ATTR_TASK_NAME, name, XEL_NAME_SIZE - 1) == XEL_OK);
    return attr;
}

void CreateEvent(Input& input)
{
    const u32 index = input.Below(kEvents);
    EventSlot& slot = g_world.events[index];
    if (slot.isLive) {
        return;
    }
    slot.generation += 1;
    slot.thread = PickThread(input);
    slot.script = input.Byte();
    slot.notified = 0;
    slot.runs = 0;
    XelThreadCtrl* thread = g_world.threads[slot.thread].thread;
    const u32 kind = input.Below(8);
    if (kind == 0) {
        slot.event = XelEventInnerCreate(thread, OnEvent, "inner", DataOf(index));
    } else {
        auto* stranger = static_cast<XelThreadCtrl*>(Foreign(input.Byte()));
        XelEventAttr* attr = MakeAttr(input, index);
        slot.event = XEL_EventCreate(kind == 7 ? stranger : thread, kind == 6 ? nullptr : attr);
        XEL_EventDestoryAttr(attr);
        FUZZ_CHECK(kind < 6 || slot.event == nullptr);
    }
    slot.isLive = slot.event != nullptr;
}

// The handle of an event that is gone, and no event lives at its address again.
bool IsStale(const XelEventNode* event)
{
    FUZZ_CHECK(pthread_rwlock_rdlock(&g_xelEventList.lock) == 0);
    const bool isListed = EventIsNodeAvailable(event);
    FUZZ_CHECK(pthread_rwlock_unlock(&g_xelEventList.lock) == 0);
    return !isListed;
}

// A handle that is gone, is no event, or is null: each is refused.
void UseOddEvent(Input& input)
{
    const EventSlot& slot = g_world.events[input.Below(kEvents)];
    switch (input.Below(3)) {
    case 0:
        XEL_EventDestroy(nullptr);
        FUZZ_CHECK(XEL_EventNotify(nullptr) == XEL_EARG);
        break;
    case 1:
        XEL_EventDestroy(static_cast<XelEventNode*>(Foreign(kEventMagic)));
        FUZZ_CHECK(XEL_EventNotify(static_cast<XelEventNode*>(Foreign(1))) == XEL_EARG);
        break;
    default:
        if (!slot.isLive && IsStale(slot.event)) {
            XEL_EventDestroy(slot.event);
        }
        break;
    }
}

void CreateOwnThread(Input& input)
{
    XelThreadAttr* attr = XEL_ThreadCreateAttr();
    FUZZ_CHECK(attr != nullptr);
    const char* name = "a thread of own";
    const u8 odd = input.Byte();
    const u32 nameSize = input.Below(4) == 3 ? 0 : 15;
    (void)XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_NAME, name, nameSize);
    const i32 epSize = odd < 0xF8 ? 1 + static_cast<i32>(odd) : 5000;
    (void)XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_EP_SIZE, &epSize, sizeof(epSize));
    const u32 policy = input.Below(3);
    (void)XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_SCHEDULE_POLICY, &policy, sizeof(policy));
    const u32 type = odd < 0xF0 ? 0 : input.Below(4);
    (void)XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_EPOLL_TYPE, &type, sizeof(type));
    XelThreadCtrl* thread = XEL_ThreadCreate(attr);
    XEL_ThreadDestroyAttr(attr);
    FUZZ_CHECK(thread == nullptr || nameSize != 0);
    ThreadSlot& slot = g_world.threads[kOwnThread];
    if (thread == nullptr) {
        return;
    }
    slot.thread = thread;
    slot.ping = XelEventInnerCreate(
        thread,
        [](u64) {
            g_world.threads[kOwnThread].pings.fetch_add(1);
            return 0U;
        },
        "ping", 0);
    FUZZ_CHECK(slot.ping != nullptr);
}

void AskThread(Input& input)
{
    const Hold hold(g_world.lock);
    auto* stranger = static_cast<XelThreadCtrl*>(Foreign(input.Byte()));
    XelThreadCtrl* thread = g_world.threads[PickThread(input)].thread;
    u64 tid = 0;
    const u32 size = input.Below(10);
    FUZZ_CHECK((XEL_ThreadGetInfo(thread, input.Below(2), &tid, size) == XEL_OK) == (tid != 0));
    FUZZ_CHECK(XEL_ThreadGetInfo(stranger, 0, &tid, sizeof(tid)) == XEL_EINVAL);
    FUZZ_CHECK(SchEventThreadDestory(input.Flag() ? stranger : nullptr) == XEL_FAIL);
    XelSchDeployInfo infos[kThreads];
    u32 count = 1 + input.Below(kThreads);
    const u32 room = count;
    const i32 filter = input.Flag() ? -1 : static_cast<i32>(input.Below(40));
    FUZZ_CHECK(THREAD_GetSchDeployInfo(filter, infos, &count) == XEL_OK);
    FUZZ_CHECK(count <= room && (filter >= 0 || count > 0));
    for (u32 i = 0; i < count; ++i) {
        FUZZ_CHECK(strnlen(infos[i].name, XEL_NAME_SIZE) < XEL_NAME_SIZE);
    }
}

} // namespace

void NotifyEvent(u32 slot)
{
    EventSlot& event = g_world.events[slot];
    if (!event.isLive) {
        return;
    }
    event.notified.fetch_add(1);
    FUZZ_CHECK(XEL_EventNotify(event.event) == XEL_OK);
}

void DestroyEvent(u32 slot)
{
    EventSlot& event = g_world.events[slot];
    if (event.isLive) {
        event.isLive = false;
        XEL_EventDestroy(event.event);
    }
}

void CallEvents(Input& input)
{
    const Hold hold(g_world.lock);
    switch (input.Below(6)) {
    case 0:
    case 1:
        CreateEvent(input);
        break;
    case 2:
        DestroyEvent(input.Below(kEvents));
        break;
    case 3:
        UseOddEvent(input);
        break;
    default:
        NotifyEvent(input.Below(kEvents));
        break;
    }
}

void CallThreads(Input& input)
{
    switch (input.Below(4)) {
    case 0:
        if (g_world.threads[kOwnThread].thread == nullptr) {
            CreateOwnThread(input);
        }
        break;
    case 1:
        if (input.Flag()) {
            EndOwnThread();
        }
        break;
    case 2:
        Quiesce(PickThread(input));
        break;
    default:
        AskThread(input);
        break;
    }
}

// Each notification makes one run; only then the events go.
void EndEvents(u32 thread)
{
    bool isEnding[kEvents] = {};
    {
        const Hold hold(g_world.lock);
        for (u32 i = 0; i < kEvents; ++i) {
            EventSlot& slot = g_world.events[i];
            isEnding[i] = slot.isLive && (thread == kThreads || slot.thread == thread);
            slot.isLive = slot.isLive && !isEnding[i];
        }
    }
    for (u32 i = 0; i < kEvents; ++i) {
        EventSlot& slot = g_world.events[i];
        if (isEnding[i]) {
            Await("as many runs as notifications",
                  [&slot] { return slot.runs.load() == slot.notified.load(); });
            XEL_EventDestroy(slot.event);
        }
    }
}

void EndOwnThread()
{
    ThreadSlot& slot = g_world.threads[kOwnThread];
    if (slot.thread == nullptr) {
        return;
    }
    EndServices(kOwnThread);
    EndQueues(kOwnThread);
    EndEvents(kOwnThread);
    EndTimers(kOwnThread);
    Quiesce(kOwnThread);
    XEL_EventDestroy(slot.ping);
    FUZZ_CHECK(SchEventThreadDestory(slot.thread) == XEL_OK);
    slot.thread = nullptr;
    slot.ping = nullptr;
}

} // namespace xelfuzz
