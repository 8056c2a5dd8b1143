// Short holds of a reader-writer lock: whole while the lock is free, else what their names say.
#include "common/xel_lock_guard.h"

#include "lock_support.h"

namespace
{

using namespace locktest;

TEST(ShortHold, FreeLockIsTakenWholeWithTheGateLeftOpen)
{
    XelRwlock lock = FreshRwlock();
    {
        const ShortReadGuard guard(lock);
        EXPECT_TRUE(WordsAre(lock, kWriter, kOpen));
        EXPECT_EQ(XelRwlockReadTryLock(&lock), kNo);
    }
    EXPECT_TRUE(WordsAre(lock, 0, kOpen));
    {
        const ShortWriteGuard guard(lock);
        EXPECT_TRUE(WordsAre(lock, kWriter, kOpen));
    }
    EXPECT_TRUE(WordsAre(lock, 0, kOpen));
}

TEST(ShortHold, ReaderSharesWithReaders)
{
    XelRwlock lock = FreshRwlock();
    XelRwlockReadLock(&lock);
    {
        const ShortReadGuard guard(lock);
        EXPECT_TRUE(WordsAre(lock, 2, kOpen));
    }
    EXPECT_TRUE(WordsAre(lock, 1, kOpen));
    XelRwlockReadUnLock(&lock);
}

TEST(ShortHold, WriterWaitsForReadersBehindAClosedGate)
{
    XelRwlock lock = FreshRwlock();
    XelRwlockReadLock(&lock);
    std::atomic<bool> inside{false};
    std::thread writer([&] {
        const ShortWriteGuard guard(lock);
        inside.store(true);
    });
    EXPECT_TRUE(Await([&] { return Load(lock.gate) == kClosed; }));
    EXPECT_FALSE(inside.load());
    XelRwlockReadUnLock(&lock);
    writer.join();
    EXPECT_TRUE(inside.load());
    EXPECT_TRUE(WordsAre(lock, 0, kOpen));
}

TEST(ShortHold, WriterThatWaitsGoesFirst)
{
    XelRwlock lock = FreshRwlock();
    Store(lock.gate, kClosed); // a writer between its two steps
    std::atomic<u32> inside{0};
    std::thread reader([&] {
        const ShortReadGuard guard(lock);
        inside.fetch_add(1);
    });
    const u32 before = g_yields.load();
    EXPECT_TRUE(Await([&] { return g_yields.load() > before; }));
    EXPECT_EQ(inside.load(), 0U);
    Store(lock.gate, kOpen);
    reader.join();
    EXPECT_EQ(inside.load(), 1U);
}

// All four kinds of holds together; the two numbers change together under a write hold only.
TEST(ShortHold, WritersExcludeEverybodyOfEveryKind)
{
    constexpr u32 kRounds = 10000;
    XelRwlock lock = FreshRwlock();
    u64 first = 0;
    u64 second = 0;
    std::atomic<u64> torn{0};
    RunOn(4, [&](u32 index) {
        for (u32 i = 0; i < kRounds; ++i) {
            if (index == 0) {
                const ShortWriteGuard guard(lock);
                ++first;
                ++second;
            } else if (index == 1) {
                const WriteGuard guard(lock);
                ++first;
                ++second;
            } else if (index == 2) {
                const ShortReadGuard guard(lock);
                torn.fetch_add(first != second ? 1 : 0);
            } else {
                const ReadGuard guard(lock);
                torn.fetch_add(first != second ? 1 : 0);
            }
        }
    });
    EXPECT_EQ(first, 2U * kRounds);
    EXPECT_EQ(second, first);
    EXPECT_EQ(torn.load(), 0U);
    EXPECT_TRUE(WordsAre(lock, 0, kOpen));
}

} // namespace
