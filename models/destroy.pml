/* The destruction of a scheduler beside the thread that dispatches it.
 *
 * Mirrors: XEL_SchDestroy, LockOutDispatcher, FinishDestroy, SchCtrlDestroy, SchGetSchHandleByEpFd,
 * SchMatchSchHandleWithEpFd, SchGetPolicyHandleBySchHandle (scheduler/xel_scheduler.cpp);
 * SchInnerEventCreate, InnerEventNotify, InnerEventRepeat, SchInnerEventProc
 * (scheduler/xel_sch_inner_event.cpp); SchCycle, SchReadGuard, RegistryLock, WaitForCycle
 * (scheduler/xel_sch_hold.cpp); DispatchLocked, RunCycle, SchEventsGet
 * (scheduler/xel_sch_dispatch.cpp); the lock through rwlock.inc.
 *
 * One scheduler; its dispatcher, whose callbacks look the scheduler up by its descriptor (as
 * SCH_GetTasksEventCache does) or fetch its policy (as XEL_TaskAdd does) or do neither; a
 * destroyer. With -DPOLICY the scheduler has a policy: then the inner event ends the wait, but is
 * dropped instead of run, so nobody reads it. With -DTWO there are two destroyers, with -DOUTSIDER
 * there is one more thread that does what the callbacks do.
 *
 * Holds: the scheduler is destroyed exactly once, nobody looks at the table or the record while it
 * changes, nobody is stuck. With -DLIVE: everybody comes to the end, the dispatcher included.
 *
 * WITHOUT_SECOND_WRITE     the inner event is written once only, before the gate is closed
 * WITHOUT_OWN_CYCLE        a callback takes its scheduler's lock again
 * WITHOUT_WAITED_FOR       a callback waits for the registry lock like everybody else
 * WITHOUT_SECOND_CHECK     a destroyer does not look at the magic again under the locks
 * WITHOUT_WAKE_UP          no inner event at all: the destroyer only closes the gate
 */
#include "rwlock.inc"

#ifdef TWO
#define DESTROYERS 2
#else
#define DESTROYERS 1
#endif
#ifdef OUTSIDER
#define OUTSIDERS 1
#else
#define OUTSIDERS 0
#endif
#define WAKE_UPS 3           /* kWakeUps: what one write adds to the semaphore */
#define YIELDS_BEFORE_NAP 1  /* kYieldsBeforeNap, cut down */
#ifdef TWO
#define USER_EVENTS 1        /* of the application */
#else
#define USER_EVENTS 2
#endif

Rwlock lock;                 /* SchCtrl::lock */
bool magic = true;           /* SchCtrl::magic */
byte destroyed = 0;
bool changing = false;       /* somebody changes the registry's table or the record */

byte registryReaders = 0;    /* g_xelSchRunCtrl.lock, a lock of the C library */
bool registryWriter = false;
bool waitedFor = false;      /* g_waitedFor: this scheduler, or none */

bool innerAdded[2]; /* the destroyer's eventfd is on the epoll instance */
byte innerCount[2]; /* its value */
byte userReady = 0;          /* wake-ups of the application's own descriptor */

byte done = 0;

#define INNER_READY(d) (innerAdded[d] && innerCount[d] > 0)
#define EPOLL_READY (userReady > 0 || INNER_READY(0) || INNER_READY(1))

inline RegistryReadLock()
{
    atomic { !registryWriter -> registryReaders++ }
}

inline RegistryReadUnlock()
{
    registryReaders--
}

inline WriteInner(d)
{
    if
    :: innerCount[d] <= WAKE_UPS -> innerCount[d] = innerCount[d] + WAKE_UPS
    :: else -> skip /* plenty of wake-ups are unread: more change nothing */
    fi
}

/* RegistryLock::TakeInsideCycle for reading; owner: a local bool of the caller. */
inline RegistryReadLockInsideCycle(owner)
{
#ifdef WITHOUT_WAITED_FOR
    RegistryReadLock();
    owner = true
#else
    do
    :: atomic { !registryWriter -> registryReaders++; owner = true; break }
    :: registryWriter ->
        if
        :: waitedFor -> owner = false; break
        :: else -> (waitedFor || !registryWriter)
        fi
    od
#endif
}

/* SchReadGuard around a look at the record; inside a cycle the lock is held already. */
inline LookAtRecord(insideCycle, seen)
{
    if
    :: !insideCycle -> ReadLock(lock, seen)
    :: else -> skip
    fi;
    assert(!changing);
    if
    :: !insideCycle -> ReadUnlock(lock)
    :: else -> skip
    fi
}

#ifdef WITHOUT_OWN_CYCLE
#define INSIDE_CYCLE false
#else
#define INSIDE_CYCLE true
#endif

