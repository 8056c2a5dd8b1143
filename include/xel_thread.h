/*
 * xel_thread.h - scheduler threads: a thread that owns an epoll instance and a scheduler, and
 * dispatches under the dead-loop monitor until it is destroyed.
 */
#ifndef XEL_THREAD_H
#define XEL_THREAD_H

#include "xel_types.h"

#include "xel_deadloop.h"
#include "xel_scheduler.h"

XEL_EXTERN_C_BEGIN

typedef struct XelThreadAttr XelThreadAttr;
typedef struct XelThreadCtrl XelThreadCtrl;

/* Commands of XEL_ThreadSetAttr. */
enum {
    XEL_THREAD_ATTR_NAME = 0,             /* characters, size = string length 1..15; mandatory */
    XEL_THREAD_ATTR_EP_SIZE = 1,          /* int32_t above 0 (default 32), size exactly 4 */
    XEL_THREAD_ATTR_STACK_SIZE = 2,       /* uint32_t bytes, 0 for none (default), size exactly 4 */
    XEL_THREAD_ATTR_DEADLOOP_PARAM = 3,   /* XelDeadloopThreshold, size exactly 16 */
    XEL_THREAD_ATTR_SIMPLE_THRESHOLD = 4, /* uint32_t, non-zero multiple of 10, size exactly 4 */
    XEL_THREAD_ATTR_SCHEDULE_POLICY = 5,  /* uint32_t XEL_SCH_POLICY_.., size exactly 4 */
    XEL_THREAD_ATTR_EPOLL_TYPE = 100      /* uint32_t XEL_EPOLL_TYPE_.., size exactly 4 */
};

enum { XEL_SCH_POLICY_NONE = 0, XEL_SCH_POLICY_BFS = 1 };

enum {
    XEL_EPOLL_TYPE_LINUX = 0,
    XEL_EPOLL_TYPE_MESH = 1, /* refused */
    XEL_EPOLL_TYPE_MOX = 2   /* the alternative implementation, libtzkbase.so */
};

/* Operations of XEL_ThreadCtrl. */
enum { XEL_THREAD_CTRL_ADD = 0, XEL_THREAD_CTRL_MOD = 1, XEL_THREAD_CTRL_DEL = 2 };

/* Commands of XEL_ThreadGetInfo. */
enum { XEL_THREAD_INFO_TID = 0 /* uint64_t, the pthread id */ };

/* One scheduler thread, as THREAD_GetSchDeployInfo lists it. */
typedef struct XelSchDeployInfo {
    const char* name; /* the thread record's own name: valid while the thread exists */
    uint64_t tid;
    uint32_t stackSize;
    int32_t epFd;
    uint32_t deadTicks; /* fourth word of the dead-loop threshold */
    uint32_t epSize;
} XelSchDeployInfo;

/* A descriptor, for SchCommonOperationTask. */
typedef struct XelSchCommonTask {
    uint32_t fd;
    XelThreadCtrl* thread;
    uint32_t prio;
    uint32_t type;
} XelSchCommonTask;

/*
 * Creates an attribute object: no name, stack size 0, epoll size 32, dead-loop threshold
 * {100, 100, 200, 300}, Linux epoll, BFS policy.
 * Threads: any. Owner: the caller, until XEL_ThreadDestroyAttr.
 * Returns: the object, or null without memory (silent).
 */
XEL_API XelThreadAttr* XEL_ThreadCreateAttr(void);

/*
 * Sets one attribute; on failure the object is unchanged.
 * Threads: the one that builds the object.
 * Returns: 0; 22 for null, a size of 0, an unknown command, a wrong size or a value out of range;
 * 0xFFFFFFFF for a damaged magic, a bad name or an epoll size that is not above 0.
 */
XEL_API uint32_t XEL_ThreadSetAttr(XelThreadAttr* attr, int32_t cmd, const void* value,
                                   size_t size);

/* Frees an attribute object. Null and a damaged magic are logged and left alone. */
XEL_API void XEL_ThreadDestroyAttr(XelThreadAttr* attr);

/*
 * Starts a scheduler thread. Everything needed is copied out of attr. A stack size is only
 * validated: one below the system's minimum keeps the thread from dispatching.
 * Threads: any. Owner: the caller, until SchEventThreadDestory.
 * Returns: the thread, or null: attr null or without a name, an epoll instance or scheduler that
 * cannot be made, a thread that cannot be started, no memory.
 */
XEL_API XelThreadCtrl* XEL_ThreadCreate(const XelThreadAttr* attr);

