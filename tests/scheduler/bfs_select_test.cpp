// The BFS policy: which event runs next, type by type, and what becomes of events whose task died.
#include <gtest/gtest.h>

#include "bfs_support.h"
#include "xel_queue.h"

namespace
{

using namespace schtest;
using Tasks = std::vector<SchTaskCtrl*>;

class BfsSelect : public SchTest
{
protected:
    void SetUp() override
    {
        SchTest::SetUp();
        bfs.Create(256);
        bfs.Prepare();
        while (XelQueGetSizeUsed(bfs->slotQueue) < 200) {
            bfs->lastCount = bfs->batch;
            bfs.Prepare();
        }
    }

    void TearDown() override
    {
        owned.clear();
        bfs.Destroy();
        SchTest::TearDown();
    }

    // A new task that is queued at once.
    SchTaskCtrl* Queue(u32 type, u32 prio)
    {
        owned.emplace_back(bfs, next++, type, prio);
        bfs.Insert(owned.back().Get());
        return owned.back().Get();
    }

    // Passes that leave the type 1 to 3 queues alone: a type 0 event each.
    void Pass(int count)
    {
        for (int i = 0; i < count; ++i) {
            Queue(0, 0);
            EXPECT_EQ(bfs.Select().size(), 1U);
        }
    }

    std::vector<u32> Quotas() const
    {
        return {bfs->groupQuota[0], bfs->groupQuota[1], bfs->groupQuota[2], bfs->groupQuota[3]};
    }

    TestBfs bfs{TestBfs::Later{}};
    std::vector<BoundTask> owned;
    i32 next = 200000;
};

TEST_F(BfsSelect, EmptyPolicySelectsNothing)
{
    struct epoll_event* out = nullptr;
    EXPECT_EQ(SCH_BfsSelectEvents(bfs.Get(), &out), 0U);
    EXPECT_EQ(out, bfs->outEvents);
    EXPECT_EQ(bfs->selectSeq, 1U);
}

TEST_F(BfsSelect, LowerPriorityNumberThenType1)
{
    SchTaskCtrl* five = Queue(0, 5);
    SchTaskCtrl* two = Queue(0, 2);
    SchTaskCtrl* fifo = Queue(1, 0);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{two});
    EXPECT_EQ(bfs.SelectTasks(), Tasks{five});
    EXPECT_EQ(bfs.SelectTasks(), Tasks{fifo});
    EXPECT_EQ(bfs.SelectTasks(), Tasks{});
}

TEST_F(BfsSelect, AllPrioritiesOfType0InOrder)
{
    std::vector<SchTaskCtrl*> byPrio(32);
    for (u32 p = 0; p < 32; ++p) {
        byPrio[(p * 13) % 32] = Queue(0, (p * 13) % 32);
    }
    for (u32 p = 0; p < 32; ++p) {
        EXPECT_EQ(bfs.SelectTasks(), Tasks{byPrio[p]}) << p;
        EXPECT_EQ(bfs->prioBitmap[p / 8] & (1U << (p % 8)), 0U);
    }
}

TEST_F(BfsSelect, OnePriorityIsFirstComeFirstServed)
{
    SchTaskCtrl* a = Queue(0, 7);
    SchTaskCtrl* b = Queue(0, 7);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{a});
    EXPECT_EQ(bfs->prioBitmap[0], 0x80) << "still one event of priority 7";
    SchTaskCtrl* c = Queue(0, 7);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{b});
    EXPECT_EQ(bfs.SelectTasks(), Tasks{c});
    EXPECT_EQ(bfs->prioBitmap[0], 0);
}

TEST_F(BfsSelect, TypesGoInOrder)
{
    SchTaskCtrl* group = Queue(3, 0);
    SchTaskCtrl* delay = Queue(2, 0);
    Pass(1);
    bfs->delayServed = 1; // a type 1 event goes to its own queue only behind a delay pick
    SchTaskCtrl* fifo = Queue(1, 31);
    SchTaskCtrl* prio = Queue(0, 31);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{prio});
    EXPECT_EQ(bfs.SelectTasks(), Tasks{fifo});
    EXPECT_EQ(bfs.SelectTasks(), Tasks{delay});
    EXPECT_EQ(bfs.SelectTasks(), Tasks{group});
}

