// Tracked memory: what the counters say after each step.
#include "xel_mem.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include <malloc.h>

#include <gtest/gtest.h>

namespace
{

XelMemUsage Usage()
{
    XelMemUsage usage{};
    XEL_MemGetUsage(&usage);
    return usage;
}

TEST(Mem, SizeZeroGivesNullAndCountsNothing)
{
    const XelMemUsage before = Usage();
    EXPECT_EQ(XEL_MemAllocF(0, "file", 1, 0), nullptr);
    EXPECT_EQ(Usage().totalBlocks, before.totalBlocks);
}

TEST(Mem, FreeingNullDoesNothing)
{
    const XelMemUsage before = Usage();
    XEL_MemFreeF(nullptr, "file", 1, 0);
    EXPECT_EQ(Usage().blocks, before.blocks);
    EXPECT_EQ(Usage().bytes, before.bytes);
}

TEST(Mem, BlocksAreAlignedWritableAndCounted)
{
    const XelMemUsage before = Usage();
    std::vector<void*> blocks;
    uint64_t bytes = 0;
    for (size_t size = 1; size <= 2000; size += 13) {
        void* block = XEL_MemAllocF(size, "file", 1, 0);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t), 0U);
        memset(block, 0xAB, size);
        bytes += malloc_usable_size(block);
        blocks.push_back(block);
        ASSERT_EQ(Usage().blocks, before.blocks + blocks.size());
        ASSERT_EQ(Usage().bytes, before.bytes + bytes);
        ASSERT_EQ(Usage().totalBlocks, before.totalBlocks + blocks.size());
    }
    for (void* block : blocks) {
        bytes -= malloc_usable_size(block);
        XEL_MemFreeF(block, "file", 2, 0);
        ASSERT_EQ(Usage().bytes, before.bytes + bytes);
    }
    EXPECT_EQ(Usage().blocks, before.blocks);
    EXPECT_EQ(Usage().totalBlocks, before.totalBlocks + blocks.size());
}

TEST(Mem, FileMayBeNull)
{
    void* block = XEL_MemAllocF(8, nullptr, 0, 0);
    EXPECT_NE(block, nullptr);
    XEL_MemFreeF(block, nullptr, 0, 0);
}

TEST(Mem, CountersAreExactAfterManyThreads)
{
    const XelMemUsage before = Usage();
    constexpr size_t kThreads = 4;
    constexpr size_t kRounds = 5000;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (size_t i = 0; i < kThreads; i++) {
        threads.emplace_back([] {
            for (size_t round = 0; round < kRounds; round++) {
                XEL_MemFreeF(XEL_MemAllocF(24, "file", 1, 0), "file", 2, 0);
            }
        });
    }
    XelMemUsage seen = Usage();
    for (int i = 0; i < 1000; i++) {
        seen = Usage();
        ASSERT_LE(seen.blocks, before.blocks + kThreads * kRounds) << "a negative difference";
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(Usage().blocks, before.blocks);
    EXPECT_EQ(Usage().bytes, before.bytes);
    EXPECT_EQ(Usage().totalBlocks, before.totalBlocks + kThreads * kRounds);
}

// Threads count in parts of their own, more threads than parts: only the sums have to be right.
TEST(Mem, BlocksFreedByOtherThreadsAreCountedOnce)
{
    constexpr size_t kThreads = 40;
    const XelMemUsage before = Usage();
    std::vector<void*> blocks(kThreads);
    size_t bytes = 0;
    for (void*& block : blocks) {
        std::thread([&block] { block = XEL_MemAllocF(100, "file", 1, 0); }).join();
        ASSERT_NE(block, nullptr);
        bytes += malloc_usable_size(block);
    }
    EXPECT_EQ(Usage().blocks, before.blocks + kThreads);
    EXPECT_EQ(Usage().bytes, before.bytes + bytes);
    for (void* block : blocks) {
        XEL_MemFreeF(block, "file", 2, 0);
    }
    EXPECT_EQ(Usage().blocks, before.blocks);
    EXPECT_EQ(Usage().bytes, before.bytes);
    EXPECT_EQ(Usage().totalBlocks, before.totalBlocks + kThreads);
}

TEST(Mem, NullUsageDoesNothing)
{
    const XelMemUsage before = Usage();
    XEL_MemGetUsage(nullptr);
    EXPECT_EQ(Usage().totalBlocks, before.totalBlocks);
}

} // namespace
