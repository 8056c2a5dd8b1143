// Unit pools under threads: allocation, free and validity beside the life and death of other pools.
#include "xel_pool.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/xel_base_lock.h"

namespace
{

FmmUsage Usage()
{
    FmmUsage usage{};
    FmmGetUsage(&usage);
    return usage;
}

std::atomic_ref<uint64_t> Word(void* unit)
{
    return std::atomic_ref<uint64_t>(*static_cast<uint64_t*>(unit));
}

// Runs body(index) on each of count threads and waits for all.
template <typename Body>
void RunThreads(int count, Body body)
{
    std::vector<std::thread> threads;
    threads.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; i++) {
        threads.emplace_back(body, i);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(PoolThreads, NoUnitIsHandedOutTwice)
{
    void* pool = FmmCtrlCreate(136, 8, 1);
    std::atomic<int> clashes{0};
    RunThreads(4, [&](int index) {
        const uint64_t mark = static_cast<uint64_t>(index) + 1;
        std::vector<void*> mine;
        for (int round = 0; round < 200; round++) {
            for (int i = 0; i < 20; i++) {
                mine.push_back(FmmUnitAlloc(pool));
                Word(mine.back()).store(mark, std::memory_order_relaxed);
            }
            while (mine.size() > 10) {
                const bool right = Word(mine.back()).load(std::memory_order_relaxed) == mark &&
                                   FmmUnitIsValid(mine.back(), 0);
                clashes += right ? 0 : 1;
                FmmUnitFree(mine.back());
                mine.pop_back();
            }
        }
        for (void* unit : mine) {
            FmmUnitFree(unit);
        }
    });
    EXPECT_EQ(clashes.load(), 0);
    EXPECT_EQ(Usage().units, 0U);
    FmmCtrlDestroy(pool);
}

TEST(PoolThreads, AUnitFreedByTwoThreadsAtOnceIsFreedOnce)
{
    constexpr int kUnits = 50000;
    constexpr int kRounds = 6;
    void* pool = FmmCtrlCreate(24, 8, 1);
    std::vector<void*> units(kUnits);
    for (int round = 0; round < kRounds; round++) {
        for (void*& unit : units) {
            unit = FmmUnitAlloc(pool);
        }
        // A unit that was chained twice would have come back twice.
        std::vector<void*> sorted = units;
        std::sort(sorted.begin(), sorted.end());
        ASSERT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end());
        // Whoever is behind catches up, as a unit that is free already costs it little: from then
        // on both are at the same unit most of the time.
        std::atomic<int> ready{0};
        RunThreads(2, [&](int) {
            ready++;
            while (ready < 2) {
                std::this_thread::yield();
            }
            for (void* unit : units) {
                FmmUnitFree(unit);
            }
        });
        ASSERT_EQ(Usage().units, 0U);
    }
    FmmCtrlDestroy(pool);
}

TEST(PoolThreads, StaleUnitsAreReadableWhilePoolsComeAndGo)
{
    constexpr uint64_t kMagic = 0x1122334455667788U;
    constexpr int kSlots = 64;
    std::atomic<void*> slots[kSlots] = {};
    std::atomic<bool> stop{false};
    std::atomic<int> strange{0};
    std::thread reader([&] {
        while (!stop.load(std::memory_order_relaxed)) {
            for (std::atomic<void*>& slot : slots) {
                void* unit = slot.load(std::memory_order_acquire);
                (void)FmmUnitIsValid(unit, 0);
                if (unit != nullptr) {
                    const uint64_t word = Word(unit).load(std::memory_order_relaxed);
                    strange += word == 0 || word == kMagic ? 0 : 1;
                }
            }
        }
    });
    std::thread freer([&] {
        while (!stop.load(std::memory_order_relaxed)) {
            for (std::atomic<void*>& slot : slots) {
                FmmUnitFree(slot.load(std::memory_order_acquire));
            }
        }
    });
    RunThreads(2, [&](int index) {
        for (int round = 0; round < 150; round++) {
            void* pool = FmmCtrlCreate(index == 0 ? 24 : 4000, 8, 1);
            for (int i = index; i < kSlots; i += 2) {
                void* unit = FmmUnitAlloc(pool);
                Word(unit).store(kMagic, std::memory_order_relaxed);
                slots[i].store(unit, std::memory_order_release);
            }
            FmmCtrlDestroy(pool);
        }
    });
    stop = true;
    reader.join();
    freer.join();
    EXPECT_EQ(strange.load(), 0);
    EXPECT_EQ(Usage().pools, 0U);
    EXPECT_EQ(Usage().units, 0U);
}

TEST(PoolThreads, PoolsOfOtherThreadsDoNotDisturb)
{
    void* pool = FmmCtrlCreate(64, 8, 1);
    void* kept = FmmUnitAlloc(pool);
    std::atomic<int> wrong{0};
    RunThreads(4, [&](int index) {
        for (int round = 0; round < 300; round++) {
            if (index % 2 == 0) {
                void* own = FmmCtrlCreate(8 + static_cast<size_t>(round), 200, 2);
                void* unit = FmmUnitAlloc(own);
                wrong += FmmUnitIsValid(unit, 0) ? 0 : 1;
                FmmCtrlDestroy(own);
            } else {
                void* unit = FmmUnitAlloc(pool);
                wrong += FmmUnitIsValid(unit, 1) && FmmUnitIsValid(kept, 1) ? 0 : 1;
                FmmUnitFree(unit);
            }
            (void)Usage();
        }
    });
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(Usage().pools, 1U);
    EXPECT_EQ(Usage().units, 1U);
    FmmCtrlDestroy(pool);
}

TEST(BaseLock, ExcludesAndLosesNoWakeUp)
{
    BaseLock lock;
    uint64_t counter = 0; // plain on purpose: the lock is its only protection
    RunThreads(4, [&](int) {
        for (int i = 0; i < 20000; i++) {
            const BaseGuard guard(lock);
            counter++;
        }
    });
    EXPECT_EQ(counter, 80000U);
}

} // namespace
