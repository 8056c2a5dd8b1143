// The dispatch cycle: wait, insert into the policy, select, run. It owns no data; each cycle works
// on one scheduler under the read side of its lock and under its dispatch lock. Any thread may
// dispatch, one at a time per scheduler; everything below the two entry points runs on that thread.
#include <cerrno>
#include <sys/time.h>
#include <unistd.h>

#include "common/xel_memory.h"
#include "scheduler/xel_sch_dbg_inner.h"
#include "scheduler/xel_sch_hold.h"
#include "scheduler/xel_sch_policy_bfs.h"
#include "scheduler/xel_scheduler_inner.h"
#include "xel_clock.h"

namespace
{

// How a cycle ended: a failure that no other thread may see the end of has slept already.
enum class CycleEnd { Done, SleepDue };

constexpr unsigned kPenaltySeconds = 1; // keeps a loop on a broken scheduler from spinning

void SleepPenalty()
{
    (void)sleep(kPenaltySeconds);
}

// Holds the dispatch lock until the end of the cycle; it is only ever tried.
class DispatchHold : NoCopy
{
public:
    explicit DispatchHold(SchCtrl* sch)
        : lock_(sch->dispatchLock), isHeld_(XelSpinlockTryLock(&lock_))
    {
    }
    ~DispatchHold()
    {
        if (isHeld_) {
            // Nobody waits for the lock, and the scheduler's lock is given back next: a releasing
            // store is all that the next cycle needs.
            Word(lock_.word).store(0, std::memory_order_release);
        }
    }
    bool IsHeld() const { return isHeld_; }

private:
    XelSpinlock& lock_;
    bool isHeld_;
};

u32 EpFdOf(const SchCtrl* sch)
{
    return static_cast<u32>(sch->epFd.load(std::memory_order_relaxed));
}

SchTaskCtrl* TaskOf(const struct epoll_event& event)
{
    return static_cast<SchTaskCtrl*>(event.data.ptr);
}

u64 NowUs()
{
    u64 now = 0;
    (void)SystimeGetMicroSec(&now);
    return now;
}

// The caller's hook with its context; hook may be null.
struct DispatchHook {
    u64 context;
    SchDispatchHook hook;

