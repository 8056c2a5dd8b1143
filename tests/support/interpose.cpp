// The definitions that stand in front of the real ones. They are called by everybody in the
// process: before constructors have run, by the C library, by the sanitizers. So this file is built
// without sanitizers, touches constant-initialised atomics only, and finds each real function at
// its first call. Where a sanitizer's own interceptor sits in the program itself, that is the real
// one.
#include "support/interpose.h"

#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <execinfo.h>
#include <link.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <type_traits>
#include <unistd.h>
#include <utility>

#include "xel_clock.h"
#include "xel_deadloop.h"
#include "xel_hash.h"
#include "xel_mem.h"
#include "xel_pool.h"
#include "xel_queue.h"
#include "xel_secure.h"

namespace xeltest
{

namespace
{

constinit thread_local bool t_anyCaller __attribute__((tls_model("initial-exec"))) = false;
constinit thread_local bool t_endsWithHook __attribute__((tls_model("initial-exec"))) = false;
constinit thread_local ThreadCalls t_calls __attribute__((tls_model("initial-exec"))) = {};

// Address ranges of the library's code and of the whole test program; empty until the loader has
// been asked. Stored by one constructor.
struct Range {
    std::atomic<uintptr_t> begin;
    std::atomic<uintptr_t> end;
    bool Contains(uintptr_t address) const
    {
        return address >= begin.load(std::memory_order_relaxed) &&
               address < end.load(std::memory_order_relaxed);
    }
    void Extend(uintptr_t from, uintptr_t to)
    {
        begin.store(begin.load() == 0 || from < begin.load() ? from : begin.load());
        end.store(to > end.load() ? to : end.load());
    }
};
constinit Range g_library{};
constinit Range g_program{};
constinit Range g_programCode{};

int NoteObject(struct dl_phdr_info* info, size_t /*size*/, void* /*data*/)
{
    const bool isLibrary = strstr(info->dlpi_name, "/libxelsch.so") != nullptr;
    const bool isProgram = info->dlpi_name[0] == '\0' && g_program.end.load() == 0;
    for (int i = 0; (isLibrary || isProgram) && i < info->dlpi_phnum; ++i) {
        const auto& segment = info->dlpi_phdr[i];
        const uintptr_t begin = info->dlpi_addr + segment.p_vaddr;
        if (segment.p_type != PT_LOAD) {
            continue;
        }
        if ((segment.p_flags & PF_X) != 0) {
            (isLibrary ? g_library : g_programCode).Extend(begin, begin + segment.p_memsz);
        }
        if (isProgram) {
            g_program.Extend(begin, begin + segment.p_memsz);
        }
    }
    return 0;
}

__attribute__((constructor)) void FindObjects()
{
    dl_iterate_phdr(NoteObject, nullptr);
}

#if defined(__x86_64__)
u8 ByteAt(uintptr_t address)
{
    return *reinterpret_cast<const u8*>(address);
}

// The end of a displacement field is what it counts from.
uintptr_t FollowDisplacement(uintptr_t end)
{
    i32 displacement = 0;
    memcpy(&displacement, reinterpret_cast<const void*>(end - 4), sizeof(displacement));
    return end + static_cast<uintptr_t>(static_cast<i64>(displacement));
}

// What the program's table slot at this address points to; 0 when it is no slot.
uintptr_t ReadSlot(uintptr_t slot)
{
    uintptr_t target = 0;
    if (g_program.Contains(slot) && !g_programCode.Contains(slot)) {
        memcpy(&target, reinterpret_cast<const void*>(slot), sizeof(target));
    }
    return target;
}

// Whether the program's call that returns to this address went into the library: the library has
// then jumped on into a function of ours as its very last act. The call names either a trampoline
// (optional marks, then jmp *slot) or the slot itself.
bool CameThroughLibrary(uintptr_t caller)
{
    if (!g_programCode.Contains(caller) || !g_programCode.Contains(caller - 6)) {
        return false;
    }
    if (ByteAt(caller - 6) == 0xFF && ByteAt(caller - 5) == 0x15) {
        return g_library.Contains(ReadSlot(FollowDisplacement(caller)));
    }
    uintptr_t trampoline = ByteAt(caller - 5) == 0xE8 ? FollowDisplacement(caller) : 0;
    if (!g_programCode.Contains(trampoline) || !g_programCode.Contains(trampoline + 11)) {
        return false;
    }
    trampoline += ByteAt(trampoline) == 0xF3 ? 4 : 0;
    trampoline += ByteAt(trampoline) == 0xF2 ? 1 : 0;
    const bool isTrampoline = ByteAt(trampoline) == 0xFF && ByteAt(trampoline + 1) == 0x25;
    return isTrampoline && g_library.Contains(ReadSlot(FollowDisplacement(trampoline + 6)));
}
#else
bool CameThroughLibrary(uintptr_t /*caller*/)
{
    return false;
}
#endif

bool IsCounted(const void* caller)
{
    const auto address = reinterpret_cast<uintptr_t>(caller);
    return t_anyCaller || g_library.Contains(address) || CameThroughLibrary(address);
}

// The fault planned for call number n, or null.
const FaultPlan* PlanOf(const CallSlot& slot, u64 n)
{
    const u64 from = slot.always.at.load(std::memory_order_acquire);
    if (from != 0 && n >= from) {
        return &slot.always;
    }
    for (const FaultPlan& plan : slot.plans) {
        if (plan.at.load(std::memory_order_acquire) == n) {
            return &plan;
        }
    }
    return nullptr;
}

// Counts the call, runs its hook; the fault that it must answer with, or null to pass it on.
const FaultPlan* Enter(Call call, const void* caller)
{
    if (!IsCounted(caller)) {
        return nullptr;
    }
    CallSlot& slot = SlotOf(call);
    const u64 n = slot.calls.fetch_add(1) + 1;
    t_calls.calls[static_cast<u32>(call)] += 1;
    if (slot.hookAt.load() == n) {
        RunCallHook(call, false);
    }
    t_endsWithHook = slot.afterAt.load() == n;
    return PlanOf(slot, n);
}

// Runs the hook that the call ends with. A result in errno stays.
void Leave(Call call)
{
    if (std::exchange(t_endsWithHook, false)) {
        const int error = errno;
        RunCallHook(call, true);
        errno = error;
    }
}

const void* FirstAddress()
{
    return nullptr;
}

template <typename First, typename... Rest>
const void* FirstAddress(First first, Rest... /*rest*/)
{
    if constexpr (std::is_pointer_v<First>) {
        return reinterpret_cast<const void*>(first);
    } else {
        return nullptr;
    }
}

// Notes a call that is about to fail; true when the real one is to be made all the same.
bool NoteHit(Call call, const FaultPlan& plan, i64 usualFailure, const void* first)
{
    g_hitAddress.store(first);
    t_calls.hits += 1;
    t_calls.lastHit = t_calls.calls[static_cast<u32>(call)];
    g_hits.fetch_add(1);
    const AnywayRule rule = g_anywayRule.load();
    const i64 result = plan.result.load();
    return rule != nullptr && rule(call, result == kUsualFailure ? usualFailure : result, first);
}

template <typename Result>
Result ToResult(i64 value)
{
    if constexpr (std::is_pointer_v<Result>) {
        return reinterpret_cast<Result>(static_cast<intptr_t>(value));
    } else {
        return static_cast<Result>(value);
    }
}

template <typename Result>
Result Answer(const FaultPlan& plan, i64 usualFailure)
{
    const int errnoValue = plan.errnoValue.load();
    if (errnoValue != 0) {
        errno = errnoValue;
    }
    const i64 result = plan.result.load();
    return ToResult<Result>(result == kUsualFailure ? usualFailure : result);
}

template <typename Function>
Function Find(std::atomic<Function>& real, Function interceptor, const char* name)
{
    Function found = real.load(std::memory_order_relaxed);
    if (found == nullptr) {
        found = interceptor != nullptr ? interceptor
                                       : reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
        real.store(found, std::memory_order_relaxed);
    }
    return found;
}

} // namespace

bool& AnyCallerFlag()
{
    return t_anyCaller;
}

const ThreadCalls& CallsOfThread()
{
    return t_calls;
}

} // namespace xeltest

