/*
 * xel_msgque_light.h - the light message queue: a bounded queue of equal-sized elements, copied by
 * value, whose consumer is woken on a scheduler thread once per element written.
 *
 * The handle carries no magic and is not checked: it is good from creation to destruction, and null
 * is not allowed.
 */
#ifndef XEL_MSGQUE_LIGHT_H
#define XEL_MSGQUE_LIGHT_H

#include "xel_types.h"

#include "xel_event.h"

XEL_EXTERN_C_BEGIN

typedef struct XelLightMq XelLightMq;

/* Read during creation only. */
typedef struct XelLightMqConfig {
    uint32_t capacity;        /* elements */
    uint32_t elemSize;        /* bytes */
    char name[XEL_NAME_SIZE]; /* of the event and its task */
    XelEventProc callback;    /* called once per notification, on the scheduler thread */
    uint64_t userData;        /* handed to callback */
} XelLightMqConfig;

/*
 * Creates a queue on a scheduler thread. No failure is logged here.
 * Threads: any. Owner: the caller, until XelLightMqDestroy, before the thread is destroyed.
 * Returns: the queue, or null.
 */
XEL_API XelLightMq* XelLightMqCreate(XelThreadCtrl* thread, const XelLightMqConfig* config);

/* Destroys a queue; elements inside are dropped. No other thread may use it any more. */
XEL_API void XelLightMqDestroy(XelLightMq* queue);

/*
 * Copies one element in and wakes the consumer once.
 * Threads: any. Blocks: for the queue's mutex.
 * Returns: 0; the queue's error when it is full (nothing is written); the event's error when the
 * wake-up failed (the element stays queued); 0xFFFFFFFF the mutex failed.
 */
XEL_API uint32_t XelLightMqWrite(XelLightMq* queue, const void* element);

/*
 * Moves (read) or copies (front) the oldest element into buffer. Does not touch the event.
 * Threads: any. Returns: 0; the queue's error when it is empty; 0xFFFFFFFF the mutex failed.
 */
XEL_API uint32_t XelLightMqRead(XelLightMq* queue, void* buffer);
XEL_API uint32_t XelLightMqGetFront(XelLightMq* queue, void* buffer);

/* Drops every element; wake-ups that are under way still come. Threads: any. */
XEL_API void XelLightMqClear(XelLightMq* queue);

/* A queue whose mutex fails counts as full and as empty. Threads: any. */
XEL_API bool XelLightMqIsFull(XelLightMq* queue);
XEL_API bool XelLightMqIsEmpty(XelLightMq* queue);

/* Elements inside, or 0xFFFFFFFF when the mutex failed. Threads: any. */
XEL_API uint32_t XelLightMqGetUsedNum(XelLightMq* queue);

/* Wakes the consumer once more when the queue is not empty. Threads: any. */
XEL_API void XelLightMqNotify(XelLightMq* queue);

XEL_EXTERN_C_END

#endif /* XEL_MSGQUE_LIGHT_H */
