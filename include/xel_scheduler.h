/*
 * xel_scheduler.h - schedulers: one epoll instance, an optional policy, and the dispatch cycle that
 * waits, orders what is ready and runs the callbacks.
 *
 * A caller that owns its loop creates a scheduler on its own epoll descriptor with XEL_SchCreate,
 * registers descriptors with SCH_EpollCtrl and calls XEL_SchDispatch for ever. One cycle runs one
 * callback as a rule and then polls again, so that urgent work overtakes a burst.
 */
#ifndef XEL_SCHEDULER_H
#define XEL_SCHEDULER_H

#include <sys/epoll.h>

#include "xel_types.h"

#include "xel_sch_dbg.h"
#include "xel_sch_task.h"

XEL_EXTERN_C_BEGIN

typedef struct SchCtrl SchCtrl;

/* Largest epoll size of a scheduler, in events. */
#define XEL_SCH_EPOLL_SIZE_MAX 4096

/* Operations of SCH_EpollCtrl and of the ctl slot of SchEpollOps. */
enum { XEL_SCH_EPOLL_ADD = 0, XEL_SCH_EPOLL_MOD = 1, XEL_SCH_EPOLL_DEL = 2 };

/* How a scheduler reaches its epoll implementation; copied at creation. */
typedef struct SchEpollOps {
    /* Number of ready events, or negative. */
    int (*wait)(int epFd, struct epoll_event* events, int maxEvents, int timeoutMs);
    /* 0, or negative. op: XEL_SCH_EPOLL_ADD, _MOD or _DEL. */
    int (*ctl)(int epFd, uint32_t op, int fd, struct epoll_event* event);
    int (*getErrNo)(void); /* error number of the last failed call of this thread */
    void* reserved;        /* null; stored, never called */
} SchEpollOps;

/* One cached event, as SCH_GetTasksEventCache lists it. */
typedef struct SchEventCacheInfo {
    char name[XEL_NAME_SIZE];
    uint32_t type;
    int32_t fd;
    uint64_t insertTime;     /* microseconds: first readiness since the task last ran */
    uint64_t lastInsertTime; /* microseconds: latest readiness */
    uint32_t events;         /* epoll mask that queued the task */
    uint32_t reserved;
} SchEventCacheInfo;

/* A scheduling policy; copied at creation. Serialised by the scheduler, but for the two getters. */
typedef struct SchPolicyOps {
    void* (*create)(uint32_t epSize);
    void (*destroy)(void* policy);
    uint32_t (*prepare)(void* policy); /* number of events to ask epoll for in this cycle */
    uint32_t (*insert)(void* policy, struct epoll_event* events, uint32_t count); /* 0: success */
    uint32_t (*select)(void* policy, struct epoll_event** out); /* number of events to run now */
    uint32_t (*getEventCache)(void* policy, SchEventCacheInfo* records, uint32_t* count);
    uint32_t (*getEventLeft)(void* policy); /* events queued and not yet run */
} SchPolicyOps;

/* Request of SCH_EpollCtrl for add and modify. */
typedef struct SchEpollCtlReq {
    uint32_t events;   /* epoll mask (add only); EPOLLIN is always added to it */
    XelTaskAttr* attr; /* callback, user data, type, priority, descriptor type and name */
} SchEpollCtlReq;

/* Called with phase 0 right before and phase 1 right after each callback. */
typedef void (*SchDispatchHook)(uint64_t context, uint32_t phase);

/*
 * Creates a scheduler with the BFS policy on an epoll descriptor of epoll_create(2).
 * epSize: 1..4096, the largest number of events fetched by one wait.
 * Threads: any, but not two at once for one descriptor. Owner: the caller, until XEL_SchDestroy;
 * the epoll descriptor stays the caller's.
 * Returns: the scheduler, or null: descriptor or size out of range, a descriptor that has a
 * scheduler already, no memory.
 */
XEL_API SchCtrl* XEL_SchCreate(uint32_t epFd, uint32_t epSize);

/*
 * As XEL_SchCreate, with other epoll operations, and with any policy, or none (null): without a
 * policy a cycle runs every ready event in the order in which epoll reported it.
 */
XEL_API SchCtrl* SCH_CreateSch(int32_t epFd, int32_t epSize, const SchEpollOps* epollOps,
                               const SchPolicyOps* policyOps);

/*
 * Destroys a scheduler. A thread that is inside its dispatch cycle is woken and leaves first.
 * Tasks still registered on the epoll instance and the epoll descriptor are not touched.
 * Threads: any that is not inside a callback of this scheduler. Blocks: until the running cycle,
 * callbacks included, has ended.
 * A null, damaged or destroyed handle, and a wake-up that cannot be made, are logged; then the
 * scheduler stays usable.
 */
