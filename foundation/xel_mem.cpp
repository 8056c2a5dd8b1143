// Tracked memory: the C library's heap with counters. Blocks carry no header; their size is asked
// back from the C library. Called from any thread, no lock.
#include "xel_mem.h"

#include <atomic>
#include <cstdlib>

#include <malloc.h>

#include "common/xel_int.h"

namespace
{

// Counts of the threads. A message is often allocated on one processor and freed on another: with
// one set of counters its cache line would travel twice for each. Only the sums over all mean
// something; bytes may go below zero in one part and wraps.
//
// Live blocks are the difference of the two counts, which keeps each path at two additions. The
// count of freed blocks is added to with release and read with acquire, so that a reader who counts
// a block as freed counts it as allocated too; everything else is relaxed.
struct alignas(64) Counts {
    std::atomic<u64> allocated;
    std::atomic<u64> freed;
    std::atomic<u64> bytes;
};

// The first threads have parts of their own, which nobody else changes; all others share the last
// one.
constexpr u32 kParts = 16;
constexpr u32 kSharedPart = kParts - 1;

constinit Counts g_xelMemCounts[kParts] = {};
constinit std::atomic<u32> g_xelMemThreads{0};
constinit thread_local Counts* t_xelMemCounts = nullptr;

// The calling thread's part.
Counts& Part()
{
    if (t_xelMemCounts == nullptr) {
        const u32 number = g_xelMemThreads.load(std::memory_order_relaxed) < kSharedPart
                               ? g_xelMemThreads.fetch_add(1, std::memory_order_relaxed)
                               : kSharedPart;
        t_xelMemCounts = &g_xelMemCounts[number < kSharedPart ? number : kSharedPart];
    }
    return *t_xelMemCounts;
}

// Adds to a count of the calling thread's part.
void AddTo(const Counts& part, std::atomic<u64>& count, u64 change, std::memory_order order)
{
    if (&part == &g_xelMemCounts[kSharedPart]) {
        count.fetch_add(change, order);
    } else {
        count.store(count.load(std::memory_order_relaxed) + change, order);
    }
}

} // namespace

void* XEL_MemAllocF(size_t size, const char*, uint32_t, uint32_t)
{
    void* block = size != 0 ? malloc(size) : nullptr;
    if (block == nullptr) {
        return nullptr;
    }
    Counts& part = Part();
    AddTo(part, part.allocated, 1, std::memory_order_relaxed);
    AddTo(part, part.bytes, malloc_usable_size(block), std::memory_order_relaxed);
    return block;
}

void XEL_MemFreeF(void* ptr, const char*, uint32_t, uint32_t)
{
    if (ptr == nullptr) {
        return;
    }
    Counts& part = Part();
    AddTo(part, part.bytes, 0 - malloc_usable_size(ptr), std::memory_order_relaxed);
    AddTo(part, part.freed, 1, std::memory_order_release);
    free(ptr);
}

void XEL_MemGetUsage(XelMemUsage* usage)
{
    if (usage == nullptr) {
        return;
    }
    // In this order: blocks that come and go meanwhile must not make the difference negative.
    u64 freed = 0;
    for (const Counts& part : g_xelMemCounts) {
        freed += part.freed.load(std::memory_order_acquire);
    }
    *usage = {};
    for (const Counts& part : g_xelMemCounts) {
        usage->totalBlocks += part.allocated.load(std::memory_order_relaxed);
        usage->bytes += part.bytes.load(std::memory_order_relaxed);
    }
    usage->blocks = usage->totalBlocks - freed;
}
