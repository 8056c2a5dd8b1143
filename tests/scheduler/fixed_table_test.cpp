// The fixed-unit table: records on two pools, found by a hook, checked and freed.
#include <cstddef>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "scheduler/xel_fmm_tbl.h"
#include "support/xel_test.h"
#include "xel_pool.h"

using namespace xeltest;

namespace
{

class FixedTable : public CleanProcess
{
protected:
    ~FixedTable() override = default;
    void TearDown() override
    {
        ResetFaults();
        Destroy();
        CleanProcess::TearDown();
    }
    FtCtrl* Make(size_t unitSize = 128, u32 number = 32)
    {
        table_ = FtCtrlCreate(unitSize, number);
        return table_;
    }
    void Destroy()
    {
        if (table_ != nullptr) {
            EXPECT_EQ(FtCtrlDestroy(table_), 0U);
            table_ = nullptr;
        }
    }

    FtCtrl* table_ = nullptr;
};

void* EntryOf(void* record)
{
    return static_cast<char*>(record) - 8;
}

XelDll* NodeOf(void* record)
{
    XelDll* node = nullptr;
    memcpy(&node, EntryOf(record), sizeof(node));
    return node;
}

// Notes what a search shows it.
struct Search {
    static std::vector<void*> seen;
    static const void* lastKey;
    static bool Never(void* record, const void* key)
    {
        seen.push_back(record);
        lastKey = key;
        return false;
    }
    static bool Second(void* record, const void* key)
    {
        (void)Never(record, key);
        return seen.size() == 2;
    }
};
std::vector<void*> Search::seen;
const void* Search::lastKey;

std::vector<void*> Records(FtCtrl* table)
{
    Search::seen.clear();
    EXPECT_EQ(FtGetEntryByHook(table, nullptr, Search::Never), nullptr);
    return Search::seen;
}

TEST_F(FixedTable, ControlBlockHasItsFieldsInOrder)
{
    EXPECT_EQ(offsetof(FtCtrl, nodePool), 0U);
    EXPECT_EQ(offsetof(FtCtrl, entryPool), 8U);
    EXPECT_EQ(offsetof(FtCtrl, entryList), 16U);
    EXPECT_EQ(offsetof(FtCtrl, entryCount), 40U);
}

TEST_F(FixedTable, NewTableIsEmptyOnTwoPools)
{
    const Footprint before = Measure();
    ASSERT_NE(Make(), nullptr);
    EXPECT_NE(table_->nodePool, nullptr);
    EXPECT_NE(table_->entryPool, nullptr);
    EXPECT_NE(table_->nodePool, table_->entryPool);
    EXPECT_EQ(table_->entryCount, 0U);
    EXPECT_TRUE(XelDllIsEmpty(&table_->entryList));
    EXPECT_EQ(table_->entryList.data, &table_->entryCount);
    EXPECT_EQ(Measure().pools, before.pools + 2);
    EXPECT_EQ(Measure().blocks, before.blocks + 1);
    Destroy();
    EXPECT_EQ(Measure(), before);
}

TEST_F(FixedTable, PoolsAreAskedForWithSizeNumberAndMode)
{
    for (const u32 number : {0U, 5U, 31U, 32U, 33U, 100U}) {
        (void)TakePoolRequests();
        ASSERT_NE(Make(128, number), nullptr);
        const u32 expected = number < 32 ? 32 : number;
        const std::vector<PoolRequest> requests = TakePoolRequests();
        ASSERT_EQ(requests.size(), 2U);
        EXPECT_EQ(requests[0], (PoolRequest{24, expected, 2}));
        EXPECT_EQ(requests[1], (PoolRequest{136, expected, 6}));
        Destroy();
    }
}

TEST_F(FixedTable, CreationThatFailsGivesEverythingBackInSilence)
{
    const Footprint before = Measure();
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(FtCtrlCreate(128, 32), nullptr);
    EXPECT_EQ(Calls(Call::FmmCtrlCreate), 0U);
    for (const u64 nth : {1U, 2U}) {
        ResetFaults();
        FailNth(Call::FmmCtrlCreate, nth);
        EXPECT_EQ(FtCtrlCreate(128, 32), nullptr);
        EXPECT_EQ(Measure(), before);
    }
    EXPECT_NO_LOG();
}

TEST_F(FixedTable, ControlBlockIsClearedBeforeUse)
{
    u64 cleared = 0;
    RunAtNth(Call::FmmCtrlCreate, 1, [&cleared] { cleared = Calls(Call::MemsetS); });
    ASSERT_NE(Make(), nullptr);
    EXPECT_EQ(cleared, 1U);
}

TEST_F(FixedTable, RecordStandsBehindThePointerToItsNode)
{
    Make();
    void* record = FtEntryAlloc(table_);
    ASSERT_NE(record, nullptr);
    XelDll* node = NodeOf(record);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->data, EntryOf(record));
    EXPECT_TRUE(FmmUnitIsValid(EntryOf(record), 1));
    EXPECT_TRUE(FmmUnitIsValid(node, 0));
    EXPECT_EQ(table_->entryCount, 1U);
    memset(record, 0x5A, 128);
    EXPECT_EQ(NodeOf(record), node);
    FtEntryFree(record);
    EXPECT_EQ(table_->entryCount, 0U);
}

