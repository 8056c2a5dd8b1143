/*
 * xel_queue.h - bounded first-in first-out queues of elements copied by value (libxelbase.so).
 *
 * A queue has no lock: its owner serialises all calls. All memory is taken at creation.
 */
#ifndef XEL_QUEUE_H
#define XEL_QUEUE_H

#include "xel_types.h"

XEL_EXTERN_C_BEGIN

/* Returns: a queue for capacity elements of elemSize bytes; null for a 0 or without memory. */
XEL_API void* XelQueCreate(uint32_t elemSize, uint32_t capacity);

/* Frees the queue and what it holds; null does nothing. */
XEL_API void XelQueDestroy(void* queue);

/* Copies elem in at the back. Returns: 0; 0xFFFFFFFF full or null. */
XEL_API uint32_t XelQueEnqueue(void* queue, const void* elem);

/* Moves the oldest element into out. Returns: 0; 0xFFFFFFFF empty or null (out is untouched). */
XEL_API uint32_t XelQueDequeue(void* queue, void* out);

/* Elements inside; 0 for null. */
XEL_API uint32_t XelQueGetSizeUsed(const void* queue);

/* Elements that still fit; 0 for null. */
XEL_API uint32_t XelQueGetSizeFree(const void* queue);

/*
 * The flexible queue. mode is accepted as it stands (8 is in use) and changes nothing.
 * Returns: a queue for capacity elements of elemSize bytes; null for a 0 or without memory.
 */
XEL_API void* XelFlexibleQueCreate(uint32_t elemSize, uint32_t mode, uint32_t capacity);

/* Frees the queue and what it holds; null does nothing. */
XEL_API void XelFlexibleQueDestroy(void* queue);

/* Copies elem in at the back. Returns: 0; 0xFFFFFFFF full or null. */
XEL_API uint32_t XelFlexibleQueEnqueue(void* queue, const void* elem);

/* Moves the oldest element into out. Returns: 0; 0xFFFFFFFF empty or null (out is untouched). */
XEL_API uint32_t XelFlexibleQueDequeue(void* queue, void* out);

/* Copies the oldest element into out. Returns: 0; 0xFFFFFFFF empty or null (out is untouched). */
XEL_API uint32_t XelFlexibleQueGetFront(const void* queue, void* out);

/* Elements inside; 0 for null. */
XEL_API uint32_t XelFlexibleQueGetUsedNum(const void* queue);

/* Drops every element; null does nothing. */
XEL_API void XelFlexibleQueClear(void* queue);

/* True when no element fits any more; true for null. */
XEL_API bool XelIsFlexibleQueFull(const void* queue);

/* True when there is no element; true for null. */
XEL_API bool XelIsFlexibleQueEmpty(const void* queue);

XEL_EXTERN_C_END

#endif /* XEL_QUEUE_H */
