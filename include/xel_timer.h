/*
 * xel_timer.h - timers on timerfd(2), one-shot or periodic, in whole milliseconds, run by a
 * scheduler thread; and timer groups with types, from which timers are created by number.
 *
 * The library owns every timer: a one-shot timer frees itself after its first expiry, any other is
 * freed after XEL_TimerDestroy, on its own scheduler thread. Every use of a handle looks it up
 * among the live timers first, so the handle of a timer that is gone is refused. Periodic timers
 * keep the phase that the kernel keeps: the expiration count tells a late callback how many periods
 * went by.
 */
#ifndef XEL_TIMER_H
#define XEL_TIMER_H

#include "xel_types.h"

#include "xel_thread.h"

XEL_EXTERN_C_BEGIN

typedef struct XelTimerAttr XelTimerAttr;
typedef struct XelTimerNode XelTimerNode;

/*
 * The timer callback, on the timer's scheduler thread. expirations: periods since the last call,
 * 1 or more. Returns: 0 for success; anything else is logged, and a periodic timer goes on.
 */
typedef uint32_t (*XelTimerProc)(XelTimerNode* timer, uint64_t expirations, void* userData);

/*
 * Releases the user data when its timer (or type) goes away. While a group or a type is destroyed
 * it runs under the group mutex: it must not call a function of groups and types.
 */
typedef void (*XelTimerDestructor)(void* userData);

/* Value of XEL_TIMER_ATTR_USR_CB: 16 bytes. */
typedef struct XelTimerUsrCb {
    XelTimerProc proc; /* must not be null */
    void* userData;
} XelTimerUsrCb;

/* Parameters of XelTimerCreateOneShotAndStart. */
typedef struct XelTimerOneShotParam {
    uint32_t timeoutMs;
    XelThreadCtrl* thread;
    XelTimerProc proc;
    void* userData;
} XelTimerOneShotParam;

enum { XEL_TIMER_MODE_ONE_SHOT = 0, XEL_TIMER_MODE_PERIODIC = 1 };

/* Commands of XEL_TimerSetAttr. */
enum {
    XEL_TIMER_ATTR_USR_CB = 0,    /* XelTimerUsrCb, size exactly 16 */
    XEL_TIMER_ATTR_MODE = 1,      /* uint32_t XEL_TIMER_MODE_.., size exactly 4 */
    XEL_TIMER_ATTR_TIMEOUT = 2,   /* uint32_t milliseconds, size exactly 4 */
    XEL_TIMER_ATTR_NAME = 3,      /* characters, size of the buffer below 16; empty erases */
    XEL_TIMER_ATTR_DESTRUCTOR = 4 /* the destructor itself is the value pointer, size exactly 8 */
};

/*
 * Creates an attribute object: one-shot, time-out 0, no callback, no name, no destructor.
 * Threads: any. Owner: the caller, until XEL_TimerDestroyAttr.
 * Returns: the object, or null without memory.
 */
XEL_API XelTimerAttr* XEL_TimerCreateAttr(void);

/*
 * Sets one attribute. Threads: the one that builds the object.
 * Returns: 0; 22 for null or an unknown command; 0xFFFFFFFF for a value that is refused.
 */
XEL_API uint32_t XEL_TimerSetAttr(XelTimerAttr* attr, uint32_t cmd, const void* value, size_t size);

/* Frees an attribute object; null and a damaged magic are logged and left alone. */
XEL_API void XEL_TimerDestroyAttr(XelTimerAttr* attr);

/*
 * Creates a timer, not yet armed. Threads: any.
 * Returns: the timer, or null: null arguments, no callback, an unknown mode, no descriptor or
 * memory.
 */
XEL_API XelTimerNode* XEL_TimerCreate(XelThreadCtrl* thread, const XelTimerAttr* attr);

/*
 * Arms the timer for its full time-out from now, also one that is running; a time-out of 0 leaves
 * it disarmed. Threads: any. Returns: 0; 22 an invalid handle; 0xFFFFFFFF it cannot be armed.
 */
