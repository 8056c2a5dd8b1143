// Races whose windows are a few instructions wide: forced where a call lies inside the window, and
// tried until it would have been hit where none does.
#include <algorithm>
#include <chrono>
#include <vector>

#include "scheduler/xel_sch_dbg_inner.h"
#include "service_msgque/xel_service_mq_inner.h"
#include "support/xel_test.h"
#include "xel_hash.h"
#include "xel_pool.h"

namespace
{

using namespace xeltest;

using Races = CleanProcess;

// The table of services, taken away for a test.
class NoServiceTable
{
public:
    NoServiceTable() : table_(g_xelServiceMqMng.table), inited_(g_xelServiceMqMng.inited.load())
    {
        g_xelServiceMqMng.inited.store(0);
        g_xelServiceMqMng.table = nullptr;
    }
    NoServiceTable(const NoServiceTable&) = delete;
    ~NoServiceTable()
    {
        XelHashDllTblDestroy(g_xelServiceMqMng.table);
        g_xelServiceMqMng.table = table_;
        g_xelServiceMqMng.inited.store(inited_);
    }

private:
    void* table_;
    u32 inited_;
};

// While one thread is making the table, another comes: it waits, and finds the table made.
TEST_F(Races, SecondInitialiserOfTheServicesWaitsForTheFirst)
{
    const NoServiceTable none;
    std::unique_ptr<Runner> second;
    RunAtNth(Call::XelHashDllTblCreate, 1, [&second] {
        const u64 locks = Calls(Call::PthreadMutexLock);
        second = std::make_unique<Runner>([] { ServiceMqInit(); });
        EXPECT_TRUE(AwaitTrue([&second, locks] {
            return second->HasEnded() || Calls(Call::PthreadMutexLock) > locks;
        }));
    });
    ServiceMqInit();
    ASSERT_NE(second, nullptr);
    second->Join();
    EXPECT_EQ(Calls(Call::XelHashDllTblCreate), 1U);
    EXPECT_NE(g_xelServiceMqMng.table, nullptr);
    second.reset();
}

void IgnorePair(u32 /*first*/, u32 /*second*/) {}

// A hook that is cleared between a look and the call would be called as null.
TEST_F(Races, HookIsLoadedOnceAndCalledAsThatValue)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(600);
    std::atomic<bool> isOver{false};
    Runner changer([&isOver] {
        const SchDbgHookTable table = {nullptr, nullptr, IgnorePair, IgnorePair, nullptr};
        while (!isOver.load()) {
            (void)SCH_RegisterDbgHookTable(&table);
            SCH_DeregisterDbgHookTable();
        }
    });
    u64 calls = 0;
    while (std::chrono::steady_clock::now() < end) {
        for (u32 i = 0; i < 1000; ++i, calls += 2) {
            SchDbgUpdateTasksStatistic(1, 1);
            SchDbgAddErrStat(1, 1);
        }
    }
    isOver.store(true);
    changer.Join();
    EXPECT_GT(calls, 1000U);
    EXPECT_FALSE(SchDbgIsInit());
}

// Two threads free the same units in the same order; afterwards no unit is handed out twice.
TEST_F(Races, UnitsFreedByTwoThreadsAreHandedOutOnce)
{
    constexpr size_t kUnits = 256;
    const int rounds = IsSanitized() ? 40 : 1500;
    void* pool = FmmCtrlCreate(64, kUnits, 1);
    ASSERT_NE(pool, nullptr);
    std::vector<void*> units(kUnits);
    std::atomic<int> turn{0};
    std::atomic<int> freed{0};
    const auto freeAll = [&units] {
        for (void* unit : units) {
            FmmUnitFree(unit);
        }
    };
    Runner other([&] {
        for (int round = 1; round <= rounds; ++round) {
            while (turn.load() < round) {
            }
            freeAll();
            freed.store(round);
        }
    });
    bool isDistinct = true;
    for (int round = 1; round <= rounds; ++round) {
        for (void*& unit : units) {
            unit = FmmUnitAlloc(pool);
        }
        std::vector<void*> sorted = units;
        std::sort(sorted.begin(), sorted.end());
        isDistinct &= std::adjacent_find(sorted.begin(), sorted.end()) == sorted.end();
        turn.store(round);
        freeAll();
        while (freed.load() < round) {
        }
    }
    other.Join();
    EXPECT_TRUE(isDistinct);
    FmmUsage usage{};
    FmmGetUsage(&usage);
    EXPECT_EQ(usage.units, before_.units);
    FmmCtrlDestroy(pool);
}

} // namespace
