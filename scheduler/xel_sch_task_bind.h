// Bindings of a task: the handles (policy instances) that it is bound to. The task's lock guards
// them: the write side for changes, either side for a look.
#ifndef XEL_SCHEDULER_SCH_TASK_BIND_H
#define XEL_SCHEDULER_SCH_TASK_BIND_H

#include "scheduler/xel_sch_task_inner.h"
#include "scheduler/xel_sch_task_watch.h"

// True when the task is bound to sch.
bool TaskIsBound(const SchTaskCtrl* task, const void* sch);

// Where a task is bound.
struct TaskPlace {
    i32 epFd;        // of the scheduler, or kSeveralEpFds when it is not known
    u32 watchEvents; // what the library is about to register there, so that it may change it; or 0
};

// SchTaskAddScheduler for a known scheduler, whose epoll descriptor is noted.
u32 TaskBind(SchTaskCtrl* task, void* sch, const TaskPlace& place);

// A registration that is about to be deleted, of a task that was looked up by fd.
struct TaskDeletion {
    i32 fd;
    TaskWatch watch; // as it was: the library forgets it first
    bool isOther;    // the task has gone meanwhile, and its unit is another descriptor's
};

// SchTaskRmScheduler. deletion may be null.
void TaskUnbind(SchTaskCtrl* task, void* sch, TaskDeletion* deletion);

// The task, bound nowhere, is for the scheduler of epFd only.
void TaskKeepTo(SchTaskCtrl* task, i32 epFd);

// False when the task, which is bound or kept, is known not to be for the scheduler of epFd.
bool TaskMayRunOn(SchTaskCtrl* task, i32 epFd);

// Forgets every binding and frees the nodes.
void TaskReleaseBindings(SchTaskCtrl* task);

#endif // XEL_SCHEDULER_SCH_TASK_BIND_H
