/* An event: notified by one thread, run on its scheduler thread, destroyed by a third one or by its
 * own callback.
 *
 * Mirrors: XEL_EventNotify, SchEventProc, TakeNotification, XEL_EventDestroy (event/xel_event.cpp);
 * EventListDelNode, EventCopyListed, EventDestroyEventNode (event/xel_event_list.cpp);
 * SchTaskBeginRun (scheduler/xel_sch_task_query.cpp); SchDestroyTask (scheduler/xel_sch_ctl.cpp).
 *
 * A stranger opens a descriptor as soon as the event's number is free and so gets that number. The
 * notifier has made its last notification before anybody destroys the event: that is the contract
 * of XEL_EventNotify, which takes no lock.
 *
 * Holds: nobody touches the event's memory after it was given back; nobody reads or writes the
 * stranger's descriptor; the memory is given back once; three notifications make three runs unless
 * the event was destroyed.
 *
 * WITHOUT_CONTRACT        the event is destroyed beside a notification
 * WITHOUT_LIST_LOOK       the callback trusts the magic alone
 * WITHOUT_LOCK_OVER_READ  the callback copies under the lock, but reads the descriptor after it
 * WITHOUT_SEMAPHORE_MODE  one read takes all notifications
 */
#define NOTIFICATIONS 3
#define NOBODY 0
#define EVENT 1
#define STRANGER 2

byte fdOwner = EVENT;    /* who has the event's descriptor number */
byte counter = 0;        /* value of the eventfd */
byte strangersData = 0;  /* unread data of the stranger */
bool registered = true;  /* on the epoll instance */
bool taskAlive = true;

byte listReaders = 0;    /* g_xelEventList.lock */
bool listWriter = false;
bool listed = true;
bool magic = true;
byte freed = 0;

byte notified = 0;
byte runs = 0;
bool notifierDone = false;
bool destroyBegun = false;

inline UseMemory()
{
    assert(freed == 0)
}

inline ListReadLock()
{
    atomic { !listWriter -> listReaders++ }
}

inline ListWriteLock()
{
    atomic { !listWriter && listReaders == 0 -> listWriter = true }
}

proctype Notifier()
{
    do
    :: notified < NOTIFICATIONS ->
        atomic { UseMemory(); if :: !magic -> break :: else -> skip fi };
        UseMemory(); /* the descriptor number */
        atomic { assert(fdOwner == EVENT); counter++; notified++ }
    :: else -> break
    od;
    notifierDone = true
}

#ifdef WITHOUT_CONTRACT
#define MAY_DESTROY true
#else
#define MAY_DESTROY notifierDone
#endif

inline EventDestroy()
{
    ListWriteLock();
    if
    :: !listed -> listWriter = false /* refused: destroyed already */
    :: else ->
        listed = false;
        destroyBegun = true;
        listWriter = false;
        UseMemory();
        taskAlive = false;
        registered = false;
        UseMemory();
        fdOwner = NOBODY;
        ListWriteLock();
        magic = false;
        freed++;
        assert(freed == 1);
        listWriter = false
    fi
}

inline ReadDescriptor()
{
    atomic {
        assert(fdOwner == EVENT);
        if
        :: counter > 0 ->
            taken = true;
#ifdef WITHOUT_SEMAPHORE_MODE
            counter = 0
#else
            counter--
#endif
        :: else -> taken = false /* EAGAIN */
        fi
    }
}

#ifdef WITHOUT_LIST_LOOK
#define IS_LISTED true
#else
#define IS_LISTED listed
#endif

inline TakeNotification()
{
    ListReadLock();
    if
    :: !IS_LISTED -> taken = false
    :: else ->
        UseMemory();
        if
        :: !magic -> taken = false
        :: else ->
#ifdef WITHOUT_LOCK_OVER_READ
            taken = true
#else
            ReadDescriptor()
#endif
        fi
    fi;
    listReaders--;
#ifdef WITHOUT_LOCK_OVER_READ
    if
    :: taken -> ReadDescriptor()
    :: else -> skip
    fi
#endif
}

proctype SchedulerThread()
{
    bool taken;
end_wait:
    do
    :: registered && fdOwner == EVENT && counter > 0 -> /* reported, queued, selected */
        if
        :: !taskAlive -> skip /* refused under the task's lock */
        :: taskAlive ->       /* callback and data are copied there */
            TakeNotification();
            if
            :: taken ->
                runs++;
                if
                :: MAY_DESTROY -> EventDestroy() /* the callback destroys its own event */
                :: true -> skip
                fi
            :: else -> skip
            fi;
            taken = false
        fi
    od
}

proctype Destroyer()
{
    if
    :: true -> (MAY_DESTROY); EventDestroy()
    :: true -> skip
    fi
}

proctype Stranger()
{
end_wait:
    atomic { fdOwner == NOBODY -> fdOwner = STRANGER; strangersData = 1 }
}

active proctype WhenAllIsQuiet()
{
    timeout;
    assert(notifierDone);
    assert(destroyBegun || runs == notified);
    assert(!destroyBegun || freed == 1);
    assert(listReaders == 0 && !listWriter);
    assert(fdOwner != STRANGER || strangersData == 1)
}

init
{
    atomic {
        run Notifier();
        run SchedulerThread();
        run Destroyer();
        run Destroyer();
        run Stranger()
    }
}
