/*
 * xel_event.h - events: an object that any thread notifies and a scheduler thread reacts to, once
 * per notification. Built on eventfd(2) in semaphore mode.
 */
#ifndef XEL_EVENT_H
#define XEL_EVENT_H

#include "xel_types.h"

#include "xel_thread.h"

XEL_EXTERN_C_BEGIN

typedef struct XelEventAttr XelEventAttr;
typedef struct XelEventNode XelEventNode;

/* Runs on the event's scheduler thread. Returns: 0 for success; anything else is logged. */
typedef uint32_t (*XelEventProc)(uint64_t data);

/* Value of XEL_EVENT_ATTR_PROC_INFO: 16 bytes. */
typedef struct XelEventUsrCb {
    XelEventProc proc; /* must not be null */
    uint64_t data;     /* handed back to proc */
} XelEventUsrCb;

/* Commands of XEL_EventSetAttr. */
enum {
    XEL_EVENT_ATTR_PROC_INFO = 0, /* XelEventUsrCb, size exactly 16 */
    XEL_EVENT_ATTR_TASK_NAME = 1  /* characters, size = string length 0..15; empty erases */
};

/*
 * Creates an attribute object without a callback and with an empty name.
 * Threads: any. Owner: the caller, until XEL_EventDestoryAttr.
 * Returns: the object, or null without memory (silent).
 */
XEL_API XelEventAttr* XEL_EventCreateAttr(void);

/*
 * Sets one attribute; on failure the object is unchanged.
 * Threads: the one that builds the object.
 * Returns: 0; 2 for null, a damaged magic, an unknown command, a wrong size, a null callback or a
 * name that does not fit; 0xFFFFFFFF the name cannot be copied.
 */
XEL_API uint32_t XEL_EventSetAttr(XelEventAttr* attr, uint32_t cmd, const void* value, size_t size);

/* Frees an attribute object. Null and a damaged magic are logged and left alone. */
XEL_API void XEL_EventDestoryAttr(XelEventAttr* attr);

/*
 * Creates an event on a scheduler thread. Its task has schedule type 0 and priority 1.
 * Threads: any. Owner: the caller, until XEL_EventDestroy, before the thread is destroyed.
 * Returns: the event, or null: null or damaged arguments, no callback, no descriptor or memory.
 */
XEL_API XelEventNode* XEL_EventCreate(XelThreadCtrl* thread, const XelEventAttr* attr);

/*
 * Signals the event: its callback runs once more. One eventfd_write(3), no lock, no allocation.
 * Threads: any, also callbacks; not beside or after XEL_EventDestroy of the same event.
 * Blocks: no.
 * Returns: 0; 2 null or damaged handle; 0xFFFFFFFF a negative descriptor (silent), or a failed
 * write (a saturated counter included).
 */
XEL_API uint32_t XEL_EventNotify(XelEventNode* event);

/*
 * Destroys an event; notifications that have not run yet are dropped. A callback that is running
 * goes on with its own copy. A second destroy is refused by a look at the list of live events.
 * Threads: any, also the event's own callback.
 */
XEL_API void XEL_EventDestroy(XelEventNode* event);

/*
 * Creates an event in one call: attribute, event, attribute destroyed.
 * name: at most 15 characters. Returns: the event, or null.
 */
XEL_API XelEventNode* XelEventInnerCreate(XelThreadCtrl* thread, XelEventProc proc,
                                          const char* name, uint64_t data);

XEL_EXTERN_C_END

#endif /* XEL_EVENT_H */
