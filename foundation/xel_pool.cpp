// Pools of equal-sized units. A pool owns a chain of slabs; every unit has a hidden word behind it
// that links the free ones. Called from any thread; each pool has a lock of its own, under which
// the arena's lock is taken when the pool grows. Validity is answered without a lock.
#include "xel_pool.h"

#include <bit>
#include <cerrno>

#include "foundation/xel_pool_arena.h"

constinit std::atomic<BlockLeaf*> g_xelPoolBlockMap[kLeafCount]{};

namespace
{

constexpr u64 kHiddenWordSize = sizeof(u64);
constexpr u64 kMaxUnitSize = u64{1} << 46;

constinit PoolArena g_xelPoolArena{};

u64 RoundUp(u64 value, u64 step)
{
    return (value + step - 1) / step * step;
}

UnitLayout LayoutOf(u64 unitSize)
{
    UnitLayout layout{};
    layout.linkOffset = RoundUp(unitSize, kUnitAlign);
    layout.stride = layout.linkOffset + kHiddenWordSize;
    const u64 blocks = RoundUp(kSlabHeaderSize + layout.stride, kBlockSize) / kBlockSize;
    layout.slabClass = static_cast<u32>(std::bit_width(blocks - 1));
    layout.unitsPerSlab = blocks > 1 ? 1 : (kBlockSize - kSlabHeaderSize) / layout.stride;
    return layout;
}

// Makes a zeroed slab the pool's newest one.
void AddSlab(Pool& pool, Slab& slab)
{
    slab.linkOffset.store(pool.layout.linkOffset, std::memory_order_relaxed);
    slab.next = pool.slabs;
    pool.slabs = &slab;
    pool.freshUnit = AddressOf(&slab) + kSlabHeaderSize;
    pool.freshEnd = pool.freshUnit + pool.layout.unitsPerSlab * pool.layout.stride;
    slab.owner.store(&pool, std::memory_order_release);
}

bool Grow(Pool& pool)
{
    Slab* slab = nullptr;
    if (pool.promisedSlabs > 0) {
        pool.promisedSlabs--;
        slab = g_xelPoolArena.TakePromised(pool.layout.slabClass);
    } else {
        slab = g_xelPoolArena.Take(pool.layout.slabClass);
    }
    if (slab == nullptr) {
        return false;
    }
    AddSlab(pool, *slab);
    return true;
}

// Under the pool's lock: the unit freed last, else a fresh one, or 0.
u64 TakeUnit(Pool& pool)
{
    if (pool.freeUnit != 0) {
        const u64 unit = pool.freeUnit;
        pool.freeUnit = HiddenWord(*SlabAt(unit), unit).load(std::memory_order_relaxed);
        return unit;
    }
    if (pool.freshUnit == pool.freshEnd && !Grow(pool)) {
        return 0;
    }
    const u64 unit = pool.freshUnit;
    pool.freshUnit += pool.layout.stride;
    return unit;
}

void SetLive(Slab& slab, u64 unit)
{
    std::atomic<u64>& word = LiveWord(slab, unit);
    word.store(word.load(std::memory_order_relaxed) | LiveBit(unit), std::memory_order_release);
}

void ClearLive(Slab& slab, u64 unit)
{
    std::atomic<u64>& word = LiveWord(slab, unit);
    word.store(word.load(std::memory_order_relaxed) & ~LiveBit(unit), std::memory_order_release);
}

void CountUsed(Pool& pool, u64 change)
{
    pool.used.store(pool.used.load(std::memory_order_relaxed) + change, std::memory_order_relaxed);
}

// Under the pool's lock. The control block of a destroyed pool stays readable in its old slab.
bool IsOpen(Pool& pool)
{
    return SlabAt(AddressOf(&pool))->owner.load(std::memory_order_relaxed) == &pool;
}

// Under the pool's lock: from here on no unit of the pool is valid and none can be freed.
void Close(Pool& pool)
{
    for (Slab* slab = pool.slabs; slab != nullptr; slab = slab->next) {
        for (std::atomic<u64>& word : slab->live) {
            word.store(0, std::memory_order_release);
        }
        slab->owner.store(nullptr, std::memory_order_release);
    }
    pool.used.store(0, std::memory_order_relaxed);
}

// Word by word and relaxed: somebody with a stale unit may be reading it.
void ClearUnits(u64 begin, u64 end)
{
    for (u64 word = begin; word != end; word += sizeof(u64)) {
        std::atomic_ref<u64>(*reinterpret_cast<u64*>(word)).store(0, std::memory_order_relaxed);
    }
}

// Clears what was handed out and gives the slabs back. The first slab, where the control block
// lives, is the last of the chain; nothing of the pool is read once it is given away.
void ReleaseSlabs(Pool& pool)
{
    const UnitLayout layout = pool.layout;
    const u64 unitBytes = layout.unitsPerSlab * layout.stride;
    u64 usedEnd = pool.freshUnit;
    for (Slab* slab = pool.slabs; slab != nullptr;) {
        Slab* next = slab->next;
        ClearUnits(AddressOf(slab) + kSlabHeaderSize, usedEnd);
        g_xelPoolArena.Give(*slab, layout.slabClass);
        slab = next;
        usedEnd = AddressOf(slab) + kSlabHeaderSize + unitBytes;
    }
}

} // namespace

