// Timers, groups and types. Every user data is a box that tells when it is released, and how often.
#include "world.h"

#include <cstddef>
#include <cstring>

#include "timer/xel_timer_inner.h"

namespace xelfuzz
{

namespace
{

constexpr u32 kMaxScriptRuns = 8;

u32 OnTimer(XelTimerNode* timer, uint64_t expirations, void* userData)
{
    auto* box = static_cast<Box*>(userData);
    FUZZ_CHECK(timer != nullptr && expirations > 0);
    FUZZ_CHECK(box >= g_world.boxes && box < g_world.boxes + kBoxes);
    FUZZ_CHECK(box->released.load() == 0);
    const Hold hold(g_world.lock);
    if (box->runs.fetch_add(1) < kMaxScriptRuns) {
        if (box->script % 16 == 9 && !g_world.isEnding) {
            XEL_TimerDestroy(timer);
        }
        RunScript(box->script, box->script % kEvents);
    }
    return box->script >= 0xF0 ? 3 : 0;
}

void OnRelease(void* userData)
{
    auto* box = static_cast<Box*>(userData);
    FUZZ_CHECK(box >= g_world.boxes && box < g_world.boxes + kBoxes);
    FUZZ_CHECK(box->released.fetch_add(1) == 0);
}

// Null when the input has used all boxes up.
Box* NewBox(u8 script)
{
    if (g_world.boxCount == kBoxes) {
        return nullptr;
    }
    Box* box = &g_world.boxes[g_world.boxCount++];
    box->script = script;
    box->mustBeReleased = false;
    box->released = 0;
    box->runs = 0;
    return box;
}

// kind: bit 0 periodic, bit 1 with a destructor.
XelTimerAttr* MakeAttr(Box* box, u8 kind, u32 timeoutMs)
{
    XelTimerAttr* attr = XEL_TimerCreateAttr();
    FUZZ_CHECK(attr != nullptr);
    const XelTimerUsrCb callback = {OnTimer, box};
    const u32 mode = kind & 1;
    FUZZ_CHECK(XelTimerSetAllAttr(attr, &callback, &mode, &timeoutMs, "timer") == XEL_OK);
    if ((kind & 2) != 0) {
        FUZZ_CHECK(XEL_TimerSetAttr(attr, XEL_TIMER_ATTR_DESTRUCTOR,
                                    reinterpret_cast<const void*>(OnRelease), 8) == XEL_OK);
    }
    return attr;
}

// A block may serve again: then the handle is good again, wherever it stands. What the slot held is
// ended first, unless it was gone already and this is the same block.
void Store(u32 slot, XelTimerNode* timer, u32 thread)
{
    if (timer == nullptr) {
        return;
    }
    if (g_world.timers[slot].timer != timer) {
        DestroyTimer(slot);
    }
    g_world.timers[slot].timer = timer;
    g_world.timers[slot].thread = thread;
    for (TimerSlot& other : g_world.timers) {
        if (other.timer == timer) {
            other.isEnded = false;
        }
    }
}

void UseTimer(Input& input)
{
    const u8 which = input.Byte();
    const TimerSlot& slot = g_world.timers[which % kTimers];
    XelTimerNode* timer =
        which < 0xF0 ? slot.timer : static_cast<XelTimerNode*>(Foreign(kTimerMagic));
    const bool isRefused = which >= 0xF0 || slot.timer == nullptr || slot.isEnded;
    u32 remain = 0;
    u32 result = XEL_OK;
    switch (input.Below(5)) {
    case 0:
        result = XEL_TimerStart(timer);
        FUZZ_CHECK(!isRefused || result == XEL_EINVAL);
        break;
    case 1:
        result = XEL_TimerStop(timer);
        FUZZ_CHECK(!isRefused || result == XEL_EINVAL);
        break;
    case 2:
        result = XEL_TimerResize(timer, 1 + input.Number());
        FUZZ_CHECK(!isRefused || result == XEL_EINVAL);
        break;
    case 3:
        result = TimerGetTimerRemainTime(timer, &remain);
        FUZZ_CHECK(!isRefused || (result == XEL_FAIL && remain == 0));
        break;
    default:
        if (which < 0xF0) {
            DestroyTimer(which % kTimers);
        } else {
            XEL_TimerDestroy(timer);
        }
        break;
    }
    FUZZ_CHECK(result == XEL_OK || result == XEL_EINVAL || result == XEL_FAIL);
}

void CreateOneShot(Input& input)
{
    Box* box = NewBox(input.Byte());
    if (box == nullptr) {
        return;
    }
    const u32 thread = PickThread(input);
    const XelTimerOneShotParam param = {input.Below(8), g_world.threads[thread].thread, OnTimer,
                                        box};
    const char* name = input.Below(8) == 7 ? "sixteen in all.." : "";
    XelTimerNode* timer = XelTimerCreateOneShotAndStart(&param, name);
    FUZZ_CHECK((timer != nullptr) == (name[0] == '\0'));
    Store(input.Below(kTimers), timer, thread);
}

void AddType(Input& input)
{
    const u32 group = input.Below(kGroups);
    const u32 type = input.Below(kTypes);
    const u32 thread = PickThread(input);
    Box* box = NewBox(input.Byte());
    if (box == nullptr) {
        return;
    }
    const u8 kind = input.Byte();
    XelTimerAttr* attr = MakeAttr(box, kind, kind / 32);
    const u32 result = XEL_TimerAddTimerType(group, type, g_world.threads[thread].thread, attr);
    XEL_TimerDestroyAttr(attr);
    FUZZ_CHECK(result == (type != 0 && g_world.hasGroup[group] ? XEL_OK : XEL_FAIL));
    box->mustBeReleased = result == XEL_OK && (kind & 2) != 0;
    if (result == XEL_OK && !g_world.hasType[group][type]) {
        g_world.hasType[group][type] = true;
        g_world.typeThread[group][type] = thread;
    }
}

// The attribute of the type decides whether the timer's own data is released.
void CreateOfType(Input& input)
{
    const u32 group = input.Below(kGroups);
    const u32 type = input.Below(kTypes);
    Box* box = input.Flag() ? NewBox(input.Byte()) : nullptr;
    bool isReleased = false;
    if (g_world.hasType[group][type]) {
        isReleased = TimerGetTimerTypeNode(group, type)->attr.destructor != nullptr;
    }
    XelTimerNode* timer = nullptr;
    if (box != nullptr) {
        box->mustBeReleased = g_world.hasType[group][type] && isReleased;
    }
    timer = XEL_TimerCreateAndStart(group, type, box);
    FUZZ_CHECK((timer != nullptr) == g_world.hasType[group][type]);
    Store(input.Below(kTimers), timer, g_world.typeThread[group][type]);
}

void DeleteType(u32 group, u32 type)
{
    u32 expected = XEL_OK;
    if (group == 0 || type == 0) {
        expected = XEL_EINVAL;
    } else if (!g_world.hasGroup[group]) {
        expected = 1;
    } else if (!g_world.hasType[group][type]) {
        expected = 2;
    }
    FUZZ_CHECK(XEL_TimerDelTimerType(group, type) == expected);
    g_world.hasType[group][type] = false;
}

void DestroyGroup(u32 group)
{
    XEL_TimerDestroyGroup(group);
    g_world.hasGroup[group] = false;
    memset(g_world.hasType[group], 0, sizeof(g_world.hasType[group]));
}

void ReadParam(Input& input)
{
    const u32 group = input.Below(kGroups);
    const u32 type = input.Below(kTypes);
    u8 script = 0;
    const u32 result = TimerGetParamByGroupAndType(group, type, &script, sizeof(script));
    FUZZ_CHECK((result == XEL_OK) == g_world.hasType[group][type]);
}

bool HasTimers(u32 thread)
{
    bool hasAny = false;
    FUZZ_CHECK(pthread_rwlock_rdlock(&g_xelTimerCtrl.timerLock) == 0);
    const XelLink* head = &g_xelTimerCtrl.timerList;
    for (const XelLink* link = head->next; link != head; link = link->next) {
        const auto* bytes = reinterpret_cast<const u8*>(link) - offsetof(XelTimerNode, link);
        const auto* node = reinterpret_cast<const XelTimerNode*>(bytes);
        hasAny = hasAny || thread == kThreads || node->thread == g_world.threads[thread].thread;
    }
    FUZZ_CHECK(pthread_rwlock_unlock(&g_xelTimerCtrl.timerLock) == 0);
    return hasAny;
}

} // namespace

void CreateTimer(u32 slot, u32 thread, u8 kind, u32 timeoutMs)
{
    Box* box = NewBox(static_cast<u8>(kind * 16));
    if (box == nullptr) {
        return;
    }
    XelTimerAttr* attr = MakeAttr(box, kind, timeoutMs);
    box->mustBeReleased = (kind & 2) != 0;
    XelTimerNode* timer = XEL_TimerCreate(g_world.threads[thread].thread, attr);
    XEL_TimerDestroyAttr(attr);
    FUZZ_CHECK(timer != nullptr);
    Store(slot, timer, thread);
    FUZZ_CHECK(XEL_TimerStart(timer) == XEL_OK);
}

void DestroyTimer(u32 slot)
{
    XelTimerNode* timer = g_world.timers[slot].timer;
    XEL_TimerDestroy(timer);
    for (TimerSlot& other : g_world.timers) {
        if (other.timer == timer) {
            other.isEnded = true;
        }
    }
}

void CallTimers(Input& input)
{
    const Hold hold(g_world.lock);
    switch (input.Below(5)) {
    case 0: {
        const u8 kind = input.Byte();
        CreateTimer(input.Below(kTimers), PickThread(input), kind, input.Below(8));
        break;
    }
    case 1:
        CreateOneShot(input);
        break;
    default:
        UseTimer(input);
        break;
    }
}

void CallGroups(Input& input)
{
    const Hold hold(g_world.lock);
    const u32 group = input.Below(kGroups);
    switch (input.Below(7)) {
    case 0:
    case 1:
        FUZZ_CHECK(XEL_TimerCreateGroup(group) == (group != 0 ? XEL_OK : XEL_FAIL));
        g_world.hasGroup[group] = group != 0;
        break;
    case 2:
        DestroyGroup(group);
        break;
    case 3:
        DeleteType(group, input.Below(kTypes));
        break;
    case 4:
        AddType(input);
        break;
    case 5:
        ReadParam(input);
        break;
    default:
        CreateOfType(input);
        break;
    }
}

void EndTimers(u32 thread)
{
    {
        const Hold hold(g_world.lock);
        for (u32 i = 0; i < kTimers; ++i) {
            if (thread == kThreads || g_world.timers[i].thread == thread) {
                DestroyTimer(i);
            }
        }
        for (u32 group = 1; group < kGroups; ++group) {
            for (u32 type = 1; type < kTypes; ++type) {
                if (g_world.hasType[group][type] && g_world.typeThread[group][type] == thread) {
                    DeleteType(group, type);
                }
            }
            if (thread == kThreads) {
                DestroyGroup(group);
            }
        }
    }
    Await("the end of the timers", [thread] { return !HasTimers(thread); });
}

} // namespace xelfuzz
