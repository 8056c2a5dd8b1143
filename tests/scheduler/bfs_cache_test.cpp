// The list of queued events that the BFS policy gives to debuggers, alone and beside a cycle.
#include <gtest/gtest.h>

#include "bfs_support.h"

namespace
{

using namespace schtest;
using bfsmodel::Cached;

class BfsCache : public SchTest
{
protected:
    // Names tell the place where the rules put each event.
    void QueueOneEach(TestBfs& bfs)
    {
        bfs->lastCount = 8;
        bfs.Prepare();
        struct Row {
            u32 type;
            u32 prio;
            const char* name;
        };
        static constexpr Row kRows[] = {
            {3, 31, "group3"}, {3, 0, "group0a"}, {3, 7, "group0b"}, {2, 1, "delayBack"},
            {2, 0, "delay"},   {1, 0, "fifo"},    {0, 31, "prio31"}, {0, 8, "prio8a"},
            {0, 8, "prio8b"},  {3, 8, "group1"},
        };
        for (const Row& row : kRows) {
            if (row.type == 1) {
                bfs->delayServed = 1; // its own queue, not the delay list
            }
            owned.emplace_back(bfs, next++, row.type, row.prio, row.name);
            xeltest::SetMicroSec(++now);
            bfs.Insert(owned.back().Get());
        }
    }

    void TearDown() override
    {
        owned.clear();
        SchTest::TearDown();
    }

    static std::vector<std::string> Names(const std::vector<Cached>& records)
    {
        std::vector<std::string> names;
        for (const Cached& record : records) {
            names.push_back(record.name);
        }
        return names;
    }

    BoundTask& Find(const char* name)
    {
        for (BoundTask& task : owned) {
            if (task.Get() != nullptr && std::string(task->name) == name) {
                return task;
            }
        }
        ADD_FAILURE() << name;
        return owned.front();
    }

