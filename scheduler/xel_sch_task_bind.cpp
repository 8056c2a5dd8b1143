// Which schedulers a task is bound to: a short singly linked list in the task record, one tracked
// block per binding. Called by the scheduler core on any thread, also from callbacks.
#include "scheduler/xel_sch_task_bind.h"

#include "common/xel_lock_guard.h"
#include "common/xel_memory.h"
#include "scheduler/xel_sch_task_watch.h"

namespace
{

// Both operations answer a wrong magic alike. It is looked at before the lock, since a foreign
// record's lock words could keep a caller waiting for ever, and again under the lock.
bool IsAlive(const SchTaskCtrl* task)
{
    const u32 magic = TaskMagicOf(task);
    if (magic != kTaskMagic) {
        XEL_LOG_FAIL(kTaskLog, "task handle magic destroy, magic = %#x.", magic);
        return false;
    }
    return true;
}

} // namespace

// A second binding to the same handle is recorded as a second one.
u32 SchTaskAddScheduler(SchTaskCtrl* task, void* sch)
{
    return TaskBind(task, sch, TaskPlace{kSeveralEpFds, 0});
}

u32 TaskBind(SchTaskCtrl* task, void* sch, const TaskPlace& place)
{
    if (!IsAlive(task)) {
        return XEL_FAIL;
    }
    const ShortWriteGuard guard(task->lock);
    if (!IsAlive(task)) {
        return XEL_FAIL;
    }
    auto* node = XEL_ALLOC_RECORD(XelSll, kTaskLog);
    if (node == nullptr) {
        XEL_LOG_FAIL(kTaskLog, "task add scheduler unsuccessfully, alloc sll unsuccessfully.");
        return XEL_ENOMEM;
    }
    // Bound anew, the registration may be the application's.
    TaskWatchEndLocked(task);
    const bool isFirst = task->schCount == 0;
    TailOf(task)->epFd = isFirst ? place.epFd : kSeveralEpFds;
    if (isFirst && place.watchEvents != 0) {
        TaskWatchBeginLocked(task, place.watchEvents);
    }
    XelSllInitAndAdd(&task->schList, node, sch);
    return XEL_OK;
}

void SchTaskRmScheduler(SchTaskCtrl* task, void* sch)
{
    TaskUnbind(task, sch, nullptr);
}

void TaskUnbind(SchTaskCtrl* task, void* sch, TaskDeletion* deletion)
{
    if (!IsAlive(task)) {
        return;
    }
    const ShortWriteGuard guard(task->lock);
    if (!IsAlive(task)) {
        return;
    }
    if (deletion != nullptr) {
        deletion->isOther = !TaskIsOf(task, &deletion->fd);
        if (deletion->isOther) {
            return;
        }
        deletion->watch = TaskWatchForgetLocked(task);
    }
    XelSll* node = task->schList.next;
    while (node != &task->schList) {
        XelSll* next = node->next;
        if (node->data == sch) {
            XelSllDel(&task->schList, node);
            XEL_FREE(kTaskLog, node);
        }
        node = next;
    }
}

bool TaskIsBound(const SchTaskCtrl* task, const void* sch)
{
    for (const XelSll* node = task->schList.next; node != &task->schList; node = node->next) {
        if (node->data == sch) {
            return true;
        }
    }
    return false;
}

void TaskKeepTo(SchTaskCtrl* task, i32 epFd)
{
    const ShortWriteGuard guard(task->lock);
    TailOf(task)->epFd = epFd;
}

bool TaskMayRunOn(SchTaskCtrl* task, i32 epFd)
{
    const i32 boundTo = TailOf(task)->epFd;
    return boundTo == kSeveralEpFds || boundTo == epFd;
}

void TaskReleaseBindings(SchTaskCtrl* task)
{
    while (task->schList.next != &task->schList) {
        XelSll* node = task->schList.next;
        XelSllDel(&task->schList, node);
        XEL_FREE(kTaskLog, node);
    }
}
