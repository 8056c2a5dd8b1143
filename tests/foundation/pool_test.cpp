// Unit pools on one thread: what is handed out, what is valid, what stays.
#include "xel_pool.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>
#include <set>
#include <unordered_map>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "sanitized.h"

namespace
{

constexpr size_t kBlock = 65536;
constexpr uint64_t kChunk = 1U << 20;

FmmUsage Usage()
{
    FmmUsage usage{};
    FmmGetUsage(&usage);
    return usage;
}

bool IsZero(const void* unit, size_t size)
{
    const auto* bytes = static_cast<const unsigned char*>(unit);
    return std::all_of(bytes, bytes + size, [](unsigned char byte) { return byte == 0; });
}

const void* At(uint64_t address)
{
    return reinterpret_cast<const void*>(address);
}

// Pages of memory in use.
uint64_t ResidentBytes()
{
    FILE* file = fopen("/proc/self/statm", "r");
    uint64_t total = 0;
    uint64_t resident = 0;
    const int found = fscanf(file, "%lu %lu", &total, &resident);
    fclose(file);
    return found == 2 ? resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) : 0;
}

// A pool that is destroyed with its scope, and the check that nothing of it is left.
class TestPool
{
public:
    explicit TestPool(size_t unitSize, uint32_t number = 8)
        : before_(Usage()), pool_(FmmCtrlCreate(unitSize, number, 1))
    {
    }
    ~TestPool()
    {
        FmmCtrlDestroy(pool_);
        EXPECT_EQ(Usage().pools, before_.pools);
        EXPECT_EQ(Usage().units, before_.units);
    }
    TestPool(const TestPool&) = delete;
    TestPool& operator=(const TestPool&) = delete;

    void* Get() const { return pool_; }
    void* Alloc() const { return FmmUnitAlloc(pool_); }

private:
    FmmUsage before_;
    void* pool_;
};

TEST(Pool, UnitSizeZeroIsRefused)
{
    EXPECT_EQ(FmmCtrlCreate(0, 8, 1), nullptr);
}

TEST(Pool, ImpossibleSizesAreNoMemory)
{
    const FmmUsage before = Usage();
    for (const size_t size : {SIZE_MAX, SIZE_MAX / 2, SIZE_MAX - 7, size_t{1} << 47}) {
        errno = 0;
        EXPECT_EQ(FmmCtrlCreate(size, 1, 1), nullptr) << size;
        EXPECT_EQ(errno, ENOMEM);
    }
    errno = 0;
    EXPECT_EQ(FmmCtrlCreate(kBlock, UINT32_MAX, 1), nullptr) << "room for 2^32 spans";
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(Usage().pools, before.pools);
    EXPECT_EQ(Usage().bytes, before.bytes);
}

TEST(Pool, NullPoolGivesNothing)
{
    const FmmUsage before = Usage();
    EXPECT_EQ(FmmUnitAlloc(nullptr), nullptr);
    FmmCtrlDestroy(nullptr);
    FmmGetUsage(nullptr);
    EXPECT_EQ(Usage().pools, before.pools);
}

TEST(Pool, EveryModeAndNumberZeroWork)
{
    for (const uint32_t mode : {0U, 1U, 2U, 6U, UINT32_MAX}) {
        void* pool = FmmCtrlCreate(24, 0, mode);
        void* unit = FmmUnitAlloc(pool);
        EXPECT_TRUE(FmmUnitIsValid(unit, mode));
        FmmCtrlDestroy(pool);
    }
}

TEST(Pool, UsageCountsPoolsAndUnits)
{
    const FmmUsage before = Usage();
    {
        const TestPool one(24);
        const TestPool two(100);
        EXPECT_EQ(Usage().pools, before.pools + 2);
        void* unit = one.Alloc();
        (void)two.Alloc();
        EXPECT_EQ(Usage().units, before.units + 2);
        FmmUnitFree(unit);
        EXPECT_EQ(Usage().units, before.units + 1);
    }
    EXPECT_EQ(Usage().pools, before.pools);
    EXPECT_EQ(Usage().units, before.units);
}