XEL_API void XEL_SchDestroy(SchCtrl* sch);

/*
 * Runs one dispatch cycle: waits for readiness (without time-out, unless work is queued), orders
 * it, runs what the policy selects. Every failure is counted, logged and followed by one second of
 * sleep, so that a loop on a broken scheduler does not spin.
 * Threads: one at a time per scheduler; a second one is refused with a log line and the sleep.
 * Blocks: in epoll, and for the callbacks.
 * A caller that asks the epoll descriptor itself whether to dispatch (it is nested in another loop)
 * dispatches also while events are queued: those do not always keep the descriptor readable.
 */
XEL_API void XEL_SchDispatch(SchCtrl* sch);

/* As XEL_SchDispatch, with a hook around each callback; sch must not be null. */
XEL_API void SCH_DispatchWithDeadloop(SchCtrl* sch, uint64_t context, SchDispatchHook hook);

/*
 * Binds a task to the scheduler without touching epoll, for callers that register the descriptor
 * themselves (epoll data = the task handle). Binding twice records the binding twice.
 * Threads: any.
 * Returns: 0; 22 for an invalid scheduler or task; 12 no memory; 0xFFFFFFFF a damaged task.
 */
XEL_API uint32_t XEL_TaskAdd(SchCtrl* sch, SchTaskCtrl* task);

/* Undoes XEL_TaskAdd, all bindings at once. Threads: any. Returns: 0; 22 as XEL_TaskAdd. */
XEL_API uint32_t XEL_TaskDel(SchCtrl* sch, SchTaskCtrl* task);

/*
 * Add: creates the task of fd, binds it and registers fd on the epoll instance, edge- or
 * level-triggered as req->events says. Modify: changes the task's attributes; req->events is
 * ignored and the registration stays. Delete (req may be null): undoes the add.
 * While the task is queued in a crowded policy the library may take the registration out of the
 * ready list; it is as it was made when the callback runs, and at the latest when the scheduler is
 * destroyed. A registration that the application changes with epoll_ctl(2) is best changed in the
 * task's callback.
 * Threads: any, also callbacks of this scheduler.
 * Returns: 0; 0xFFFFFFFF for any failure (logged; steps already done are undone, except that a
 * delete of a descriptor that this epoll instance does not know leaves its task alive, unbound).
 */
XEL_API uint32_t SCH_EpollCtrl(SchCtrl* sch, uint32_t op, int32_t fd, SchEpollCtlReq* req);

/*
 * Lists the events that the policy of the scheduler on epFd has queued.
 * *count: room in records on entry, number filled on return (0 without a policy).
 * Threads: any, beside a dispatch cycle as well.
 * Returns: 0; 0xFFFFFFFF no scheduler on epFd.
 */
XEL_API uint32_t SCH_GetTasksEventCache(uint32_t epFd, SchEventCacheInfo* records, uint32_t* count);

/*
 * Registers a function that the first creation of a scheduler calls; a non-zero result makes that
 * creation fail. The first registration wins, later ones are ignored. Threads: any.
 */
XEL_API void SCH_RegisterCmdDbgInitHook(uint32_t (*hook)(void));

/*
 * The BFS policy as the seven slots of SchPolicyOps, for SCH_CreateSch. One instance is used by one
 * cycle at a time; SCH_BfsGetEventCache and SCH_BfsGetEventLeft may run beside it.
 */
XEL_API void* SCH_BfsCreatePolicy(uint32_t size);
XEL_API void SCH_BfsDestroyPolicy(void* policy);
XEL_API uint32_t SCH_BfsResPrepare(void* policy);
XEL_API uint32_t SCH_BfsInsertEvents(void* policy, struct epoll_event* events, uint32_t count);
XEL_API uint32_t SCH_BfsSelectEvents(void* policy, struct epoll_event** out);
XEL_API uint32_t SCH_BfsGetEventCache(void* policy, SchEventCacheInfo* records, uint32_t* count);
XEL_API uint32_t SCH_BfsGetEventLeft(void* policy);
XEL_API extern const SchPolicyOps g_schBfsPolicyOps;

/* Version of the interface, of the build and of the release. */
XEL_API extern const char g_xelSchOuterVer[];
XEL_API extern const char g_xelSchInterSubVer[];
XEL_API extern const char g_xelSchMiniVer[];

XEL_EXTERN_C_END

#endif /* XEL_SCHEDULER_H */