XEL_API uint32_t XEL_TimerStart(XelTimerNode* timer);

/* Disarms the timer; it can be started again. Threads: any. Returns: as XEL_TimerStart. */
XEL_API uint32_t XEL_TimerStop(XelTimerNode* timer);

/*
 * Gives a periodic timer another period and arms it with that. Threads: any.
 * Returns: 0; 22 an invalid handle; 0xFFFFFFFF a one-shot timer, or it cannot be armed (the period
 * is stored all the same).
 */
XEL_API uint32_t XEL_TimerResize(XelTimerNode* timer, uint32_t timeoutMs);

/*
 * Milliseconds to the next expiry of a periodic timer. Threads: any.
 * Returns: 0; 0xFFFFFFFF an invalid handle, a one-shot timer, or a failed timerfd_gettime(2).
 */
XEL_API uint32_t TimerGetTimerRemainTime(XelTimerNode* timer, uint32_t* remainMs);

/*
 * Ends a timer: it is freed after about 1 ms on its own scheduler thread, its destructor running
 * there. From now on the handle is refused, and no expiry is taken any more; a callback whose
 * expiry was taken before still runs. The thread has to live until then: the timers of a thread
 * that is to be destroyed next are waited for in their destructors, or ended by type or group,
 * which is done when the call returns. Threads: any.
 */
XEL_API void XEL_TimerDestroy(XelTimerNode* timer);

/*
 * Sets callback, mode, time-out and name in this order. Returns: 0, or the first failing result.
 */
XEL_API uint32_t XelTimerSetAllAttr(XelTimerAttr* attr, const XelTimerUsrCb* callback,
                                    const uint32_t* mode, const uint32_t* timeoutMs,
                                    const char* name);

/* Creates and arms a one-shot timer in one call. Threads: any. Returns: the timer, or null. */
XEL_API XelTimerNode* XelTimerCreateOneShotAndStart(const XelTimerOneShotParam* param,
                                                    const char* name);

/*
 * Groups and types, by number (not 0). Creating a group that exists succeeds. Destroying a group
 * destroys its timers, then its types.
 * Threads: any. Returns: 0; 0xFFFFFFFF an id of 0, or no memory.
 */
XEL_API uint32_t XEL_TimerCreateGroup(uint32_t groupId);
XEL_API void XEL_TimerDestroyGroup(uint32_t groupId);

/*
 * Adds a type to a group: the thread and a copy of the attribute. The type owns the user data in
 * it, and releases it through the destructor when it is deleted. A type that exists is kept, and
 * the given user data is released at once.
 * Threads: any. Returns: 0; 0xFFFFFFFF an invalid argument, an unknown group, no memory.
 */
XEL_API uint32_t XEL_TimerAddTimerType(uint32_t groupId, uint32_t typeId, XelThreadCtrl* thread,
                                       const XelTimerAttr* attr);

/*
 * Destroys the timers of a type, then the type. Does not wait for a callback that is running on
 * another thread: such a timer is released when that callback has ended.
 * Threads: any. Returns: 0; 1 no such group; 2 no such type; 22 an id of 0.
 */
XEL_API uint32_t XEL_TimerDelTimerType(uint32_t groupId, uint32_t typeId);

/*
 * Creates and arms a timer of a type. userData: the timer's own, released by the type's destructor
 * when the timer goes away; null to use the type's, which stays the type's.
 * Threads: any. Returns: the timer, or null.
 */
XEL_API XelTimerNode* XEL_TimerCreateAndStart(uint32_t groupId, uint32_t typeId, void* userData);

/*
 * Copies length bytes of the type's user data into buffer. Threads: any.
 * Returns: 0; 0xFFFFFFFF no such group or type, or the copy is refused.
 */
XEL_API uint32_t TimerGetParamByGroupAndType(uint32_t groupId, uint32_t typeId, void* buffer,
                                             uint32_t length);

XEL_EXTERN_C_END

#endif /* XEL_TIMER_H */
