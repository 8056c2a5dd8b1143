// Inside of the timers: attribute and node records, groups and types, the control block, and the
// steps of creation, expiry and destruction.
//
// Locks: the timer lock guards the list of timers and every handle check; the group mutex guards
// groups and types. Order: group mutex, then timer lock.
#ifndef XEL_TIMER_TIMER_INNER_H
#define XEL_TIMER_TIMER_INNER_H

#include <atomic>
#include <pthread.h>
#include <sys/epoll.h>

#include "common/xel_int.h"
#include "common/xel_link.h"
#include "common/xel_log_site.h"
#include "xel_timer.h"

inline constexpr LogSite kTimerLog{"timer/xel_timer", 69};

constexpr u32 kTimerAttrMagic = 0xABCDEFAAU;
constexpr u32 kTimerMagic = 0xABCDEFABU;
constexpr u32 kTimerModeCount = 2;
constexpr u32 kTimerPending = 1;

struct XelTimerAttr {
    u32 magic;
    XelTimerProc callback;
    void* userData;
    u32 mode;
    u32 timeout; // milliseconds
    char name[XEL_NAME_SIZE];
    XelTimerDestructor destructor;
};

struct XelTimerNode {
    std::atomic<u32> magic;
    XelLink link;
    XelTimerProc callback;
    void* userData;
    i32 fd;
    XelThreadCtrl* thread;
    u32 mode;
    std::atomic<u32> timeout; // milliseconds of the next start; changed under the read side
    u32 groupId;
    u32 typeId;
    XelTimerDestructor destructor;
    std::atomic<u32> destroyPending; // set under the read side, seen by the timer's own thread
};
static_assert(sizeof(XelTimerAttr) == 56 && sizeof(XelTimerNode) == 88);

struct XelTimerType {
    XelLink link;
    u32 typeId;
    XelThreadCtrl* thread;
    XelTimerAttr attr;
};

struct XelTimerGroup {
    XelLink link;
    u32 groupId;
    u32 typeCount;
    XelLink typeList;
};

struct XelTimerCtrl {
    u32 timerCount;
    XelLink timerList;
    pthread_rwlock_t timerLock;
    u32 groupCount;
    XelLink groupList;
    pthread_mutex_t groupMutex;
};

// Says which timers a destruction by type or group is about.
using TimerMatch = bool (*)(const XelTimerNode* node, u32 groupId, u32 typeId);

XEL_EXTERN_C_BEGIN

XEL_API extern XelTimerCtrl g_xelTimerCtrl;

// Attributes. Each setter returns a result code and changes nothing when it fails.
XEL_API u32 TimerAttrSetCb(XelTimerAttr* attr, const void* value, size_t size);
XEL_API u32 TimerAttrSetMode(XelTimerAttr* attr, const void* value, size_t size);
XEL_API u32 TimerAttrSetTimeout(XelTimerAttr* attr, const void* value, size_t size);
XEL_API u32 TimerAttrSetName(XelTimerAttr* attr, const void* value, size_t size);
XEL_API u32 TimerAttrSetDestructor(XelTimerAttr* attr, const void* value, size_t size);

// Creation.
XEL_API bool TimerIsInParamLegal(const XelThreadCtrl* thread, const XelTimerAttr* attr);
XEL_API XelTimerNode* TimerCreateNode(XelThreadCtrl* thread, const XelTimerAttr* attr);
XEL_API XelTimerNode* TimerSchTaskCreate(XelThreadCtrl* thread, const XelTimerAttr* attr, i32 fd);
XEL_API u32 TimerSetTaskAttr(XelTaskAttr* taskAttr, XelTimerNode* node, const char* name,
                             size_t nameLength);
XEL_API XelTimerNode* TimerInnerCreateAndStart(XelThreadCtrl* thread, const XelTimerUsrCb* callback,
                                               u32 mode, u32 timeoutMs, const char* name);

// The list of live timers. The checks are made with the timer lock held.
XEL_API void TimerAddNode(XelTimerNode* node);
XEL_API u32 TimerDelNode(XelTimerNode* node);
XEL_API bool TimerIsNodeInList(const XelTimerNode* node);
XEL_API bool TimerIsHandleLegal(const XelTimerNode* node);
XEL_API bool TimerHandleIsAvailable(const XelTimerNode* node);

// Arming, expiry, end.
XEL_API i32 TimerSetStartTime(XelTimerNode* node, u32 timeoutMs);
XEL_API u32 TimerFdEventProc(struct epoll_event* events, u64 node);
XEL_API void InnerTimerDestroy(XelTimerNode* node);

// Groups and types, with the group mutex held.
XEL_API XelTimerGroup* TimerGetGroupByGroupId(u32 groupId);
XEL_API XelTimerType* TimerGetTypeByTypeId(XelTimerGroup* group, u32 typeId);
XEL_API XelTimerType* TimerGetTimerTypeNode(u32 groupId, u32 typeId);
XEL_API XelTimerType* TimerFindOrAddTimerType(XelTimerGroup* group, u32 typeId,
                                              XelThreadCtrl* thread, const XelTimerAttr* attr);
XEL_API u32 TimerCheckParam(u32 groupId, u32 typeId, const XelThreadCtrl* thread,
                            const XelTimerAttr* attr);
XEL_API XelTimerNode* TimerCreateAndStart(u32 groupId, u32 typeId, void* userData);
XEL_API void TimerCommonDestroyTimer(u32 groupId, u32 typeId, TimerMatch match);
XEL_API void TimerDestroyTypeTimer(u32 groupId, u32 typeId);
XEL_API void TimerDestroyGroupTimer(u32 groupId);
XEL_API bool TimerDestroyTimerTypeMatch(const XelTimerNode* node, u32 groupId, u32 typeId);
XEL_API bool TimerDestroyTimerGroupMatch(const XelTimerNode* node, u32 groupId, u32 typeId);

XEL_EXTERN_C_END

#endif // XEL_TIMER_TIMER_INNER_H
