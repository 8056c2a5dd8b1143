/* Registrations that a crowded policy sets aside while their tasks are queued.
 *
 * Mirrors: TaskWatchBeginLocked, TaskWatchReported, TaskWatchChangeByReport, TaskWatchSetAside,
 * TaskWatchPutBack, PutBackLocked, TaskWatchPutBackAll, TaskWatchEnd, TaskWatchForgetLocked
 * (scheduler/xel_sch_task_watch.h and .cpp); SchTaskGetInfoInsert, SchTaskTakeEvent,
 * SchTaskDropEvent (scheduler/xel_sch_task_query.cpp); SCH_BfsResPrepare, InsertEvent, PickGroup,
 * TakePending, BfsMayBlock (scheduler/xel_sch_policy_bfs.cpp); RunCycle, SchEventsGet
 * (scheduler/xel_sch_dispatch.cpp); TaskUnbind (scheduler/xel_sch_task_bind.cpp); Unbind,
 * XEL_TaskDel, SchDestroyTask (scheduler/xel_sch_ctl.cpp). An event that is not queued at all
 * (SchTaskInsertOrTake) never finds its registration aside: that way is not modelled.
 *
 * Two level-triggered descriptors with tasks of schedule type 3 in one group, whose quota is one
 * event; crowded or not is chosen anew at each question. The callback drains its descriptor or
 * leaves it ready; the world makes a descriptor ready again, or reads it behind the callback's back.
 * One more thread deletes task 0 (SchDestroyTask) or unbinds it (XEL_TaskDel), or does neither. What
 * happens under the write side of one task's lock is one step.
 *
 * With -DFAULTS epoll_ctl refuses to put a registration back up to six times in all (LIVE: four).
 *
 * Holds: a wait that blocks would notice every ready descriptor; no registration is changed after it
 * was deleted; an unbound task's registration is as it was made. With -DLIVE: a descriptor that
 * stays ready runs again and again, until its task is deleted or unbound.
 *
 * WITHOUT_READY_LOOK   the wait blocks without a look at what is aside
 * WITHOUT_RETURN       the wait blocks without putting back what is aside and not ready
 * WITHOUT_PUT_BACK     nothing is put back when its task is selected
 * WITHOUT_ONCE_NOTED   the one report of a registration is not noted as its last one
 * WITHOUT_OWED         a registration that could not be put back is not tried again
 * WITHOUT_FORGET       a deletion leaves the library's right to change the registration
 * WITHOUT_END          an unbinding leaves the registration as it is
 */
#define TASKS 2
#define QUOTA 1

/* What the kernel knows of a registration. */
#define NONE 0    /* deleted */
#define PLAIN 1   /* reported in every wait while it is ready */
#define ONE_SHOT 2
#define SILENT 3  /* aside, or its one report has been made */

/* SchTaskCtrl::watch. */
#define OFF 0     /* not the library's to change */
#define ON 1
#define ONCE 2
#define ASIDE 3

byte kernel[TASKS];
byte watch[TASKS];
bool pending[TASKS];   /* SchTaskCtrl::events is not 0 */
bool isReady[TASKS];
bool alive[TASKS];
bool bound[TASKS];
bool deleting = false; /* the deletion of task 0 has begun */

chan queue = [TASKS] of { byte };
bool isOwed = false;
bool mayBlock = true;
byte quota = QUOTA;
byte refusals = 0;     /* what epoll_ctl may still refuse */
bool blocking = false;
bool ranNow[TASKS];

#define REPORTS(i) (isReady[i] && (kernel[i] == PLAIN || kernel[i] == ONE_SHOT))

/* epoll_ctl with EPOLL_CTL_MOD, for a registration that comes back; ok: a local bool. */
inline Modify(i, how, ok)
{
    if
    :: assert(kernel[i] != NONE); kernel[i] = how; ok = true
    :: refusals > 0 -> refusals--; ok = false
    fi
}

