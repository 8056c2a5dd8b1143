/*
 * xel_sch_task.h - tasks: a descriptor with a callback, user data, a schedule type, a priority and
 * a name.
 *
 * A task is described by an attribute object, created in the process-wide task table, bound to a
 * scheduler (xel_scheduler.h) and run by that scheduler's dispatch cycle when its descriptor is
 * ready. At most one task exists per descriptor number.
 */
#ifndef XEL_SCH_TASK_H
#define XEL_SCH_TASK_H

#include <sys/epoll.h>

#include "xel_types.h"

XEL_EXTERN_C_BEGIN

typedef struct XelTaskAttr XelTaskAttr;
typedef struct SchTaskCtrl SchTaskCtrl;

/*
 * The task callback. events: the readiness being run; with a policy its mask is the union of all
 * readiness since the task last ran. Its data is the task handle. data: the user data of the task.
 * Runs on the dispatching thread. Returns: 0 for success; anything else is counted and logged, and
 * the cycle goes on.
 */
typedef uint32_t (*XelTaskProc)(struct epoll_event* events, uint64_t data);

/* Value of XEL_TASK_ATTR_USR_CB: 16 bytes. */
typedef struct XelTaskUsrCb {
    XelTaskProc proc; /* must not be null */
    uint64_t data;    /* handed back to proc */
} XelTaskUsrCb;

/* Commands of XEL_TaskSetAttr. */
enum {
    XEL_TASK_ATTR_USR_CB = 0, /* XelTaskUsrCb, size exactly 16 */
    XEL_TASK_ATTR_TYPE = 1,   /* uint32_t schedule type 0..3 (default 2), size exactly 4 */
    XEL_TASK_ATTR_PRIO = 2,   /* uint32_t priority 0..32 (default 0), size exactly 4 */
    XEL_TASK_ATTR_NAME = 3,   /* characters, size = string length 0..15 */
    XEL_TASK_ATTR_FD_TYPE = 4 /* uint32_t descriptor type (default 0), size exactly 4 */
};

/*
 * Schedule types. Within one scheduler a lower type goes first; how each type orders its own tasks:
 *   0  strict priority 0..31, lowest number first, first come first served within one priority
 *   1  first come first served; shares with type 2 in a ratio of 8 to 1
 *   2  by age and priority: a task overdue by twice its priority goes first, else the lowest key
 *   3  four weighted groups of eight priorities each
 */
enum {
    XEL_TASK_TYPE_PRIO = 0,
    XEL_TASK_TYPE_FIFO = 1,
    XEL_TASK_TYPE_DELAY = 2,
    XEL_TASK_TYPE_GROUP = 3
};

/*
 * Creates an attribute object with defaults: no callback, type 2, priority 0, descriptor type 0,
 * empty name.
 * Threads: any. Owner: the caller, until XEL_TaskDestroyAttr.
 * Returns: the object, or null without memory (silent).
 */
XEL_API XelTaskAttr* XEL_TaskCreateAttr(void);

/*
 * Sets one attribute; on failure the object is unchanged. A name of size 0 with an empty string
 * erases the name. Priority 32 can be set but no task can be created with it.
 * Threads: the one that builds the object.
 * Returns: 0; 22 for null, a damaged magic, an unknown command, a wrong callback size or a null
 * callback, type 4 or more, a wrong priority size or a priority above 32 (this one silently);
 * 0xFFFFFFFF for a wrong size of type or descriptor type and for a bad name.
 */
XEL_API uint32_t XEL_TaskSetAttr(XelTaskAttr* attr, uint32_t cmd, const void* value,
                                 size_t valueSize);

/*
 * Frees an attribute object. Null and a damaged magic are logged and left alone.
 * Threads: the one that built the object.
 */
XEL_API void XEL_TaskDestroyAttr(XelTaskAttr* attr);

/*
 * Creates the task of a descriptor; everything needed is copied out of attr. The descriptor stays
 * the caller's and is not registered anywhere.
 * Threads: any. Two threads that create a task for one descriptor at the same moment may both
 * succeed. Owner: the caller, until XEL_TaskDestroy.
 * Returns: the task, or null: attr null or invalid (damaged magic, no callback, type 4 or more,
 * descriptor type 2 or more, priority 32 or more), a negative descriptor, a descriptor that has a
 * task already, no memory.
 */
XEL_API SchTaskCtrl* XEL_TaskCreate(int32_t fd, const XelTaskAttr* attr);

/*
 * Destroys a task: forgets its bindings and its pending readiness. Readiness of it that is already
 * queued somewhere is dropped when its turn comes. A null, stale or damaged handle is logged.
 * Threads: any, also a callback of the same task.
 */
XEL_API void XEL_TaskDestroy(SchTaskCtrl* task);

XEL_EXTERN_C_END

#endif /* XEL_SCH_TASK_H */
