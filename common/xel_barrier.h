// Full memory barriers, and where they cost nothing; the pause of a short waiting loop.
#ifndef XEL_COMMON_BARRIER_H
#define XEL_COMMON_BARRIER_H

#include <atomic>

#include "common/xel_int.h"

#if defined(__SANITIZE_THREAD__)
#define XEL_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define XEL_THREAD_SANITIZER 1
#endif
#endif
#ifndef XEL_THREAD_SANITIZER
#define XEL_THREAD_SANITIZER 0
#endif

// Orders everything before against everything after. ThreadSanitizer does not model fences; under
// it the release and acquire orders of the accesses around carry the meaning.
inline void FullBarrier() noexcept
{
#if XEL_THREAD_SANITIZER
    std::atomic_signal_fence(std::memory_order_seq_cst);
#else
    std::atomic_thread_fence(std::memory_order_seq_cst);
#endif
}

// The full barrier behind a sequentially consistent read-modify-write. On x86 that instruction
// (lock-prefixed, or xchg) is the barrier already; elsewhere a fence is due.
inline void FullBarrierAfterRmw() noexcept
{
#if defined(__x86_64__) || defined(__i386__)
    std::atomic_signal_fence(std::memory_order_seq_cst);
#else
    FullBarrier();
#endif
}

// Stores value, then a full barrier. On x86 one xchg does both and is cheaper than store and
// mfence.
inline void StoreWithBarrier(u32& word, u32 value) noexcept
{
    std::atomic_ref<u32> ref(word);
#if defined(__x86_64__) || defined(__i386__)
    ref.exchange(value, std::memory_order_seq_cst);
#else
    ref.store(value, std::memory_order_release);
#endif
    FullBarrierAfterRmw();
}

// Tells the processor that this is a waiting loop.
inline void CpuRelax() noexcept
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ volatile("yield");
#endif
}

#endif // XEL_COMMON_BARRIER_H
