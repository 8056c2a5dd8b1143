// The driver of the fault sweep. Everything runs on the test's thread; an alarm bounds each run.
#include "sweep.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <vector>

#include "event/xel_event_inner.h"
#include "scheduler/xel_scheduler_inner.h"
#include "thread/xel_sch_thread_inner.h"
#include "timer/xel_timer_inner.h"

namespace faulttest
{

using namespace xeltest;

namespace
{

constexpr unsigned kRunSeconds = 30;
constexpr u64 kMostCalls = 2000; // of one kind in one run

constexpr const char* kCallNames[] = {
    "eventfd",
    "eventfd_read",
    "eventfd_write",
    "epoll_create",
    "epoll_ctl",
    "epoll_wait",
    "timerfd_create",
    "timerfd_settime",
    "timerfd_gettime",
    "read",
    "close",
    "pthread_create",
    "pthread_detach",
    "pthread_attr_init",
    "pthread_attr_setstacksize",
    "poll",
    "pthread_rwlock_init",
    "pthread_rwlock_rdlock",
    "pthread_rwlock_wrlock",
    "pthread_rwlock_unlock",
    "pthread_rwlock_tryrdlock",
    "pthread_rwlock_trywrlock",
    "pthread_mutex_init",
    "pthread_mutex_lock",
    "pthread_mutex_unlock",
    "sleep",
    "usleep",
    "sched_yield",
    "gettimeofday",
    "backtrace_symbols",
    "XEL_MemAllocF",
    "XEL_MemFreeF",
    "FmmCtrlCreate",
    "FmmUnitAlloc",
    "XelQueCreate",
    "XelQueEnqueue",
    "XelQueDequeue",
    "XelFlexibleQueCreate",
    "XelFlexibleQueEnqueue",
    "XelFlexibleQueDequeue",
    "XelHashDllTblCreate",
    "XelHashDllEntryAdd",
    "memset_s",
    "memcpy_s",
    "strcpy_s",
    "strncpy_s",
    "SystimeGetMicroSec",
    "SystimeGetMilliSec",
    "XelDeadloopMonReg",
    "XelDeadloopMonUnreg",
    "XelDeadloopMonProcSet",
};
static_assert(std::size(kCallNames) == static_cast<size_t>(Call::Count));

// Read by the interposed calls of every thread.
std::atomic<const void*> g_checkedMutex{nullptr};
// The tasks that were there before the run.
std::vector<SchTaskCtrl*> g_tasksBefore;
// What the alarm shows.
char g_current[256];

bool IsLock(Call call)
{
    return (call >= Call::PthreadRwlockInit && call <= Call::PthreadRwlockTrywrlock) ||
           call == Call::PthreadMutexLock || call == Call::PthreadMutexUnlock;
}

bool CannotFail(Call call)
{
    return call == Call::XelMemFreeF || call == Call::Sleep;
}

bool IsSystemCall(Call call)
{
    return call <= Call::Close || call == Call::Poll;
}

// The registry and the task table take a negative result for a failure only. After a positive one
// the table's lock is given back as if it had been taken, the registry's is not.
bool IsFailedLockTaken(Call call, i64 result, const void* lock)
{
    if (lock == &g_xelSchRunCtrl.lock) {
        return false;
    }
    if (lock == &g_xelTaskRunCtrl.rwlock) {
        return result >= 0;
    }
    if (lock == &g_xelEventList.lock) {
        return call == Call::PthreadRwlockRdlock;
    }
    return lock != g_checkedMutex.load();
}

// What is done all the same when the answer is a failure.
bool IsDoneAnyway(Call call, i64 result, const void* first)
{
    switch (call) {
    case Call::PthreadRwlockUnlock:
    case Call::PthreadMutexUnlock:
    case Call::Close:
    case Call::PthreadDetach:
    case Call::XelDeadloopMonUnreg:
    case Call::MemsetS:
        return true;
    case Call::PthreadRwlockRdlock:
    case Call::PthreadRwlockWrlock:
    case Call::PthreadMutexLock:
        return IsFailedLockTaken(call, result, first);
    case Call::PthreadRwlockInit:
        return result >= 0; // a positive result passes
    default:
        return false;
    }
}

// Whether the latest failure was one that the library takes for one.
bool IsTakenForFailure(const Fault& fault, const void* lock)
{
    const bool isNegativeOnly = lock == &g_xelSchRunCtrl.lock || lock == &g_xelTaskRunCtrl.rwlock;
    return !isNegativeOnly || fault.result < 0;
}

std::vector<Fault> FaultsOf(Extent extent)
{
    std::vector<Fault> faults;
    for (u32 i = 0; i < static_cast<u32>(Call::Count); ++i) {
        const auto call = static_cast<Call>(i);
        if (IsLock(call) != (extent == Extent::Locks) || CannotFail(call)) {
            continue;
        }
        if (IsLock(call)) {
            faults.push_back({call, -1, 0});
            faults.push_back({call, EINVAL, 0});
        } else {
            faults.push_back({call, kUsualFailure, IsSystemCall(call) ? EIO : 0});
        }
    }
    if (extent == Extent::Calls) {
        faults.push_back({Call::EventfdWrite, -1, EINTR});
        faults.push_back({Call::EpollWait, -1, EINTR});
        faults.push_back({Call::Read, -1, EINTR});
        faults.push_back({Call::EpollCtl, -1, ENOENT});
    }
    return faults;
}

struct Lists {
    u32 events = g_xelEventList.count;
    u32 timers = LiveTimers();
    u32 groups = g_xelTimerCtrl.groupCount;
    const void* thread = g_xelThreadCtrlMng.head.next;
    bool operator==(const Lists&) const = default;
};

// All records of the task table.
std::vector<SchTaskCtrl*> AllTasks()
{
    std::vector<SchTaskCtrl*> tasks;
    (void)FtGetEntryByHook(g_xelTaskRunCtrl.fdTbl, &tasks, [](void* record, const void* key) {
        auto* all = static_cast<std::vector<SchTaskCtrl*>*>(const_cast<void*>(key));
        all->push_back(static_cast<SchTaskCtrl*>(record));
        return false;
    });
    return tasks;
}

// Removes the tasks that were not there before; how many there were.
size_t RemoveNewTasks()
{
    const std::vector<SchTaskCtrl*>& before = g_tasksBefore;
    size_t removed = 0;
    for (SchTaskCtrl* task : AllTasks()) {
        if (std::find(before.begin(), before.end(), task) == before.end()) {
            XEL_TaskDestroy(task);
            ++removed;
        }
    }
    return removed;
}

// A policy that could not keep a slot gives its units back, so there may be fewer.
bool HasNothingMore(const Footprint& before)
{
    Footprint now = Measure();
    if (now.units < before.units) {
        now.units = before.units;
    }
    return now == before;
}

void OnAlarm(int /*signal*/)
{
    const char text[] = "\na run does not end: ";
    (void)!write(2, text, sizeof(text) - 1);
    (void)!write(2, g_current, strlen(g_current));
    (void)!write(2, "\n", 1);
    abort();
}

class Driver
{
public:
    Driver(const char* name, Extent extent, const Scenario& scenario)
        : name_(name), extent_(extent), scenario_(scenario)
    {
    }

