// The BFS policy: creation and its failures, batches and slots, insertion and its refusals.
#include <gtest/gtest.h>

#include "bfs_support.h"
#include "xel_queue.h"

namespace
{

using namespace schtest;
using xeltest::Call;
using Tasks = std::vector<SchTaskCtrl*>;

static_assert(sizeof(SchBfsSlot) == 16);
static_assert(sizeof(XelDll) == 24);
static_assert(sizeof(SchBfsTaskInfo) == 16);
static_assert(offsetof(SchBfsTaskInfo, version) == 0);
static_assert(offsetof(SchBfsTaskInfo, reserved) == 4);
static_assert(offsetof(SchBfsTaskInfo, key) == 8);
static_assert(offsetof(SchBfsCtrl, maxEvents) == 0);
static_assert(offsetof(SchBfsCtrl, batch) == 4);
static_assert(offsetof(SchBfsCtrl, lastCount) == 8);
static_assert(offsetof(SchBfsCtrl, slotQueue) == 16);
static_assert(offsetof(SchBfsCtrl, nodePool) == 24);
static_assert(offsetof(SchBfsCtrl, eventPool) == 32);
static_assert(offsetof(SchBfsCtrl, prioBitmap) == 40);
static_assert(offsetof(SchBfsCtrl, prioList) == 48);
static_assert(offsetof(SchBfsCtrl, fifoServed) == 48 + 32 * 24);
static_assert(offsetof(SchBfsCtrl, fifoList) == 824);
static_assert(offsetof(SchBfsCtrl, delayServed) == 848);
static_assert(offsetof(SchBfsCtrl, delayList) == 856);
static_assert(offsetof(SchBfsCtrl, groupQuota) == 880);
static_assert(offsetof(SchBfsCtrl, groupList) == 896);
static_assert(offsetof(SchBfsCtrl, selectSeq) == 992);
static_assert(offsetof(SchBfsCtrl, eventLeft) == 1000);
#if defined(__x86_64__)
static_assert(offsetof(SchBfsCtrl, outEvents) == 1004);
#endif

class Bfs : public SchTest
{
};

TEST_F(Bfs, OperationsTableHoldsTheSevenEntryPointsInOrder)
{
    EXPECT_EQ(g_schBfsPolicyOps.create, SCH_BfsCreatePolicy);
    EXPECT_EQ(g_schBfsPolicyOps.destroy, SCH_BfsDestroyPolicy);
    EXPECT_EQ(g_schBfsPolicyOps.prepare, SCH_BfsResPrepare);
    EXPECT_EQ(g_schBfsPolicyOps.insert, SCH_BfsInsertEvents);
    EXPECT_EQ(g_schBfsPolicyOps.select, SCH_BfsSelectEvents);
    EXPECT_EQ(g_schBfsPolicyOps.getEventCache, SCH_BfsGetEventCache);
    EXPECT_EQ(g_schBfsPolicyOps.getEventLeft, SCH_BfsGetEventLeft);
}

TEST_F(Bfs, NewInstanceIsEmpty)
{
    TestBfs bfs(100);
    EXPECT_EQ(bfs->maxEvents, 100U);
    EXPECT_EQ(bfs->batch, 8U);
    EXPECT_EQ(bfs->lastCount, 0U);
    EXPECT_EQ(bfs->selectSeq, 0U);
    EXPECT_EQ(bfs->fifoServed, 0U);
    EXPECT_EQ(bfs->delayServed, 0U);
    EXPECT_EQ(SCH_BfsGetEventLeft(bfs.Get()), 0U);
    for (u32 g = 0; g < 4; ++g) {
        EXPECT_EQ(bfs->groupQuota[g], 1U << g);
        EXPECT_TRUE(WalkList(bfs->groupList[g]).empty());
    }
    for (u32 p = 0; p < 32; ++p) {
        EXPECT_TRUE(WalkList(bfs->prioList[p]).empty());
    }
    EXPECT_EQ(XelQueGetSizeUsed(bfs->slotQueue), 0U);
    EXPECT_EQ(XelQueGetSizeFree(bfs->slotQueue), 100U);
    EXPECT_TRUE(bfs.ListCache(4).empty());
}

TEST_F(Bfs, PoolsAreAskedForWithNumber8AndMode1)
{
    (void)xeltest::TakePoolRequests();
    const TestBfs bfs(16);
    EXPECT_EQ(xeltest::TakePoolRequests(),
              (std::vector<xeltest::PoolRequest>{{24, 8, 1}, {sizeof(SchBfsEvent), 8, 1}}));
}

TEST_F(Bfs, CreationWithoutMemoryIsSilent)
{
    const Footprint before = Measure();
    xeltest::FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(SCH_BfsCreatePolicy(16), nullptr);
    EXPECT_LINES();
    EXPECT_EQ(Measure(), before);
}

TEST_F(Bfs, CreationUndoesWhatExistsWhenTheQueueFails)
{
    const Footprint before = Measure();
    xeltest::FailNth(Call::XelQueCreate, 1);
    EXPECT_EQ(SCH_BfsCreatePolicy(4096), nullptr);
    EXPECT_LINES(BfsLine("Ctrl create, create queue unsuccessfully, unit = 16, size = 4096."));
    EXPECT_EQ(Measure(), before);
}

TEST_F(Bfs, CreationUndoesWhatExistsWhenTheNodePoolFails)
{
    const Footprint before = Measure();
    xeltest::FailNth(Call::FmmCtrlCreate, 1);
    EXPECT_EQ(SCH_BfsCreatePolicy(16), nullptr);
    EXPECT_LINES(BfsLine("Bfs create dll unsuccessfully, size = 24, flag = 1."));
    EXPECT_EQ(Measure(), before);
}

TEST_F(Bfs, CreationUndoesWhatExistsWhenTheEventPoolFails)
{
    const Footprint before = Measure();
    xeltest::FailNth(Call::FmmCtrlCreate, 2);
    EXPECT_EQ(SCH_BfsCreatePolicy(16), nullptr);
    EXPECT_LINES(BfsLine(
        Text("Bfs create data unsuccessfully, size = %zu, flag = 1.", sizeof(SchBfsEvent))));
    EXPECT_EQ(Measure(), before);
}

TEST_F(Bfs, CreationWithSizeZeroFailsAtTheQueue)
{
    EXPECT_EQ(SCH_BfsCreatePolicy(0), nullptr);
    EXPECT_LINES(BfsLine("Ctrl create, create queue unsuccessfully, unit = 16, size = 0."));
}

TEST_F(Bfs, DestroyOfNullIsIgnored)
{
    SCH_BfsDestroyPolicy(nullptr);
    EXPECT_LINES();
}

// lastCount of the cycle before goes in, the batch comes out.
u32 BatchAfter(TestBfs& bfs, u32 lastCount)
{
    bfs->lastCount = lastCount;
    return bfs.Prepare();
}

TEST_F(Bfs, BatchNeverExceedsASmallSize)
{
    for (const u32 size : {1U, 4U, 7U}) {
        TestBfs bfs(size);
        EXPECT_EQ(bfs.Prepare(), size);
        EXPECT_EQ(BatchAfter(bfs, size), size);
        EXPECT_EQ(XelQueGetSizeUsed(bfs->slotQueue), size);
    }
}

TEST_F(Bfs, BatchDoublesWhenFullAndHalvesBelowHalf)
{
    TestBfs bfs(4096);
    EXPECT_EQ(bfs.Prepare(), 8U) << "halved to 4, raised to 8";
    EXPECT_EQ(BatchAfter(bfs, 8), 16U);
    for (u32 count = 8; count <= 15; ++count) {
        EXPECT_EQ(BatchAfter(bfs, count), 16U) << count;
    }
    EXPECT_EQ(BatchAfter(bfs, 17), 16U) << "more than asked for neither grows nor shrinks";
    EXPECT_EQ(BatchAfter(bfs, 7), 8U);
    EXPECT_EQ(BatchAfter(bfs, 0), 8U);
}

TEST_F(Bfs, BatchGrowsToTheSizeAndNoFurther)
{
    TestBfs bfs(4096);
    u32 batch = bfs.Prepare();
    for (u32 expected = 16; expected <= 4096; expected *= 2) {
        batch = BatchAfter(bfs, batch);
        EXPECT_EQ(batch, expected);
    }
    EXPECT_EQ(BatchAfter(bfs, 4096), 4096U);
    EXPECT_EQ(BatchAfter(bfs, 2048), 4096U);
    EXPECT_EQ(BatchAfter(bfs, 2047), 2048U);
    EXPECT_EQ(XelQueGetSizeUsed(bfs->slotQueue), 4096U) << "slots stay";
}

TEST_F(Bfs, OddBatchIsHalvedByIntegerDivision)
{
    TestBfs bfs(9);
    EXPECT_EQ(BatchAfter(bfs, 8), 9U);
    EXPECT_EQ(BatchAfter(bfs, 4), 9U);
    EXPECT_EQ(BatchAfter(bfs, 3), 8U);
}

TEST_F(Bfs, PrepareFillsTheFreeSlotsUpToTheBatch)
{
    TestBfs bfs(64);
    BoundTask task(bfs, 100001, 2, 0);
    EXPECT_EQ(bfs.Prepare(), 8U);
    EXPECT_EQ(XelQueGetSizeUsed(bfs->slotQueue), 8U);
    bfs.Insert(task.Get());
    EXPECT_EQ(XelQueGetSizeUsed(bfs->slotQueue), 7U);
    EXPECT_EQ(bfs.Prepare(), 8U);
    EXPECT_EQ(XelQueGetSizeUsed(bfs->slotQueue), 8U);
}

TEST_F(Bfs, WarmCyclesTakeNoUnits)
{
    TestBfs bfs(64);
    std::vector<BoundTask> tasks;
    for (i32 i = 0; i < 4; ++i) {
        tasks.emplace_back(bfs, 100001 + i, static_cast<u32>(i), 0);
    }
    for (int cycle = 0; cycle < 20; ++cycle) {
        if (cycle == 10) {
            xeltest::ResetFaults();
        }
        bfs.Prepare();
        for (const BoundTask& task : tasks) {
            bfs.Insert(task.Get());
        }
        while (!bfs.Select().empty()) {
        }
    }
    EXPECT_EQ(xeltest::Calls(Call::FmmUnitAlloc), 0U);
    EXPECT_EQ(xeltest::Calls(Call::XelMemAllocF), 0U);
}

struct PrepareFault {
    Call call;
    u32 nth;
    const char* text;
    u32 slots; // that were queued before the failure
};

// Each step of the first prepare made to fail: the pass is undone, the result is one less than the
// free slots, and the next prepare makes up for it.
TEST_F(Bfs, PrepareFailureAnswersOneLessThanTheFreeSlots)
{
    const PrepareFault faults[] = {
        {Call::FmmUnitAlloc, 1, "Event prepare, alloc dll unsuccessfully.", 0},
        {Call::FmmUnitAlloc, 2, "Event prepare, alloc event unsuccessfully.", 0},
        {Call::XelQueEnqueue, 1, "Event prepare, enqueue unsuccessfully. (eventSize = 8)", 0},
        {Call::FmmUnitAlloc, 3, "Event prepare, alloc dll unsuccessfully.", 1},
        {Call::FmmUnitAlloc, 10, "Event prepare, alloc event unsuccessfully.", 4},
        {Call::XelQueEnqueue, 8, "Event prepare, enqueue unsuccessfully. (eventSize = 8)", 7},
    };
    for (const PrepareFault& fault : faults) {
        TestBfs bfs(64);
        const Footprint before = Measure();
        xeltest::FailNth(fault.call, fault.nth);
        EXPECT_EQ(bfs.Prepare(), fault.slots - 1) << fault.text;
        EXPECT_LINES(BfsLine(fault.text));
        EXPECT_EQ(XelQueGetSizeUsed(bfs->slotQueue), fault.slots);
        EXPECT_EQ(Measure().units, before.units + 2 * u64{fault.slots});
        xeltest::ResetFaults();
        EXPECT_EQ(bfs.Prepare(), 8U);
        EXPECT_EQ(XelQueGetSizeUsed(bfs->slotQueue), 8U);
    }
}

TEST_F(Bfs, PrepareFailureWithAnEmptyQueueIsAllOnes)
{
    TestBfs bfs(64);
    xeltest::FailAll(Call::FmmUnitAlloc);
    EXPECT_EQ(bfs.Prepare(), 0xFFFFFFFFU);
    EXPECT_LINES(BfsLine("Event prepare, alloc dll unsuccessfully."));
}

TEST_F(Bfs, InsertRecordsTheCountAndAnswersZero)
{
    TestBfs bfs(64);
    BoundTask task(bfs, 100001, 2, 0);
    bfs.Prepare();
    EXPECT_EQ(bfs.Insert(task.Get()), 0U);
    EXPECT_EQ(bfs->lastCount, 1U);
    EXPECT_EQ(bfs.Insert(std::vector<bfsmodel::Event>{}), 0U);
    EXPECT_EQ(bfs->lastCount, 0U);
    bfs.Select();
}

TEST_F(Bfs, UnboundTaskIsRefusedAndTheNextEventIsTaken)
{
    TestBfs bfs(64);
    TestBfs other(64);
    BoundTask foreign(other, 100001, 2, 0, "foreign");
    BoundTask own(bfs, 100002, 2, 0);
    bfs.Prepare();
    const u64 handles[] = {reinterpret_cast<u64>(foreign.Get()), reinterpret_cast<u64>(own.Get())};
    EXPECT_EQ(bfs.Insert({{handles[0], EPOLLIN}, {handles[1], EPOLLIN}}), 0U);
    EXPECT_LINES(
        TaskLine("Task get info unsuccessfully, task is not bind scheduler. (taskName = foreign)"),
        BfsLine("Event insert, invalid task-ctrl."));
    EXPECT_EQ(SCH_BfsGetEventLeft(bfs.Get()), 1U);
    EXPECT_EQ(foreign->events.load(), 0U);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{own.Get()});
}

