// The spin lock: the word at every step, and exclusion on several threads.
#include "lock_support.h"

using namespace locktest;

namespace
{

TEST(Spinlock, IsOneWordAndInitFreesIt)
{
    static_assert(sizeof(XelSpinlock) == 4);
    XelSpinlock lock = FreshSpinlock();
    EXPECT_EQ(Load(lock.word), 0U);
}

TEST(Spinlock, WordIsOneWhileHeld)
{
    XelSpinlock lock = FreshSpinlock();
    XelSpinlockLock(&lock);
    EXPECT_EQ(Load(lock.word), 1U);
    XelSpinlockUnLock(&lock);
    EXPECT_EQ(Load(lock.word), 0U);
}

TEST(Spinlock, TryTakesAFreeLock)
{
    XelSpinlock lock = FreshSpinlock();
    EXPECT_TRUE(XelSpinlockTryLock(&lock));
    EXPECT_EQ(Load(lock.word), 1U);
}

TEST(Spinlock, TryOnAHeldLockAnswersFalseWithoutYielding)
{
    XelSpinlock lock = FreshSpinlock();
    XelSpinlockLock(&lock);
    const u32 yields = g_yields.load();
    EXPECT_FALSE(XelSpinlockTryLock(&lock));
    EXPECT_EQ(Load(lock.word), 1U);
    EXPECT_EQ(g_yields.load(), yields);
}

TEST(Spinlock, UncontendedOperationsNeverYield)
{
    XelSpinlock lock = FreshSpinlock();
    const u32 yields = g_yields.load();
    XelSpinlockLock(&lock);
    XelSpinlockUnLock(&lock);
    EXPECT_TRUE(XelSpinlockTryLock(&lock));
    XelSpinlockUnLock(&lock);
    EXPECT_EQ(g_yields.load(), yields);
}

TEST(Spinlock, WaiterYieldsUntilTheHolderLeaves)
{
    XelSpinlock lock = FreshSpinlock();
    XelSpinlockLock(&lock);
    std::atomic<bool> entered{false};
    std::thread waiter([&] {
        XelSpinlockLock(&lock);
        entered.store(true);
    });
    EXPECT_TRUE(AwaitYields());
    EXPECT_FALSE(entered.load());
    EXPECT_EQ(Load(lock.word), 1U);
    XelSpinlockUnLock(&lock);
    waiter.join();
    EXPECT_EQ(Load(lock.word), 1U);
}

TEST(Spinlock, AnyNonZeroWordIsHeld)
{
    XelSpinlock lock{2};
    EXPECT_FALSE(XelSpinlockTryLock(&lock));
    EXPECT_EQ(Load(lock.word), 2U);
    std::thread waiter([&] { XelSpinlockLock(&lock); });
    EXPECT_TRUE(AwaitYields());
    EXPECT_EQ(Load(lock.word), 2U);
    XelSpinlockUnLock(&lock);
    waiter.join();
    EXPECT_EQ(Load(lock.word), 1U);
}

TEST(Spinlock, ExcludesUnderContention)
{
    XelSpinlock lock = FreshSpinlock();
    u64 counter = 0;
    constexpr u32 kRounds = 5000;
    RunOn(4, [&](u32) {
        for (u32 i = 0; i < kRounds; ++i) {
            XelSpinlockLock(&lock);
            ++counter;
            XelSpinlockUnLock(&lock);
        }
    });
    EXPECT_EQ(counter, 4U * kRounds);
    EXPECT_EQ(Load(lock.word), 0U);
}

TEST(Spinlock, SuccessfulTryExcludes)
{
    XelSpinlock lock = FreshSpinlock();
    u64 counter = 0;
    std::atomic<u64> taken{0};
    RunOn(4, [&](u32 index) {
        for (u32 i = 0; i < 5000; ++i) {
            if (index == 0) {
                XelSpinlockLock(&lock);
            } else if (!XelSpinlockTryLock(&lock)) {
                continue;
            }
            ++counter;
            taken.fetch_add(1);
            XelSpinlockUnLock(&lock);
        }
    });
    EXPECT_EQ(counter, taken.load());
    EXPECT_GE(counter, 5000U);
}

} // namespace
