// The in-record locks. They own nothing: both live in the words of the caller's record, may be used
// from any thread, and wait with sched_yield only.
#include "xel_lock.h"

#include <sched.h>

#include "common/xel_lock_wait.h"

namespace
{

bool IsWriterInside(u32 count)
{
    return static_cast<i32>(count) < 0;
}

} // namespace

void XelRwlockInit(XelRwlock* lock)
{
    Word(lock->count).store(0, std::memory_order_relaxed);
    Word(lock->gate).store(kGateOpen, std::memory_order_release);
    FullBarrier();
}

uint32_t XelRwlockReadTryLock(XelRwlock* lock)
{
    // Bounded by the other readers' progress: each failed swap means that one came or went.
    for (;;) {
        const u32 count = Word(lock->count).load(std::memory_order_relaxed);
        const u32 gate = Word(lock->gate).load(std::memory_order_relaxed);
        if (gate == kGateClosed || IsWriterInside(count)) {
            return XEL_FAIL;
        }
        if (SwapWord(lock->count, count, count + 1)) {
            return XEL_OK;
        }
    }
}

void XelRwlockReadLock(XelRwlock* lock)
{
    for (;;) {
        const u32 count = Word(lock->count).load(std::memory_order_relaxed);
        if (IsWriterInside(count) ||
            Word(lock->gate).load(std::memory_order_relaxed) == kGateClosed) {
            sched_yield();
            continue;
        }
        if (SwapWord(lock->count, count, count + 1)) {
            return;
        }
    }
}

void XelRwlockReadUnLock(XelRwlock* lock)
{
    Word(lock->count).fetch_sub(1, std::memory_order_seq_cst);
    FullBarrierAfterRmw();
}

void XelRwlockWriteLock(XelRwlock* lock)
{
    RwlockWriteLockWith(lock, [] { sched_yield(); });
}

void XelRwlockWriteUnLock(XelRwlock* lock)
{
    Word(lock->count).fetch_add(1, std::memory_order_seq_cst);
    FullBarrierAfterRmw();
    Word(lock->gate).store(kGateOpen, std::memory_order_release);
}

void XelSpinlockInit(XelSpinlock* lock)
{
    StoreWithBarrier(lock->word, 0);
}

bool XelSpinlockTryLock(XelSpinlock* lock)
{
    return SwapWord(lock->word, 0, 1);
}

void XelSpinlockLock(XelSpinlock* lock)
{
    for (;;) {
        while (Word(lock->word).load(std::memory_order_relaxed) != 0) {
            sched_yield();
        }
        if (SwapWord(lock->word, 0, 1)) {
            return;
        }
    }
}

void XelSpinlockUnLock(XelSpinlock* lock)
{
    StoreWithBarrier(lock->word, 0);
}
