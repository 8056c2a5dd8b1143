/* A unit of the task table that is given out again while users of the task before still come: what
 * becomes of the lock in it.
 *
 * Mirrors: SchTaskDestroy with RetireTask, SchTaskCreate with BuildTask (scheduler/xel_sch_task.cpp)
 * on one unit; RwlockOpenFresh (common/xel_lock_wait.h); the users' pattern "magic, lock, magic
 * again" of SchTaskGetFdBySchHandle (reading), SchFdModify (writing) and SchTaskGetInfoInsert (short). A scheduler's record goes
 * the same way: BuildScheduler, SchCtrlDestroy (scheduler/xel_scheduler.cpp).
 *
 * Holds: whoever has the write side is alone; a reader never sees half a task; everybody comes to
 * the end, and then the lock is free and open. The unit starts zeroed, or with a live task.
 *
 * WITHOUT_CARE     the creator overwrites the lock (count 0, gate open)
 * WITHOUT_OPENING  the creator leaves the lock of a zeroed unit closed
 * WITHOUT_SECOND_LOOK  users do not look at the magic again once they have the lock
 */
#include "rwlock.inc"

#define USERS 2

Rwlock lock;
bool magic = false;
bool init_ = false;  /* the record's own flag */
byte version = 0;
byte shadow = 0;     /* a second field of the record, always changed together with version */
byte readersIn = 0;
byte writersIn = 0;
byte done = 0;

inline EnterWrite()
{
    WriteLock(lock);
    atomic { writersIn++; assert(writersIn == 1 && readersIn == 0) }
}

inline LeaveWrite()
{
    atomic { assert(writersIn == 1 && readersIn == 0); writersIn-- };
    WriteUnlock(lock)
}

inline DestroyTask()
{
    EnterWrite();
    init_ = false;
    version = 0;
    shadow = 0;
    magic = false;
    LeaveWrite()
}

inline CreateTask(v)
{
    magic = false;
#ifdef WITHOUT_CARE
    InitLock(lock);
#else
#ifndef WITHOUT_OPENING
    OpenFresh(lock);
#endif
#endif
    EnterWrite();
    version = v;
    init_ = true;
    shadow = v;
    magic = true;
    LeaveWrite()
}

/* Creation and destruction hold the table's lock, so they come one after the other. */
proctype Owner()
{
    if
    :: magic -> DestroyTask()
    :: else -> skip
    fi;
    CreateTask(1);
    DestroyTask();
    CreateTask(2);
    done++
}

#ifdef WITHOUT_SECOND_LOOK
#define STILL_ALIVE true
#else
#define STILL_ALIVE magic
#endif

proctype ReadingUser()
{
    short seen;
    if
    :: magic ->
        ReadLock(lock, seen);
        atomic { readersIn++; assert(writersIn == 0) };
        if
        :: STILL_ALIVE -> assert(init_ && version != 0); assert(shadow == version)
        :: else -> skip
        fi;
        atomic { assert(writersIn == 0); readersIn-- };
        ReadUnlock(lock)
    :: else -> skip
    fi;
    done++
}

proctype WritingUser()
{
    if
    :: magic ->
        EnterWrite();
        if
        :: STILL_ALIVE -> assert(init_ && version != 0); assert(shadow == version)
        :: else -> skip
        fi;
        LeaveWrite()
    :: else -> skip
    fi;
    done++
}

proctype ShortUser()
{
    bool quick;
    if
    :: magic ->
        ShortWriteLock(lock, quick);
        atomic { writersIn++; assert(writersIn == 1 && readersIn == 0) };
        if
        :: STILL_ALIVE -> assert(init_ && version != 0); assert(shadow == version)
        :: else -> skip
        fi;
        atomic { assert(writersIn == 1 && readersIn == 0); writersIn-- };
        ShortWriteUnlock(lock, quick)
    :: else -> skip
    fi;
    done++
}

active proctype AtTheEnd()
{
    done == 4;
    assert(lock.count == 0 && lock.gate == OPEN && magic && version == 2)
}

init
{
    atomic {
        if
        :: lock.count = 0; lock.gate = CLOSED /* zeroed */
        :: lock.count = 0; lock.gate = OPEN; magic = true; init_ = true; version = 3; shadow = 3
        fi;
        run Owner();
        run ReadingUser();
        run WritingUser();
        run ShortUser()
    }
}
