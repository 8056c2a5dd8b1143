// Where pools get their slabs: a process-wide store of spare slabs by size, refilled from anonymous
// mappings that are never given back. Spare slabs are zero behind their header.
#ifndef XEL_FOUNDATION_POOL_ARENA_H
#define XEL_FOUNDATION_POOL_ARENA_H

#include <bit>
#include <cerrno>

#include <sys/mman.h>

#include "common/xel_int.h"
#include "foundation/xel_pool_slab.h"

// Number of classes: the largest slab spans half of the address space.
constexpr u32 kSlabClasses = kAddressBits - kBlockShift;
constexpr u64 kChunkSize = u64{1} << 20;

inline u64 SlabSize(u32 slabClass)
{
    return kBlockSize << slabClass;
}

class PoolArena
{
public:
    // Keeps count slabs for a pool that is being created. False when there is no memory.
    bool Promise(u32 slabClass, u64 count)
    {
        const BaseGuard guard(lock_);
        Store& store = stores_[slabClass];
        const u64 unpromised = store.spare - store.promised;
        if (count > unpromised && !Refill(store, slabClass, count - unpromised)) {
            return false;
        }
        store.promised += count;
        return true;
    }

    // Hands out a slab that was promised. Never fails.
    Slab* TakePromised(u32 slabClass)
    {
        const BaseGuard guard(lock_);
        stores_[slabClass].promised--;
        return Pop(stores_[slabClass], slabClass);
    }

    // Hands out a slab that was not promised, or null when there is no memory.
    Slab* Take(u32 slabClass)
    {
        const BaseGuard guard(lock_);
        Store& store = stores_[slabClass];
        if (store.spare == store.promised && !Refill(store, slabClass, 1)) {
            return nullptr;
        }
        return Pop(store, slabClass);
    }

    void Give(Slab& slab, u32 slabClass)
    {
        const BaseGuard guard(lock_);
        Push(stores_[slabClass], slab, 1);
    }

    void Register(Pool& pool)
    {
        const BaseGuard guard(lock_);
        pool.livePrev = nullptr;
        pool.liveNext = livePools_;
        if (livePools_ != nullptr) {
            livePools_->livePrev = &pool;
        }
        livePools_ = &pool;
    }

    // Takes the pool out of the count, and what it was promised but did not take.
    void Unregister(Pool& pool)
    {
        const BaseGuard guard(lock_);
        (pool.livePrev != nullptr ? pool.livePrev->liveNext : livePools_) = pool.liveNext;
        if (pool.liveNext != nullptr) {
            pool.liveNext->livePrev = pool.livePrev;
        }
        stores_[pool.layout.slabClass].promised -= pool.promisedSlabs;
    }

    void Count(u64& pools, u64& units, u64& bytes)
    {
        const BaseGuard guard(lock_);
        pools = 0;
        units = 0;
        bytes = mappedBytes_;
        for (const Pool* pool = livePools_; pool != nullptr; pool = pool->liveNext) {
            pools++;
            units += pool->used.load(std::memory_order_relaxed);
        }
    }

private:
    // Spare slabs of one class, in runs of slabs that lie behind one another. A run is described in
    // the header of its first slab only: memory that no pool used yet stays untouched.
    struct Store {
        Slab* runs;
        u64 spare;
        u64 promised; // never above spare
    };

    static void Push(Store& store, Slab& first, u64 slabs)
    {
        first.next = store.runs;
        first.spareSlabs = slabs;
        store.runs = &first;
        store.spare += slabs;
    }

    // Takes the last slab of the first run, so that the run's description can stay where it is.
    static Slab* Pop(Store& store, u32 slabClass)
    {
        Slab* run = store.runs;
        store.spare--;
        run->spareSlabs--;
        if (run->spareSlabs == 0) {
            store.runs = run->next;
        }
        const u64 address = AddressOf(run) + run->spareSlabs * SlabSize(slabClass);
        const u64 block = address >> kBlockShift;
        BlockLeaf* leaf = g_xelPoolBlockMap[address >> kLeafShift].load(std::memory_order_relaxed);
        leaf->words[block / kWordBits % BlockLeaf::kWords].fetch_or(u64{1} << (block % kWordBits),
                                                                    std::memory_order_release);
        return SlabAt(address);
    }

    // Maps count slabs more, or a whole chunk when that is more.
    bool Refill(Store& store, u32 slabClass, u64 count)
    {
        const u64 chunkSlabs = kChunkSize / SlabSize(slabClass);
        const u64 slabs = count > chunkSlabs ? count : chunkSlabs;
        if (slabs >= (u64{1} << kAddressBits) / SlabSize(slabClass)) {
            errno = ENOMEM;
            return false;
        }
        const u64 bytes = slabs * SlabSize(slabClass);
        const u64 begin = MapBlocks(bytes);
        if (begin == 0) {
            return false;
        }
        if (!CoverWithLeaves(begin, bytes)) {
            Unmap(begin, begin + bytes);
            errno = ENOMEM;
            return false;
        }
        mappedBytes_ += bytes;
        Push(store, *SlabAt(begin), slabs);
        return true;
    }

    // Anonymous memory at a block boundary, as address space only; 0 when there is none.
    static u64 MapBlocks(u64 bytes)
    {
        const u64 size = bytes + kBlockSize;
        void* raw = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (raw == MAP_FAILED) {
            return 0;
        }
        const u64 mapped = AddressOf(raw);
        const u64 begin = (mapped + kBlockSize - 1) & ~(kBlockSize - 1);
        Unmap(mapped, begin);
        Unmap(begin + bytes, mapped + size);
        return begin;
    }

    static void Unmap(u64 begin, u64 end)
    {
        if (begin != end) {
            munmap(reinterpret_cast<void*>(begin), end - begin);
        }
    }

    // Makes sure that the map can answer for [begin, begin + bytes).
    static bool CoverWithLeaves(u64 begin, u64 bytes)
    {
        const u64 last = (begin + bytes - 1) >> kLeafShift;
        if (last >= kLeafCount) {
            return false;
        }
        for (u64 i = begin >> kLeafShift; i <= last; i++) {
            if (g_xelPoolBlockMap[i].load(std::memory_order_relaxed) != nullptr) {
                continue;
            }
            void* leaf = mmap(nullptr, sizeof(BlockLeaf), PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (leaf == MAP_FAILED) {
                return false;
            }
            g_xelPoolBlockMap[i].store(static_cast<BlockLeaf*>(leaf), std::memory_order_release);
        }
        return true;
    }

    // Guards everything below and the headers of spare slabs; taken inside a pool's lock.
    BaseLock lock_{};
    Store stores_[kSlabClasses]{};
    Pool* livePools_{};
    u64 mappedBytes_{};
};

#endif // XEL_FOUNDATION_POOL_ARENA_H
