// Per-thread knowledge of the running dispatch cycles, and the registry lock built on it. The list
// of cycles lives on the threads' stacks; g_waitedFor is written by the holder of the registry's
// write side only (or by a thread that works under that hold).
#include "scheduler/xel_sch_hold.h"

#include <cerrno>
#include <sched.h>

namespace
{

constinit thread_local const SchCycle* t_innermost = nullptr;

// Stored (release) after the registry's write side was taken; a thread inside that scheduler's
// cycle loads it (acquire) and so sees the tables as the holder left them.
constinit std::atomic<SchCtrl*> g_waitedFor = nullptr;

int TryRegistry(RegistryLock::Side side)
{
    return side == RegistryLock::Side::Read ? pthread_rwlock_tryrdlock(&g_xelSchRunCtrl.lock)
                                            : pthread_rwlock_trywrlock(&g_xelSchRunCtrl.lock);
}

int TakeRegistry(RegistryLock::Side side)
{
    return side == RegistryLock::Side::Read ? pthread_rwlock_rdlock(&g_xelSchRunCtrl.lock)
                                            : pthread_rwlock_wrlock(&g_xelSchRunCtrl.lock);
}

} // namespace

SchCycle::SchCycle(SchCtrl* sch) : sch_(sch), outer_(t_innermost), isOwner_(!IsInside(sch))
{
    if (isOwner_) {
        XelRwlockReadLock(&sch_->lock);
    }
    t_innermost = this;
}

SchCycle::~SchCycle()
{
    t_innermost = outer_;
    if (isOwner_) {
        XelRwlockReadUnLock(&sch_->lock);
    }
}

bool SchCycle::IsInside(const SchCtrl* sch)
{
    for (const SchCycle* cycle = t_innermost; cycle != nullptr; cycle = cycle->outer_) {
        if (cycle->sch_ == sch) {
            return true;
        }
    }
    return false;
}

bool SchCycle::IsInsideAny()
{
    return t_innermost != nullptr;
}

SchReadGuard::SchReadGuard(SchCtrl* sch) : sch_(sch), isOwner_(!SchCycle::IsInside(sch))
{
    if (isOwner_) {
        XelRwlockReadLock(&sch_->lock);
    }
}

SchReadGuard::~SchReadGuard()
{
    if (isOwner_) {
        XelRwlockReadUnLock(&sch_->lock);
    }
}

RegistryLock::RegistryLock(Side side)
{
    if (SchCycle::IsInsideAny()) {
        result_ = TakeInsideCycle(side);
        return;
    }
    result_ = TakeRegistry(side);
    isOwner_ = result_ == 0;
}

RegistryLock::~RegistryLock()
{
    if (isOwner_) {
        (void)pthread_rwlock_unlock(&g_xelSchRunCtrl.lock);
    }
}

// A blocking call could fall asleep behind a destroyer that comes to wait for this very thread, so
// the lock is only tried. Ends when the holder gives it back or begins to wait for this thread.
int RegistryLock::TakeInsideCycle(Side side)
{
    for (;;) {
        const int result = TryRegistry(side);
        if (result != EBUSY) {
            isOwner_ = result == 0;
            return result;
        }
        const SchCtrl* waitedFor = g_waitedFor.load(std::memory_order_acquire);
        if (waitedFor != nullptr && SchCycle::IsInside(waitedFor)) {
            return 0;
        }
        sched_yield();
    }
}

WaitForCycle::WaitForCycle(SchCtrl* sch)
    : outer_(g_waitedFor.exchange(sch, std::memory_order_acq_rel))
{
}

WaitForCycle::~WaitForCycle()
{
    g_waitedFor.store(outer_, std::memory_order_release);
}