TEST_F(FixedTable, OnlyTheHeaderOfAReusedEntryIsCleared)
{
    Make();
    void* record = FtEntryAlloc(table_);
    memset(record, 0x5A, 128);
    FtEntryFree(record);
    void* again = FtEntryAlloc(table_);
    ASSERT_EQ(again, record) << "the pool gives the unit freed last";
    const std::vector<char> kept(128, 0x5A);
    EXPECT_EQ(memcmp(again, kept.data(), kept.size()), 0);
    EXPECT_NE(NodeOf(again), nullptr);
}

TEST_F(FixedTable, AllocationNeedsANodeFirstAndThenAnEntry)
{
    Make();
    const Footprint before = Measure();
    FailNth(Call::FmmUnitAlloc, 1);
    EXPECT_EQ(FtEntryAlloc(table_), nullptr);
    EXPECT_EQ(Calls(Call::FmmUnitAlloc), 1U);
    EXPECT_EQ(Measure(), before);
    ResetFaults();
    FailNth(Call::FmmUnitAlloc, 2);
    EXPECT_EQ(FtEntryAlloc(table_), nullptr);
    EXPECT_EQ(Calls(Call::FmmUnitAlloc), 2U);
    EXPECT_EQ(Measure(), before) << "the node is given back";
    EXPECT_EQ(table_->entryCount, 0U);
    EXPECT_NO_LOG();
}

TEST_F(FixedTable, HoldsMoreThanItsNumber)
{
    Make(128, 32);
    std::vector<void*> records;
    for (int i = 0; i < 500; ++i) {
        records.push_back(FtEntryAlloc(table_));
        ASSERT_NE(records.back(), nullptr);
        memset(records.back(), i % 256, 128);
    }
    EXPECT_EQ(table_->entryCount, 500U);
    EXPECT_EQ(Records(table_), records) << "in the order of their allocation";
    for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(static_cast<unsigned char*>(records[static_cast<size_t>(i)])[127], i % 256);
    }
}

TEST_F(FixedTable, SearchEndsAtTheFirstMatchAndHandsTheKeyThrough)
{
    Make();
    void* first = FtEntryAlloc(table_);
    void* second = FtEntryAlloc(table_);
    void* third = FtEntryAlloc(table_);
    Search::seen.clear();
    const int key = 0;
    EXPECT_EQ(FtGetEntryByHook(table_, &key, Search::Second), second);
    EXPECT_EQ(Search::seen, (std::vector<void*>{first, second}));
    EXPECT_EQ(Search::lastKey, &key);
    EXPECT_EQ(Records(table_), (std::vector<void*>{first, second, third}));
    FtEntryFree(second);
    EXPECT_EQ(Records(table_), (std::vector<void*>{first, third}));
    void* fourth = FtEntryAlloc(table_);
    EXPECT_EQ(Records(table_), (std::vector<void*>{first, third, fourth})) << "added at the tail";
}

TEST_F(FixedTable, SearchOfAnEmptyTableCallsNothing)
{
    Make();
    EXPECT_TRUE(Records(table_).empty());
    FtEntryFree(FtEntryAlloc(table_));
    EXPECT_TRUE(Records(table_).empty());
}