void* FmmCtrlCreate(size_t unitSize, uint32_t number, uint32_t)
{
    if (unitSize == 0) {
        return nullptr;
    }
    if (unitSize > kMaxUnitSize) {
        errno = ENOMEM;
        return nullptr;
    }
    const UnitLayout layout = LayoutOf(unitSize);
    const u64 units = number == 0 ? 1 : number;
    const u64 slabs = RoundUp(units, layout.unitsPerSlab) / layout.unitsPerSlab;
    if (!g_xelPoolArena.Promise(layout.slabClass, slabs)) {
        return nullptr;
    }
    Slab* first = g_xelPoolArena.TakePromised(layout.slabClass);
    Pool& pool = first->pool;
    pool.layout = layout;
    pool.freeUnit = 0;
    pool.slabs = nullptr;
    pool.promisedSlabs = slabs - 1;
    pool.used.store(0, std::memory_order_relaxed);
    AddSlab(pool, *first);
    g_xelPoolArena.Register(pool);
    return &pool;
}

void FmmCtrlDestroy(void* handle)
{
    if (handle == nullptr) {
        return;
    }
    Pool& pool = *static_cast<Pool*>(handle);
    {
        const BaseGuard guard(pool.lock);
        if (!IsOpen(pool)) {
            return;
        }
        Close(pool);
    }
    g_xelPoolArena.Unregister(pool);
    ReleaseSlabs(pool);
}

void* FmmUnitAlloc(void* handle)
{
    if (handle == nullptr) {
        return nullptr;
    }
    Pool& pool = *static_cast<Pool*>(handle);
    const BaseGuard guard(pool.lock);
    const u64 unit = IsOpen(pool) ? TakeUnit(pool) : 0;
    if (unit == 0) {
        return nullptr;
    }
    Slab& slab = *SlabAt(unit);
    HiddenWord(slab, unit).store(0, std::memory_order_relaxed);
    SetLive(slab, unit);
    CountUsed(pool, 1);
    return reinterpret_cast<void*>(unit);
}

void FmmUnitFree(void* pointer)
{
    const u64 unit = AddressOf(pointer);
    Slab* slab = LiveUnitSlab(unit);
    if (slab == nullptr) {
        return;
    }
    Pool* pool = slab->owner.load(std::memory_order_acquire);
    if (pool == nullptr) {
        return;
    }
    const BaseGuard guard(pool->lock);
    // Another thread may have freed the unit or destroyed the pool meanwhile.
    if (slab->owner.load(std::memory_order_relaxed) != pool || !IsLive(*slab, unit)) {
        return;
    }
    ClearLive(*slab, unit);
    HiddenWord(*slab, unit).store(pool->freeUnit, std::memory_order_relaxed);
    pool->freeUnit = unit;
    CountUsed(*pool, ~u64{0});
}

bool FmmUnitIsValid(const void* unit, uint32_t)
{
    return LiveUnitSlab(AddressOf(unit)) != nullptr;
}

void FmmGetUsage(FmmUsage* usage)
{
    if (usage != nullptr) {
        g_xelPoolArena.Count(usage->pools, usage->units, usage->bytes);
    }
}
