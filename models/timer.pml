/* The end of a timer beside everything that may happen to it at that moment.
 *
 * Mirrors: ArmUnlessEnding, XEL_TimerStart, XEL_TimerStop, XEL_TimerResize, XEL_TimerDestroy,
 * TimerFdEventProc, InnerTimerDestroy (timer/xel_timer.cpp); TimerRun, TimerLeaveToRun,
 * TimerReleaseUnlessRunning, TimerReleaseNode, TimerDelNode, TimerCommonDestroyTimer
 * (timer/xel_timer_list.cpp); SchTaskBeginRun (scheduler/xel_sch_task_query.cpp).
 *
 * One timer, one-shot or periodic; its scheduler thread; a caller that starts, stops or resizes it;
 * a caller of XEL_TimerDestroy; with -DGROUP a caller that destroys its group. The user callback may
 * itself stop or destroy the timer or (-DGROUP) destroy the group.
 *
 * The timerfd is disarmed, armed for long (it may expire, once) or armed for the 1 ms of a
 * timer that ends (it will expire).
 *
 * Holds: the memory and the descriptor are used by nobody after they were given back; they are given
 * back at most once; a timer that was to end is given back without waiting for a long expiry; nobody
 * is stuck.
 *
 * With -DADDRESS_AGAIN another thread creates a timer as soon as the memory is free and gets the same
 * address: then the end of the old timer's run does not end the new one. (What a run does that
 * begins with the old timer's copied address once the new timer is there is not followed.)
 *
 * WITHOUT_ARMING_AGAIN   start, stop and resize do not look for an end that overtook them
 * WITHOUT_FLAG_FIRST     XEL_TimerDestroy arms the 1 ms first and marks the timer after that
 * WITHOUT_LEAVING        the destroyer of the group gives the memory back beside the run
 * WITHOUT_RUN_LOOK       the run does not look the timer up in the list
 * WITHOUT_MEMORY_KEPT    a run gives its hold of the memory back before it ends the timer
 * WITHOUT_ARMING_LOCKED  start, stop and resize give the timer lock back before they arm
 */
#define NOT_ARMED 0
#define LONG 1
#define SHORT 2

byte armed = NOT_ARMED;
bool expired = false;   /* the timerfd is readable */
bool periodic;
byte longExpiries = 0;
bool fdOpen = true;
bool taskAlive = true;
byte freed = 0;

byte lockReaders = 0;   /* g_xelTimerCtrl.timerLock */
bool lockWriter = false;
bool known = true;      /* in the index: from its allocation until its release is decided */
bool listed = true;     /* isListed */
byte runs = 0;          /* runs in progress */
bool isLeft = false;
bool pending = false;   /* destroyPending */
byte timeout_ = LONG;   /* the node's time-out */
bool toEnd = false;     /* somebody was told that the timer ends */

bool isNew = false;     /* the listed timer is another one, at the same address */

byte done = 0;

inline UseMemory()
{
    assert(freed == 0)
}

inline TimerReadLock()
{
    atomic { !lockWriter -> lockReaders++ }
}

inline TimerWriteLock()
{
    atomic { !lockWriter && lockReaders == 0 -> lockWriter = true }
}

/* timerfd_settime forgets expiries that were not read. */
inline SetTime(value)
{
    atomic { UseMemory(); assert(fdOpen); armed = value; expired = false }
}

inline ReleaseNode()
{
    atomic { UseMemory(); assert(fdOpen); fdOpen = false; armed = NOT_ARMED; expired = false };
    atomic { freed++; assert(freed == 1) }
}

inline ArmUnlessEnding(value)
{
    SetTime(value);
#ifndef WITHOUT_ARMING_AGAIN
    UseMemory();
    if
    :: pending -> SetTime(SHORT)
    :: else -> skip
    fi
#endif
}

inline StartOrStop()
{
    TimerReadLock();
    if
    :: !known || !listed || isNew -> lockReaders--
    :: else ->
        UseMemory();
        if
        :: pending -> lockReaders--
        :: else ->
#ifdef WITHOUT_ARMING_LOCKED
            lockReaders--;
#endif
            if
            :: ArmUnlessEnding(timeout_)
            :: ArmUnlessEnding(NOT_ARMED)
            :: periodic -> timeout_ = LONG; ArmUnlessEnding(LONG)
            fi;
#ifndef WITHOUT_ARMING_LOCKED
            lockReaders--
#else
            skip
#endif
        fi
    fi
}

inline TimerDestroy()
{
    TimerReadLock();
    if
    :: !known || !listed || isNew -> lockReaders--
    :: else ->
        UseMemory();
        if
        :: pending -> lockReaders--
        :: else ->
            timeout_ = SHORT;
#ifdef WITHOUT_FLAG_FIRST
            SetTime(SHORT);
            pending = true;
#else
            pending = true;
            SetTime(SHORT);
#endif
            toEnd = true;
            lockReaders--
        fi
    fi
}

