// Inside of the scheduler core: the scheduler record, the registry, and the steps of creation,
// destruction, dispatch and binding.
//
// Locks, in order: registry lock, a scheduler's lock, its dispatch lock (only ever tried).
#ifndef XEL_SCHEDULER_SCHEDULER_INNER_H
#define XEL_SCHEDULER_SCHEDULER_INNER_H

#include <atomic>
#include <pthread.h>

#include "common/xel_int.h"
#include "common/xel_log_site.h"
#include "scheduler/xel_fmm_tbl.h"
#include "scheduler/xel_sch_task_inner.h"
#include "xel_lock.h"
#include "xel_scheduler.h"

inline constexpr LogSite kSchLog{"scheduler/xel_scheduler", 81};

constexpr u32 kSchMagic = 0xFBADBEEFU;

// Bits of SchCtrl::state.
constexpr u32 kSchAlive = 0x1;
constexpr u32 kSchMayBlock = 0x2; // the next wait may block

struct SchCtrl {
    std::atomic<u32>
        magic; // written last on creation (release), read first by every user (acquire)
    XelSpinlock dispatchLock;
    XelRwlock lock; // read-held by dispatch cycles and readers of policy, write-held by destruction
    std::atomic<i32> epFd; // read without a lock by whoever holds the handle
    u32 epSize;
    std::atomic<i32> waitTimeout; // milliseconds of a blocking wait, -1 for ever
    std::atomic<u32> state;       // bit 0x2 changes in each cycle; read without a lock
    struct epoll_event* eventBuf;
    void* policy;
    SchPolicyOps policyOps;
    SchEpollOps epollOps;
};
static_assert(sizeof(SchCtrl) == 136, "the record layout is fixed");

struct SchRunCtrl {
    pthread_rwlock_t lock;
    FtCtrl* table;
    u64 created;            // schedulers created since SchInit; never counted down
    std::atomic<u8> inited; // set last by SchInit (release), read first (acquire)
};

XEL_EXTERN_C_BEGIN

XEL_API extern SchRunCtrl g_xelSchRunCtrl;

// The registry. SchInit is idempotent and safe from several threads; nothing calls SchFinal.
XEL_API u32 SchInit(void);
XEL_API u32 SchFinal(void);

// Creation steps.
XEL_API SchCtrl* SchCtrlCreate(u32 epFd, u32 epSize, const SchEpollOps* epollOps,
                               const SchPolicyOps* policyOps);
XEL_API u32 SchCtrlParamConstruct(SchCtrl* ctrl, u32 epFd, u32 epSize, const SchEpollOps* epollOps,
                                  const SchPolicyOps* policyOps);
XEL_API u32 SchCtrlPolicyInit(SchCtrl* ctrl, const SchPolicyOps* policyOps, u32 epSize);
XEL_API void SchCtrlInitParam(SchCtrl* ctrl, u32 epFd, u32 epSize, struct epoll_event* eventBuf);
XEL_API u32 SchCtrlDestroy(SchCtrl* ctrl);

// Handle checks and lookups.
XEL_API bool SchSchedulerHandleIsValid(const SchCtrl* sch);
XEL_API SchCtrl* SchGetSchHandleByEpFd(u32 epFd);
XEL_API bool SchMatchSchHandleWithEpFd(void* entry, const void* epFd);
XEL_API u32 SchGetEpollFdBySchHandle(const SchCtrl* sch);
XEL_API u32 SchGetPolicyHandleBySchHandle(SchCtrl* sch, void** policy);
XEL_API u32 SchGetMaxEventCnt(SchCtrl* sch);

// The inner event: a private eventfd that wakes the dispatcher for a destroyer.
XEL_API SchTaskCtrl* SchInnerEventCreate(i32 epFd, const SchEpollOps* ops);
XEL_API void SchInnerEventDestroy(i32 epFd, SchTaskCtrl* task, const SchEpollOps* ops);
XEL_API u32 SchInnerEventProc(struct epoll_event* event, u64 fd);

// The dispatch cycle.
XEL_API void SchDispatch(SchCtrl* sch, u64 context, SchDispatchHook hook);
XEL_API bool SchIsCtrlValid(SchCtrl* sch);
XEL_API u32 SchEventsGet(SchCtrl* sch, struct epoll_event* events, u32* count);
XEL_API void SchEventsProcess(SchCtrl* sch, u64 context, SchDispatchHook hook,
                              struct epoll_event* events, i32 n);
XEL_API void SchDbgInfoRecordBeforeProcess(SchTaskCtrl* task, u64 startUs,
                                           SchTaskTraceInfo* record);
XEL_API void SchDbgInfoRecordAfterProcess(SchCtrl* sch, SchTaskTraceInfo* record, u64 endUs,
                                          u64 costUs);

// Binding and epoll control.
XEL_API u32 SchCreateTask(SchCtrl* sch, i32 fd, SchEpollCtlReq* req);
XEL_API u32 SchModifyTask(SchCtrl* sch, u32 fd, SchEpollCtlReq* req);
XEL_API u32 SchDestroyTask(SchCtrl* sch, i32 fd);
XEL_API void SchDbgDelTask(SchCtrl* sch, SchTaskCtrl* task);
XEL_API int SchLinuxEpollCtlAdapt(int epFd, u32 op, int fd, struct epoll_event* event);
XEL_API int SchLinuxEpollGetErrNoAdapt(void);

XEL_EXTERN_C_END

// True when the library may change the registrations it made for this scheduler.
bool SchMaySetAside(const SchCtrl* sch);

#endif // XEL_SCHEDULER_SCHEDULER_INNER_H