/*
 * Stops a scheduler thread and frees it. Events, timers and other descriptors bound to it are not
 * released: their owners destroy them first, and a timer is gone only once its thread has ended it
 * (see XEL_TimerDestroy).
 * Threads: any but the thread itself. Blocks: until the running callback has ended, at least 10 ms;
 * for ever on a thread that failed before its first cycle (stack size, dead-loop monitor).
 * Returns: 0; 0xFFFFFFFF for an invalid handle, or when the stop cannot be signalled: then the
 * thread runs on, and the call can be repeated.
 */
XEL_API uint32_t SchEventThreadDestory(XelThreadCtrl* thread);

/*
 * Adds, modifies or deletes a descriptor on the thread's scheduler: SCH_EpollCtrl with the thread's
 * handle. Threads: any.
 * Returns: 0; 0xFFFFFFFF for an invalid thread, an operation of 3 or more, or what SCH_EpollCtrl
 * refused.
 */
XEL_API uint32_t XEL_ThreadCtrl(XelThreadCtrl* thread, uint32_t op, int32_t fd,
                                SchEpollCtlReq* request);

/*
 * Binds (any op but 2) or deletes (op 2) common->fd on common->thread. proc gets common itself as
 * user data, so common must live as long as the binding. Threads: any.
 * Returns: 0; 22 common null; 12 no memory; else what the attribute or XEL_ThreadCtrl refused.
 */
XEL_API uint32_t SchCommonOperationTask(XelSchCommonTask* common, XelTaskProc proc,
                                        const char* name, uint32_t op);

/*
 * Reads one fact about a thread: XEL_THREAD_INFO_TID (uint64_t, size exactly 8). Threads: any.
 * Returns: 0; 22 for null, an unknown command or a damaged handle; 0xFFFFFFFF for a wrong size.
 */
XEL_API uint32_t XEL_ThreadGetInfo(XelThreadCtrl* thread, uint32_t cmd, void* value, size_t size);

/*
 * The calling scheduler thread's own handle, found once XEL_ThreadCreate has listed it.
 * Returns: the handle, or null when the caller is no scheduler thread.
 */
XEL_API XelThreadCtrl* XEL_ThreadGetCtxHandle(void);

/* Writes the pthread id. thread must not be null. Returns: 0; 0xFFFFFFFF a damaged handle. */
XEL_API uint32_t THREAD_GetSchTid(XelThreadCtrl* thread, uint64_t* tid);

/*
 * Lists scheduler threads, newest first. epFdFilter: an epoll descriptor, or negative for all.
 * *count: room in array on entry (room for one record at least: a room of 0 still receives one),
 * number filled on return. Threads: any. Returns: 0 always.
 */
XEL_API uint32_t THREAD_GetSchDeployInfo(int32_t epFdFilter, XelSchDeployInfo* array,
                                         uint32_t* count);

/*
 * The epoll implementation of a scheduler thread. THREAD_EpollInit creates an epoll descriptor and
 * fills the operations; THREAD_EpollCloseFd closes it.
 * Returns: 0; 22 the mesh type; 0xFFFFFFFF the descriptor or the library is not to be had; closing
 * returns what the implementation answers.
 */
XEL_API uint32_t THREAD_EpollInit(uint32_t epollType, uint32_t epSize, int32_t* epFd,
                                  SchEpollOps* ops);
XEL_API uint32_t THREAD_EpollCloseFd(uint32_t epollType, int32_t fd);

/*
 * The alternative epoll implementation. THREAD_HookMoxEpollFunc loads libtzkbase.so and its five
 * functions once (a failed load is retried by the next call); the adapters then forward to them,
 * with the event records translated.
 * Returns: THREAD_HookMoxEpollFunc 0 or 0xFFFFFFFF; the adapters what the library answers, and
 * -1 for an operation above 2, a descriptor without a task of a valid type, or no memory.
 */
XEL_API uint32_t THREAD_HookMoxEpollFunc(void);
XEL_API int THREAD_MoxEpollCreateAdapt(void);
XEL_API int THREAD_MoxEpollCtlAdapt(int epFd, uint32_t op, int fd, struct epoll_event* event);
XEL_API int THREAD_MoxEpollWaitAdapt(int epFd, struct epoll_event* events, int maxEvents,
                                     int timeoutMs);
XEL_API int THREAD_MoxEpollErrorNoGetAdapt(void);
XEL_API int THREAD_MoxEpollCloseAdapt(int fd);

XEL_EXTERN_C_END

#endif /* XEL_THREAD_H */
