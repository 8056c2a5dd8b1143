// The lock checks as a program of its own: no test framework, no library but the C++ one, so that
// it can be built for another processor from this file and common/xel_lock.cpp alone and run under
// an emulator. Prints what failed; exits with 0 when nothing did, else with 1.
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <thread>
#include <vector>

#include "common/xel_int.h"
#include "xel_lock.h"

namespace
{

constexpr u32 kNone = 0xFFFFFFFFU;
constexpr u32 kThreads = 4;
constexpr u32 kRounds = 20000;

std::atomic<u32> g_failures{0};

void Check(bool holds, const char* what)
{
    if (!holds) {
        g_failures.fetch_add(1);
        printf("failed: %s\n", what);
    }
}

void CheckWords(XelRwlock& lock, u32 count, u32 gate, const char* when)
{
    const u32 foundCount = std::atomic_ref<u32>(lock.count).load();
    const u32 foundGate = std::atomic_ref<u32>(lock.gate).load();
    if (foundCount != count || foundGate != gate) {
        g_failures.fetch_add(1);
        printf("failed: %s: count %#x, gate %#x instead of %#x, %#x\n", when, foundCount, foundGate,
               count, gate);
    }
}

void CheckReaders()
{
    XelRwlock lock{7, 7};
    XelRwlockInit(&lock);
    CheckWords(lock, 0, kNone, "init");
    XelRwlockReadLock(&lock);
    CheckWords(lock, 1, kNone, "one reader");
    Check(XelRwlockReadTryLock(&lock) == 0, "a second reader is let in");
    CheckWords(lock, 2, kNone, "two readers");
    XelRwlockReadUnLock(&lock);
    XelRwlockReadUnLock(&lock);
    CheckWords(lock, 0, kNone, "readers gone");
}

void CheckWriter()
{
    XelRwlock lock{7, 7};
    XelRwlockInit(&lock);
    XelRwlockWriteLock(&lock);
    CheckWords(lock, kNone, 0, "writer inside");
    Check(XelRwlockReadTryLock(&lock) == kNone, "no reader beside a writer");
    CheckWords(lock, kNone, 0, "refused reader");
    XelRwlockWriteUnLock(&lock);
    CheckWords(lock, 0, kNone, "writer gone");
    XelRwlock waiting{1, 0};
    Check(XelRwlockReadTryLock(&waiting) == kNone, "no reader behind a waiting writer");
    CheckWords(waiting, 1, 0, "reader refused by the gate");
}

void CheckSpin()
{
    XelSpinlock lock{7};
    XelSpinlockInit(&lock);
    Check(lock.word == 0, "init frees the spin lock");
    XelSpinlockLock(&lock);
    Check(lock.word == 1, "the word is 1 while held");
    Check(!XelSpinlockTryLock(&lock), "try on a held spin lock");
    XelSpinlockUnLock(&lock);
    Check(lock.word == 0, "the word is 0 when free");
    Check(XelSpinlockTryLock(&lock), "try on a free spin lock");
    Check(lock.word == 1, "the word is 1 after a try");
}

// Writers change two plain words together, readers and triers must never see them differ.
struct Guarded {
    XelRwlock lock;
    XelSpinlock spin;
    u64 first;
    u64 second;
    u64 spun;
};

void Contend(Guarded& guarded, u32 index)
{
    for (u32 i = 0; i < kRounds; ++i) {
        if (index % 2 == 0) {
            XelRwlockWriteLock(&guarded.lock);
            ++guarded.first;
            ++guarded.second;
            XelRwlockWriteUnLock(&guarded.lock);
        } else if (i % 2 == 0) {
            XelRwlockReadLock(&guarded.lock);
            Check(guarded.first == guarded.second, "a reader saw half a change");
            XelRwlockReadUnLock(&guarded.lock);
        } else if (XelRwlockReadTryLock(&guarded.lock) == 0) {
            Check(guarded.first == guarded.second, "a trier saw half a change");
            XelRwlockReadUnLock(&guarded.lock);
        }
        XelSpinlockLock(&guarded.spin);
        ++guarded.spun;
        XelSpinlockUnLock(&guarded.spin);
    }
}

void CheckContention()
{
    Guarded guarded{};
    XelRwlockInit(&guarded.lock);
    XelSpinlockInit(&guarded.spin);
    std::vector<std::thread> threads;
    for (u32 i = 0; i < kThreads; ++i) {
        threads.emplace_back([&guarded, i] { Contend(guarded, i); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    CheckWords(guarded.lock, 0, kNone, "after the contention");
    Check(guarded.first == kThreads / 2 * kRounds, "a write was lost");
    Check(guarded.first == guarded.second, "the guarded words differ");
    Check(guarded.spun == kThreads * kRounds, "a step under the spin lock was lost");
}

} // namespace

int main()
{
    static_assert(sizeof(XelRwlock) == 8 && offsetof(XelRwlock, gate) == 4);
    static_assert(sizeof(XelSpinlock) == 4);
    CheckReaders();
    CheckWriter();
    CheckSpin();
    CheckContention();
    if (g_failures.load() != 0) {
        return 1;
    }
    printf("locks: all checks passed\n");
    return 0;
}
