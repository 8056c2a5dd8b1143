/*
 * xel_lock.h - locks that live inside a record: two words and one word, no system object.
 *
 * Waiting is by sched_yield, so they suit critical sections of a few instructions. They record no
 * owner, are not recursive and cannot fail. Unlocking a lock that is not held is not detected.
 */
#ifndef XEL_LOCK_H
#define XEL_LOCK_H

#include "xel_types.h"

XEL_EXTERN_C_BEGIN

/*
 * Reader-writer lock that prefers writers: once a writer has closed the gate no new reader enters,
 * and the writer waits for the readers inside to leave.
 */
typedef struct XelRwlock {
    uint32_t count; /* readers inside; 0xFFFFFFFF while a writer holds it; 0 when free */
    uint32_t gate;  /* 0xFFFFFFFF open; 0 from a writer's claim until its unlock */
} XelRwlock;

/* Mutual exclusion by spinning with sched_yield. */
typedef struct XelSpinlock {
    uint32_t word; /* 0 free, 1 held */
} XelSpinlock;

/*
 * Makes the lock free: count 0, gate 0xFFFFFFFF, then a full barrier.
 * Threads: one, before the lock is shared.
 */
XEL_API void XelRwlockInit(XelRwlock* lock);

/*
 * Takes the lock for reading unless a writer holds it or waits for it. Keeps trying while other
 * readers come and go.
 * Threads: any. Blocks: no.
 * Returns: 0 taken; 0xFFFFFFFF a writer holds the lock or waits for it.
 */
XEL_API uint32_t XelRwlockReadTryLock(XelRwlock* lock);

/*
 * Takes the lock for reading; yields the processor while a writer holds it or waits for it.
 * Threads: any that does not hold it for writing; a thread that already reads may deadlock with a
 * waiting writer. Blocks: until taken.
 */
XEL_API void XelRwlockReadLock(XelRwlock* lock);

/* Gives a read hold back (release order). Threads: the holder. Blocks: no. */
XEL_API void XelRwlockReadUnLock(XelRwlock* lock);

/*
 * Takes the lock for writing: closes the gate, then waits for the readers inside to leave.
 * Threads: any that holds it in no way. Blocks: until taken, yielding the processor.
 */
XEL_API void XelRwlockWriteLock(XelRwlock* lock);

/* Gives the write hold back (release order) and opens the gate. Threads: the holder. */
XEL_API void XelRwlockWriteUnLock(XelRwlock* lock);

/* Makes the lock free, then a full barrier. Threads: one, before the lock is shared. */
XEL_API void XelSpinlockInit(XelSpinlock* lock);

/*
 * One attempt. Note the sense: true is success here, while XelRwlockReadTryLock answers 0.
 * Threads: any. Blocks: no, and does not yield.
 * Returns: true taken; false held by someone else.
 */
XEL_API bool XelSpinlockTryLock(XelSpinlock* lock);

/* Takes the lock, yielding the processor while it is held. Threads: any but the holder. */
XEL_API void XelSpinlockLock(XelSpinlock* lock);

/* Gives the lock back: stores 0, then a full barrier. Threads: the holder. */
XEL_API void XelSpinlockUnLock(XelSpinlock* lock);

XEL_EXTERN_C_END

#endif /* XEL_LOCK_H */
