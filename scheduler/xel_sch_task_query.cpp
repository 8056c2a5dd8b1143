// Copies of task data for the scheduler core, the policy and the debug hooks: at insertion of an
// event, at its selection, at the run and in its trace. Called on dispatching threads (and, for the
// event cache, beside them). Insertion takes the task's lock for writing, the others for reading;
// the table lock is never taken here.
#include <cstring>
#include <sys/time.h>

#include "common/xel_lock_guard.h"
#include "common/xel_memory.h"
#include "scheduler/xel_sch_dbg_inner.h"
#include "scheduler/xel_sch_task_bind.h"
#include "scheduler/xel_sch_task_inner.h"
#include "scheduler/xel_sch_task_watch.h"
#include "scheduler/xel_scheduler_inner.h"
#include "xel_clock.h"

namespace
{

// The task's share of a run's record, but for the time of day; the caller holds the task's lock.
void CopyTrace(const SchTaskCtrl* task, SchTaskTraceInfo* trace)
{
    static_assert(sizeof(trace->name) == sizeof(task->name));
    memcpy(trace->name, task->name, sizeof(trace->name));
    trace->name[sizeof(trace->name) - 1] = '\0';
    trace->fd = task->fd;
    trace->events = task->events.load(std::memory_order_relaxed);
    trace->procFunc = task->proc;
    trace->type = task->type;
    trace->prio = task->prio;
    trace->insertTime = task->insertTime;
}

// A unit leaves the table only after its magic was cleared, so that for a known unit the magic is
// the whole check.
bool IsLive(const SchTaskCtrl* task, bool isUnitKnown)
{
    return (isUnitKnown && TaskMagicOf(task) == kTaskMagic) || SchTaskCtrlIsValid(task);
}

bool IsYounger(const SchTaskCtrl* task, u32 version)
{
    return static_cast<i32>(task->version - version) > 0;
}

// Whether events that were reported after the task was created can be its own.
bool IsMeant(SchTaskCtrl* task, const SchBatch& batch, u32 events)
{
    if (IsYounger(task, batch.newest)) {
        return false;
    }
    if (batch.isChecked) {
        return true;
    }
    // A task that wakes up a scheduler is bound nowhere, and yet for that one only.
    const bool hasPlace = task->schCount != 0 || task->proc == SchInnerEventProc;
    if (hasPlace && !TaskMayRunOn(task, batch.epFd)) {
        return false;
    }
    return task->schCount != 0 || TaskReadiness(task->fd, events) != 0;
}

// The pending mask is taken under the read hold: an exchange, since two may take at once.
u32 TakePending(SchTaskCtrl* task, bool isUnitKnown, u32 version, struct epoll_event* event)
{
    if (!IsLive(task, isUnitKnown)) {
        XEL_LOG_FAIL(kTaskLog, "Task get event unsuccessfully, task is invalid.");
        return XEL_FAIL;
    }
    const ShortReadGuard guard(task->lock);
    if (task->init == 0) {
        XEL_LOG_FAIL(kTaskLog, "Task get event unsuccessfully, handle has been destroyed.");
        return XEL_FAIL;
    }
    if (task->version != version) {
        XEL_LOG_FAIL(kTaskLog,
                     "Task get event unsuccessfully, task has been aged. (old ver = %u, "
                     "new ver = %u)",
                     version, task->version);
        return XEL_FAIL;
    }
    event->events = task->events.exchange(0, std::memory_order_relaxed);
    return XEL_OK;
}

// What the descriptor is ready for by now joins the mask, and its registration comes back.
void PutBack(SchTaskCtrl* task, u32 version, struct epoll_event* event, bool isCrowded,
             bool* isOwed)
{
    u32 events = event->events;
    if (!TaskWatchPutBack(task, version, isCrowded, &events)) {
        *isOwed = true;
    }
    event->events = events;
}

// What cannot be delivered without being queued: an event whose task has others pending or a
// registration to be put back, and one that the policy may hold back or refuse.
bool CanBeTaken(const SchTaskCtrl* task, u32 pending)
{
    return pending == 0 && !TaskWatchIsAside(task) && task->type < XEL_TASK_TYPE_GROUP &&
           task->prio < kTaskPrioCount;
}

void CopyStart(const SchTaskCtrl* task, SchRunStart* start)
{
    start->callback = {task->proc, task->data};
    CopyTrace(task, &start->record);
}

// The steps of an insertion. Without a batch the event is taken for the task's own. With a start
// the run may begin instead of becoming pending.
SchInserted Insert(void* sch, SchTaskCtrl* task, const struct epoll_event* event,
                   SchTaskInsertInfo* info, const SchBatch* batch, SchRunStart* start)
{
    const u32 magic = TaskMagicOf(task);
    if (magic != kTaskMagic) {
        XEL_LOG_FAIL(kTaskLog, "Task get info unsuccessfully, task magic is damaged, magic = %#x.",
                     magic);
        return SchInserted::Refused;
    }
    if (!FtEntryIsValid(task, false)) {
        XEL_LOG_FAIL(kTaskLog, "Task get info unsuccessfully, input is not valid.");
        return SchInserted::Refused;
    }
    const ShortWriteGuard guard(task->lock);
    if (task->init == 0) {
        XEL_LOG_FAIL(kTaskLog,
                     "Task get info unsuccessfully, task handle had been destroyed already, "
                     "init = %u.",
                     static_cast<u32>(task->init));
        return SchInserted::Refused;
    }
    if (sch != nullptr && !TaskIsBound(task, sch)) {
        XEL_LOG_FAIL(kTaskLog,
                     "Task get info unsuccessfully, task is not bind scheduler. (taskName = %s)",
                     task->name);
        return SchInserted::Refused;
    }
    u32 events = event->events;
    const bool isYoung = batch != nullptr && IsYounger(task, batch->oldest);
    if (isYoung) {
        if (IsYounger(task, batch->newest)) {
            XEL_LOG_FAIL(kTaskLog, "Task get info unsuccessfully, input is not valid.");
            return SchInserted::Refused;
        }
        events = TaskWatchOwn(task, events);
        if (events == 0) {
            return SchInserted::Nobodys;
        }
    }
    info->version = task->version;
    info->type = task->type;
    info->prio = task->prio;
    info->isFirst = 1;
    (void)SystimeGetMicroSec(&task->lastInsertTime);
    const u32 pending = task->events.load(std::memory_order_relaxed);
    if (pending != 0) {
        info->isFirst = 0;
    } else {
        task->insertTime = task->lastInsertTime;
    }
    TaskWatchReported(task, events);
    if (start == nullptr || isYoung || !CanBeTaken(task, pending)) {
        task->events.store(pending | events, std::memory_order_relaxed);
        return SchInserted::Pending;
    }
    CopyStart(task, start);
    return SchInserted::Begun;
}

} // namespace