TEST(Pool, GrowsFarBeyondItsNumber)
{
    const TestPool pool(136, 8);
    std::set<void*> units;
    for (int i = 0; i < 100000; i++) {
        void* unit = pool.Alloc();
        ASSERT_NE(unit, nullptr);
        ASSERT_TRUE(units.insert(unit).second);
    }
    for (void* unit : units) {
        ASSERT_TRUE(FmmUnitIsValid(unit, 0));
    }
}

TEST(Pool, UnitsAreAlignedAndDoNotOverlap)
{
    for (size_t size = 1; size <= 300; size++) {
        const TestPool pool(size);
        std::vector<unsigned char*> units;
        for (unsigned i = 0; i < 40; i++) {
            auto* unit = static_cast<unsigned char*>(pool.Alloc());
            ASSERT_EQ(reinterpret_cast<uintptr_t>(unit) % 8, 0U);
            ASSERT_TRUE(IsZero(unit, size));
            memset(unit, static_cast<int>(i + 1), size);
            units.push_back(unit);
        }
        for (unsigned i = 0; i < units.size(); i++) {
            ASSERT_EQ(std::count(units[i], units[i] + size, i + 1),
                      static_cast<std::ptrdiff_t>(size));
        }
    }
}

TEST(Pool, LastFreedUnitComesFirst)
{
    // Units of several slabs, freed in no order of theirs.
    const TestPool pool(5000);
    std::vector<void*> units(200);
    for (void*& unit : units) {
        unit = pool.Alloc();
    }
    std::shuffle(units.begin(), units.end(), std::mt19937(3));
    for (void* unit : units) {
        FmmUnitFree(unit);
    }
    for (auto unit = units.rbegin(); unit != units.rend(); ++unit) {
        ASSERT_EQ(pool.Alloc(), *unit);
    }
}

TEST(Pool, FreedUnitKeepsItsBytesUntilItsNextOwnerChangesThem)
{
    const TestPool pool(100);
    auto* unit = static_cast<unsigned char*>(pool.Alloc());
    memset(unit, 0xC3, 100);
    (void)pool.Alloc();
    FmmUnitFree(unit);
    EXPECT_EQ(std::count(unit, unit + 100, 0xC3), 100);
    EXPECT_EQ(pool.Alloc(), unit);
    EXPECT_EQ(std::count(unit, unit + 100, 0xC3), 100);
}

TEST(Pool, SecondFreeOfAUnitDoesNothing)
{
    const TestPool pool(24);
    void* first = pool.Alloc();
    void* second = pool.Alloc();
    FmmUnitFree(first);
    FmmUnitFree(second);
    FmmUnitFree(first);
    FmmUnitFree(second);
    EXPECT_EQ(pool.Alloc(), second);
    EXPECT_EQ(pool.Alloc(), first);
    void* third = pool.Alloc();
    EXPECT_NE(third, first);
    EXPECT_NE(third, second);
}

TEST(Pool, FreeOfWhatIsNoUnitDoesNothing)
{
    const TestPool pool(24);
    auto* unit = static_cast<char*>(pool.Alloc());
    const FmmUsage before = Usage();
    int onStack = 0;
    std::vector<int> onHeap(100);
    FmmUnitFree(nullptr);
    FmmUnitFree(&onStack);
    FmmUnitFree(onHeap.data());
    FmmUnitFree(unit + 8);
    FmmUnitFree(unit + 1);
    FmmUnitFree(unit - 8);
    FmmUnitFree(pool.Get());
    FmmUnitFree(reinterpret_cast<void*>(~uintptr_t{0}));
    FmmUnitFree(reinterpret_cast<void*>(uintptr_t{0xFFFF800000000000U}));
    EXPECT_EQ(Usage().units, before.units);
    EXPECT_TRUE(FmmUnitIsValid(unit, 0));
}

