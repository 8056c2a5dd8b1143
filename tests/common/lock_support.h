// What the lock tests share. The program counts sched_yield, which is how a thread shows that it
// waits.
#ifndef XEL_TESTS_LOCK_SUPPORT_H
#define XEL_TESTS_LOCK_SUPPORT_H

#include <atomic>
#include <chrono>
#include <functional>
#include <ostream>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/xel_int.h"
#include "xel_lock.h"

namespace locktest
{

constexpr u32 kOpen = 0xFFFFFFFFU;
constexpr u32 kClosed = 0;
constexpr u32 kWriter = 0xFFFFFFFFU;
constexpr u32 kNo = 0xFFFFFFFFU; // ReadTryLock: not acquired

// Calls of sched_yield by anybody.
extern std::atomic<u32> g_yields;

inline u32 Load(u32& word)
{
    return std::atomic_ref<u32>(word).load();
}

inline void Store(u32& word, u32 value)
{
    std::atomic_ref<u32>(word).store(value);
}

inline ::testing::AssertionResult WordsAre(XelRwlock& lock, u32 count, u32 gate)
{
    const u32 foundCount = Load(lock.count);
    const u32 foundGate = Load(lock.gate);
    if (foundCount == count && foundGate == gate) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << std::hex << "count " << foundCount << ", gate "
                                         << foundGate << " instead of " << count << ", " << gate;
}

// Lets others run without being counted.
inline void StepAside()
{
    (void)syscall(SYS_sched_yield);
}

inline bool Await(const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        StepAside();
    }
    return true;
}

// A waiting thread is one that keeps yielding.
inline bool AwaitYields(u32 more = 3)
{
    const u32 before = g_yields.load();
    return Await([=] { return g_yields.load() - before >= more; });
}

inline XelRwlock FreshRwlock()
{
    XelRwlock lock{12345, 54321};
    XelRwlockInit(&lock);
    return lock;
}

inline XelSpinlock FreshSpinlock()
{
    XelSpinlock lock{77};
    XelSpinlockInit(&lock);
    return lock;
}

inline void RunOn(u32 threads, const std::function<void(u32)>& body)
{
    std::vector<std::thread> running;
    running.reserve(threads);
    for (u32 i = 0; i < threads; ++i) {
        running.emplace_back(body, i);
    }
    for (std::thread& thread : running) {
        thread.join();
    }
}

} // namespace locktest

#endif // XEL_TESTS_LOCK_SUPPORT_H