TEST_F(Bfs, DestroyedTaskIsRefused)
{
    TestBfs bfs(64);
    BoundTask task(bfs, 100001, 2, 0);
    SchTaskCtrl* stale = task.Get();
    task.Destroy();
    bfs.Prepare();
    EXPECT_EQ(bfs.Insert(stale), 0U);
    EXPECT_LINES(TaskLine("Task get info unsuccessfully, task magic is damaged, magic = 0."),
                 BfsLine("Event insert, invalid task-ctrl."));
    EXPECT_EQ(SCH_BfsGetEventLeft(bfs.Get()), 0U);
    EXPECT_TRUE(bfs.Select().empty());
}

// Readiness of three cycles before the task is selected: queued once, delivered as one.
TEST_F(Bfs, RepeatedReadinessIsMergedIntoOneEvent)
{
    TestBfs bfs(64);
    BoundTask task(bfs, 100001, 2, 0);
    for (const u32 mask : {EPOLLIN, EPOLLOUT, EPOLLHUP}) {
        bfs.Prepare();
        bfs.Insert(task.Get(), static_cast<u32>(mask));
        EXPECT_EQ(SCH_BfsGetEventLeft(bfs.Get()), 1U);
    }
    EXPECT_EQ(bfs.ListCache(4).at(0).mask, u32{EPOLLIN}) << "the mask that queued the task";
    const u64 handle = reinterpret_cast<u64>(task.Get());
    const u32 all = EPOLLIN | EPOLLOUT | EPOLLHUP;
    EXPECT_EQ(bfs.Select(), (std::vector<bfsmodel::Event>{{handle, all}}));
    EXPECT_TRUE(bfs.Select().empty());
    EXPECT_EQ(SCH_BfsGetEventLeft(bfs.Get()), 0U);
    bfs.Insert(task.Get(), EPOLLIN);
    EXPECT_EQ(bfs.Select(), (std::vector<bfsmodel::Event>{{handle, EPOLLIN}}));
}

