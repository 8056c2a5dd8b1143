// The reader-writer lock on several threads: preference, exclusion, tries.
#include "lock_support.h"

using namespace locktest;

namespace
{

TEST(Rwlock, WaitingWriterGoesBeforeReadersThatCameLater)
{
    XelRwlock lock = FreshRwlock();
    XelRwlockReadLock(&lock);
    std::atomic<u32> arrivals{0};
    u32 writerPlace = 99;
    std::thread writer([&] {
        XelRwlockWriteLock(&lock);
        writerPlace = arrivals.fetch_add(1);
        XelRwlockWriteUnLock(&lock);
    });
    EXPECT_TRUE(Await([&] { return Load(lock.gate) == kClosed; }));
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            XelRwlockReadLock(&lock);
            arrivals.fetch_add(1);
            XelRwlockReadUnLock(&lock);
        });
    }
    EXPECT_TRUE(AwaitYields(20));
    EXPECT_TRUE(WordsAre(lock, 1, kClosed));
    XelRwlockReadUnLock(&lock);
    writer.join();
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(writerPlace, 0U);
    EXPECT_TRUE(WordsAre(lock, 0, kOpen));
}

TEST(Rwlock, WriterGetsInThroughAStreamOfReaders)
{
    XelRwlock lock = FreshRwlock();
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; i < 200; ++i) {
            XelRwlockWriteLock(&lock);
            XelRwlockWriteUnLock(&lock);
        }
        stop.store(true);
    });
    RunOn(4, [&](u32) {
        while (!stop.load()) {
            XelRwlockReadLock(&lock);
            XelRwlockReadUnLock(&lock);
        }
    });
    writer.join();
    EXPECT_TRUE(WordsAre(lock, 0, kOpen));
}

// Readers compare two plain words that writers change together; a data race would show as a
// difference, and to a thread sanitizer as such.
TEST(Rwlock, ExcludesUnderContention)
{
    XelRwlock lock = FreshRwlock();
    u64 first = 0;
    u64 second = 0;
    std::atomic<u64> torn{0};
    constexpr u32 kRounds = 3000;
    RunOn(6, [&](u32 index) {
        for (u32 i = 0; i < kRounds; ++i) {
            if (index < 3) {
                XelRwlockWriteLock(&lock);
                ++first;
                ++second;
                XelRwlockWriteUnLock(&lock);
            } else {
                XelRwlockReadLock(&lock);
                torn.fetch_add(first != second ? 1 : 0);
                XelRwlockReadUnLock(&lock);
            }
        }
    });
    EXPECT_EQ(first, 3U * kRounds);
    EXPECT_EQ(second, first);
    EXPECT_EQ(torn.load(), 0U);
    EXPECT_TRUE(WordsAre(lock, 0, kOpen));
}

TEST(Rwlock, SuccessfulTryExcludesWriters)
{
    XelRwlock lock = FreshRwlock();
    u64 first = 0;
    u64 second = 0;
    std::atomic<u64> torn{0};
    std::atomic<u64> taken{0};
    std::atomic<bool> stop{false};
    RunOn(4, [&](u32 index) {
        if (index == 0) {
            for (u32 i = 0; i < 3000 || taken.load() < 10; ++i) {
                XelRwlockWriteLock(&lock);
                ++first;
                ++second;
                XelRwlockWriteUnLock(&lock);
            }
            stop.store(true);
        }
        while (!stop.load()) {
            if (XelRwlockReadTryLock(&lock) == 0) {
                torn.fetch_add(first != second ? 1 : 0);
                taken.fetch_add(1);
                XelRwlockReadUnLock(&lock);
            }
            StepAside(); // a refused one must not burn the writer's time
        }
    });
    EXPECT_EQ(torn.load(), 0U);
    EXPECT_GE(taken.load(), 10U);
    EXPECT_TRUE(WordsAre(lock, 0, kOpen));
}

// Without any writer a try never fails, however often the count changes under it; and nobody waits.
TEST(Rwlock, TryKeepsTryingWhileReadersComeAndGo)
{
    XelRwlock lock = FreshRwlock();
    std::atomic<u32> refused{0};
    const u32 yields = g_yields.load();
    RunOn(4, [&](u32 index) {
        for (u32 i = 0; i < 20000; ++i) {
            if (index % 2 == 0) {
                XelRwlockReadLock(&lock);
                XelRwlockReadUnLock(&lock);
            } else if (XelRwlockReadTryLock(&lock) == 0) {
                XelRwlockReadUnLock(&lock);
            } else {
                refused.fetch_add(1);
            }
        }
    });
    EXPECT_EQ(refused.load(), 0U);
    EXPECT_EQ(g_yields.load(), yields);
    EXPECT_TRUE(WordsAre(lock, 0, kOpen));
}

} // namespace
