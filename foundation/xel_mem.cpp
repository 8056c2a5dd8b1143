// Tracked memory: the C library's heap with counters. Blocks carry no header; their size is asked
// back from the C library. Called from any thread, no lock.
#include "xel_mem.h"

#include <atomic>
#include <cstdlib>

#include <malloc.h>

#include "common/xel_int.h"

namespace
{

// Live blocks are the difference of the two counts, which keeps each path at two additions. The
// count of freed blocks is added to with release and read with acquire, so that a reader who counts
// a block as freed counts it as allocated too; everything else is relaxed.
constinit std::atomic<u64> g_xelMemAllocated{0};
constinit std::atomic<u64> g_xelMemFreed{0};
constinit std::atomic<u64> g_xelMemBytes{0};

} // namespace

void* XEL_MemAllocF(size_t size, const char*, uint32_t, uint32_t)
{
    void* block = size != 0 ? malloc(size) : nullptr;
    if (block == nullptr) {
        return nullptr;
    }
    g_xelMemAllocated.fetch_add(1, std::memory_order_relaxed);
    g_xelMemBytes.fetch_add(malloc_usable_size(block), std::memory_order_relaxed);
    return block;
}

void XEL_MemFreeF(void* ptr, const char*, uint32_t, uint32_t)
{
    if (ptr == nullptr) {
        return;
    }
    g_xelMemBytes.fetch_sub(malloc_usable_size(ptr), std::memory_order_relaxed);
    g_xelMemFreed.fetch_add(1, std::memory_order_release);
    free(ptr);
}

void XEL_MemGetUsage(XelMemUsage* usage)
{
    if (usage == nullptr) {
        return;
    }
    // In this order: blocks that come and go meanwhile must not make the difference negative.
    const u64 freed = g_xelMemFreed.load(std::memory_order_acquire);
    usage->totalBlocks = g_xelMemAllocated.load(std::memory_order_relaxed);
    usage->blocks = usage->totalBlocks - freed;
    usage->bytes = g_xelMemBytes.load(std::memory_order_relaxed);
}
