// Faults on demand. The program puts its own definitions in front of the system and foundation
// calls listed below; each counts its calls and passes on to the real one unless told to fail.
//
// Only calls that come out of libxelsch.so are counted and can fail: those of the test itself, of
// the C library, of the test framework and of the sanitizers always reach the real one. The caller
// is told by its return address. A call that the library makes as its very last act (a tail call)
// returns to the caller of the library; on x86-64 it is recognised all the same when that is the
// test, elsewhere stand under an AnyCaller.
#ifndef XEL_TESTS_SUPPORT_FAULTS_H
#define XEL_TESTS_SUPPORT_FAULTS_H

#include <functional>
#include <vector>

#include "common/xel_int.h"

namespace xeltest
{

using i64 = std::int64_t;

enum class Call : u32 {
    Eventfd,
    EventfdRead,
    EventfdWrite,
    EpollCreate,
    EpollCtl,
    EpollWait,
    TimerfdCreate,
    TimerfdSettime,
    TimerfdGettime,
    Read,
    Close,
    PthreadCreate,
    PthreadDetach,
    PthreadAttrInit,
    PthreadAttrSetstacksize,
    Poll,
    PthreadRwlockInit,
    PthreadRwlockRdlock,
    PthreadRwlockWrlock,
    PthreadRwlockUnlock,
    PthreadRwlockTryrdlock,
    PthreadRwlockTrywrlock,
    PthreadMutexInit,
    PthreadMutexLock,
    PthreadMutexUnlock,
    Sleep,
    Usleep,
    SchedYield,
    Gettimeofday,
    BacktraceSymbols,
    XelMemAllocF,
    XelMemFreeF,
    FmmCtrlCreate,
    FmmUnitAlloc,
    XelQueCreate,
    XelQueEnqueue,
    XelQueDequeue,
    XelFlexibleQueCreate,
    XelFlexibleQueEnqueue,
    XelFlexibleQueDequeue,
    XelHashDllTblCreate,
    XelHashDllEntryAdd,
    MemsetS,
    MemcpyS,
    StrcpyS,
    StrncpyS,
    SystimeGetMicroSec,
    SystimeGetMilliSec,
    XelDeadloopMonReg,
    XelDeadloopMonUnreg,
    XelDeadloopMonProcSet,
    Count
};

// The result that a failing call usually has: null for creators, -1 for system calls, EINVAL for
// pthread and bounds-checked calls, 0xFFFFFFFF for the other services.
constexpr i64 kUsualFailure = INT64_MIN;

// Lets the nth call from now fail (1: the next one); others before and after it work. Several may
// be planned for one call. errnoValue 0 leaves errno alone. The real function is not called.
void FailNth(Call call, u64 nth, i64 result = kUsualFailure, int errnoValue = 0);
// Lets every call fail from now on.
void FailAll(Call call, i64 result = kUsualFailure, int errnoValue = 0);
// Runs hook inside the nth call from now, before it is passed on or fails.
void RunAtNth(Call call, u64 nth, std::function<void()> hook);
// The same once the nth call has been passed on and has returned.
void RunAfterNth(Call call, u64 nth, std::function<void()> hook);
// Library calls since the last reset.
u64 Calls(Call call);
// Faults answered since the last reset.
u64 Hits();
// Of the calling thread, since it began: library calls, faults, and the number of the call that
// failed last among its calls of that kind.
u64 CallsHere(Call call);
u64 HitsHere();
u64 LastHitHere();
// The first argument of the last call that failed, when that is an address (of a lock, a handle).
const void* LastHitAddress();
// Some failures leave the work done all the same: a lock that its caller gives back without having
// looked at the result, an unlock, a close. While a rule is set, the real call is made in front of
// a failing answer when the rule says so. Null: never.
using AnywayRule = bool (*)(Call call, i64 result, const void* first);
void SetAnywayRule(AnywayRule rule);
// Forgets planned faults, hooks and rule and sets the counts to 0. Sleep and clock stay as they
// are.
void ResetFaults();

// While one lives, every call of this thread counts as one of the library.
class AnyCaller
{
public:
    AnyCaller();
    AnyCaller(const AnyCaller&) = delete;
    AnyCaller& operator=(const AnyCaller&) = delete;
    ~AnyCaller();

private:
    bool outer_;
};

// sleep() of the library only notes the seconds, and runs the hook if there is one.
std::vector<u32> TakeSleeps();
void SetSleepHook(std::function<void(u32 seconds)> hook);
void UseRealSleep(bool real);
// The microseconds of each usleep() of the library, which really sleeps.
std::vector<u32> TakeUsleeps();

// What the library asked FmmCtrlCreate for.
struct PoolRequest {
    size_t unitSize;
    u32 number;
    u32 mode;
    bool operator==(const PoolRequest&) const = default;
};
std::vector<PoolRequest> TakePoolRequests();

// The clock of the services: a fixed time (milliseconds follow from microseconds), a sequence that
// answers one value per call and then stays at its last one, or the real one, which leaves out what
// is more than 100 ms from one look to the next.
void SetMicroSec(u64 us);
void AdvanceMicroSec(u64 us);
void ScriptMicroSec(const std::vector<u64>& us);
void ScriptMilliSec(const std::vector<u64>& ms);
void UseRealClock();

} // namespace xeltest

#endif // XEL_TESTS_SUPPORT_FAULTS_H