// One delay pick, then eight of type 1, and so on; never more.
TEST_F(BfsSelect, Type1SharesEightToOne)
{
    std::string road;
    for (int i = 0; i < 27; ++i) {
        const u64 before = bfs->fifoServed;
        SchTaskCtrl* task = Queue(1, 0);
        EXPECT_EQ(bfs.SelectTasks(), Tasks{task});
        road += bfs->fifoServed > before ? 'f' : 'd';
    }
    EXPECT_EQ(road, "dffffffffdffffffffdffffffff");
    EXPECT_EQ(bfs->fifoServed, 24U);
    EXPECT_EQ(bfs->delayServed, 3U);
}

TEST_F(BfsSelect, SharingIsDecidedAtInsertionByWhatWasServed)
{
    Queue(1, 0);
    EXPECT_EQ(bfs.Select().size(), 1U);
    Tasks expected;
    for (int i = 0; i < 20; ++i) {
        expected.push_back(Queue(1, 0));
    }
    EXPECT_EQ(WalkList(bfs->fifoList).size(), 20U);
    SchTaskCtrl* delay = Queue(2, 0);
    for (SchTaskCtrl* task : expected) {
        EXPECT_EQ(bfs.SelectTasks(), Tasks{task});
    }
    EXPECT_EQ(bfs.SelectTasks(), Tasks{delay});
}

TEST_F(BfsSelect, SharingStartsAnewAtTheType3Stage)
{
    Queue(1, 0);
    bfs.Select();
    Queue(1, 0);
    bfs.Select();
    EXPECT_EQ(bfs->fifoServed, 1U);
    EXPECT_EQ(bfs->delayServed, 1U);
    SchTaskCtrl* group = Queue(3, 0);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{group});
    EXPECT_EQ(bfs->fifoServed, 0U);
    EXPECT_EQ(bfs->delayServed, 0U);
    Queue(1, 0);
    EXPECT_EQ(WalkList(bfs->delayList).size(), 1U) << "the first after a reset is diverted";
}

TEST_F(BfsSelect, DivertedType1IsOverdueAtOnce)
{
    Pass(1);
    SchTaskCtrl* diverted = Queue(1, 31);
    SchTaskCtrl* front = Queue(2, 0);
    ASSERT_EQ(WalkList(bfs->delayList).front().handle, reinterpret_cast<u64>(front));
    EXPECT_EQ(WalkList(bfs->delayList).back().key, 0U);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{diverted});
    EXPECT_EQ(bfs.SelectTasks(), Tasks{front});
}

// Before the first selection nothing is overdue, a diverted event neither: the tie decides.
TEST_F(BfsSelect, DivertedType1IsNotOverdueInTheVeryFirstPass)
{
    SchTaskCtrl* diverted = Queue(1, 0);
    SchTaskCtrl* front = Queue(2, 0);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{front});
    EXPECT_EQ(bfs.SelectTasks(), Tasks{diverted});
}

TEST_F(BfsSelect, Priority0OfType2IsOverdueFromTheSecondPassOn)
{
    Pass(3);
    SchTaskCtrl* old = Queue(2, 0);
    EXPECT_EQ(WalkList(bfs->delayList).front().key, 3U);
    Pass(1);
    SchTaskCtrl* young = Queue(2, 0);
    EXPECT_EQ(WalkList(bfs->delayList).front().handle, reinterpret_cast<u64>(young));
    EXPECT_EQ(bfs.SelectTasks(), Tasks{old}) << "overdue, though behind";
    EXPECT_EQ(bfs.SelectTasks(), Tasks{young});
}

TEST_F(BfsSelect, SmallestKeyWinsWhileNothingIsOverdue)
{
    SchTaskCtrl* nine = Queue(2, 9);
    SchTaskCtrl* four = Queue(2, 4);
    SchTaskCtrl* six = Queue(2, 6);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{four});
    EXPECT_EQ(bfs.SelectTasks(), Tasks{six});
    EXPECT_EQ(bfs.SelectTasks(), Tasks{nine});
}

