/*
 * xel_sch_dbg.h - debug hooks: how an outside diagnostics component sees every task that is bound,
 * removed and run, and every dispatch error.
 */
#ifndef XEL_SCH_DBG_H
#define XEL_SCH_DBG_H

#include "xel_types.h"

#include "xel_sch_task.h"

XEL_EXTERN_C_BEGIN

/* A task that was bound to a scheduler. */
typedef struct SchDbgTaskInfo {
    uint32_t epFd; /* the scheduler's epoll descriptor */
    int32_t fd;
    uint32_t type;
    uint32_t prio;
    char name[XEL_NAME_SIZE];
    XelTaskProc procFunc;
} SchDbgTaskInfo;

/* One finished run of a task. */
typedef struct SchDbgTaskTrace {
    char name[XEL_NAME_SIZE];
    uint32_t events; /* readiness that had arrived again before the run */
    uint32_t fd;
    uint64_t tvSec; /* wall clock at the start of the run */
    uint64_t tvUsec;
    uint64_t procTime; /* microseconds inside the callback */
} SchDbgTaskTrace;

/* Codes of addErrStat. */
enum {
    SCH_ERR_LOOPED = 0,       /* a second thread dispatches the same scheduler */
    SCH_ERR_DESTROYED = 1,    /* dispatch on a destroyed scheduler */
    SCH_ERR_WAIT = 2,         /* the epoll wait failed */
    SCH_ERR_INSERT = 5,       /* the policy refused the events */
    SCH_ERR_INVALID_TASK = 7, /* a selected event's task is invalid */
    SCH_ERR_PROC = 8          /* a callback returned non-zero */
};

/*
 * The hooks; a null slot is skipped. They run on the thread that caused them, inside the dispatch
 * cycle or the binding call, and must return quickly. Records are the hook's for the call only.
 */
typedef struct SchDbgHookTable {
    void (*insertTaskInfo)(const SchDbgTaskInfo* info);
    void (*delTaskInfo)(uint32_t fd);
    void (*updateTasksStatistic)(uint32_t fd, uint32_t procTimeUs);
    void (*addErrStat)(uint32_t epFd, uint32_t code);
    void (*insertTaskTrace)(uint32_t epFd, const SchDbgTaskTrace* trace);
} SchDbgHookTable;

/*
 * Registers the hooks: the table is copied. The first registration wins; a later one is ignored
 * until SCH_DeregisterDbgHookTable.
 * Threads: any. table must not be null.
 * Returns: 0 always.
 */
XEL_API uint32_t SCH_RegisterDbgHookTable(const SchDbgHookTable* table);

/*
 * Removes the hooks. A call that another thread had started already may still be running when this
 * returns. Threads: any.
 */
XEL_API void SCH_DeregisterDbgHookTable(void);

XEL_EXTERN_C_END

#endif /* XEL_SCH_DBG_H */
