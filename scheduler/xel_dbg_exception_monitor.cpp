// Reports a task run that kept its scheduler busy for 400 ms or more. Called on the dispatching
// thread after every run, with the record of that run; owns nothing and takes no lock.
#include "common/xel_memory.h"
#include "scheduler/xel_sch_dbg_inner.h"

namespace
{

constexpr LogSite kMonitorLog{"scheduler/xel_dbg_exception_monitor", 93};
constexpr u64 kLongestRunUs = 399999;

} // namespace

void SchCheckTaskException(u32 epFd, const SchTaskTraceInfo* trace)
{
    if (trace->procTime <= kLongestRunUs) {
        return;
    }
    XEL_LOG(kMonitorLog, XEL_LOG_WARN, "Proc time timeout. (epFd = %d)", epFd);
    if (trace->procFunc == nullptr) {
        return;
    }
    char funcName[kFuncNameSize];
    (void)memset_s(funcName, sizeof(funcName), 0, sizeof(funcName));
    (void)DbgGetFuncName(reinterpret_cast<const void*>(trace->procFunc), funcName,
                         sizeof(funcName));
    XEL_LOG(kMonitorLog, XEL_LOG_INFO,
            "fd:%d, procFunc:%s, name:%s, type:%u, prio:%u, insertTime:%lu, startTime:%lu,"
            "endTime:%lu, procTime:%lu, eventLeft:%u",
            trace->fd, funcName, trace->name, trace->type, trace->prio, trace->insertTime,
            trace->startTime, trace->endTime, trace->procTime, trace->eventLeft);
}
