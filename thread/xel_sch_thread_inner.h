// Inside of the scheduler threads: attribute and thread records, the list of threads, and the steps
// of creation, run and destruction.
//
// Lock: g_xelThreadCtrlMng.lock guards the list of threads, and is held together with no other.
#ifndef XEL_THREAD_SCH_THREAD_INNER_H
#define XEL_THREAD_SCH_THREAD_INNER_H

#include <atomic>
#include <pthread.h>

#include "common/xel_int.h"
#include "common/xel_link.h"
#include "common/xel_log_site.h"
#include "xel_deadloop.h"
#include "xel_thread.h"

inline constexpr LogSite kThreadLog{"thread/xel_sch_thread", 79};

constexpr u32 kThreadAttrMagic = 0xFBADBFFEU;
constexpr u32 kThreadMagic = 0xFBADBFFFU;
constexpr u32 kPolicyCount = 2;
constexpr u32 kEpollTypeCount = 3;

struct XelThreadAttr {
    u32 magic;
    char name[XEL_NAME_SIZE];
    u32 stackSize;
    u32 epSize;
    XelDeadloopThreshold deadloop;
    u32 epollType;
    u32 policy;
};

struct XelThreadCtrl {
    u32 magic; // never cleared
    u32 epSize;
    char name[XEL_NAME_SIZE];
    XelLink link;
    std::atomic<u64> tid; // stored by the creator before the record is listed
    u32 stackSize;
    i32 epFd;
    std::atomic<u64> exitValue; // stored by the destroy event's callback, read by the same thread
    std::atomic<u32> exited;    // stored last by the thread (release), polled by the destroyer
    std::atomic<i32> destroyFd; // stored by the destroyer before its task can run
    SchCtrl* sch;
    XelDeadloopThreshold deadloop;
    u32 epollType;
    u32 policy;
};
static_assert(sizeof(XelThreadAttr) == 52 && sizeof(XelThreadCtrl) == 104);

struct XelThreadCtrlMng {
    pthread_rwlock_t lock;
    u32 count; // counted down also for records that were never listed; nothing reads it
    XelLink head;
};

XEL_EXTERN_C_BEGIN

XEL_API extern XelThreadCtrlMng g_xelThreadCtrlMng;

// Attributes. Each setter returns a result code and changes nothing when it fails.
XEL_API u32 SchCheckThreadAttrParam(const XelThreadAttr* attr, u32 cmd, const void* value,
                                    size_t size);
XEL_API u32 ThreadAttrSetName(XelThreadAttr* attr, const void* value, size_t size);
XEL_API u32 ThreadAttrSetEpSize(XelThreadAttr* attr, const void* value, size_t size);
XEL_API u32 ThreadAttrSetStackSize(XelThreadAttr* attr, const void* value, size_t size);
XEL_API u32 ThreadAttrSetDeadloopParam(XelThreadAttr* attr, const void* value, size_t size);
XEL_API u32 ThreadAttrSetSimpleThreshold(XelThreadAttr* attr, const void* value, size_t size);
XEL_API u32 ThreadAttrSetSchedulePolicy(XelThreadAttr* attr, const void* value, size_t size);
XEL_API u32 ThreadAttrSetEpollType(XelThreadAttr* attr, const void* value, size_t size);

// Creation.
XEL_API u32 ThreadCtrlInit(XelThreadCtrl* ctrl, const XelThreadAttr* attr);
XEL_API u32 SchThreadCtrlCreate(u32 epSize, XelThreadCtrl* ctrl);
XEL_API u32 SchThreadInitPolicy(u32 policy, SchPolicyOps* ops);
XEL_API u32 SchThreadInitBfsPolicy(SchPolicyOps* ops);
XEL_API void ThreadAddCtrlNode(XelThreadCtrl* ctrl);
XEL_API void ThreadRmCtrlNode(XelThreadCtrl* ctrl);

// The thread itself.
XEL_API void* SchThread(void* ctrl);
XEL_API u32 ThreadSetStackSize(u32 stackSize);
XEL_API void SchThreadDeadloopMon(u64 monitorId, u32 phase);
XEL_API u32 ThreadEventFdProc(struct epoll_event* events, u64 ctrl);

// Destruction.
XEL_API u32 SchThreadSetTaskAttr(XelTaskAttr* taskAttr, XelThreadCtrl* ctrl);
XEL_API u32 SchThreadAddDestroyEventInSch(XelThreadCtrl* ctrl, i32 fd);
XEL_API u32 SchThreadTriggerDestroyEvent(XelThreadCtrl* ctrl);
XEL_API void SchThreadCtrlFree(XelThreadCtrl* ctrl);

// Queries.
XEL_API SchCtrl* SchGetHandle(XelThreadCtrl* thread);
XEL_API u32 ThreadInfoGetTid(XelThreadCtrl* thread, void* value, size_t size);

// Epoll of the kernel and of the alternative implementation.
XEL_API u32 ThreadLinuxEpollInit(u32 epSize, i32* epFd, SchEpollOps* ops);
XEL_API u32 ThreadMoxEpollInit(u32 epSize, i32* epFd, SchEpollOps* ops);

XEL_EXTERN_C_END

// False when the caller is a scheduler thread, but not this one. An object that belongs to thread
// may have taken the memory of one that a late run on the caller's thread is meant for.
bool ThreadMayRunHere(const XelThreadCtrl* thread);

#endif // XEL_THREAD_SCH_THREAD_INNER_H
