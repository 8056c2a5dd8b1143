// The control side of the faults. Tests call it on any thread; the mutex guards hooks and sleeps.
#include "support/faults.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>

#include <gtest/gtest.h>

#include "support/interpose.h"

namespace xeltest
{

namespace
{

// Never destroyed: threads may call until the process is gone.
struct Control {
    std::mutex mutex;
    std::map<Call, std::function<void()>> hooks;
    std::map<Call, std::function<void()>> afterHooks;
    std::function<void(u32)> sleepHook;
    std::vector<u32> sleeps;
    std::vector<u32> usleeps;
    std::vector<PoolRequest> pools;
};

Control& TheControl()
{
    static auto* control = new Control;
    return *control;
}

void Plan(FaultPlan& plan, u64 at, i64 result, int errnoValue)
{
    plan.result.store(result, std::memory_order_relaxed);
    plan.errnoValue.store(errnoValue, std::memory_order_relaxed);
    plan.at.store(at, std::memory_order_release);
}

void SetScript(ClockScript& script, const std::vector<u64>& values)
{
    const auto length = static_cast<u32>(std::min<size_t>(values.size(), kScriptLength));
    EXPECT_EQ(length, values.size()) << "the script is too long";
    script.length.store(0);
    for (u32 i = 0; i < length; ++i) {
        script.values[i].store(values[i]);
    }
    script.next.store(0);
    script.length.store(length);
}

} // namespace

void FailNth(Call call, u64 nth, i64 result, int errnoValue)
{
    CallSlot& slot = SlotOf(call);
    for (FaultPlan& plan : slot.plans) {
        if (plan.at.load() == 0) {
            Plan(plan, slot.calls.load() + nth, result, errnoValue);
            return;
        }
    }
    ADD_FAILURE() << "too many faults planned for one call";
}

void FailAll(Call call, i64 result, int errnoValue)
{
    CallSlot& slot = SlotOf(call);
    Plan(slot.always, slot.calls.load() + 1, result, errnoValue);
}

void RunAtNth(Call call, u64 nth, std::function<void()> hook)
{
    Control& control = TheControl();
    const std::lock_guard<std::mutex> guard(control.mutex);
    control.hooks[call] = std::move(hook);
    CallSlot& slot = SlotOf(call);
    slot.hookAt.store(slot.calls.load() + nth);
}

void RunAfterNth(Call call, u64 nth, std::function<void()> hook)
{
    Control& control = TheControl();
    const std::lock_guard<std::mutex> guard(control.mutex);
    control.afterHooks[call] = std::move(hook);
    CallSlot& slot = SlotOf(call);
    slot.afterAt.store(slot.calls.load() + nth);
}

u64 Calls(Call call)
{
    return SlotOf(call).calls.load();
}

u64 Hits()
{
    return g_hits.load();
}

u64 CallsHere(Call call)
{
    return CallsOfThread().calls[static_cast<u32>(call)];
}

u64 HitsHere()
{
    return CallsOfThread().hits;
}

u64 LastHitHere()
{
    return CallsOfThread().lastHit;
}

const void* LastHitAddress()
{
    return g_hitAddress.load();
}

void SetAnywayRule(AnywayRule rule)
{
    g_anywayRule.store(rule);
}

void ResetFaults()
{
    for (CallSlot& slot : g_callSlots) {
        slot.hookAt.store(0);
        slot.afterAt.store(0);
        slot.always.at.store(0);
        for (FaultPlan& plan : slot.plans) {
            plan.at.store(0);
        }
        slot.calls.store(0);
    }
    g_anywayRule.store(nullptr);
    g_hits.store(0);
    Control& control = TheControl();
    const std::lock_guard<std::mutex> guard(control.mutex);
    control.hooks.clear();
    control.afterHooks.clear();
}

AnyCaller::AnyCaller() : outer_(std::exchange(AnyCallerFlag(), true)) {}

AnyCaller::~AnyCaller()
{
    AnyCallerFlag() = outer_;
}

// The hook runs without the mutex: it may plan faults itself.
void RunCallHook(Call call, bool isAfter)
{
    std::function<void()> hook;
    {
        Control& control = TheControl();
        const std::lock_guard<std::mutex> guard(control.mutex);
        hook = std::exchange((isAfter ? control.afterHooks : control.hooks)[call], nullptr);
    }
    if (hook) {
        hook();
    }
}

void NoteSleep(u32 seconds)
{
    std::function<void(u32)> hook;
    {
        Control& control = TheControl();
        const std::lock_guard<std::mutex> guard(control.mutex);
        control.sleeps.push_back(seconds);
        hook = control.sleepHook;
    }
    if (hook) {
        hook(seconds);
    }
}

std::vector<u32> TakeSleeps()
{
    Control& control = TheControl();
    const std::lock_guard<std::mutex> guard(control.mutex);
    return std::exchange(control.sleeps, {});
}

void NoteUsleep(u32 us)
{
    Control& control = TheControl();
    const std::lock_guard<std::mutex> guard(control.mutex);
    control.usleeps.push_back(us);
}

std::vector<u32> TakeUsleeps()
{
    Control& control = TheControl();
    const std::lock_guard<std::mutex> guard(control.mutex);
    return std::exchange(control.usleeps, {});
}

void NotePool(const PoolRequest& request)
{
    Control& control = TheControl();
    const std::lock_guard<std::mutex> guard(control.mutex);
    control.pools.push_back(request);
}

std::vector<PoolRequest> TakePoolRequests()
{
    Control& control = TheControl();
    const std::lock_guard<std::mutex> guard(control.mutex);
    return std::exchange(control.pools, {});
}

void SetSleepHook(std::function<void(u32 seconds)> hook)
{
    Control& control = TheControl();
    const std::lock_guard<std::mutex> guard(control.mutex);
    control.sleepHook = std::move(hook);
}

void UseRealSleep(bool real)
{
    g_sleepIsReal.store(real);
}

void SetMicroSec(u64 us)
{
    SetScript(g_microScript, {us});
    SetScript(g_milliScript, {us / 1000});
}

void AdvanceMicroSec(u64 us)
{
    SetMicroSec(g_microScript.values[0].load() + us);
}

void ScriptMicroSec(const std::vector<u64>& us)
{
    SetScript(g_microScript, us);
}

void ScriptMilliSec(const std::vector<u64>& ms)
{
    SetScript(g_milliScript, ms);
}

void UseRealClock()
{
    g_microScript.length.store(0);
    g_milliScript.length.store(0);
}

} // namespace xeltest