    u64 RunAll()
    {
        RunOnce(nullptr, 0); // what stays for the life of the process is there now
        std::vector<u64> made;
        RunOnce(nullptr, 0, &made);
        u64 visited = 0;
        for (const Fault& fault : FaultsOf(extent_)) {
            if (made[static_cast<u32>(fault.call)] == 0) {
                continue;
            }
            u64 nth = 1;
            while (nth <= kMostCalls && RunOnce(&fault, nth)) {
                RunOnce(nullptr, 0);
                ++nth;
                ++visited;
            }
            EXPECT_LE(nth, kMostCalls) << NameOf(fault);
        }
        return visited;
    }

private:
    // One run; whether the planned call was reached.
    bool RunOnce(const Fault* fault, u64 nth, std::vector<u64>* made = nullptr)
    {
        const std::string what = std::string(name_) +
                                 (fault == nullptr ? "" : ", " + NameOf(*fault) + " number ") +
                                 (fault == nullptr ? " without a fault" : std::to_string(nth));
        SCOPED_TRACE(what);
        snprintf(g_current, sizeof(g_current), "%s", what.c_str());
        const Footprint before = Measure();
        const Lists lists;
        const u32 counted = g_xelThreadCtrlMng.count;
        g_tasksBefore = AllTasks();
        alarm(kRunSeconds);
        ResetFaults();
        CheckedLocks::Set(nullptr);
        SetAnywayRule(IsDoneAnyway);
        if (fault != nullptr) {
            FailNth(fault->call, nth, fault->result, fault->errnoValue);
        }
        Trial run(fault);
        scenario_(run);
        const bool wasReached = Hits() != 0;
        if (made != nullptr) {
            for (u32 i = 0; i < static_cast<u32>(Call::Count); ++i) {
                made->push_back(Calls(static_cast<Call>(i)));
            }
        }
        ResetFaults();
        const size_t left = RemoveNewTasks();
        EXPECT_TRUE(left == 0 || run.MayLeave()) << left << " tasks are left";
        DropLog();
        (void)TakeSleeps();
        (void)TakeUsleeps();
        (void)TakePoolRequests();
        g_xelThreadCtrlMng.count = counted; // a record that was never listed is counted down too
        const bool isSame = AwaitTrue([&before] { return HasNothingMore(before); });
        EXPECT_TRUE(isSame) << PrintToString(Measure()) << ", before " << PrintToString(before);
        EXPECT_EQ(Lists{}, lists) << "something is still listed";
        alarm(0);
        return wasReached;
    }
    template <typename Value>
    static std::string PrintToString(const Value& value)
    {
        return ::testing::PrintToString(value);
    }

