// The reader-writer lock: the value of both words at every step. Also the counted sched_yield.
#include <cstddef>
#include <sys/syscall.h>
#include <unistd.h>

#include "lock_support.h"

using namespace locktest;

std::atomic<u32> locktest::g_yields{0};

extern "C" __attribute__((visibility("default"))) int CountedYield() __asm__("sched_yield");
int CountedYield()
{
    g_yields.fetch_add(1);
    return static_cast<int>(syscall(SYS_sched_yield));
}

namespace
{

TEST(Rwlock, IsTwoWordsCountThenGate)
{
    static_assert(sizeof(XelRwlock) == 8 && alignof(XelRwlock) == 4);
    EXPECT_EQ(offsetof(XelRwlock, count), 0U);
    EXPECT_EQ(offsetof(XelRwlock, gate), 4U);
}

TEST(Rwlock, InitFreesWhateverWasThere)
{
    XelRwlock lock = FreshRwlock();
    EXPECT_TRUE(WordsAre(lock, 0, kOpen));
}

TEST(Rwlock, ReadersAreCounted)
{
    XelRwlock lock = FreshRwlock();
    XelRwlockReadLock(&lock);
    EXPECT_TRUE(WordsAre(lock, 1, kOpen));
    XelRwlockReadLock(&lock);
    EXPECT_TRUE(WordsAre(lock, 2, kOpen));
    XelRwlockReadUnLock(&lock);
    EXPECT_TRUE(WordsAre(lock, 1, kOpen));
    XelRwlockReadUnLock(&lock);
    EXPECT_TRUE(WordsAre(lock, 0, kOpen));
}

TEST(Rwlock, TryReadsBesideOtherReaders)
{
    XelRwlock lock = FreshRwlock();
    EXPECT_EQ(XelRwlockReadTryLock(&lock), 0U);
    EXPECT_TRUE(WordsAre(lock, 1, kOpen));
    EXPECT_EQ(XelRwlockReadTryLock(&lock), 0U);
    EXPECT_TRUE(WordsAre(lock, 2, kOpen));
}

TEST(Rwlock, WriterMarksBothWordsAndRestoresBoth)
{
    XelRwlock lock = FreshRwlock();
    XelRwlockWriteLock(&lock);
    EXPECT_TRUE(WordsAre(lock, kWriter, kClosed));
    XelRwlockWriteUnLock(&lock);
    EXPECT_TRUE(WordsAre(lock, 0, kOpen));
}

TEST(Rwlock, TryFailsAtOnceWhileAWriterHolds)
{
    XelRwlock lock = FreshRwlock();
    XelRwlockWriteLock(&lock);
    const u32 yields = g_yields.load();
    EXPECT_EQ(XelRwlockReadTryLock(&lock), kNo);
    EXPECT_TRUE(WordsAre(lock, kWriter, kClosed));
    EXPECT_EQ(g_yields.load(), yields);
}

TEST(Rwlock, TryFailsWhenTheGateIsClosedOverReaders)
{
    XelRwlock lock{3, kClosed};
    const u32 yields = g_yields.load();
    EXPECT_EQ(XelRwlockReadTryLock(&lock), kNo);
    EXPECT_TRUE(WordsAre(lock, 3, kClosed));
    EXPECT_EQ(g_yields.load(), yields);
}

TEST(Rwlock, TryFailsWhenTheCountIsNegativeBehindAnOpenGate)
{
    for (const u32 count : {0xFFFFFFFFU, 0x80000000U}) {
        XelRwlock lock{count, kOpen};
        EXPECT_EQ(XelRwlockReadTryLock(&lock), kNo);
        EXPECT_TRUE(WordsAre(lock, count, kOpen));
    }
    XelRwlock lock{0x7FFFFFFE, kOpen};
    EXPECT_EQ(XelRwlockReadTryLock(&lock), 0U);
    EXPECT_TRUE(WordsAre(lock, 0x7FFFFFFF, kOpen));
}

TEST(Rwlock, UncontendedOperationsNeverYield)
{
    XelRwlock lock = FreshRwlock();
    const u32 yields = g_yields.load();
    XelRwlockReadLock(&lock);
    EXPECT_EQ(XelRwlockReadTryLock(&lock), 0U);
    XelRwlockReadUnLock(&lock);
    XelRwlockReadUnLock(&lock);
    XelRwlockWriteLock(&lock);
    XelRwlockWriteUnLock(&lock);
    EXPECT_EQ(g_yields.load(), yields);
}

TEST(Rwlock, WriterClosesTheGateFirstAndWaitsForTheReadersInside)
{
    XelRwlock lock = FreshRwlock();
    XelRwlockReadLock(&lock);
    XelRwlockReadLock(&lock);
    std::atomic<bool> entered{false};
    std::thread writer([&] {
        XelRwlockWriteLock(&lock);
        entered.store(true);
    });
    EXPECT_TRUE(Await([&] { return Load(lock.gate) == kClosed; }));
    EXPECT_TRUE(AwaitYields());
    EXPECT_TRUE(WordsAre(lock, 2, kClosed));
    EXPECT_EQ(XelRwlockReadTryLock(&lock), kNo);
    XelRwlockReadUnLock(&lock);
    EXPECT_TRUE(AwaitYields());
    EXPECT_TRUE(WordsAre(lock, 1, kClosed));
    EXPECT_FALSE(entered.load());
    XelRwlockReadUnLock(&lock);
    writer.join();
    EXPECT_TRUE(WordsAre(lock, kWriter, kClosed));
    XelRwlockWriteUnLock(&lock);
    EXPECT_TRUE(WordsAre(lock, 0, kOpen));
}

TEST(Rwlock, ReaderYieldsUntilTheWriterHasLeft)
{
    XelRwlock lock = FreshRwlock();
    XelRwlockWriteLock(&lock);
    std::atomic<bool> entered{false};
    std::thread reader([&] {
        XelRwlockReadLock(&lock);
        entered.store(true);
    });
    EXPECT_TRUE(AwaitYields());
    EXPECT_TRUE(WordsAre(lock, kWriter, kClosed));
    EXPECT_FALSE(entered.load());
    XelRwlockWriteUnLock(&lock);
    reader.join();
    EXPECT_TRUE(WordsAre(lock, 1, kOpen));
}

TEST(Rwlock, ReaderIsHeldOffByAClosedGateAlone)
{
    XelRwlock lock{1, kClosed};
    std::thread reader([&] { XelRwlockReadLock(&lock); });
    EXPECT_TRUE(AwaitYields());
    EXPECT_TRUE(WordsAre(lock, 1, kClosed));
    Store(lock.gate, kOpen);
    reader.join();
    EXPECT_TRUE(WordsAre(lock, 2, kOpen));
}

TEST(Rwlock, ReaderIsHeldOffByANegativeCountAlone)
{
    XelRwlock lock{kWriter, kOpen};
    std::thread reader([&] { XelRwlockReadLock(&lock); });
    EXPECT_TRUE(AwaitYields());
    EXPECT_TRUE(WordsAre(lock, kWriter, kOpen));
    Store(lock.count, 0);
    reader.join();
    EXPECT_TRUE(WordsAre(lock, 1, kOpen));
}

TEST(Rwlock, SecondWriterWaitsForTheFirst)
{
    XelRwlock lock = FreshRwlock();
    XelRwlockWriteLock(&lock);
    std::atomic<bool> entered{false};
    std::thread second([&] {
        XelRwlockWriteLock(&lock);
        entered.store(true);
    });
    EXPECT_TRUE(AwaitYields());
    EXPECT_TRUE(WordsAre(lock, kWriter, kClosed));
    EXPECT_FALSE(entered.load());
    XelRwlockWriteUnLock(&lock);
    second.join();
    EXPECT_TRUE(WordsAre(lock, kWriter, kClosed));
    XelRwlockWriteUnLock(&lock);
    EXPECT_TRUE(WordsAre(lock, 0, kOpen));
}

} // namespace
