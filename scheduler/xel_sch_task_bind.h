// Bindings of a task: the handles (policy instances) that it is bound to. The task's lock guards
// them: the write side for changes, either side for a look.
#ifndef XEL_SCHEDULER_SCH_TASK_BIND_H
#define XEL_SCHEDULER_SCH_TASK_BIND_H

#include "scheduler/xel_sch_task_inner.h"

// True when the task is bound to sch.
bool TaskIsBound(const SchTaskCtrl* task, const void* sch);

// SchTaskAddScheduler for the scheduler of an epoll descriptor, which is noted.
u32 TaskBind(SchTaskCtrl* task, void* sch, i32 epFd);

// False when the task, which is bound, is known not to be bound to the scheduler of epFd.
bool TaskMayRunOn(SchTaskCtrl* task, i32 epFd);

// Forgets every binding and frees the nodes.
void TaskReleaseBindings(SchTaskCtrl* task);

#endif // XEL_SCHEDULER_SCH_TASK_BIND_H
