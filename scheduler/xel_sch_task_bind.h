// Bindings of a task: the handles (policy instances) that it is bound to. The task's lock guards
// them: the write side for changes, either side for a look.
#ifndef XEL_SCHEDULER_SCH_TASK_BIND_H
#define XEL_SCHEDULER_SCH_TASK_BIND_H

#include "scheduler/xel_sch_task_inner.h"

// True when the task is bound to sch.
bool TaskIsBound(const SchTaskCtrl* task, const void* sch);

// Forgets every binding and frees the nodes.
void TaskReleaseBindings(SchTaskCtrl* task);

#endif // XEL_SCHEDULER_SCH_TASK_BIND_H
