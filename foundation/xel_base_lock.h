// The lock of the foundation services: one word that sleeps in the kernel when contended. It calls
// no pthread function, so that a platform's own pthread functions cannot get between, and needs no
// initialisation: zeroed memory is a free lock.
#ifndef XEL_FOUNDATION_BASE_LOCK_H
#define XEL_FOUNDATION_BASE_LOCK_H

#include <atomic>
#include <cerrno>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "common/xel_int.h"

class BaseLock
{
public:
    void Lock()
    {
        u32 expected = kFree;
        if (!word_.compare_exchange_strong(expected, kHeld, std::memory_order_acquire,
                                           std::memory_order_relaxed)) {
            LockContended();
        }
    }

    void Unlock()
    {
        if (word_.exchange(kFree, std::memory_order_release) == kHeldAndWaitedFor) {
            Futex(FUTEX_WAKE_PRIVATE, 1);
        }
    }

private:
    static constexpr u32 kFree = 0;
    static constexpr u32 kHeld = 1;
    static constexpr u32 kHeldAndWaitedFor = 2;

    // Whoever had to wait holds the lock as "waited for": it cannot know whether it was the last.
    [[gnu::noinline]] void LockContended()
    {
        while (word_.exchange(kHeldAndWaitedFor, std::memory_order_acquire) != kFree) {
            Futex(FUTEX_WAIT_PRIVATE, kHeldAndWaitedFor);
        }
    }

    [[gnu::noinline]] void Futex(int operation, u32 value)
    {
        const int savedErrno = errno;
        syscall(SYS_futex, &word_, operation, value, nullptr, nullptr, 0);
        errno = savedErrno;
    }

    // Acquired by Lock, released by Unlock; each acquire pairs with the previous holder's release.
    std::atomic<u32> word_{kFree};
};

// Holds a BaseLock for a scope.
class BaseGuard
{
public:
    explicit BaseGuard(BaseLock& lock) : lock_(lock) { lock_.Lock(); }
    ~BaseGuard() { lock_.Unlock(); }
    BaseGuard(const BaseGuard&) = delete;
    BaseGuard& operator=(const BaseGuard&) = delete;

private:
    BaseLock& lock_;
};

#endif // XEL_FOUNDATION_BASE_LOCK_H
