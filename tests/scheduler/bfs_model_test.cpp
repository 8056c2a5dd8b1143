// The BFS policy against its model: random tasks, readiness, selection, destruction and
// modification; after every step the answers, the state, the queues and the log lines are the same.
#include <algorithm>
#include <optional>
#include <random>

#include <gtest/gtest.h>

#include "bfs_model.h"
#include "bfs_support.h"
#include "xel_queue.h"

namespace
{

using namespace schtest;

// What the callbacks of one dispatch saw.
std::vector<bfsmodel::Event> g_ran;

u32 RanProc(struct epoll_event* event, u64 /*data*/)
{
    g_ran.emplace_back(u64{event->data.u64}, u32{event->events});
    return 0;
}

enum class Driver { Calls, Scheduler };

// One random history of a policy: of its functions, or of the cycles of its scheduler. The
// descriptor numbers stand for no open files.
class History
{
public:
    History(u64 seed, u32 size, size_t tasks, Driver driver = Driver::Calls)
        : random_(seed), bfs_(TestBfs::Later{}), model_(size), handles_(tasks, nullptr)
    {
        if (driver == Driver::Calls) {
            bfs_.Create(size);
        } else {
            probe_.onWait = [this](const EpollProbe::Wait& wait) { return Report(wait); };
            sch_.emplace(probe_.Ops(), &g_schBfsPolicyOps, static_cast<i32>(size));
            bfs_.Borrow(sch_->Get()->policy);
        }
        for (size_t i = 0; i < tasks; ++i) {
            Create(i);
        }
    }

    ~History()
    {
        for (SchTaskCtrl* task : handles_) {
            if (task != nullptr) {
                XEL_TaskDestroy(task);
            }
        }
    }

    void Step()
    {
        xeltest::SetMicroSec(++nowUs_);
        switch (Below(20)) {
        case 0:
            Destroy(Below(handles_.size()));
            break;
        case 1:
            Create(Below(handles_.size()));
            break;
        case 2:
            Modify();
            break;
        case 3:
            ToggleBinding();
            break;
        case 4:
            CompareCache();
            break;
        case 5:
            InsertAnyNumber();
            break;
        case 6:
        case 7:
        case 8:
        case 9:
            Select();
            break;
        default:
            Cycle();
            break;
        }
        CompareState();
    }

    // The end of a policy with whatever is still queued in it.
    void Finish()
    {
        model_.Destroy();
        sch_.reset();
        bfs_.Destroy();
        ComparePending();
        EXPECT_EQ(xeltest::TakeTexts(), std::vector<std::string>{});
    }

private:
    size_t Below(size_t bound)
    {
        return std::uniform_int_distribution<size_t>(0, bound - 1)(random_);
    }
    u32 Below32(u32 bound) { return static_cast<u32>(Below(bound)); }
    u64 HandleAt(size_t i) const { return reinterpret_cast<u64>(handles_[i]); }

    // Few priorities, so that ties and full lists are common.
    u32 RandomPrio() { return Below(3) == 0 ? Below32(32) : 8 * Below32(4) + Below32(2); }

    void Create(size_t at)
    {
        if (handles_[at] != nullptr) {
            return;
        }
        const std::string name = "t" + std::to_string(at);
        const TaskSpec spec{RanProc, 0, Below32(4), RandomPrio(), name.c_str()};
        const i32 fd = 100000 + static_cast<i32>(at);
        SchTaskCtrl* task = MakeTask(fd, spec);
        ASSERT_NE(task, nullptr);
        ASSERT_EQ(SchTaskAddScheduler(task, bfs_.Get()), 0U);
        handles_[at] = task;
        known_.push_back(reinterpret_cast<u64>(task));
        // The unit keeps its old times until the first insertion.
        bfsmodel::Task& entry = model_.tasks[HandleAt(at)];
        entry.live = true;
        entry.bound = true;
        entry.version = task->version;
        entry.type = spec.type;
        entry.prio = spec.prio;
        entry.pending = 0;
        entry.fd = fd;
        entry.name = name;
    }

    void Destroy(size_t at)
    {
        if (handles_[at] == nullptr) {
            return;
        }
        bfsmodel::Task& entry = model_.tasks[HandleAt(at)];
        entry.live = false;
        entry.version = 0;
        entry.pending = 0;
        XEL_TaskDestroy(handles_[at]);
        handles_[at] = nullptr;
    }