    void Call(u32 phase) const
    {
        if (hook != nullptr) {
            hook(context, phase);
        }
    }
};

// Runs one callback between the two phases of the hook. A failing callback is counted and logged.
void RunProc(const SchCtrl* sch, const DispatchHook& hook, const XelTaskUsrCb& callback,
             struct epoll_event* event)
{
    hook.Call(0);
    const u32 ret = callback.proc(event, callback.data);
    hook.Call(1);
    if (ret != XEL_OK) {
        SchDbgAddErrStat(EpFdOf(sch), SCH_ERR_PROC);
        XEL_LOG(kSchLog, XEL_LOG_WARN, "User proc result, param = :%lu. (ret = %#x).",
                callback.data, ret);
    }
}

// The time of day is for the trace hook only: read when somebody is registered to see it.
void StampTimeOfDay(SchTaskTraceInfo* record)
{
    record->timestamp = {};
    if (SchDbgIsInit()) {
        (void)gettimeofday(&record->timestamp, nullptr);
    }
}

// With the library's own policy the steps are called directly, and its events come with tasks that
// it checked when it inserted them.
bool IsBfs(const SchCtrl* sch)
{
    return sch->policyOps.prepare == SCH_BfsResPrepare &&
           sch->policyOps.insert == SCH_BfsInsertEvents &&
           sch->policyOps.select == SCH_BfsSelectEvents;
}

// Waits. False after a failure, which is counted, logged and slept for.
bool WaitForEvents(SchCtrl* sch, u32* count)
{
    // The room of the buffer, if less: a failed preparation answers -1.
    *count = SchGetMaxEventCnt(sch);
    if (static_cast<i32>(*count) > static_cast<i32>(sch->epSize)) {
        *count = sch->epSize;
    }
    const u32 ret = SchEventsGet(sch, sch->eventBuf, count);
    if (ret == XEL_OK) {
        return true;
    }
    SchDbgAddErrStat(EpFdOf(sch), SCH_ERR_WAIT);
    XEL_LOG_FAIL(kSchLog, "Sch dispatch, get events unsuccessfully. (ret = %d).", ret);
    SleepPenalty();
    return false;
}

// Passes the ready events, which are in the list, through the policy; the list becomes what it
// selects. False after a failure, as above.
bool ApplyPolicy(SchCtrl* sch, const SchBatch& batch, SchRunList* run)
{
    if (sch->policy == nullptr) {
        return true;
    }
    if (batch.isChecked) {
        BfsPassEvents(sch->policy, sch->eventBuf, batch, run);
        return true;
    }
    const u32 ret = sch->policyOps.insert(sch->policy, sch->eventBuf, run->count);
    if (ret != XEL_OK) {
        SchDbgAddErrStat(EpFdOf(sch), SCH_ERR_INSERT);
        XEL_LOG_FAIL(kSchLog, "Sch dispatch, insert event unsuccessfully. (ret = %#x).", ret);
        SleepPenalty();
        return false;
    }
    run->count = sch->policyOps.select(sch->policy, &run->events);
    return true;
}

// While something was selected the next wait only polls, so that queued events keep flowing.
void SetMayBlock(SchCtrl* sch, bool mayBlock)
{
    const u32 state = sch->state.load(std::memory_order_relaxed);
    sch->state.store(mayBlock ? state | kSchMayBlock : state & ~kSchMayBlock,
                     std::memory_order_relaxed);
}

// The record is cleared once per cycle, so the trace of the first event carries eventLeft 0 and
// each later one the value taken after the event before it.
void RunEvents(SchCtrl* sch, const DispatchHook& hook, const SchBatch& batch, SchRunList* run)
{
    const XelTaskUsrCb& callback = run->start.callback;
    SchTaskTraceInfo& record = run->start.record;
    record.eventLeft = 0;
    for (i32 i = 0; i < static_cast<i32>(run->count); ++i) {
        struct epoll_event* event = &run->events[i];
        const bool isBegun = i == 0 && run->isBegun;
        if (!isBegun &&
            SchTaskBeginRun(TaskOf(*event), batch, event->events, &run->start) != XEL_OK) {
            SchDbgAddErrStat(EpFdOf(sch), SCH_ERR_INVALID_TASK);
            XEL_LOG_FAIL(kSchLog, "Event process, invalid task-ctrl.");
            continue;
        }
        if (callback.proc == nullptr) {
            continue;
        }
        record.startTime = NowUs();
        StampTimeOfDay(&record);
        RunProc(sch, hook, callback, event);
        const u64 end = NowUs();
        if (record.timestamp.tv_sec == 0) {
            StampTimeOfDay(&record); // somebody may have registered during the run
        }
        SchDbgInfoRecordAfterProcess(sch, &record, end, end - record.startTime);
    }
}

CycleEnd RunCycle(SchCtrl* sch, u64 context, SchDispatchHook hook)
{
    if (!SchIsCtrlValid(sch)) {
        return CycleEnd::SleepDue;
    }
    const DispatchHold hold(sch);
    if (!hold.IsHeld()) {
        SchDbgAddErrStat(EpFdOf(sch), SCH_ERR_LOOPED);
        XEL_LOG_FAIL(kSchLog,
                     "Sch dispatch, try lock unsuccessfully, handle is looped in multi-thread, "
                     "ret = %d.",
                     0);
        return CycleEnd::SleepDue;
    }
    const u32 oldest = SchNewestTask();
    SchRunList run;
    run.events = sch->eventBuf;
    run.isBegun = false;
    if (!WaitForEvents(sch, &run.count)) {
        return CycleEnd::Done;
    }
    const SchBatch batch{IsBfs(sch), static_cast<i32>(EpFdOf(sch)), oldest, SchNewestTask()};
    if (!ApplyPolicy(sch, batch, &run)) {
        return CycleEnd::Done;
    }
    SetMayBlock(sch, run.count == 0);
    RunEvents(sch, DispatchHook{context, hook}, batch, &run);
    return CycleEnd::Done;
}

// Memory that is no scheduler holds no lock that could be taken.
bool HasMagic(const SchCtrl* sch)
{
    const u32 magic = sch->magic.load(std::memory_order_acquire);
    if (magic == kSchMagic) {
        return true;
    }
    XEL_LOG_FAIL(kSchLog, "Sch dispatch, magic is damaged, magic = %#x.", magic);
    return false;
}

// One cycle under the scheduler's lock. A thread that has nothing to do there sleeps after it has
// given the lock back: neither a destroyer nor the creator that takes a stale record again waits
// for the sleeper.
void DispatchLocked(SchCtrl* sch, u64 context, SchDispatchHook hook)
{
    CycleEnd end = CycleEnd::SleepDue;
    if (HasMagic(sch)) {
        const SchCycle cycle(sch);
        end = RunCycle(sch, context, hook);
    }
    if (end == CycleEnd::SleepDue) {
        SleepPenalty();
    }
}

} // namespace

