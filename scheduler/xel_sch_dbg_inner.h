// Inside of the diagnostics: the wrappers around the registered hooks, symbol names for log lines,
// and the slow-run monitor.
#ifndef XEL_SCHEDULER_SCH_DBG_INNER_H
#define XEL_SCHEDULER_SCH_DBG_INNER_H

#include "common/xel_int.h"
#include "scheduler/xel_sch_task_inner.h"
#include "xel_sch_dbg.h"

// Buffer size that every caller of DbgGetFuncName uses.
constexpr u32 kFuncNameSize = 32;

XEL_EXTERN_C_BEGIN

// True while a hook table is registered.
XEL_API bool SchDbgIsInit(void);

// Each calls its hook when a table is registered and the slot is filled.
XEL_API void SchDbgInsertTaskInfo(const SchDbgTaskInfo* info);
XEL_API void SchDbgDelTaskInfo(u32 fd);
XEL_API void SchDbgUpdateTasksStatistic(u32 fd, u32 procTimeUs);
XEL_API void SchDbgAddErrStat(u32 epFd, u32 code);
XEL_API void SchDbgInsertTaskTrace(u32 epFd, const SchTaskTraceInfo* trace);

// Writes the symbol name of func into buf, altered as SchFuncNameDeal does. A null func gives an
// empty name and 0; a symbol that cannot be found leaves an empty name or buf as it was:
// 0xFFFFFFFF.
XEL_API u32 DbgGetFuncName(const void* func, char* buf, size_t size);

// Cuts the name out of "module(name+offset) [address]"; every character at an odd position is
// stored increased by one. 0xFFFFFFFF (buf untouched) without an opening parenthesis.
XEL_API u32 SchFuncNameDeal(char* buf, size_t size, const char* symbol);

// Reports a run of 400 ms or more.
XEL_API void SchCheckTaskException(u32 epFd, const SchTaskTraceInfo* trace);

XEL_EXTERN_C_END

#endif // XEL_SCHEDULER_SCH_DBG_INNER_H