TEST_F(FixedTable, ValidityFollowsAllocationAndFree)
{
    Make();
    void* record = FtEntryAlloc(table_);
    void* other = FtEntryAlloc(table_);
    EXPECT_TRUE(FtEntryIsValid(record, true));
    EXPECT_TRUE(FtEntryIsValid(record, false));
    FtEntryFree(record);
    EXPECT_FALSE(FtEntryIsValid(record, true));
    EXPECT_FALSE(FtEntryIsValid(record, false));
    EXPECT_TRUE(FtEntryIsValid(other, true));
    Destroy();
    EXPECT_FALSE(FtEntryIsValid(other, true));
    EXPECT_FALSE(FtEntryIsValid(other, false));
}

TEST_F(FixedTable, ValidityWithTheNodeDependsOnTheNode)
{
    Make();
    void* record = FtEntryAlloc(table_);
    XelDll* node = NodeOf(record);
    XelDll foreign{};
    XelDll* stray = &foreign;
    memcpy(EntryOf(record), &stray, sizeof(stray));
    EXPECT_FALSE(FtEntryIsValid(record, true));
    EXPECT_TRUE(FtEntryIsValid(record, false));
    stray = nullptr;
    memcpy(EntryOf(record), &stray, sizeof(stray));
    EXPECT_FALSE(FtEntryIsValid(record, true));
    EXPECT_TRUE(FtEntryIsValid(record, false));
    memcpy(EntryOf(record), &node, sizeof(node));
    EXPECT_TRUE(FtEntryIsValid(record, true));
}

TEST_F(FixedTable, RecordThatIsNoEntryIsInvalid)
{
    Make();
    void* record = FtEntryAlloc(table_);
    char outside[256] = {};
    EXPECT_FALSE(FtEntryIsValid(outside + 64, true));
    EXPECT_FALSE(FtEntryIsValid(outside + 64, false));
    EXPECT_FALSE(FtEntryIsValid(static_cast<char*>(record) + 8, false));
    EXPECT_FALSE(FtEntryIsValid(static_cast<char*>(record) + 8, true));
}

TEST_F(FixedTable, SecondFreeDoesNothing)
{
    Make();
    void* record = FtEntryAlloc(table_);
    void* other = FtEntryAlloc(table_);
    FtEntryFree(record);
    const Footprint before = Measure();
    EXPECT_EQ(FtEntryFree(record), 0U);
    EXPECT_EQ(Measure(), before);
    EXPECT_EQ(table_->entryCount, 1U);
    EXPECT_EQ(Records(table_), std::vector<void*>{other});
    void* first = FtEntryAlloc(table_);
    void* second = FtEntryAlloc(table_);
    EXPECT_NE(first, second) << "a unit freed twice is not given out twice";
}

TEST_F(FixedTable, DestructionFreesEveryRecordAtOnce)
{
    const Footprint before = Measure();
    Make();
    std::vector<void*> records;
    for (int i = 0; i < 40; ++i) {
        records.push_back(FtEntryAlloc(table_));
    }
    Search::seen.clear();
    ResetFaults();
    Destroy();
    EXPECT_EQ(Calls(Call::MemsetS), 40U) << "each node pointer is cleared, whatever the pools do";
    EXPECT_TRUE(Search::seen.empty());
    EXPECT_EQ(Measure(), before);
    for (void* record : records) {
        EXPECT_EQ(NodeOf(record), nullptr);
        EXPECT_FALSE(FtEntryIsValid(record, true));
    }
    EXPECT_NO_LOG();
}

TEST_F(FixedTable, TablesAreIndependent)
{
    Make();
    FtCtrl* other = FtCtrlCreate(16, 8);
    void* mine = FtEntryAlloc(table_);
    void* others = FtEntryAlloc(other);
    EXPECT_EQ(Records(table_), std::vector<void*>{mine});
    EXPECT_EQ(Records(other), std::vector<void*>{others});
    EXPECT_EQ(FtCtrlDestroy(other), 0U);
    EXPECT_TRUE(FtEntryIsValid(mine, true));
    EXPECT_EQ(table_->entryCount, 1U);
}

} // namespace