    void Modify()
    {
        const size_t at = Below(handles_.size());
        if (handles_[at] == nullptr) {
            return;
        }
        bfsmodel::Task& entry = model_.tasks[HandleAt(at)];
        const bool outOfRange = Below(4) == 0;
        entry.type = outOfRange && Below(2) == 0 ? 4 + Below32(3) : Below32(4);
        entry.prio = outOfRange ? 30 + Below32(5) : RandomPrio();
        entry.name = ""; // what the attribute of the change carries
        const Attr attr;
        attr.Get()->proc = RanProc;
        attr.Get()->type = entry.type;
        attr.Get()->prio = entry.prio;
        EXPECT_EQ(SchFdModify(handles_[at], attr.Get()), 0U);
    }

    void ToggleBinding()
    {
        const size_t at = Below(handles_.size());
        if (handles_[at] == nullptr) {
            return;
        }
        bfsmodel::Task& entry = model_.tasks[HandleAt(at)];
        entry.bound = !entry.bound;
        if (entry.bound) {
            EXPECT_EQ(SchTaskAddScheduler(handles_[at], bfs_.Get()), 0U);
        } else {
            SchTaskRmScheduler(handles_[at], bfs_.Get());
        }
    }

    u32 Prepare()
    {
        const u32 expected = model_.Prepare();
        const u32 got = bfs_.Prepare();
        EXPECT_EQ(got, expected);
        return got;
    }

    // Handles of destroyed tasks are among the events, as a late epoll report would bring them.
    std::vector<bfsmodel::Event> RandomEvents(size_t count)
    {
        std::vector<bfsmodel::Event> events;
        for (size_t i = 0; i < count; ++i) {
            events.emplace_back(known_[Below(known_.size())], 1U << Below(6));
        }
        return events;
    }

    void Insert(size_t count)
    {
        const std::vector<bfsmodel::Event> events = RandomEvents(count);
        model_.Insert(events, nowUs_);
        EXPECT_EQ(bfs_.Insert(events), 0U);
    }

    // Beside the prepared number of slots.
    void InsertAnyNumber()
    {
        if (sch_) {
            Cycle();
        } else {
            Insert(Below(2 * model_.maxEvents + 4));
        }
    }

    void Select()
    {
        if (sch_) {
            Dispatch(0);
        } else {
            EXPECT_EQ(bfs_.Select(), model_.Select());
        }
    }

    // What the wait of the next dispatch returns.
    int Report(const EpollProbe::Wait& wait)
    {
        EXPECT_EQ(wait.maxEvents, static_cast<int>(asked_));
        for (size_t i = 0; i < reported_.size(); ++i) {
            wait.events[i].data.u64 = reported_[i].first;
            wait.events[i].events = reported_[i].second;
        }
        return static_cast<int>(reported_.size());
    }

    // One cycle of the scheduler, in which so many events are reported, but not more than asked.
    void Dispatch(size_t count)
    {
        asked_ = model_.Prepare();
        reported_ = RandomEvents(std::min<size_t>(count, asked_));
        g_ran.clear();
        XEL_SchDispatch(sch_->Get());
        (void)probe_.TakeWaits();
        model_.Insert(reported_, nowUs_);
        EXPECT_EQ(g_ran, model_.Select());
    }

    void Cycle()
    {
        if (sch_) {
            Dispatch(Below(3) == 0 ? Below(model_.maxEvents + 1) : 1);
            return;
        }
        const u32 asked = Prepare();
        Insert(Below(3) == 0 ? asked : Below(asked + 1));
        Select();
    }

    void CompareCache()
    {
        const u32 capacity = Below32(static_cast<u32>(model_.Queued()) + 3);
        const auto expected = model_.ListCache(capacity);
        EXPECT_EQ(bfs_.ListCache(capacity), expected);
    }

    static void CompareList(const XelDll& list, const std::deque<bfsmodel::Item>& expected,
                            const char* which)
    {
        EXPECT_EQ(WalkList(list), std::vector(expected.begin(), expected.end())) << which;
    }