u32 SchTaskGetInfoInsert(void* sch, SchTaskCtrl* task, const struct epoll_event* event,
                         SchTaskInsertInfo* info)
{
    const SchInserted inserted = Insert(sch, task, event, info, nullptr, nullptr);
    return inserted == SchInserted::Refused ? XEL_FAIL : XEL_OK;
}

SchInserted SchTaskInsert(void* sch, SchTaskCtrl* task, const struct epoll_event* event,
                          const SchBatch& batch, SchTaskInsertInfo* info)
{
    return Insert(sch, task, event, info, &batch, nullptr);
}

SchInserted SchTaskInsertOrBegin(void* sch, SchTaskCtrl* task, const struct epoll_event* event,
                                 const SchBatch& batch, SchTaskInsertInfo* info, SchRunStart* start)
{
    return Insert(sch, task, event, info, &batch, start);
}

u32 SchTaskGetEvent(SchTaskCtrl* task, u32 version, struct epoll_event* event)
{
    const u32 ret = TakePending(task, false, version, event);
    if (ret == XEL_OK && TaskWatchIsAside(task)) {
        bool isOwed = false;
        PutBack(task, version, event, false, &isOwed);
    }
    return ret;
}

u32 SchTaskTakeEvent(SchTaskCtrl* task, u32 version, struct epoll_event* event, bool isCrowded,
                     bool* isOwed)
{
    const u32 ret = TakePending(task, true, version, event);
    if (ret == XEL_OK && TaskWatchIsAside(task)) {
        PutBack(task, version, event, isCrowded, isOwed);
    }
    return ret;
}

void SchTaskDropEvent(SchTaskCtrl* task, u32 version)
{
    if (TaskMagicOf(task) != kTaskMagic || !FtEntryIsValid(task, false)) {
        return;
    }
    const ShortWriteGuard guard(task->lock);
    if (task->init != 0 && task->version == version) {
        task->events.store(0, std::memory_order_relaxed);
        if (TaskWatchIsAside(task)) {
            TaskWatchEndLocked(task);
        }
    }
}