TEST_F(BfsSelect, FirstOverdueWinsOverASmallerKeyBehindIt)
{
    SchTaskCtrl* six = Queue(2, 3);
    SchTaskCtrl* two = Queue(2, 1);
    Pass(6);
    EXPECT_EQ(WalkList(bfs->delayList).front().key, 6U);
    EXPECT_EQ(bfs->selectSeq, 6U);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{two}) << "key 6 is not below 6";
    EXPECT_EQ(bfs.SelectTasks(), Tasks{six});
    six = Queue(2, 3);
    two = Queue(2, 1);
    Pass(7);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{six});
    EXPECT_EQ(bfs.SelectTasks(), Tasks{two});
}

TEST_F(BfsSelect, EqualKeysGoToTheOneNearerTheFront)
{
    SchTaskCtrl* first = Queue(2, 4);
    Pass(2);
    SchTaskCtrl* second = Queue(2, 3);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{first}) << "both keys are 8";
    EXPECT_EQ(bfs.SelectTasks(), Tasks{second});
    SchTaskCtrl* back = Queue(2, 1);
    Pass(2);
    SchTaskCtrl* front = Queue(2, 0);
    const auto list = WalkList(bfs->delayList);
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0].key, list[1].key);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{front});
    EXPECT_EQ(bfs.SelectTasks(), Tasks{back});
}

TEST_F(BfsSelect, SixOfGroup0LeaveInOneNoneTwoTwoOne)
{
    for (int i = 0; i < 6; ++i) {
        Queue(3, 0);
    }
    std::vector<size_t> counts;
    for (int i = 0; i < 5; ++i) {
        counts.push_back(bfs.Select().size());
        if (i == 1) {
            EXPECT_EQ(Quotas(), (std::vector<u32>{8, 4, 2, 1}));
        }
    }
    EXPECT_EQ(counts, (std::vector<size_t>{1, 0, 2, 2, 1}));
}

// One letter per event, the group's number; '.' is a select that gives none.
TEST_F(BfsSelect, GroupsAreWeightedByTheirQuotas)
{
    for (u32 g = 0; g < 4; ++g) {
        for (int i = 0; i < 40; ++i) {
            Queue(3, 8 * g + static_cast<u32>(i) % 8);
        }
    }
    bfs->lastCount = bfs->batch;
    std::string road;
    for (int i = 0; i < 30; ++i) {
        const Tasks tasks = bfs.SelectTasks();
        for (SchTaskCtrl* task : tasks) {
            road += static_cast<char>('0' + task->prio / 8);
        }
        road += tasks.empty() ? ". " : " ";
    }
    EXPECT_EQ(road, "0 11 22 22 33 33 33 33 . "
                    "00 00 00 00 11 11 22 3 . 00 00 00 00 11 11 22 3 . "
                    "00 00 00 ");
}

TEST_F(BfsSelect, GroupIsFirstComeFirstServedWhateverThePriority)
{
    SchTaskCtrl* a = Queue(3, 15);
    SchTaskCtrl* b = Queue(3, 8);
    EXPECT_EQ(bfs.SelectTasks(), (Tasks{a, b}));
}

TEST_F(BfsSelect, EmptyGroupLosesItsQuotaForThePeriod)
{
    SchTaskCtrl* one = Queue(3, 8);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{one});
    EXPECT_EQ(Quotas(), (std::vector<u32>{0, 1, 4, 8}));
    SchTaskCtrl* zero = Queue(3, 0);
    SchTaskCtrl* three = Queue(3, 24);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{three}) << "group 0 waits for the next period";
    EXPECT_EQ(Quotas(), (std::vector<u32>{0, 0, 0, 7}));
    EXPECT_EQ(bfs.SelectTasks(), Tasks{});
    EXPECT_EQ(Quotas(), (std::vector<u32>{8, 4, 2, 1}));
    EXPECT_EQ(bfs.SelectTasks(), Tasks{zero});
}

TEST_F(BfsSelect, DeadTaskIsSkippedAndTheNextIsTriedAtOnce)
{
    for (u32 type = 0; type < 3; ++type) {
        Queue(type, 1);
        SchTaskCtrl* alive = Queue(type, 1);
        owned[owned.size() - 2].Destroy();
        EXPECT_EQ(bfs.SelectTasks(), Tasks{alive}) << "type " << type;
        EXPECT_LINES(TaskLine("Task has damaged. (magic = 0)"),
                     TaskLine("Task get event unsuccessfully, task is invalid."));
    }
    EXPECT_EQ(SCH_BfsGetEventLeft(bfs.Get()), 0U);
    EXPECT_EQ(bfs->selectSeq, 6U) << "each pass counts";
}

