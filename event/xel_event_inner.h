// Inside of the events: attribute and node records, the list of live events, and the steps of
// creation and destruction.
//
// Lock: g_xelEventList.lock guards the list and its index. While it is held for reading a listed
// event keeps its descriptor and its memory.
#ifndef XEL_EVENT_EVENT_INNER_H
#define XEL_EVENT_EVENT_INNER_H

#include <atomic>
#include <pthread.h>
#include <sys/epoll.h>

#include "common/xel_int.h"
#include "common/xel_link.h"
#include "common/xel_log_site.h"
#include "xel_event.h"

inline constexpr LogSite kEventLog{"event/xel_event", 69};

constexpr u32 kEventAttrMagic = 0x45886FDEU;
constexpr u32 kEventMagic = 0x45687BEDU;

struct XelEventAttr {
    u32 magic;
    XelEventProc proc;
    u64 data;
    char name[XEL_NAME_SIZE];
};

struct XelEventNode {
    std::atomic<u32> magic; // read by notifiers without the lock; cleared just before the free
    u32 ownMark;            // tells the nodes that EventCreateEventNode made
    XelLink link;
    char name[XEL_NAME_SIZE];
    XelThreadCtrl* thread;
    i32 fd;
    XelEventProc proc;
    u64 data;
};
static_assert(sizeof(XelEventAttr) == 40 && sizeof(XelEventNode) == 72);

// What the callback works with once the event itself may be gone.
struct EventCopy {
    u32 magic;
    u32 ownMark;
    XelLink link;
    char name[XEL_NAME_SIZE];
    XelThreadCtrl* thread;
    i32 fd;
    XelEventProc proc;
    u64 data;
};
static_assert(sizeof(EventCopy) == sizeof(XelEventNode), "a copy has the layout of the node");

struct XelEventList {
    pthread_rwlock_t lock;
    u32 count;
    XelLink head;
};

XEL_EXTERN_C_BEGIN

XEL_API extern XelEventList g_xelEventList;

// Attributes. Each setter returns a result code and changes nothing when it fails.
XEL_API u32 EventCheckAttrParam(const XelEventAttr* attr, u32 cmd, const void* value);
XEL_API u32 EventAttrSetCb(XelEventAttr* attr, const void* value, size_t size);
XEL_API u32 EventAttrSetName(XelEventAttr* attr, const void* value, size_t size);
XEL_API u32 EventCheckEventParam(const XelThreadCtrl* thread, const XelEventAttr* attr);

// Nodes and the list of live ones.
XEL_API XelEventNode* EventCreateEventNode(XelThreadCtrl* thread, i32 fd, const XelEventAttr* attr);
XEL_API void EventDestroyEventNode(XelEventNode* node);
XEL_API XelEventNode* EventCreateEventNodeAndAddList(XelThreadCtrl* thread, i32 fd,
                                                     const XelEventAttr* attr);
XEL_API u32 EventDestroyEventNodeAndRmList(XelEventNode* node);
XEL_API u32 EventListAddNode(XelEventNode* node);
XEL_API u32 EventListDelNode(XelEventNode* node);
XEL_API bool EventIsNodeAvailable(const XelEventNode* node); // with the list lock held

// The task behind the event.
XEL_API u32 EventSetTaskAttr(XelTaskAttr* taskAttr, XelEventNode* node);
XEL_API u32 EventAddToSchThread(XelThreadCtrl* thread, XelEventNode* node);
XEL_API u32 SchEventProc(struct epoll_event* events, u64 node);
XEL_API u32 SchEventGetUserInfo(const XelEventNode* node, EventCopy* copy);

XEL_EXTERN_C_END

#endif // XEL_EVENT_EVENT_INNER_H