TEST(Pool, DestroyedPoolHasZeroedInvalidUnits)
{
    for (const size_t size : {size_t{24}, size_t{136}, size_t{40000}, kBlock, 5 * kBlock}) {
        void* pool = FmmCtrlCreate(size, 3, 1);
        std::vector<void*> units;
        for (int i = 0; i < 50; i++) {
            units.push_back(FmmUnitAlloc(pool));
            memset(units.back(), 0xFF, size);
        }
        FmmUnitFree(units[7]);
        FmmCtrlDestroy(pool);
        for (void* unit : units) {
            ASSERT_TRUE(IsZero(unit, size));
            ASSERT_FALSE(FmmUnitIsValid(unit, 0));
            FmmUnitFree(unit);
        }
    }
}

TEST(Pool, DestroyedPoolGivesNothingAndIsNotDestroyedTwice)
{
    void* pool = FmmCtrlCreate(24, 8, 1);
    const FmmUsage before = Usage();
    FmmCtrlDestroy(pool);
    EXPECT_EQ(Usage().pools, before.pools - 1);
    FmmCtrlDestroy(pool);
    EXPECT_EQ(Usage().pools, before.pools - 1);
    EXPECT_EQ(FmmUnitAlloc(pool), nullptr);
}

TEST(Pool, UnitsOfALaterPoolAreZeroAgain)
{
    for (const size_t size : {size_t{24}, size_t{5000}, kBlock}) {
        for (int round = 0; round < 3; round++) {
            const TestPool pool(size, 100);
            std::vector<void*> units;
            for (int i = 0; i < 50; i++) {
                units.push_back(pool.Alloc());
                ASSERT_TRUE(IsZero(units.back(), size)) << size << ' ' << round;
                memset(units.back(), 0xFF, size);
            }
            for (size_t i = 0; i < units.size(); i += 3) {
                FmmUnitFree(units[i]);
            }
        }
    }
}

TEST(Pool, CreatingAndDestroyingForEverDoesNotGrow)
{
    const uint64_t before = Usage().bytes;
    std::mt19937 random(4);
    uint64_t settled = 0;
    for (int round = 0; round < 10000; round++) {
        void* pool = FmmCtrlCreate(1 + random() % 5000, static_cast<uint32_t>(random() % 500), 1);
        ASSERT_NE(pool, nullptr);
        for (auto i = random() % 20; i > 0; i--) {
            ASSERT_NE(FmmUnitAlloc(pool), nullptr);
        }
        FmmCtrlDestroy(pool);
        if (round == 5000) {
            settled = Usage().bytes;
        }
    }
    // The most that one pool ever took is room for 500 units of 5000 bytes: 2.7 MB.
    EXPECT_LE(Usage().bytes, settled + kChunk);
    EXPECT_LE(Usage().bytes, before + 5 * kChunk);
}

TEST(Pool, SpansAreUsedAgain)
{
    uint64_t settled = 0;
    for (int round = 0; round < 200; round++) {
        void* pool = FmmCtrlCreate(3 * kBlock, 4, 1);
        for (int i = 0; i < 6; i++) {
            ASSERT_NE(FmmUnitAlloc(pool), nullptr);
        }
        FmmCtrlDestroy(pool);
        if (round == 0) {
            settled = Usage().bytes;
        }
    }
    EXPECT_EQ(Usage().bytes, settled);
}

TEST(Pool, UnitSizesAroundTheSlabLimitWork)
{
    // From the largest that fits into 64 KiB behind any header to the smallest that does not.
    for (size_t size = kBlock - 1200; size <= kBlock; size += size < kBlock - 1100 ? 4 : 100) {
        const TestPool pool(size, 2);
        unsigned char* units[3];
        for (unsigned char*& unit : units) {
            unit = static_cast<unsigned char*>(pool.Alloc());
            ASSERT_NE(unit, nullptr);
            memset(unit, 0x77, size);
        }
        for (unsigned char* unit : units) {
            ASSERT_TRUE(FmmUnitIsValid(unit, 0));
            ASSERT_EQ(std::count(unit, unit + size, 0x77), static_cast<std::ptrdiff_t>(size));
        }
    }
}

