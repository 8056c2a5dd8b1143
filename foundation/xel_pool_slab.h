// The memory layout of unit pools, and the one question that others ask about it: does a live unit
// begin at this address? Used by the pools themselves and by the lists, which keep the owner of a
// linked unit in the word behind it.
//
// All pool memory consists of 64 KiB blocks at 64 KiB boundaries. A slab is one block, or a span of
// several for units that do not fit into one; its header stands in the first block. A map over the
// whole address space tells which blocks are first blocks of slabs. Slabs are never unmapped, and a
// block that was once marked stays marked, so everything here can be read without a lock.
#ifndef XEL_FOUNDATION_POOL_SLAB_H
#define XEL_FOUNDATION_POOL_SLAB_H

#include <atomic>

#include "common/xel_int.h"
#include "foundation/xel_base_lock.h"

constexpr u64 kBlockShift = 16;
constexpr u64 kBlockSize = u64{1} << kBlockShift;
constexpr u64 kUnitAlign = 8;
constexpr u64 kWordBits = 64;

// User space ends at 48 bits on every supported machine unless a program asks for more.
constexpr u64 kAddressBits = 48;
constexpr u64 kLeafShift = 32;
constexpr u64 kLeafCount = u64{1} << (kAddressBits - kLeafShift);

// One bit per block of a 4 GiB region.
struct BlockLeaf {
    static constexpr u64 kWords = (u64{1} << (kLeafShift - kBlockShift)) / kWordBits;
    // Set with release by the thread that makes the block a slab; pairs with FirstBlockOf's load.
    std::atomic<u64> words[kWords];
};

// Leaves appear on demand and stay. Stored with release, pairs with FirstBlockOf's load.
extern std::atomic<BlockLeaf*> g_xelPoolBlockMap[kLeafCount];

struct Slab;

// How the units of a pool lie in its slabs.
struct UnitLayout {
    u64 linkOffset;   // from a unit to the hidden word behind it
    u64 stride;       // from a unit to the next
    u64 unitsPerSlab; // 1 in spans
    u32 slabClass;    // a slab of class c has 2^c blocks
};

// Control block of a pool; it lives in the header of the pool's first slab. The lock guards all
// fields but the last two, which the arena's lock guards. It is never initialised nor cleared: a
// thread that frees a unit of a destroyed pool may still be waiting for it.
struct Pool {
    BaseLock lock;
    UnitLayout layout;
    u64 freeUnit;          // freed last; the others follow through the hidden words
    u64 freshUnit;         // next unit of the newest slab that was never handed out
    u64 freshEnd;          // where the newest slab's units end
    Slab* slabs;           // newest first
    u64 promisedSlabs;     // what the arena keeps for this pool
    std::atomic<u64> used; // allocated units; read without the lock for FmmGetUsage only
    Pool* livePrev;
    Pool* liveNext;
};

// Header of a slab.
struct Slab {
    // Null while the slab is spare. Changes under the lock of the pool that is, or was, the owner;
    // stored with release, pairs with the load of FmmUnitFree.
    std::atomic<Pool*> owner;
    Slab* next;     // in the pool's chain, or in the arena's list of spare runs
    u64 spareSlabs; // of a spare run: how many slabs lie behind one another
    // Copy of the layout's, for the lists; relaxed, whoever asks owns the unit.
    std::atomic<u64> linkOffset;
    Pool pool; // in use in a pool's first slab only
    // One bit per 8 bytes of the first block, set while a unit that begins there is allocated.
    // Changed under the owner's lock, with release; pairs with IsLive.
    std::atomic<u64> live[kBlockSize / kUnitAlign / kWordBits];
};

constexpr u64 kCacheLine = 64;
constexpr u64 kSlabHeaderSize = (sizeof(Slab) + kCacheLine - 1) / kCacheLine * kCacheLine;

inline u64 AddressOf(const volatile void* pointer)
{
    return reinterpret_cast<u64>(pointer);
}

// The first block of the slab that a unit lies in.
inline Slab* SlabAt(u64 address)
{
    return reinterpret_cast<Slab*>(address & ~(kBlockSize - 1));
}

inline std::atomic<u64>& LiveWord(Slab& slab, u64 unit)
{
    return slab.live[(unit % kBlockSize) / kUnitAlign / kWordBits];
}

inline u64 LiveBit(u64 unit)
{
    return u64{1} << (unit / kUnitAlign % kWordBits);
}

inline bool IsLive(Slab& slab, u64 unit)
{
    return (LiveWord(slab, unit).load(std::memory_order_acquire) & LiveBit(unit)) != 0;
}

// The slab whose first block holds address, or null. Touches nothing but the map.
inline Slab* FirstBlockOf(u64 address)
{
    if ((address >> kAddressBits) != 0) {
        return nullptr;
    }
    BlockLeaf* leaf = g_xelPoolBlockMap[address >> kLeafShift].load(std::memory_order_acquire);
    if (leaf == nullptr) {
        return nullptr;
    }
    const u64 block = address >> kBlockShift;
    const u64 word =
        leaf->words[block / kWordBits % BlockLeaf::kWords].load(std::memory_order_acquire);
    return ((word >> (block % kWordBits)) & 1) != 0 ? SlabAt(address) : nullptr;
}

// The slab of the live unit that begins at address, or null when there is none.
inline Slab* LiveUnitSlab(u64 address)
{
    if (address % kUnitAlign != 0) {
        return nullptr;
    }
    Slab* slab = FirstBlockOf(address);
    return slab != nullptr && IsLive(*slab, address) ? slab : nullptr;
}

// The word behind a unit: link of the free list while the unit is free (under the pool's lock),
// head of the list that the unit is linked into while it is allocated (under that list's lock).
inline std::atomic_ref<u64> HiddenWord(Slab& slab, u64 unit)
{
    const u64 offset = slab.linkOffset.load(std::memory_order_relaxed);
    return std::atomic_ref<u64>(*reinterpret_cast<u64*>(unit + offset));
}

#endif // XEL_FOUNDATION_POOL_SLAB_H
