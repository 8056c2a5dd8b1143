// Between the fault control and the interposed definitions: shared atomics only, since the
// definitions are called before constructors have run, from inside the sanitizers and everywhere.
#ifndef XEL_TESTS_SUPPORT_INTERPOSE_H
#define XEL_TESTS_SUPPORT_INTERPOSE_H

#include <atomic>

#include "support/faults.h"

namespace xeltest
{

constexpr u32 kPlansPerCall = 16;
constexpr u32 kScriptLength = 64;

// A fault planned for the call with this number; 0 means none. The number is stored last (release)
// and loaded first (acquire).
struct FaultPlan {
    std::atomic<u64> at;
    std::atomic<i64> result;
    std::atomic<int> errnoValue;
};

struct CallSlot {
    std::atomic<u64> calls;
    std::atomic<u64> hookAt;
    std::atomic<u64> afterAt;
    FaultPlan plans[kPlansPerCall];
    FaultPlan always; // from this number on
};
inline constinit CallSlot g_callSlots[static_cast<u32>(Call::Count)] = {};

inline CallSlot& SlotOf(Call call)
{
    return g_callSlots[static_cast<u32>(call)];
}

// What failed so far; the address is that of the latest one.
inline constinit std::atomic<u64> g_hits{0};
inline constinit std::atomic<const void*> g_hitAddress{nullptr};
inline constinit std::atomic<AnywayRule> g_anywayRule{nullptr};

// The same for one thread.
struct ThreadCalls {
    u64 calls[static_cast<u32>(Call::Count)];
    u64 hits;
    u64 lastHit;
};
const ThreadCalls& CallsOfThread();

// One of the two clocks: real while length is 0, else the value at next, which stops at the end.
struct ClockScript {
    std::atomic<u32> length;
    std::atomic<u32> next;
    std::atomic<u64> values[kScriptLength];
};
// What keeps stalls out of a real clock.
struct StallFreeClock {
    std::atomic<u64> last;
    std::atomic<u64> leftOut;
};
inline constinit StallFreeClock g_microClock = {};
inline constinit StallFreeClock g_milliClock = {};
inline constinit ClockScript g_microScript = {};
inline constinit ClockScript g_milliScript = {};

inline constinit std::atomic<bool> g_sleepIsReal{false};

bool& AnyCallerFlag();

// The slow paths, run by a call that was told to.
void RunCallHook(Call call, bool isAfter);
void NoteSleep(u32 seconds);
void NoteUsleep(u32 us);
void NotePool(const PoolRequest& request);

} // namespace xeltest

#endif // XEL_TESTS_SUPPORT_INTERPOSE_H