    void CompareQueues()
    {
        const SchBfsCtrl& real = *bfs_.Get();
        u32 bits = 0;
        for (u32 p = 0; p < 32; ++p) {
            CompareList(real.prioList[p], model_.prio[p], "priority list");
            bits |= model_.prio[p].empty() ? 0 : 1U << p;
        }
        for (u32 byte = 0; byte < 4; ++byte) {
            EXPECT_EQ(real.prioBitmap[byte], static_cast<u8>(bits >> (8 * byte)));
        }
        CompareList(real.fifoList, model_.fifo, "type 1 list");
        CompareList(real.delayList, model_.delay, "type 2 list");
        for (u32 g = 0; g < 4; ++g) {
            CompareList(real.groupList[g], model_.group[g], "type 3 list");
            EXPECT_EQ(real.groupQuota[g], model_.quota[g]) << "group " << g;
        }
    }

    void ComparePending()
    {
        for (SchTaskCtrl* task : handles_) {
            if (task != nullptr) {
                const u64 handle = reinterpret_cast<u64>(task);
                EXPECT_EQ(task->events.load(), model_.tasks[handle].pending);
            }
        }
    }

    void CompareState()
    {
        const SchBfsCtrl& real = *bfs_.Get();
        EXPECT_EQ(real.maxEvents, model_.maxEvents);
        EXPECT_EQ(real.batch, model_.batch);
        EXPECT_EQ(real.lastCount, model_.lastCount);
        EXPECT_EQ(real.fifoServed, model_.fifoServed);
        EXPECT_EQ(real.delayServed, model_.delayServed);
        EXPECT_EQ(real.selectSeq, model_.selectSeq);
        EXPECT_EQ(XelQueGetSizeUsed(real.slotQueue), model_.freeSlots);
        EXPECT_EQ(SCH_BfsGetEventLeft(bfs_.Get()), model_.eventLeft);
        CompareQueues();
        ComparePending();
        EXPECT_EQ(xeltest::TakeTexts(), model_.TakeLog());
    }

    std::mt19937_64 random_;
    EpollProbe probe_;
    u32 asked_ = 0;
    std::vector<bfsmodel::Event> reported_;
    std::optional<TestSch> sch_; // whose policy it is, if so
    TestBfs bfs_;
    bfsmodel::Policy model_;
    std::vector<SchTaskCtrl*> handles_; // null: no task at the moment
    std::vector<u64> known_;            // every handle ever seen, dead ones included
    u64 nowUs_ = 1000000;
};

void RunHistories(u64 firstSeed, u64 count, int steps, Driver driver = Driver::Calls)
{
    for (u64 seed = firstSeed; seed < firstSeed + count; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937_64 random(seed * 7919);
        static constexpr u32 kSizes[] = {1, 2, 3, 4, 7, 8, 9, 15, 16, 17, 31, 64, 100, 256};
        const u32 size = kSizes[random() % std::size(kSizes)];
        History history(seed, size, 4 + random() % 40, driver);
        for (int step = 0; step < steps && !::testing::Test::HasFailure(); ++step) {
            history.Step();
        }
        history.Finish();
        if (::testing::Test::HasFailure()) {
            FAIL() << "first failing seed " << seed;
        }
    }
}

class BfsModel : public SchTest
{
};

class BfsModelSlow : public SchTest
{
};

TEST_F(BfsModel, RandomHistoriesAnswerAsTheModelDoes)
{
    RunHistories(1, xeltest::IsSanitized() ? 10 : 30, 120);
}

TEST_F(BfsModel, CyclesOfASchedulerAnswerAsTheModelDoes)
{
    RunHistories(5000, xeltest::IsSanitized() ? 10 : 30, 200, Driver::Scheduler);
}

TEST_F(BfsModelSlow, ManyCyclesOfASchedulerAnswerAsTheModelDoes)
{
    RunHistories(6000, xeltest::IsSanitized() ? 60 : 400, 400, Driver::Scheduler);
}

TEST_F(BfsModelSlow, ManyRandomHistoriesAnswerAsTheModelDoes)
{
    RunHistories(1000, xeltest::IsSanitized() ? 120 : 600, 250);
}

// The batch grows to the largest size and shrinks again: thousands of events in one insertion.
TEST_F(BfsModelSlow, LargestSizeAnswersAsTheModelDoes)
{
    for (u64 seed = 1; seed <= 3; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        History history(seed, 4096, 600);
        for (int step = 0; step < 60 && !HasFailure(); ++step) {
            history.Step();
        }
        history.Finish();
    }
}

} // namespace
