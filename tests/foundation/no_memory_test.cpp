// What the services do when the system gives no memory: mmap is put in front of the C library's.
#include <atomic>
#include <cerrno>
#include <vector>

#include <dlfcn.h>
#include <sys/mman.h>

#include <gtest/gtest.h>

#include "sanitized.h"
#include "xel_list.h"
#include "xel_mem.h"
#include "xel_pool.h"

namespace
{

std::atomic<bool> g_mmapFails{false};
std::atomic<int> g_mmapsThatSucceed{0}; // before it fails

// Mappings fail, but for the first so many, while this lives.
class NoMemory
{
public:
    explicit NoMemory(int succeeding = 0)
    {
        g_mmapsThatSucceed = succeeding;
        g_mmapFails = true;
    }
    ~NoMemory() { g_mmapFails = false; }
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;
};

FmmUsage Usage()
{
    FmmUsage usage{};
    FmmGetUsage(&usage);
    return usage;
}

} // namespace

#if !XEL_THREAD_SANITIZED
extern "C" void* mmap(void* hint, size_t size, int protection, int flags, int fd, off_t offset)
{
    static const auto next =
        reinterpret_cast<void* (*)(void*, size_t, int, int, int, off_t)>(dlsym(RTLD_NEXT, "mmap"));
    if (g_mmapFails && g_mmapsThatSucceed-- <= 0) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    return next(hint, size, protection, flags, fd, offset);
}
#endif

namespace
{

class NoMemoryTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!kMmapCanFail) {
            GTEST_SKIP() << "mmap cannot be made to fail here";
        }
    }
};

TEST_F(NoMemoryTest, PoolIsNotCreatedAndNothingIsLeft)
{
    // The second mapping is that of the map of slabs.
    for (const int succeeding : {0, 1}) {
        void* pool = nullptr;
        {
            const NoMemory noMemory(succeeding);
            errno = 0;
            pool = FmmCtrlCreate(24, 8, 1);
        }
        EXPECT_EQ(pool, nullptr) << succeeding;
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(Usage().pools, 0U);
        EXPECT_EQ(Usage().bytes, 0U);
    }
    void* pool = FmmCtrlCreate(24, 8, 1);
    EXPECT_NE(pool, nullptr);
    FmmCtrlDestroy(pool);
}

TEST_F(NoMemoryTest, RoomThatWasPromisedIsThere)
{
    constexpr uint32_t kUnits = 50000;
    void* pool = FmmCtrlCreate(136, kUnits, 1);
    void* other = FmmCtrlCreate(136, 8, 1);
    bool failed = false;
    uint32_t given = 0;
    {
        const NoMemory noMemory;
        // Another pool must not take the promised room.
        while (FmmUnitAlloc(other) != nullptr) {
            given++;
        }
        for (uint32_t i = 0; i < kUnits; i++) {
            failed = failed || FmmUnitAlloc(pool) == nullptr;
        }
    }
    EXPECT_FALSE(failed);
    EXPECT_LT(given, kUnits);
    FmmCtrlDestroy(pool);
    FmmCtrlDestroy(other);
}

TEST_F(NoMemoryTest, UnitIsNullAndThePoolGoesOnLater)
{
    void* pool = FmmCtrlCreate(60000, 8, 1);
    std::vector<void*> units;
    void* last = nullptr;
    {
        const NoMemory noMemory;
        for (int i = 0; i < 1000 && (last = FmmUnitAlloc(pool)) != nullptr; i++) {
            units.push_back(last);
        }
        EXPECT_EQ(last, nullptr);
    }
    EXPECT_GE(units.size(), 8U);
    EXPECT_EQ(Usage().units, units.size());
    EXPECT_NE(FmmUnitAlloc(pool), nullptr);
    FmmUnitFree(units[3]);
    EXPECT_EQ(FmmUnitAlloc(pool), units[3]);
    FmmCtrlDestroy(pool);
    EXPECT_EQ(Usage().units, 0U);
}

TEST_F(NoMemoryTest, NodeWhoseListCannotBeNotedIsNotLinked)
{
    XelDll head;
    uint32_t counter = 0;
    XelDllInit(&head, &counter);
    std::vector<XelDll> nodes(1000);
    {
        // Room for the first table only.
        const NoMemory noMemory(1);
        for (XelDll& node : nodes) {
            XelDllInitAndAddPrev(&head, &node, nullptr);
        }
    }
    const uint32_t linked = counter;
    EXPECT_GT(linked, 100U);
    EXPECT_LT(linked, nodes.size());
    uint32_t walked = 0;
    for (const XelDll* node = XelDllNextGet(&head); node != &head; node = XelDllNextGet(node)) {
        walked++;
    }
    EXPECT_EQ(walked, linked);
    EXPECT_EQ(nodes.back().next, nullptr);
    EXPECT_EQ(nodes.back().prev, nullptr);
    for (XelDll& node : nodes) {
        XelDllDel(&node);
    }
    EXPECT_EQ(counter, 0U);
    EXPECT_TRUE(XelDllIsEmpty(&head));
}

TEST_F(NoMemoryTest, NodesInPoolUnitsNeedNone)
{
    XelDll head;
    uint32_t counter = 0;
    XelDllInit(&head, &counter);
    void* pool = FmmCtrlCreate(sizeof(XelDll), 5000, 2);
    const NoMemory noMemory;
    for (uint32_t i = 1; i <= 5000; i++) {
        XelDllInitAndAddPrev(&head, static_cast<XelDll*>(FmmUnitAlloc(pool)), nullptr);
    }
    EXPECT_EQ(counter, 5000U);
    FmmCtrlDestroy(pool);
}

TEST(Mem, BlockIsNullAndNotCounted)
{
    if (kSanitized) {
        GTEST_SKIP() << "the sanitizer ends the process instead";
    }
    XelMemUsage before{};
    XEL_MemGetUsage(&before);
    const volatile size_t tooMuch = PTRDIFF_MAX;
    errno = 0;
    EXPECT_EQ(XEL_MemAllocF(tooMuch, "file", 1, 0), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    XelMemUsage after{};
    XEL_MemGetUsage(&after);
    EXPECT_EQ(after.totalBlocks, before.totalBlocks);
}

} // namespace