// The wrapper has a name of its own and only its symbol is the interposed one, so that the system's
// declaration, with whatever attributes it has, does not stand in the way.
#define XELTEST_DECLARE(Name, symbol, Result, params)                                              \
    extern "C" __attribute__((visibility("default"))) Result Wrap##Name params __asm__(#symbol);   \
    extern "C" __attribute__((weak)) Result Inner##Name params __asm__("__interceptor_" #symbol);  \
    namespace                                                                                      \
    {                                                                                              \
    using Type##Name = Result(*) params;                                                           \
    static_assert(requires(Type##Name function) { function = &symbol; });                          \
    constinit std::atomic<Type##Name> g_real##Name{nullptr};                                       \
    Type##Name Real##Name()                                                                        \
    {                                                                                              \
        return xeltest::Find<Type##Name>(g_real##Name, Inner##Name, #symbol);                      \
    }                                                                                              \
    }

#define XELTEST_WRAP(Name, symbol, usualFailure, Result, params, args)                             \
    XELTEST_DECLARE(Name, symbol, Result, params)                                                  \
    Result Wrap##Name params                                                                       \
    {                                                                                              \
        const xeltest::FaultPlan* plan =                                                           \
            xeltest::Enter(xeltest::Call::Name, __builtin_return_address(0));                      \
        if (plan == nullptr) {                                                                     \
            Result result = Real##Name() args;                                                     \
            xeltest::Leave(xeltest::Call::Name);                                                   \
            return result;                                                                         \
        }                                                                                          \
        if (xeltest::NoteHit(xeltest::Call::Name, *plan, usualFailure,                             \
                             xeltest::FirstAddress args)) {                                        \
            (void)Real##Name() args;                                                               \
        }                                                                                          \
        return xeltest::Answer<Result>(*plan, usualFailure);                                       \
    }

XELTEST_WRAP(Eventfd, eventfd, -1, int, (unsigned count, int flags), (count, flags))
XELTEST_WRAP(EventfdRead, eventfd_read, -1, int, (int fd, eventfd_t* value), (fd, value))
XELTEST_WRAP(EventfdWrite, eventfd_write, -1, int, (int fd, eventfd_t value), (fd, value))
XELTEST_WRAP(EpollCreate, epoll_create, -1, int, (int size), (size))
XELTEST_WRAP(EpollCtl, epoll_ctl, -1, int, (int epFd, int op, int fd, struct epoll_event* event),
             (epFd, op, fd, event))
XELTEST_WRAP(EpollWait, epoll_wait, -1, int,
             (int epFd, struct epoll_event* events, int max, int timeoutMs),
             (epFd, events, max, timeoutMs))
XELTEST_WRAP(TimerfdCreate, timerfd_create, -1, int, (int clock, int flags), (clock, flags))
XELTEST_WRAP(TimerfdSettime, timerfd_settime, -1, int,
             (int fd, int flags, const struct itimerspec* value, struct itimerspec* old),
             (fd, flags, value, old))
XELTEST_WRAP(TimerfdGettime, timerfd_gettime, -1, int, (int fd, struct itimerspec* value),
             (fd, value))
XELTEST_WRAP(Read, read, -1, ssize_t, (int fd, void* buffer, size_t size), (fd, buffer, size))
XELTEST_WRAP(Close, close, -1, int, (int fd), (fd))
XELTEST_WRAP(PthreadCreate, pthread_create, EAGAIN, int,
             (pthread_t * thread, const pthread_attr_t* attr, void* (*entry)(void*), void* data),
             (thread, attr, entry, data))
XELTEST_WRAP(PthreadDetach, pthread_detach, EINVAL, int, (pthread_t thread), (thread))
XELTEST_WRAP(PthreadAttrInit, pthread_attr_init, ENOMEM, int, (pthread_attr_t * attr), (attr))
XELTEST_WRAP(PthreadAttrSetstacksize, pthread_attr_setstacksize, EINVAL, int,
             (pthread_attr_t * attr, size_t size), (attr, size))
XELTEST_WRAP(Poll, poll, -1, int, (struct pollfd * fds, nfds_t count, int timeoutMs),
             (fds, count, timeoutMs))
XELTEST_WRAP(PthreadRwlockInit, pthread_rwlock_init, EINVAL, int,
             (pthread_rwlock_t * lock, const pthread_rwlockattr_t* attr), (lock, attr))
XELTEST_WRAP(PthreadRwlockRdlock, pthread_rwlock_rdlock, EINVAL, int, (pthread_rwlock_t * lock),
             (lock))
XELTEST_WRAP(PthreadRwlockWrlock, pthread_rwlock_wrlock, EINVAL, int, (pthread_rwlock_t * lock),
             (lock))
XELTEST_WRAP(PthreadRwlockUnlock, pthread_rwlock_unlock, EINVAL, int, (pthread_rwlock_t * lock),
             (lock))
XELTEST_WRAP(PthreadRwlockTryrdlock, pthread_rwlock_tryrdlock, EBUSY, int,
             (pthread_rwlock_t * lock), (lock))
XELTEST_WRAP(PthreadRwlockTrywrlock, pthread_rwlock_trywrlock, EBUSY, int,
             (pthread_rwlock_t * lock), (lock))
XELTEST_WRAP(PthreadMutexInit, pthread_mutex_init, EINVAL, int,
             (pthread_mutex_t * mutex, const pthread_mutexattr_t* attr), (mutex, attr))
XELTEST_WRAP(PthreadMutexLock, pthread_mutex_lock, EINVAL, int, (pthread_mutex_t * mutex), (mutex))
XELTEST_WRAP(PthreadMutexUnlock, pthread_mutex_unlock, EINVAL, int, (pthread_mutex_t * mutex),
             (mutex))
XELTEST_WRAP(SchedYield, sched_yield, -1, int, (), ())
XELTEST_WRAP(Gettimeofday, gettimeofday, -1, int, (struct timeval * time, void* zone), (time, zone))
XELTEST_WRAP(BacktraceSymbols, backtrace_symbols, 0, char**, (void* const* buffer, int size),
             (buffer, size))
XELTEST_WRAP(XelMemAllocF, XEL_MemAllocF, 0, void*,
             (size_t size, const char* file, u32 line, u32 flags), (size, file, line, flags))
XELTEST_WRAP(FmmUnitAlloc, FmmUnitAlloc, 0, void*, (void* pool), (pool))
XELTEST_WRAP(XelQueCreate, XelQueCreate, 0, void*, (u32 elemSize, u32 capacity),
             (elemSize, capacity))
XELTEST_WRAP(XelQueEnqueue, XelQueEnqueue, 0xFFFFFFFF, u32, (void* queue, const void* elem),
             (queue, elem))
XELTEST_WRAP(XelQueDequeue, XelQueDequeue, 0xFFFFFFFF, u32, (void* queue, void* out), (queue, out))
XELTEST_WRAP(XelFlexibleQueCreate, XelFlexibleQueCreate, 0, void*,
             (u32 elemSize, u32 mode, u32 capacity), (elemSize, mode, capacity))
XELTEST_WRAP(XelFlexibleQueEnqueue, XelFlexibleQueEnqueue, 0xFFFFFFFF, u32,
             (void* queue, const void* elem), (queue, elem))
XELTEST_WRAP(XelFlexibleQueDequeue, XelFlexibleQueDequeue, 0xFFFFFFFF, u32,
             (void* queue, void* out), (queue, out))
XELTEST_WRAP(XelHashDllTblCreate, XelHashDllTblCreate, 0, void*, (const XelHashDllParam* params),
             (params))
XELTEST_WRAP(XelHashDllEntryAdd, XelHashDllEntryAdd, 0xFFFFFFFF, u32,
             (void* table, const char* key, void* entry), (table, key, entry))
XELTEST_WRAP(MemsetS, memset_s, EINVAL, int, (void* dest, size_t destSize, int value, size_t count),
             (dest, destSize, value, count))
XELTEST_WRAP(MemcpyS, memcpy_s, EINVAL, int,
             (void* dest, size_t destSize, const void* src, size_t count),
             (dest, destSize, src, count))
XELTEST_WRAP(StrcpyS, strcpy_s, EINVAL, int, (char* dest, size_t destSize, const char* src),
             (dest, destSize, src))
XELTEST_WRAP(StrncpyS, strncpy_s, EINVAL, int,
             (char* dest, size_t destSize, const char* src, size_t count),
             (dest, destSize, src, count))
XELTEST_WRAP(XelDeadloopMonReg, XelDeadloopMonReg, 0xFFFFFFFF, u32,
             (const XelDeadloopThreshold* threshold, u32* handle), (threshold, handle))
XELTEST_WRAP(XelDeadloopMonUnreg, XelDeadloopMonUnreg, 0xFFFFFFFF, u32, (u32 handle), (handle))
XELTEST_WRAP(XelDeadloopMonProcSet, XelDeadloopMonProcSet, 0xFFFFFFFF, u32, (u32 handle), (handle))

// A free cannot fail; it is only counted.
XELTEST_DECLARE(XelMemFreeF, XEL_MemFreeF, void,
                (void* block, const char* file, u32 line, u32 flags))
void WrapXelMemFreeF(void* block, const char* file, u32 line, u32 flags)
{
    (void)xeltest::Enter(xeltest::Call::XelMemFreeF, __builtin_return_address(0));
    RealXelMemFreeF()(block, file, line, flags);
}

// The arguments of a pool are the library's choice, so they are noted.
XELTEST_DECLARE(FmmCtrlCreate, FmmCtrlCreate, void*, (size_t unitSize, u32 number, u32 mode))
void* WrapFmmCtrlCreate(size_t unitSize, u32 number, u32 mode)
{
    const void* caller = __builtin_return_address(0);
    if (xeltest::IsCounted(caller)) {
        xeltest::NotePool({unitSize, number, mode});
    }
    const xeltest::FaultPlan* plan = xeltest::Enter(xeltest::Call::FmmCtrlCreate, caller);
    if (plan == nullptr) {
        return RealFmmCtrlCreate()(unitSize, number, mode);
    }
    (void)xeltest::NoteHit(xeltest::Call::FmmCtrlCreate, *plan, 0, nullptr);
    return xeltest::Answer<void*>(*plan, 0);
}

// The library's penalties are noted instead of waited for.
XELTEST_DECLARE(Sleep, sleep, unsigned, (unsigned seconds))
unsigned WrapSleep(unsigned seconds)
{
    const void* caller = __builtin_return_address(0);
    if (!xeltest::IsCounted(caller)) {
        return RealSleep()(seconds);
    }
    (void)xeltest::Enter(xeltest::Call::Sleep, caller);
    xeltest::NoteSleep(seconds);
    return xeltest::g_sleepIsReal.load() ? RealSleep()(seconds) : 0;
}

// The short waits of the library are real, and noted.
XELTEST_DECLARE(Usleep, usleep, int, (useconds_t us))
int WrapUsleep(useconds_t us)
{
    const void* caller = __builtin_return_address(0);
    if (xeltest::IsCounted(caller)) {
        xeltest::NoteUsleep(us);
    }
    const xeltest::FaultPlan* plan = xeltest::Enter(xeltest::Call::Usleep, caller);
    if (plan == nullptr) {
        return RealUsleep()(us);
    }
    (void)xeltest::NoteHit(xeltest::Call::Usleep, *plan, -1, nullptr);
    return xeltest::Answer<int>(*plan, -1);
}

namespace
{

// The scripted time, or false when the real clock is in use.
bool ReadScript(xeltest::ClockScript& script, u64* out)
{
    const u32 length = script.length.load();
    if (length == 0 || out == nullptr) {
        return false;
    }
    const u32 next = script.next.fetch_add(1);
    *out = script.values[next < length ? next : length - 1].load();
    return true;
}

// The time since the last look, but for what is more than this, is left out: a machine that stands
// still, or threads that wait for each other on too few processors, make no run slow.
constexpr u64 kLongestStepMs = 100;

// The real time without what was left out. Orders nothing between threads that look.
void LeaveStallsOut(xeltest::StallFreeClock& clock, u64 longestStep, u64* out)
{
    const u64 now = *out;
    const u64 last = clock.last.exchange(now, std::memory_order_relaxed);
    if (last != 0 && now > last + longestStep) {
        clock.leftOut.fetch_add(now - last - longestStep, std::memory_order_relaxed);
    }
    *out = now - clock.leftOut.load(std::memory_order_relaxed);
}

} // namespace

XELTEST_DECLARE(SystimeGetMicroSec, SystimeGetMicroSec, u32, (u64 * out))
u32 WrapSystimeGetMicroSec(u64* out)
{
    const xeltest::FaultPlan* plan =
        xeltest::Enter(xeltest::Call::SystimeGetMicroSec, __builtin_return_address(0));
    if (plan != nullptr) {
        (void)xeltest::NoteHit(xeltest::Call::SystimeGetMicroSec, *plan, 0xFFFFFFFF, out);
        return xeltest::Answer<u32>(*plan, 0xFFFFFFFF);
    }
    if (ReadScript(xeltest::g_microScript, out)) {
        return 0;
    }
    const u32 ret = RealSystimeGetMicroSec()(out);
    if (ret == 0) {
        LeaveStallsOut(xeltest::g_microClock, kLongestStepMs * 1000, out);
    }
    return ret;
}

XELTEST_DECLARE(SystimeGetMilliSec, SystimeGetMilliSec, u32, (u64 * out))
u32 WrapSystimeGetMilliSec(u64* out)
{
    const xeltest::FaultPlan* plan =
        xeltest::Enter(xeltest::Call::SystimeGetMilliSec, __builtin_return_address(0));
    if (plan != nullptr) {
        (void)xeltest::NoteHit(xeltest::Call::SystimeGetMilliSec, *plan, 0xFFFFFFFF, out);
        return xeltest::Answer<u32>(*plan, 0xFFFFFFFF);
    }
    if (ReadScript(xeltest::g_milliScript, out)) {
        return 0;
    }
    const u32 ret = RealSystimeGetMilliSec()(out);
    if (ret == 0) {
        LeaveStallsOut(xeltest::g_milliClock, kLongestStepMs, out);
    }
    return ret;
}
