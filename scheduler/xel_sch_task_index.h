// The descriptor index of the task table: from a descriptor to its tasks, oldest first, without a
// walk over all tasks. The task table's lock guards it: changes under the write side, lookups under
// the read side.
#ifndef XEL_SCHEDULER_SCH_TASK_INDEX_H
#define XEL_SCHEDULER_SCH_TASK_INDEX_H

#include "scheduler/xel_sch_task_inner.h"

// Adds a task under its descriptor, behind the older ones.
void TaskIndexAdd(SchTaskCtrl* task);

// Takes a task out; one that is not in the index is left alone.
void TaskIndexRemove(SchTaskCtrl* task);

// The oldest task for which the matcher (SchMatchTaskHandleWithAppFd) says yes, or null.
SchTaskCtrl* TaskIndexFind(i32 fd);

// Forgets all tasks: their table is gone.
void TaskIndexReset();

#endif // XEL_SCHEDULER_SCH_TASK_INDEX_H