/* One try as wanted, then two plain ones; see PutBackLocked. */
inline PutBackLocked(i, forOnce, ok)
{
    Modify(i, (forOnce -> ONE_SHOT : PLAIN), ok);
    if
    :: ok -> watch[i] = (forOnce -> ONCE : ON)
    :: else ->
        Modify(i, PLAIN, ok);
        if
        :: ok -> watch[i] = OFF
        :: else ->
            Modify(i, PLAIN, ok);
            if
            :: ok -> watch[i] = OFF
            :: else -> skip
            fi
        fi
    fi
}

inline PutBackAll()
{
#ifdef WITHOUT_OWED
    isOwed = false;
#else
    isOwed = false;
    walk = 0;
    do
    :: walk < TASKS ->
        atomic {
            if
            :: watch[walk] == ASIDE ->
                PutBackLocked(walk, false, ok);
                if
                :: !ok -> isOwed = true; walk = TASKS - 1 /* the walk ends there */
                :: else -> skip
                fi
            :: else -> skip
            fi;
            walk++
        }
    :: else -> break
    od;
    walk = 0;
#endif
    ok = false
}

/* InsertEvent; got: the readiness was reported. */
inline Insert(i)
{
    atomic {
        if
        :: !alive[i] || !bound[i] -> skip /* refused; the event is dropped */
        :: else ->
            isFirst = !pending[i];
            pending[i] = true;
#ifndef WITHOUT_ONCE_NOTED
            if
            :: watch[i] == ONCE -> watch[i] = ASIDE
            :: else -> skip
            fi;
#endif
            if
            :: isFirst -> queue!i
            :: else -> toSetAside = true
            fi
        fi;
        isFirst = false
    };
    if
    :: toSetAside ->
        if
        :: true -> /* crowded */
            atomic {
                if
                :: watch[i] == ON && pending[i] && alive[i] && bound[i] ->
                    assert(kernel[i] != NONE);
                    kernel[i] = SILENT;
                    watch[i] = ASIDE
                :: else -> skip
                fi
            }
        :: true -> skip
        fi;
        toSetAside = false
    :: else -> skip
    fi
}

/* TakePending of one picked task; runs: whether it is to run. */
inline Take(i)
{
    atomic {
        if
        :: !alive[i] -> runs = false
        :: else -> pending[i] = false; runs = true
        fi
    };
#ifndef WITHOUT_PUT_BACK
    if
    :: runs && watch[i] == ASIDE ->
        atomic {
            if
            :: watch[i] == ASIDE && alive[i] ->
                if
                :: PutBackLocked(i, true, ok)
                :: PutBackLocked(i, false, ok)
                fi;
                if
                :: !ok -> isOwed = true
                :: else -> skip
                fi
            :: else -> skip
            fi;
            ok = false
        }
    :: else -> skip
    fi
#endif
}

inline Callback(i)
{
    atomic {
        ranNow[i] = true;
        if
        :: isReady[i] = false
        :: true -> skip
        fi
    };
    ranNow[i] = false
}

