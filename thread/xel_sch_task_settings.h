// The four settings that events, timers and threads give the tasks of their own descriptors: one
// order, one place.
#ifndef XEL_THREAD_SCH_TASK_SETTINGS_H
#define XEL_THREAD_SCH_TASK_SETTINGS_H

#include "common/xel_int.h"
#include "xel_sch_task.h"

struct TaskSettings {
    XelTaskUsrCb callback;
    u32 type;
    u32 prio;
    const char* name;
    size_t nameSize; // as handed to XEL_TaskSetAttr: the length of the name
};

// Which command ended the row, and its result; 0 when all four were set.
struct TaskSettingResult {
    u32 cmd;
    u32 ret;
};

// Sets callback, type, priority and name in this order, and stops at the first failure.
TaskSettingResult ApplyTaskSettings(XelTaskAttr* attr, const TaskSettings& settings);

#endif // XEL_THREAD_SCH_TASK_SETTINGS_H