TEST(Pool, InsideOfALargeUnitIsNoUnit)
{
    const size_t size = 4 * kBlock;
    const TestPool pool(size, 2);
    auto* unit = static_cast<char*>(pool.Alloc());
    ASSERT_TRUE(FmmUnitIsValid(unit, 0));
    for (size_t offset = 8; offset < size + 2 * kBlock; offset += 8) {
        ASSERT_FALSE(FmmUnitIsValid(unit + offset, 0)) << offset;
    }
}

TEST(Pool, RoomIsAddressSpaceAndNotMemory)
{
    if (kSanitized) {
        GTEST_SKIP() << "shadow memory counts as well";
    }
    const uint64_t before = ResidentBytes();
    const FmmUsage usage = Usage();
    {
        const TestPool pool(136, 10000000);
        EXPECT_GE(Usage().bytes, usage.bytes + 10000000ULL * 144);
        EXPECT_LE(ResidentBytes(), before + kChunk);
        (void)pool.Alloc();
    }
    EXPECT_LE(ResidentBytes(), before + kChunk);
}

TEST(Pool, MemoryStaysNearTheUnits)
{
    constexpr uint64_t kUnits = 100000;
    struct Budget {
        size_t unitSize;
        uint64_t bytesPerUnit;
    };
    for (const Budget& budget : {Budget{136, 150}, Budget{24, 34}}) {
        const uint64_t bytes = Usage().bytes;
        const uint64_t resident = ResidentBytes();
        const TestPool pool(budget.unitSize, 8);
        for (uint64_t i = 0; i < kUnits; i++) {
            ASSERT_NE(pool.Alloc(), nullptr);
        }
        EXPECT_LE(Usage().bytes, bytes + kUnits * budget.bytesPerUnit + kChunk);
        if (!kSanitized) {
            EXPECT_LE(ResidentBytes(), resident + kUnits * budget.bytesPerUnit + kChunk);
        }
    }
}