inline Callback()
{
    userReady--;
    if
    :: true ->
       RegistryReadLockInsideCycle(owner);
       assert(!changing);
       if
       :: magic -> LookAtRecord(INSIDE_CYCLE, seen)
       :: else -> skip
       fi;
       if
       :: owner -> RegistryReadUnlock()
       :: else -> skip
       fi
    :: true ->
       assert(magic);
       LookAtRecord(INSIDE_CYCLE, seen)
    :: true -> skip
    fi
}

/* One read takes one wake-up of the semaphore. */
inline RunInner(d)
{
    if
    :: ready[d] ->
#ifndef POLICY
        if
        :: innerCount[d] > 0 -> innerCount[d] = innerCount[d] - 1; count++
        :: else -> count++
        fi;
#endif
        ready[d] = false
    :: else -> skip
    fi
}

proctype Dispatcher()
{
    short seen;
    bool owner;
    bool mayBlock = true; /* SchCtrl::state, bit 0x2 */
    bool ready[2];
    bool userRuns;
    byte count;

    do
    :: ReadLock(lock, seen);
       if
       :: !magic -> ReadUnlock(lock); break
       :: else -> skip
       fi;
       /* The wait: for ever, or not at all. */
       if
       :: mayBlock -> (EPOLL_READY)
       :: else -> skip
       fi;
       atomic {
           userRuns = (userReady > 0);
           ready[0] = INNER_READY(0);
           ready[1] = INNER_READY(1);
           count = 0
       };
       if
       :: userRuns -> count++; Callback(); atomic { userRuns = false; owner = false }
       :: else -> skip
       fi;
       RunInner(0);
       RunInner(1);
       atomic { mayBlock = (count == 0); count = 0 };
       ReadUnlock(lock)
    od;
    done++
}

/* What a destroyer does each time it has to wait for the cycle. */
inline Idle(d)
{
#ifdef WITHOUT_SECOND_WRITE
    skip
#else
    if
    :: yields < YIELDS_BEFORE_NAP -> yields++
    :: else -> WriteInner(d)
    fi
#endif
}

inline LockOutDispatcher(d)
{
    waitedFor = true;
    atomic { lock.gate == OPEN -> lock.gate = CLOSED };
    do
    :: lock.count != 0 -> Idle(d)
    :: lock.count == 0 ->
        if
        :: atomic { lock.count == 0 -> lock.count = WRITER_INSIDE; break }
        :: else -> skip
        fi
    od;
    waitedFor = false
}

inline FinishDestroy(d)
{
    innerAdded[d] = false;
    if
#ifndef WITHOUT_SECOND_CHECK
    :: !magic -> skip
#endif
    :: else ->
        changing = true;
        magic = false;
        destroyed++;
        assert(destroyed == 1);
        changing = false
    fi
}

proctype Destroyer(byte d)
{
    byte yields = 0;
    if
    :: magic ->
#ifndef WITHOUT_WAKE_UP
        atomic { innerCount[d] = 0; innerAdded[d] = true };
#endif
        atomic { registryReaders == 0 && !registryWriter -> registryWriter = true };
        WriteInner(d);
        LockOutDispatcher(d);
        FinishDestroy(d);
        WriteUnlock(lock);
        registryWriter = false
    :: else -> skip
    fi;
    done++
}

/* Another thread that looks the scheduler up, or binds a task to it. */
proctype Outsider()
{
    short seen;
    if
    :: true ->
       RegistryReadLock();
       assert(!changing);
       if
       :: magic -> LookAtRecord(false, seen)
       :: else -> skip
       fi;
       RegistryReadUnlock()
    :: true ->
       if
       :: magic -> LookAtRecord(false, seen)
       :: else -> skip
       fi
    fi;
    done++
}

proctype Application()
{
    byte sent = 0;
    do
    :: sent < USER_EVENTS -> atomic { userReady++; sent++ }
    :: atomic { sent = 0; done++; break }
    od
}

active proctype AtTheEnd()
{
    done == DESTROYERS + OUTSIDERS + 2;
    assert(destroyed == 1 && lock.count == 0 && lock.gate == OPEN);
    assert(registryReaders == 0 && !registryWriter && !waitedFor)
}

init
{
    atomic {
        lock.count = 0;
        lock.gate = OPEN;
        run Dispatcher();
        run Destroyer(0);
#ifdef TWO
        run Destroyer(1);
#endif
#ifdef OUTSIDER
        run Outsider();
#endif
        run Application()
    }
}

#ifdef LIVE
ltl all_end { <>(done == DESTROYERS + OUTSIDERS + 2) }
#endif