u32 SchTaskBeginRun(SchTaskCtrl* task, const SchBatch& batch, u32 events, SchRunStart* start)
{
    if (!IsLive(task, batch.isChecked)) {
        XEL_LOG_FAIL(kTaskLog, "Task get info process unsuccessfully, task is invalid.");
        return XEL_FAIL;
    }
    const ShortReadGuard guard(task->lock);
    if (task->init == 0) {
        XEL_LOG_FAIL(kTaskLog,
                     "Task get info process unsuccessfully, handle has been destroyed. (init = %d)",
                     static_cast<int>(task->init));
        return XEL_FAIL;
    }
    if (IsYounger(task, batch.oldest) && !IsMeant(task, batch, events)) {
        XEL_LOG_FAIL(kTaskLog, "Task get info process unsuccessfully, task is invalid.");
        return XEL_FAIL;
    }
    CopyStart(task, start);
    return XEL_OK;
}

u32 SchTaskGetInfoProcess(SchTaskCtrl* task, XelTaskProc* proc, u64* data)
{
    SchRunStart start;
    const u32 newest = SchNewestTask();
    const u32 ret = SchTaskBeginRun(task, SchBatch{false, -1, newest, newest}, 0, &start);
    if (ret == XEL_OK) {
        *proc = start.callback.proc;
        *data = start.callback.data;
    }
    return ret;
}

u32 SchTaskGetDbgInfo(SchTaskCtrl* task, u32 version, SchEventCacheInfo* out)
{
    const u32 magic = TaskMagicOf(task);
    if (magic != kTaskMagic) {
        XEL_LOG_FAIL(kTaskLog, "Task get debug info unsuccessfully, magic is damaged, magic = %#x.",
                     magic);
        return XEL_FAIL;
    }
    if (!FtEntryIsValid(task, false)) {
        XEL_LOG_FAIL(kTaskLog, "Task get debug info unsuccessfully, input is not valid.");
        return XEL_FAIL;
    }
    const ReadGuard guard(task->lock);
    if (task->init == 0) {
        XEL_LOG_FAIL(kTaskLog,
                     "Task get debug info unsuccessfully, handle had been destroyed already, "
                     "init = %u.",
                     static_cast<u32>(task->init));
        return XEL_FAIL;
    }
    if (task->version != version) {
        XEL_LOG_FAIL(kTaskLog,
                     "Task get debug info unsuccessfully, task handle had been aged, "
                     "difference = %d.",
                     static_cast<i32>(task->version - version));
        return XEL_FAIL;
    }
    if (strcpy_s(out->name, sizeof(out->name), task->name) != 0) {
        XEL_LOG_FAIL(kTaskLog,
                     "Task get debug info unsuccessfully, copy task name unsuccessfully. "
                     "(name = %s)",
                     task->name);
        return XEL_FAIL;
    }
    out->type = task->type;
    out->fd = task->fd;
    out->insertTime = task->insertTime;
    out->lastInsertTime = task->lastInsertTime;
    // A wait would have inserted it again just now.
    if (TaskWatchIsReady(task)) {
        (void)SystimeGetMicroSec(&out->lastInsertTime);
    }
    return XEL_OK;
}

// Without registered hooks nobody would look at the copy, and it is not made.
u32 SchTaskGetDbgInfoByTaskHandle(SchTaskCtrl* task, SchDbgTaskInfo* out)
{
    if (!SchTaskHandleIsValid(task)) {
        return XEL_FAIL;
    }
    const ShortReadGuard guard(task->lock);
    if (task->fd < 0) {
        return XEL_FAIL;
    }
    if (!SchDbgIsInit()) {
        return XEL_OK;
    }
    if (strcpy_s(out->name, sizeof(out->name), task->name) != 0) {
        return XEL_FAIL;
    }
    out->fd = task->fd;
    out->type = task->type;
    out->prio = task->prio;
    out->procFunc = task->proc;
    return XEL_OK;
}

u32 SchTaskGetSimpleDbgByHandle(SchTaskCtrl* task, SchTaskTraceInfo* trace)
{
    if (!SchTaskHandleIsValid(task)) {
        XEL_LOG_FAIL(kTaskLog, "Sch get task name unsuccessfully, schTaskHandle null.");
        return XEL_FAIL;
    }
    const ReadGuard guard(task->lock);
    const u32 magic = TaskMagicOf(task);
    if (magic != kTaskMagic) {
        XEL_LOG_FAIL(kTaskLog,
                     "Sch get task info unsuccessfully, task magic is damaged, magic = %#x.",
                     magic);
        return XEL_FAIL;
    }
    (void)SchGetTraceDbgInfo(task, trace);
    return XEL_OK;
}

i32 SchGetTraceDbgInfo(SchTaskCtrl* task, SchTaskTraceInfo* trace)
{
    CopyTrace(task, trace);
    return gettimeofday(&trace->timestamp, nullptr);
}