void XEL_SchDispatch(SchCtrl* sch)
{
    if (sch == nullptr) {
        XEL_LOG_FAIL(kSchLog, "Sch dispatch, sch handle is null.");
        SleepPenalty();
        return;
    }
    DispatchLocked(sch, 0, nullptr);
}

void SCH_DispatchWithDeadloop(SchCtrl* sch, uint64_t context, SchDispatchHook hook)
{
    DispatchLocked(sch, context, hook);
}

void SchDispatch(SchCtrl* sch, u64 context, SchDispatchHook hook)
{
    if (RunCycle(sch, context, hook) == CycleEnd::SleepDue) {
        SleepPenalty();
    }
}

bool SchIsCtrlValid(SchCtrl* sch)
{
    if (!HasMagic(sch)) {
        return false;
    }
    const u32 state = sch->state.load(std::memory_order_relaxed);
    if ((state & kSchAlive) == 0) {
        SchDbgAddErrStat(EpFdOf(sch), SCH_ERR_DESTROYED);
        XEL_LOG_FAIL(kSchLog, "Sch dispatch, handle had been destroyed, state = %#x.", state);
        return false;
    }
    return true;
}

// The answer never exceeds the request: a failed prepare comes as -1 or 0 and is passed on for the
// wait to refuse.
u32 SchEventsGet(SchCtrl* sch, struct epoll_event* events, u32* count)
{
    const bool mayBlock =
        (sch->state.load(std::memory_order_relaxed) & kSchMayBlock) != 0 &&
        (sch->policyOps.select != SCH_BfsSelectEvents || BfsMayBlock(sch->policy));
    const i32 timeout = mayBlock ? sch->waitTimeout.load(std::memory_order_relaxed) : 0;
    const auto request = static_cast<i32>(*count);
    i32 ready =
        sch->epollOps.wait(sch->epFd.load(std::memory_order_relaxed), events, request, timeout);
    if (ready < 0) {
        const i32 error = sch->epollOps.getErrNo();
        if (error != EINTR) {
            XEL_LOG_FAIL(kSchLog,
                         "Event get, epoll wait with time-out[%d] unsuccessfully. (errNo:%d).",
                         timeout, error);
            return XEL_FAIL;
        }
        ready = 0;
    }
    if (ready > request) {
        ready = request < 0 ? 0 : request;
    }
    *count = static_cast<u32>(ready);
    return XEL_OK;
}

void SchEventsProcess(SchCtrl* sch, u64 context, SchDispatchHook hook, struct epoll_event* events,
                      i32 n)
{
    const u32 newest = SchNewestTask();
    SchRunList run;
    run.events = events;
    run.count = static_cast<u32>(n);
    run.isBegun = false;
    RunEvents(sch, DispatchHook{context, hook},
              SchBatch{false, static_cast<i32>(EpFdOf(sch)), newest, newest}, &run);
}

// The two steps around a run as a diagnostics component may call them.
void SchDbgInfoRecordBeforeProcess(SchTaskCtrl* task, u64 startUs, SchTaskTraceInfo* record)
{
    (void)SchTaskGetSimpleDbgByHandle(task, record);
    record->startTime = startUs;
}

// The trace is handed out before eventLeft is refreshed; only the slow-run check sees the new
// value.
void SchDbgInfoRecordAfterProcess(SchCtrl* sch, SchTaskTraceInfo* record, u64 endUs, u64 costUs)
{
    record->endTime = endUs;
    record->procTime = costUs;
    SchDbgUpdateTasksStatistic(static_cast<u32>(record->fd), static_cast<u32>(costUs));
    SchDbgInsertTaskTrace(EpFdOf(sch), record);
    if (sch->policy != nullptr && sch->policyOps.getEventLeft != nullptr) {
        record->eventLeft = sch->policyOps.getEventLeft(sch->policy);
    }
    SchCheckTaskException(EpFdOf(sch), record);
}

uint32_t SCH_GetTasksEventCache(uint32_t epFd, SchEventCacheInfo* records, uint32_t* count)
{
    SchCtrl* sch = SchGetSchHandleByEpFd(epFd);
    if (sch == nullptr) {
        return XEL_FAIL;
    }
    const RegistryLock registry(RegistryLock::Side::Read);
    const SchReadGuard guard(sch);
    // Between the lookup and the locks the scheduler may have been destroyed.
    if (sch->magic.load(std::memory_order_acquire) != kSchMagic || EpFdOf(sch) != epFd) {
        return XEL_FAIL;
    }
    if (sch->policy != nullptr && sch->policyOps.getEventCache != nullptr) {
        (void)sch->policyOps.getEventCache(sch->policy, records, count);
    } else {
        *count = 0;
    }
    return XEL_OK;
}