TEST_F(BfsSelect, OnlyDeadTasksSelectNothing)
{
    Queue(0, 0);
    Queue(0, 3);
    owned[0].Destroy();
    owned[1].Destroy();
    EXPECT_EQ(bfs.SelectTasks(), Tasks{});
    EXPECT_EQ(bfs->selectSeq, 3U);
    EXPECT_EQ(TakeLines().size(), 4U);
}

TEST_F(BfsSelect, AgedTaskIsSkippedAndItsSuccessorIsQueuedAlone)
{
    SchTaskCtrl* old = Queue(2, 1);
    const u32 oldVersion = old->version;
    owned.back().Destroy();
    owned.pop_back();
    owned.emplace_back(bfs, next++, 2, 1);
    SchTaskCtrl* successor = owned.back().Get();
    ASSERT_EQ(successor, old) << "the unit freed last is taken first";
    bfs.Insert(successor, EPOLLOUT);
    const auto events = bfs.Select();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].second, u32{EPOLLOUT});
    EXPECT_EQ(bfs.SelectTasks(), Tasks{});
    EXPECT_LINES(TaskLine(Text("Task get event unsuccessfully, task has been aged. "
                               "(old ver = %u, new ver = %u)",
                               oldVersion, successor->version)));
}

// A dead first event of a type 3 pair takes its live partner out of the queue with it; the partner
// is not lost for ever, though.
TEST_F(BfsSelect, LivePartnerOfADeadEventCanBeQueuedAgain)
{
    Queue(3, 8);
    SchTaskCtrl* partner = Queue(3, 8);
    owned[0].Destroy();
    EXPECT_EQ(bfs.SelectTasks(), Tasks{});
    EXPECT_LINES(TaskLine("Task has damaged. (magic = 0)"),
                 TaskLine("Task get event unsuccessfully, task is invalid."));
    EXPECT_EQ(SCH_BfsGetEventLeft(bfs.Get()), 0U);
    EXPECT_EQ(partner->events.load(), 0U);
    bfs.Insert(partner, EPOLLOUT);
    const auto events = bfs.Select();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].first, reinterpret_cast<u64>(partner));
    EXPECT_EQ(events[0].second, u32{EPOLLOUT});
}

TEST_F(BfsSelect, DeadSecondEventLeavesTheFirst)
{
    SchTaskCtrl* first = Queue(3, 8);
    Queue(3, 8);
    owned[1].Destroy();
    EXPECT_EQ(bfs.SelectTasks(), Tasks{first});
    EXPECT_LINES(TaskLine("Task has damaged. (magic = 0)"),
                 TaskLine("Task get event unsuccessfully, task is invalid."));
    EXPECT_EQ(bfs->selectSeq, 1U) << "no further pass";
}

// A change of type or priority between two insertions takes effect with the next one.
TEST_F(BfsSelect, ChangedAttributesCountFromTheNextInsertionOn)
{
    SchTaskCtrl* task = Queue(2, 5);
    ForceTypePrio(task, 0, 3);
    EXPECT_EQ(WalkList(bfs->delayList).size(), 1U);
    bfs.Insert(task);
    EXPECT_EQ(bfs->prioBitmap[0], 0) << "merged into the queued event";
    EXPECT_EQ(bfs.SelectTasks(), Tasks{task});
    bfs.Insert(task);
    EXPECT_EQ(bfs->prioBitmap[0], 8);
    EXPECT_EQ(bfs.SelectTasks(), Tasks{task});
}

// An unbound task's queued event still runs: the binding is asked at insertion only.
TEST_F(BfsSelect, EventQueuedBeforeTheUnbindingRuns)
{
    SchTaskCtrl* task = Queue(1, 0);
    SchTaskRmScheduler(task, bfs.Get());
    EXPECT_EQ(bfs.SelectTasks(), Tasks{task});
}

} // namespace