// A type or a priority that no setter lets through: logged, counted, and not lost for ever.
TEST_F(Bfs, EventOutOfRangeIsDroppedAndItsTaskCanBeQueuedAgain)
{
    const std::pair<u32, u32> cases[] = {{4, 0}, {0, 32}, {3, 32}, {0xFFFFFFFF, 0}, {4, 32}};
    for (const auto& [type, prio] : cases) {
        TestBfs bfs(64);
        BoundTask task(bfs, 100001, 2, 0);
        ForceTypePrio(task.Get(), type, prio);
        bfs.Prepare();
        EXPECT_EQ(bfs.Insert(task.Get()), 0U);
        EXPECT_LINES(BfsLine(Text("Event insert, invalid task-ctrl, type = %d, priority = %u.",
                                  static_cast<int>(type), prio)));
        EXPECT_EQ(SCH_BfsGetEventLeft(bfs.Get()), 1U);
        EXPECT_EQ(XelQueGetSizeUsed(bfs->slotQueue), 8U);
        EXPECT_TRUE(bfs.Select().empty());
        ForceTypePrio(task.Get(), 1, 0);
        bfs.Insert(task.Get());
        EXPECT_EQ(bfs.SelectTasks(), Tasks{task.Get()});
        EXPECT_EQ(SCH_BfsGetEventLeft(bfs.Get()), 1U) << "the dropped event stays counted";
    }
}