/* mine: a local bool of the caller. */
inline GroupDestroy(mine)
{
    TimerWriteLock();
    if
    :: !listed || isNew -> lockWriter = false
    :: else ->
        UseMemory();
        taskAlive = false;
        listed = false;
        toEnd = true;
        known = false;
#ifdef WITHOUT_LEAVING
        mine = true;
#else
        if
        :: runs > 0 -> isLeft = true
        :: else -> mine = true
        fi;
#endif
        lockWriter = false;
        if
        :: mine -> ReleaseNode()
        :: else -> skip
        fi;
        mine = false
    fi
}

inline RunBegin()
{
    TimerReadLock();
#ifdef WITHOUT_RUN_LOOK
    UseMemory();
    runs++;
    live = true;
#else
    if
    :: known && !isNew -> UseMemory(); runs++; live = true
    :: else -> skip
    fi;
#endif
    lockReaders--
}

inline RunEnd()
{
    if
    :: live ->
        live = false;
        TimerReadLock();
        UseMemory();
        atomic { left = (runs == 1 && isLeft); runs-- };
        lockReaders--;
        if
        :: left -> ReleaseNode()
        :: else -> skip
        fi;
        left = false
    :: else -> skip
    fi
}

inline InnerTimerDestroy()
{
    TimerWriteLock();
    if
    :: !known || !listed -> lockWriter = false
    :: else ->
        assert(!isNew);
        UseMemory();
        listed = false;
        lockWriter = false;
        UseMemory();
        taskAlive = false;
        TimerWriteLock();
        UseMemory();
        known = false;
        if
        :: runs > 0 -> isLeft = true; lockWriter = false
        :: else -> lockWriter = false; ReleaseNode()
        fi
    fi
}

inline EndInsideRun()
{
#ifdef WITHOUT_MEMORY_KEPT
    RunEnd();
    InnerTimerDestroy()
#else
    InnerTimerDestroy();
    RunEnd()
#endif
}

inline UserCallback()
{
    UseMemory(); /* the timer is handed to the callback */
    if
    :: true -> skip
    :: true -> StartOrStop()
    :: true -> TimerDestroy()
#ifdef GROUP
    :: true -> GroupDestroy(mine)
#endif
    fi
}

proctype SchedulerThread()
{
    bool live;
    bool left;
    bool got;
    bool mine;
end_wait:
    do
    :: expired && taskAlive -> /* reported, queued, selected */
        if
        :: !taskAlive -> skip
        :: taskAlive -> /* the callback and the node's address are copied under the task's lock */
            RunBegin();
            if
            :: live ->
                UseMemory(); /* the magic */
                if
                :: pending -> EndInsideRun()
                :: else ->
                    atomic { UseMemory(); assert(fdOpen); got = expired; expired = false };
                    if
                    :: got ->
                        UserCallback();
                        UseMemory();
                        if
                        :: !periodic -> toEnd = true; EndInsideRun()
                        :: else -> skip
                        fi
                    :: else -> skip /* EAGAIN */
                    fi;
                    got = false;
                    RunEnd()
                fi
            :: else -> skip
            fi
        fi
    od
}

active proctype Kernel()
{
end_wait:
    do
    :: atomic {
           armed == SHORT && !expired -> expired = true;
           if
           :: !periodic -> armed = NOT_ARMED
           :: else -> skip
           fi
       }
    :: atomic {
           armed == LONG && !expired && longExpiries < 1 -> expired = true; longExpiries++;
           if
           :: !periodic -> armed = NOT_ARMED
           :: else -> skip
           fi
       }
    :: longExpiries < 1 -> longExpiries++ /* it takes longer */
    od
}

proctype Starter()
{
    StartOrStop();
    done++
}

proctype Ender()
{
    if
    :: true -> TimerDestroy()
    :: true -> skip
    fi;
    done++
}

proctype GroupEnder()
{
    bool mine;
    if
    :: true -> GroupDestroy(mine)
    :: true -> skip
    fi;
    done++
}

#ifdef GROUP
#define CALLERS 3
#else
#define CALLERS 2
#endif

#ifdef ADDRESS_AGAIN
proctype NewOwner()
{
end_wait:
    atomic { freed == 1 && !lockWriter && lockReaders == 0 -> known = true; listed = true; isNew = true }
}
#endif

active proctype WhenAllIsQuiet()
{
    timeout;
    assert(done == CALLERS);
    assert(!toEnd || (freed == 1 && !fdOpen && (!known || isNew) && (!listed || isNew) && !taskAlive));
    assert(lockReaders == 0 && !lockWriter)
}

init
{
    atomic {
        if
        :: periodic = true
        :: periodic = false
        fi;
        run SchedulerThread();
        run Starter();
        run Ender();
#ifdef GROUP
        run GroupEnder();
#endif
#ifdef ADDRESS_AGAIN
        run NewOwner()
#endif
    }
}