TEST(Pool, NoAddressOutsideIsAUnit)
{
    const TestPool pool(24);
    (void)pool.Alloc();
    int onStack = 0;
    const std::vector<uint64_t> onHeap(1000);
    void* gone = mmap(nullptr, 16 * kBlock, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    munmap(gone, 16 * kBlock);
    void* fenced = mmap(nullptr, 4 * kBlock, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    std::vector<uint64_t> addresses = {0,
                                       1,
                                       8,
                                       4096,
                                       kBlock,
                                       ~uint64_t{0},
                                       ~uint64_t{7},
                                       uint64_t{1} << 47,
                                       uint64_t{1} << 48,
                                       (uint64_t{1} << 48) - 8,
                                       uint64_t{1} << 63,
                                       0xFFFF800000000000U,
                                       0x0000800000000000U,
                                       reinterpret_cast<uint64_t>(&onStack) & ~uint64_t{7},
                                       reinterpret_cast<uint64_t>(onHeap.data()),
                                       reinterpret_cast<uint64_t>(gone),
                                       reinterpret_cast<uint64_t>(fenced),
                                       reinterpret_cast<uint64_t>(&FmmUnitIsValid) & ~7UL,
                                       reinterpret_cast<uint64_t>(pool.Get())};
    // One address in each 64 KiB around the pool, and random ones of all sizes.
    for (uint64_t i = 0; i < 2000; i++) {
        addresses.push_back(reinterpret_cast<uint64_t>(pool.Get()) + (i - 1000) * kBlock);
    }
    std::mt19937_64 random(5);
    for (int i = 0; i < 100000; i++) {
        addresses.push_back((random() >> (random() % 64)) & ~uint64_t{7});
    }
    for (const uint64_t address : addresses) {
        ASSERT_FALSE(FmmUnitIsValid(At(address), 0)) << std::hex << address;
        ASSERT_FALSE(FmmUnitIsValid(At(address), 1)) << std::hex << address;
    }
    munmap(fenced, 4 * kBlock);
}

// Random steps on several pools; all addresses ever seen are remembered with what they should be.
class PoolModel
{
public:
    explicit PoolModel(uint32_t seed) : random_(seed)
    {
        for (const size_t size : {size_t{24}, size_t{136}, size_t{1000}, size_t{70000}}) {
            sizes_.push_back(size);
            pools_.push_back(FmmCtrlCreate(size, 8, 1));
        }
    }
    ~PoolModel()
    {
        for (void* pool : pools_) {
            FmmCtrlDestroy(pool);
        }
    }
    PoolModel(const PoolModel&) = delete;
    PoolModel& operator=(const PoolModel&) = delete;

    void Step()
    {
        const auto dice = random_() % 1000;
        const size_t pool = random_() % pools_.size();
        if (dice < 550) {
            Alloc(pool);
        } else if (dice < 998) {
            FreeAny();
        } else {
            Replace(pool);
        }
    }

    // Every address ever seen, and those around it, against the model.
    void CheckAll() const
    {
        for (const auto& [address, pool] : seen_) {
            ASSERT_EQ(FmmUnitIsValid(At(address), 0), pool >= 0);
            for (const uint64_t distance : {1U, 4U, 8U}) {
                CheckNoUnit(address + distance);
                CheckNoUnit(address - distance);
            }
        }
    }

    size_t Live() const { return live_.size(); }

private:
    void CheckNoUnit(uint64_t address) const
    {
        const auto found = seen_.find(address);
        if (found == seen_.end()) {
            ASSERT_FALSE(FmmUnitIsValid(At(address), 1)) << std::hex << address;
        }
    }

    void Alloc(size_t pool)
    {
        void* unit = FmmUnitAlloc(pools_[pool]);
        ASSERT_NE(unit, nullptr);
        const auto address = reinterpret_cast<uint64_t>(unit);
        const auto known = seen_.find(address);
        ASSERT_TRUE(known == seen_.end() || known->second < 0) << "handed out twice";
        seen_[address] = static_cast<int>(pool);
        live_.push_back(address);
    }

    void FreeAny()
    {
        if (live_.empty()) {
            return;
        }
        std::swap(live_[random_() % live_.size()], live_.back());
        FmmUnitFree(const_cast<void*>(At(live_.back())));
        seen_[live_.back()] = -1;
        live_.pop_back();
    }

    void Replace(size_t pool)
    {
        FmmCtrlDestroy(pools_[pool]);
        std::erase_if(live_, [&](uint64_t unit) { return seen_[unit] == static_cast<int>(pool); });
        for (auto& [address, owner] : seen_) {
            owner = owner == static_cast<int>(pool) ? -1 : owner;
        }
        pools_[pool] = FmmCtrlCreate(sizes_[pool], 8, 1);
        ASSERT_NE(pools_[pool], nullptr);
    }

    std::mt19937 random_;
    std::vector<size_t> sizes_;
    std::vector<void*> pools_;
    std::unordered_map<uint64_t, int> seen_; // index of the pool it lives in, or -1
    std::vector<uint64_t> live_;
};

TEST(Pool, FollowsAModel)
{
    const FmmUsage before = Usage();
    {
        PoolModel model(6);
        for (int round = 0; round < 40; round++) {
            for (int step = 0; step < 500; step++) {
                model.Step();
            }
            model.CheckAll();
            ASSERT_EQ(Usage().units, before.units + model.Live());
        }
    }
    EXPECT_EQ(Usage().pools, before.pools);
    EXPECT_EQ(Usage().units, before.units);
}

} // namespace