TEST_F(Bfs, EventWithoutSlotIsDroppedAndItsTaskCanBeQueuedAgain)
{
    for (u32 type = 0; type < 4; ++type) {
        TestBfs bfs(64);
        BoundTask task(bfs, 100001, type, 9);
        EXPECT_EQ(bfs.Insert(task.Get()), 0U);
        EXPECT_LINES();
        EXPECT_EQ(bfs->prioBitmap[1], 0U) << "a bit stands for a linked event";
        EXPECT_TRUE(bfs.Select().empty());
        bfs.Prepare();
        bfs.Insert(task.Get());
        const u32 bit = type == 0 ? 2 : 0;
        EXPECT_EQ(bfs->prioBitmap[1], bit);
        EXPECT_EQ(bfs.SelectTasks(), Tasks{task.Get()}) << "type " << type;
        EXPECT_EQ(bfs->prioBitmap[1], 0U);
    }
}

TEST_F(Bfs, HalfEmptySlotDropsTheEvent)
{
    TestBfs bfs(64);
    BoundTask task(bfs, 100001, 0, 0);
    const SchBfsSlot empty{nullptr, nullptr};
    ASSERT_EQ(XelQueEnqueue(bfs->slotQueue, &empty), 0U);
    bfs.Insert(task.Get());
    EXPECT_LINES();
    EXPECT_TRUE(bfs.Select().empty());
    bfs.Prepare();
    bfs.Insert(task.Get());
    EXPECT_EQ(bfs.SelectTasks(), Tasks{task.Get()});
}

