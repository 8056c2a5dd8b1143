/* XelRwlock between two readers, one of them trying only, two writers, and one short holder, all
 * without end.
 *
 * Mirrors common/xel_lock.cpp, common/xel_lock_wait.h and the short guards of
 * common/xel_lock_guard.h through rwlock.inc.
 *
 * Holds: a writer inside is alone; a reader or short holder that comes after a writer has closed
 * the gate does not enter before it; nobody is stuck for ever (no invalid end state).
 * With -DLIVE: a writer that has closed the gate enters, however the readers come and go.
 *
 * WITHOUT_GATE_LOOK    readers do not look at the gate
 * WITHOUT_WRITER_LOOK  readers do not look for a writer inside
 * WITHOUT_QUICK_GATE_LOOK  short holders do not look at the gate
 * WITHOUT_COUNT_SWAP   the writer's second step is a load and a store instead of a swap
 */
#define READERS 2
#define SHORT_HOLDER 2

bool waiting = false; /* a writer has closed the gate and is not inside */
bool late[READERS + 1]; /* this one came when a writer was waiting, which still does */
byte readersIn = 0;
byte writersIn = 0;

#define NOTE_GATE_CLOSED waiting = true
#define NOTE_WRITER_ENTERS waiting = false; late[0] = false; late[1] = false; late[2] = false
#ifndef LIVE
#define NOTE_READER_ENTERS assert(!late[me])
#define NOTE_QUICK_ENTERS assert(!late[SHORT_HOLDER])
#endif

#include "rwlock.inc"

Rwlock lock;

inline ReadInside()
{
    atomic { readersIn++; assert(writersIn == 0) };
    atomic { assert(writersIn == 0); readersIn-- };
    late[me] = false;
    ReadUnlock(lock)
}

proctype Reader(byte me)
{
    short seen;
    bool taken;
    do
    :: late[me] = waiting;
       if
       :: me == 0 -> ReadLock(lock, seen); ReadInside()
       :: else ->
           ReadTryLock(lock, seen, taken);
           if
           :: taken -> ReadInside()
           :: else -> skip
           fi
       fi
    od
}

proctype Writer()
{
    do
    :: WriteLock(lock);
       atomic { writersIn++; assert(writersIn == 1 && readersIn == 0) };
       atomic { assert(writersIn == 1 && readersIn == 0); writersIn-- };
       WriteUnlock(lock)
    od
}

proctype ShortHolder()
{
    bool quick;
    do
    :: late[SHORT_HOLDER] = waiting;
       QuickWriteLock(lock, quick);
       if
       :: quick ->
           atomic { writersIn++; assert(writersIn == 1 && readersIn == 0) };
           atomic { assert(writersIn == 1 && readersIn == 0); writersIn-- };
           late[SHORT_HOLDER] = false;
           QuickWriteUnlock(lock)
       :: else -> late[SHORT_HOLDER] = false /* on to WriteLock, as the writers do */
       fi;
       quick = false
    od
}

init
{
    atomic {
        lock.count = 0;
        lock.gate = OPEN;
        run Reader(0);
        run Reader(1);
        run ShortHolder();
        run Writer();
        run Writer()
    }
}

#ifdef LIVE
ltl writer_enters { [](waiting -> <>!waiting) }
#endif
