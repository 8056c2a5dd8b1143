// Which schedulers the calling thread is dispatching, and the locks that depend on it.
//
// A scheduler's lock prefers writers: a thread that holds the read side and asks for it again would
// wait for ever once a destroyer has closed the gate. So a thread that is inside a dispatch cycle
// of a scheduler does not take that lock again. In the same way it does not wait for the registry
// lock when the destroyer that it makes wait is the holder: until the cycle ends the destroyer
// touches nothing, and the thread works under the destroyer's hold.
#ifndef XEL_SCHEDULER_SCH_HOLD_H
#define XEL_SCHEDULER_SCH_HOLD_H

#include "common/xel_lock_guard.h"
#include "scheduler/xel_scheduler_inner.h"

// One dispatch cycle of this thread: holds the scheduler's lock for reading and remembers it.
class SchCycle : NoCopy
{
public:
    explicit SchCycle(SchCtrl* sch);
    ~SchCycle();

    // True when the calling thread is inside a cycle of sch.
    static bool IsInside(const SchCtrl* sch);
    // True when the calling thread is inside any cycle.
    static bool IsInsideAny();

private:
    SchCtrl* sch_;
    const SchCycle* outer_; // the cycle whose callback started this one
    bool isOwner_;          // false when an outer cycle holds the lock already
};

// Read hold of a scheduler's lock for a short look; free inside a cycle of that scheduler.
class SchReadGuard : NoCopy
{
public:
    explicit SchReadGuard(SchCtrl* sch);
    ~SchReadGuard();

private:
    SchCtrl* sch_;
    bool isOwner_; // false inside a cycle of sch
};

// Hold of the registry lock.
class RegistryLock : NoCopy
{
public:
    enum class Side { Read, Write };

    explicit RegistryLock(Side side);
    ~RegistryLock();

    // The result of the lock call. Only a negative one is a failure; a positive one counts as
    // success, and then there is nothing to unlock.
    int Result() const { return result_; }
    bool HasFailed() const { return result_ < 0; }

private:
    int TakeInsideCycle(Side side);

    int result_ = 0;
    bool isOwner_ = false;
};

// Declares, for the time of a wait, that the holder of the registry's write side does nothing but
// wait for the cycle of sch to end.
class WaitForCycle : NoCopy
{
public:
    explicit WaitForCycle(SchCtrl* sch);
    ~WaitForCycle();

private:
    SchCtrl* outer_; // a destroyer may run in a callback of a scheduler that is waited for itself
};

#endif // XEL_SCHEDULER_SCH_HOLD_H