// While an event is queued prepare makes up for its slot; when the event leaves, the slot that is
// too many goes back to the pools.
TEST_F(Bfs, SlotsBeyondTheSizeGoBackToThePools)
{
    TestBfs bfs(8);
    BoundTask task(bfs, 100001, 2, 0);
    bfs.Prepare();
    bfs.Insert(task.Get());
    bfs.Prepare();
    const u64 units = Measure().units;
    EXPECT_EQ(XelQueGetSizeUsed(bfs->slotQueue), 8U);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{task.Get()});
    EXPECT_EQ(XelQueGetSizeUsed(bfs->slotQueue), 8U);
    EXPECT_EQ(Measure().units, units - 2);
}

// Every kind of list holds an event when its policy goes; the tasks run under their next policy.
TEST_F(Bfs, TasksQueuedInADestroyedPolicyRunUnderAnother)
{
    TestBfs first(64);
    TestBfs second(64);
    std::vector<BoundTask> tasks;
    for (u32 type = 0; type < 4; ++type) {
        tasks.emplace_back(first, static_cast<i32>(100001 + type), type, 8 * type);
    }
    tasks.emplace_back(first, 100010, 1, 0);
    first.Prepare();
    for (const BoundTask& task : tasks) {
        first.Insert(task.Get());
    }
    first.Destroy();
    second.Prepare();
    Tasks run;
    for (const BoundTask& task : tasks) {
        EXPECT_EQ(SchTaskAddScheduler(task.Get(), second.Get()), 0U);
        second.Insert(task.Get());
        for (SchTaskCtrl* selected : second.SelectTasks()) {
            run.push_back(selected);
        }
        second.Select(); // refills the quotas when they are spent
        for (SchTaskCtrl* selected : second.SelectTasks()) {
            run.push_back(selected);
        }
    }
    ASSERT_EQ(run.size(), tasks.size());
    for (size_t i = 0; i < tasks.size(); ++i) {
        EXPECT_EQ(run[i], tasks[i].Get());
    }
    EXPECT_LINES();
}

TEST_F(Bfs, DestructionGivesEverythingBack)
{
    const Footprint before = Measure();
    {
        TestBfs bfs(64);
        BoundTask task(bfs, 100001, 0, 31);
        BoundTask dead(bfs, 100002, 3, 31);
        bfs.Prepare();
        bfs.Insert(task.Get());
        bfs.Insert(dead.Get());
        dead.Destroy();
        bfs.Destroy();
        EXPECT_EQ(task->events.load(), 0U);
    }
    EXPECT_EQ(Measure(), before);
    EXPECT_LINES();
}

} // namespace