proctype Dispatcher()
{
    bool got[TASKS];
    bool isFirst, toSetAside, runs, ok, mayBlockNow;
    byte walk, task, i;
    do
    :: /* prepare */
       if
       :: isOwed -> PutBackAll()
       :: else -> skip
       fi;
       /* BfsMayBlock */
       mayBlockNow = mayBlock;
       if
       :: mayBlockNow && (len(queue) > 0 || isOwed) ->
#ifndef WITHOUT_READY_LOOK
           i = 0;
           do
           :: i < TASKS ->
               atomic {
                   if
                   :: queue??[eval(i)] && alive[i] && watch[i] == ASIDE && isReady[i] -> mayBlockNow = false
                   :: else -> skip
                   fi;
                   i++
               }
           :: else -> break
           od;
           i = 0;
           if
#ifndef WITHOUT_RETURN
           :: mayBlockNow -> PutBackAll(); mayBlockNow = !isOwed
#endif
           :: else -> skip
           fi
#else
           skip
#endif
       :: else -> skip
       fi;
       /* the wait */
       if
       :: mayBlockNow ->
           blocking = true;
end_wait:  (REPORTS(0) || REPORTS(1))
       :: else -> skip
       fi;
       atomic {
           blocking = false;
           mayBlockNow = false;
           got[0] = REPORTS(0);
           got[1] = REPORTS(1);
           if
           :: got[0] && kernel[0] == ONE_SHOT -> kernel[0] = SILENT
           :: else -> skip
           fi;
           if
           :: got[1] && kernel[1] == ONE_SHOT -> kernel[1] = SILENT
           :: else -> skip
           fi
       };
       if
       :: got[0] -> Insert(0)
       :: else -> skip
       fi;
       if
       :: got[1] -> Insert(1)
       :: else -> skip
       fi;
       atomic { got[0] = false; got[1] = false };
       /* select: until something is to run, or nothing is picked */
       do
       :: len(queue) == 0 -> quota = QUOTA; runs = false; break
       :: len(queue) > 0 && quota == 0 -> quota = QUOTA; runs = false; break
       :: len(queue) > 0 && quota > 0 ->
           atomic { queue?task; quota-- };
           Take(task);
           if
           :: runs -> break
           :: else -> skip
           fi
       od;
       mayBlock = !runs;
       if
       :: runs -> Callback(task)
       :: else -> skip
       fi;
       atomic { runs = false; task = 0 }
    od
}

/* The deletion and the unbinding as another thread does them. */
proctype Deleter()
{
    bool ok;
    if
    :: true -> /* SchDestroyTask */
        bound[0] = false;
#ifndef WITHOUT_FORGET
        watch[0] = OFF;
#endif
        atomic { kernel[0] = NONE; deleting = true };
        atomic {
            /* RetireTask */
            if
            :: watch[0] == ASIDE || watch[0] == ONCE -> Modify(0, PLAIN, ok)
            :: else -> skip
            fi;
            watch[0] = OFF;
            pending[0] = false;
            alive[0] = false
        }
    :: true -> /* XEL_TaskDel */
        bound[0] = false;
#ifndef WITHOUT_END
        atomic {
            /* TaskWatchEnd */
            if
            :: watch[0] == ASIDE || watch[0] == ONCE -> assert(kernel[0] != NONE); kernel[0] = PLAIN
            :: else -> skip
            fi;
            watch[0] = OFF
        };
#endif
        /* The application takes the registration over: it finds it as it was made. */
        assert(kernel[0] == PLAIN);
        kernel[0] = NONE
    :: true -> skip
    fi
}

proctype World()
{
    do
    :: isReady[0] = !isReady[0]
    :: isReady[1] = !isReady[1]
    od
}

/* Looks at the moment when the wait blocks: nothing that is ready may be left unnoticed. */
#define NOTICED(i) (!isReady[i] || !alive[i] || !bound[i] || REPORTS(i))

active proctype Watcher()
{
end_watch:
    atomic { blocking && !(NOTICED(0) && NOTICED(1)) -> assert(false) }
}

init
{
    atomic {
        kernel[0] = PLAIN;
        kernel[1] = PLAIN;
        watch[0] = ON;
        watch[1] = ON;
        alive[0] = true;
        alive[1] = true;
        bound[0] = true;
        bound[1] = true;
#ifdef FAULTS
#ifdef LIVE
        refusals = 4;
#else
        refusals = 6;
#endif
#endif
        run Dispatcher();
        run Deleter();
        run World()
    }
}

#ifdef LIVE
ltl runs_again {
    [](<>(ranNow[0] || !isReady[0] || !bound[0])) && [](<>(ranNow[1] || !isReady[1]))
}
#endif