    std::vector<BoundTask> owned;
    i32 next = 300000;
    u64 now = 5000;
};

const std::vector<std::string> kOrder = {"prio8a",    "prio8b",  "prio31",  "fifo",   "delay",
                                         "delayBack", "group0a", "group0b", "group1", "group3"};

TEST_F(BfsCache, ListsInTheOrderOfTheQueues)
{
    TestBfs bfs(64);
    QueueOneEach(bfs);
    EXPECT_EQ(Names(bfs.ListCache(32)), kOrder);
    EXPECT_EQ(Names(bfs.ListCache(10)), kOrder);
    EXPECT_LINES();
}

TEST_F(BfsCache, RecordCarriesTheTaskAndTheMaskThatQueuedIt)
{
    TestBfs bfs(64);
    bfs.Prepare();
    owned.emplace_back(bfs, 300000, 2, 4, "fifteen letters");
    xeltest::SetMicroSec(111);
    bfs.Insert(owned[0].Get(), EPOLLOUT);
    xeltest::SetMicroSec(222);
    bfs.Insert(owned[0].Get(), EPOLLIN);
    EXPECT_EQ(bfs.ListCache(1),
              (std::vector<Cached>{{"fifteen letters", 2, 300000, 111, 222, EPOLLOUT}}));
}

TEST_F(BfsCache, EndsAtTheCapacity)
{
    TestBfs bfs(64);
    QueueOneEach(bfs);
    for (u32 capacity = 0; capacity <= kOrder.size(); ++capacity) {
        EXPECT_EQ(Names(bfs.ListCache(capacity)),
                  std::vector<std::string>(kOrder.begin(), kOrder.begin() + capacity));
    }
}

TEST_F(BfsCache, LeavesTheQueuesAsTheyAre)
{
    TestBfs bfs(64);
    QueueOneEach(bfs);
    const auto first = bfs.ListCache(32);
    EXPECT_EQ(bfs.ListCache(32), first);
    EXPECT_EQ(SCH_BfsGetEventLeft(bfs.Get()), kOrder.size());
    std::vector<std::string> run;
    for (int i = 0; i < 20; ++i) {
        for (SchTaskCtrl* task : bfs.SelectTasks()) {
            run.push_back(task->name);
        }
    }
    EXPECT_EQ(run.size(), kOrder.size());
    EXPECT_EQ(run[0], "prio8a");
}

TEST_F(BfsCache, DestroyedTaskIsSkippedWithItsLine)
{
    TestBfs bfs(64);
    QueueOneEach(bfs);
    Find("prio31").Destroy();
    Find("group1").Destroy();
    const std::vector<std::string> left = {"prio8a",    "prio8b",  "fifo",    "delay",
                                           "delayBack", "group0a", "group0b", "group3"};
    EXPECT_EQ(Names(bfs.ListCache(32)), left);
    const Line line = TaskLine("Task get debug info unsuccessfully, magic is damaged, magic = 0.");
    EXPECT_LINES(line, line);
    EXPECT_EQ(Names(bfs.ListCache(3)), (std::vector<std::string>{"prio8a", "prio8b", "fifo"}));
    EXPECT_LINES(line);
    EXPECT_EQ(Names(bfs.ListCache(2)), (std::vector<std::string>{"prio8a", "prio8b"}));
    EXPECT_LINES(); // the walk ends when the room is used up
}

TEST_F(BfsCache, AgedTaskIsSkippedWithItsLine)
{
    TestBfs bfs(64);
    bfs.Prepare();
    owned.emplace_back(bfs, 300000, 0, 0, "old");
    const u32 version = owned[0]->version;
    bfs.Insert(owned[0].Get());
    owned.clear();
    owned.emplace_back(bfs, 300000, 0, 0, "new");
    EXPECT_TRUE(bfs.ListCache(4).empty());
    EXPECT_LINES(TaskLine(Text("Task get debug info unsuccessfully, task handle had been aged, "
                               "difference = %d.",
                               static_cast<int>(owned[0]->version - version))));
    EXPECT_EQ(owned[0]->version, version + 1);
}

// Another thread lists while tasks are queued, run, destroyed and made anew: every list ends, and
// what it holds are whole records.
TEST_F(BfsCache, ListingBesideACycleEndsAndReadsWholeRecords)
{
    TestBfs bfs(64);
    for (i32 i = 0; i < 24; ++i) {
        owned.emplace_back(bfs, 300000 + i, static_cast<u32>(i) % 4, static_cast<u32>(i), "whole");
    }
    std::atomic<bool> stop{false};
    std::atomic<u32> lists{0};
    std::atomic<u32> records{0};
    Runner reader([&] {
        while (!stop.load()) {
            SchEventCacheInfo found[64] = {};
            u32 count = 64;
            EXPECT_EQ(SCH_BfsGetEventCache(bfs.Get(), found, &count), 0U);
            EXPECT_LE(count, 64U);
            for (u32 i = 0; i < count; ++i) {
                EXPECT_STREQ(found[i].name, "whole");
                EXPECT_GE(found[i].fd, 300000);
                EXPECT_LT(found[i].fd, 300024);
                EXPECT_EQ(found[i].events & ~u32{EPOLLIN | EPOLLOUT}, 0U);
            }
            (void)SCH_BfsGetEventLeft(bfs.Get());
            records += count;
            ++lists;
        }
    });
    const u32 enoughLists = xeltest::IsSanitized() ? 300 : 2000;
    u32 cycles = 0;
    const bool enough = AwaitTrue([&] {
        for (int i = 0; i < 20; ++i, ++cycles) {
            bfs.Prepare();
            for (size_t t = cycles % 3; t < owned.size(); t += 3) {
                bfs.Insert(owned[t].Get(), t % 2 == 0 ? EPOLLIN : EPOLLOUT);
            }
            for (u32 n = 0; n < cycles % 17; ++n) {
                bfs.Select();
            }
            const i32 fd = 300000 + static_cast<i32>(cycles % 24);
            BoundTask& victim = owned[cycles % 24];
            victim.Destroy();
            owned[cycles % 24] = BoundTask(bfs, fd, cycles % 4, cycles % 32, "whole");
        }
        return lists.load() > enoughLists && records.load() > enoughLists && cycles > enoughLists;
    });
    stop.store(true);
    EXPECT_TRUE(reader.AwaitEnd());
    EXPECT_TRUE(enough) << lists.load() << " lists, " << records.load() << " records";
    (void)xeltest::TakeLog(); // stale events were met, by either thread
}

} // namespace
