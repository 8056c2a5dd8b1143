// The steps of the in-record locks that other files build on: taking the write side with one's own
// way of waiting, and opening the lock of a unit that may have been used before.
#ifndef XEL_COMMON_LOCK_WAIT_H
#define XEL_COMMON_LOCK_WAIT_H

#include <atomic>

#include "common/xel_barrier.h"
#include "common/xel_int.h"
#include "xel_lock.h"

constexpr u32 kGateOpen = 0xFFFFFFFFU;
constexpr u32 kGateClosed = 0;
constexpr u32 kWriterInside = 0xFFFFFFFFU;

// A lock word. Taking it acquires, giving it back releases; each acquire pairs with the release of
// the previous holder.
inline std::atomic_ref<u32> Word(u32& word)
{
    return std::atomic_ref<u32>(word);
}

// One compare-and-swap attempt and the barrier that follows every attempt, successful or not.
inline bool SwapWord(u32& word, u32 expected, u32 desired)
{
    const bool swapped =
        Word(word).compare_exchange_strong(expected, desired, std::memory_order_seq_cst);
    FullBarrierAfterRmw();
    return swapped;
}

// Takes the write side; idle() is called each time there is reason to wait.
template <typename Idle>
inline void RwlockWriteLockWith(XelRwlock* lock, Idle&& idle)
{
    while (!SwapWord(lock->gate, kGateOpen, kGateClosed)) {
        idle();
    }
    for (;;) {
        while (Word(lock->count).load(std::memory_order_relaxed) != 0) {
            idle();
        }
        if (SwapWord(lock->count, 0, kWriterInside)) {
            return;
        }
    }
}

// Takes the write side in one step, if nobody is inside or waits to write; the gate stays open, and
// the count alone keeps everybody out. Given back by RwlockQuickWriteUnlock.
inline bool RwlockQuickWriteLock(XelRwlock* lock)
{
    u32 nobody = 0;
    return Word(lock->gate).load(std::memory_order_relaxed) == kGateOpen &&
           Word(lock->count)
               .compare_exchange_strong(nobody, kWriterInside, std::memory_order_acquire,
                                        std::memory_order_relaxed);
}

// While a writer is inside nobody else changes the count: a store is enough.
inline void RwlockQuickWriteUnlock(XelRwlock* lock)
{
    Word(lock->count).store(0, std::memory_order_release);
}

// Makes the zeroed lock of a fresh unit free. In a unit that was used before somebody may hold the
// lock or wait for it, so nothing is overwritten: only a closed gate with nobody inside is opened.
// Should that be a writer between its two steps, it still enters through the count alone.
inline void RwlockOpenFresh(XelRwlock* lock)
{
    if (Word(lock->count).load(std::memory_order_acquire) == 0 &&
        Word(lock->gate).load(std::memory_order_relaxed) == kGateClosed) {
        (void)SwapWord(lock->gate, kGateClosed, kGateOpen);
    }
}

#endif // XEL_COMMON_LOCK_WAIT_H