    const char* name_;
    Extent extent_;
    const Scenario& scenario_;
};

} // namespace

u32 LiveTimers()
{
    (void)pthread_rwlock_rdlock(&g_xelTimerCtrl.timerLock);
    const u32 timers = g_xelTimerCtrl.timerCount;
    (void)pthread_rwlock_unlock(&g_xelTimerCtrl.timerLock);
    return timers;
}

std::string NameOf(const Fault& fault)
{
    const std::string error = fault.errnoValue != 0 ? strerror(fault.errnoValue) : "";
    const std::string result = fault.result == kUsualFailure ? "" : std::to_string(fault.result);
    return std::string(kCallNames[static_cast<u32>(fault.call)]) + " (" + result +
           (error.empty() || result.empty() ? "" : ", ") + error + ")";
}

void CheckedLocks::Set(const void* mutex)
{
    g_checkedMutex.store(mutex);
}

namespace
{

std::string LoggedLines()
{
    return ::testing::PrintToString(TakeTexts());
}

} // namespace

std::string Trial::Where(const char* what) const
{
    return std::string(what) + (Hits() == 0 ? " with nothing failed" : " after a failure");
}

bool Trial::IsFatal(Fatals fatals, u64 numberInStep) const
{
    for (const Fatal& fatal : fatals) {
        if (fault_->call == fatal.call && numberInStep >= fatal.from &&
            numberInStep <= fatal.upTo &&
            (fatal.lock == nullptr || fatal.lock == LastHitAddress()) &&
            fault_->errnoValue != EINTR && IsTakenForFailure(*fault_, LastHitAddress())) {
            return true;
        }
    }
    return false;
}

bool Trial::Do(const char* what, Fatals fatals, const std::function<bool()>& step, Lines lines)
{
    const u64 hits = HitsHere();
    const u64 callsBefore = fault_ == nullptr ? 0 : CallsHere(fault_->call);
    const size_t logged = LogCount();
    const bool succeeded = step();
    const bool wasHit = HitsHere() != hits;
    const bool mustFail = wasHit && IsFatal(fatals, LastHitHere() - callsBefore);
    const bool hasLines = LogCount() > logged;
    EXPECT_EQ(succeeded, !mustFail) << Where(what) << (succeeded == mustFail ? LoggedLines() : "");
    if (!succeeded && lines == Lines::Logged) {
        EXPECT_TRUE(hasLines) << Where(what) << ": a failure without a line";
    }
    return succeeded;
}

void Trial::End(const char* what, Fatals fatals, const std::function<bool()>& step)
{
    if (!Do(what, fatals, step)) {
        (void)Do(what, {}, step);
    }
}

void Trial::Expect(const char* what, const std::function<bool()>& condition)
{
    EXPECT_TRUE(AwaitTrue(condition))
        << Where(what) << ::testing::PrintToString(xeltest::TakeTexts());
}

void Trial::MayLeaveTasks(Fatals fatals)
{
    if (fault_ != nullptr && Hits() != 0 && IsFatal(fatals, 1)) {
        mayLeave_ = true;
    }
}

void Trial::EndLeftTasks(Fatals fatals)
{
    MayLeaveTasks(fatals);
    const size_t left = Hits() == 0 ? 0 : RemoveNewTasks();
    EXPECT_TRUE(left == 0 || mayLeave_) << left << " tasks are left";
}

void Sweep(const char* family, const char* name, Extent extent, const Scenario& scenario)
{
    (void)signal(SIGALRM, OnAlarm);
    const u64 visited = Driver(name, extent, scenario).RunAll();
    (void)signal(SIGALRM, SIG_DFL);
    EXPECT_GT(visited, 0U);
    ::testing::Test::RecordProperty(std::string(family) +
                                        (extent == Extent::Locks ? "_locks" : "_calls"),
                                    static_cast<int>(visited));
    printf("%s: %s: %lu calls failed in turn\n", family, name, static_cast<unsigned long>(visited));
}

} // namespace faulttest
