/* The reader-writer lock, step by step, for the models that build on it.
 *
 * Mirrors, statement by statement: XelRwlockReadLock, XelRwlockReadTryLock, XelRwlockReadUnLock,
 * XelRwlockWriteUnLock (common/xel_lock.cpp), RwlockWriteLockWith, RwlockOpenFresh,
 * RwlockQuickWriteLock, RwlockQuickWriteUnlock (common/xel_lock_wait.h), ShortWriteGuard
 * (common/xel_lock_guard.h). One load, one store, or one compare-and-swap is one step; a failed look
 * that only yields and looks again is a step that waits until what it looks at has changed.
 */
#define OPEN 1
#define CLOSED 0
#define WRITER_INSIDE (-1)

typedef Rwlock {
    short count;
    bit gate
}

/* What a model wants to note in the very step that closes the gate, or that lets somebody in. */
#ifndef NOTE_GATE_CLOSED
#define NOTE_GATE_CLOSED skip
#endif
#ifndef NOTE_WRITER_ENTERS
#define NOTE_WRITER_ENTERS skip
#endif
#ifndef NOTE_QUICK_ENTERS
#define NOTE_QUICK_ENTERS skip
#endif
#ifndef NOTE_READER_ENTERS
#define NOTE_READER_ENTERS skip
#endif

#ifdef WITHOUT_GATE_LOOK
#define GATE_LETS_IN(l) (true)
#else
#define GATE_LETS_IN(l) (l.gate == OPEN)
#endif
#ifdef WITHOUT_WRITER_LOOK
#define COUNT_LETS_IN(n) (true)
#else
#define COUNT_LETS_IN(n) (n >= 0)
#endif

/* seen: a local short of the caller. */
inline ReadLock(l, seen)
{
    do
    :: seen = l.count;
       if
       :: !COUNT_LETS_IN(seen) -> (COUNT_LETS_IN(l.count))
       :: else ->
           if
           :: GATE_LETS_IN(l) ->
               if
               :: atomic { l.count == seen -> l.count = seen + 1; seen = 0; NOTE_READER_ENTERS; break }
               :: else -> skip
               fi
           :: else -> (GATE_LETS_IN(l))
           fi
       fi
    od
}

/* taken: a local bool of the caller. */
inline ReadTryLock(l, seen, taken)
{
    do
    :: seen = l.count;
       if
       :: !GATE_LETS_IN(l) || !COUNT_LETS_IN(seen) -> taken = false; seen = 0; break
       :: else ->
           if
           :: atomic { l.count == seen -> l.count = seen + 1; taken = true; seen = 0; NOTE_READER_ENTERS; break }
           :: else -> skip
           fi
       fi
    od
}

inline ReadUnlock(l)
{
    l.count = l.count - 1
}

#ifdef WITHOUT_COUNT_SWAP
#define ENTER_THROUGH_COUNT(l) \
    l.count == 0 -> atomic { l.count = WRITER_INSIDE; NOTE_WRITER_ENTERS; break }
#else
#define ENTER_THROUGH_COUNT(l) \
    l.count == 0 -> \
    if \
    :: atomic { l.count == 0 -> l.count = WRITER_INSIDE; NOTE_WRITER_ENTERS; break } \
    :: else -> skip \
    fi
#endif

inline WriteLock(l)
{
    atomic { l.gate == OPEN -> l.gate = CLOSED; NOTE_GATE_CLOSED };
    do
    :: ENTER_THROUGH_COUNT(l)
    od
}

inline WriteUnlock(l)
{
    l.count = l.count + 1;
    l.gate = OPEN
}

#ifdef WITHOUT_QUICK_GATE_LOOK
#define GATE_LETS_QUICK_IN(l) (true)
#else
#define GATE_LETS_QUICK_IN(l) (l.gate == OPEN)
#endif

/* taken: a local bool of the caller. */
inline QuickWriteLock(l, taken)
{
    if
    :: GATE_LETS_QUICK_IN(l) ->
        if
        :: atomic { l.count == 0 -> l.count = WRITER_INSIDE; taken = true; NOTE_QUICK_ENTERS }
        :: else -> taken = false
        fi
    :: else -> taken = false
    fi
}

inline QuickWriteUnlock(l)
{
    l.count = 0
}

/* ShortWriteGuard; a ShortReadGuard that finds the lock free does the same. */
inline ShortWriteLock(l, quick)
{
    QuickWriteLock(l, quick);
    if
    :: !quick -> WriteLock(l)
    :: else -> skip
    fi
}

inline ShortWriteUnlock(l, quick)
{
    if
    :: quick -> QuickWriteUnlock(l)
    :: else -> WriteUnlock(l)
    fi;
    quick = false
}

/* XelRwlockInit, as the variant without the careful opening uses it. */
inline InitLock(l)
{
    l.count = 0;
    l.gate = OPEN
}

inline OpenFresh(l)
{
    if
    :: l.count == 0 -> atomic { if :: l.gate == CLOSED -> l.gate = OPEN :: else -> skip fi }
    :: else -> skip
    fi
}
