// Threads against each other: destruction beside dispatch, records and units reused at once,
// lookups beside both. Every wait has a bound: a hang ends the program with a message.
#include <random>

#include <gtest/gtest.h>

#include "sch_dispatch_support.h"

namespace
{

using namespace schtest;

class SchStressSlow : public SchTest
{
protected:
    // What threads log depends on who came first; the texts of a healthy race are known.
    static void ExpectOnly(const std::vector<std::string>& beginnings)
    {
        for (const Line& line : TakeLines()) {
            bool known = false;
            for (const std::string& beginning : beginnings) {
                known = known || line.text.starts_with(beginning);
            }
            EXPECT_TRUE(known) << line.text;
        }
        (void)xeltest::TakeSleeps();
    }
};

const std::vector<std::string> kStaleDispatch = {
    "Sch dispatch, magic is damaged, magic = 0.",
    "Sch dispatch, handle had been destroyed, state = ",
    "Sch dispatch, try lock unsuccessfully, handle is looped in multi-thread",
    "Event get, epoll wait with time-out[",
    "Sch dispatch, get events unsuccessfully.",
    "Task get info unsuccessfully, task is not bind scheduler. (taskName = schInnerEvent)",
    "Task get info unsuccessfully, task magic is damaged, magic = 0.",
    "Event insert, invalid task-ctrl.",
    "Task has damaged. (magic = 0)",
    "Task get info process unsuccessfully, task is invalid.",
    "Event process, invalid task-ctrl.",
    "scheduler inner event read unsuccessfully.",
};

const std::vector<std::string> kStaleTasks = {
    "Task get info unsuccessfully, task magic is damaged, magic = 0.",
    "Task get info unsuccessfully, input is not valid.",
    "Task get info unsuccessfully, task handle had been destroyed already, init = 0.",
    "Task get info unsuccessfully, task is not bind scheduler. (taskName = ",
    "Event insert, invalid task-ctrl.",
    "Task has damaged. (magic = 0)",
    "Task get event unsuccessfully, task is invalid.",
    "Task get event unsuccessfully, handle has been destroyed.",
    "Task get event unsuccessfully, task has been aged.",
    "Task get info process unsuccessfully, task is invalid.",
    "Task get info process unsuccessfully, handle has been destroyed. (init = 0)",
    "Event process, invalid task-ctrl.",
    "task handle magic destroy, magic = 0.",
    "Sch get task name unsuccessfully, schTaskHandle null.",
    "Sch get task info unsuccessfully, task magic is damaged, magic = 0.",
    "Task get debug info unsuccessfully, magic is damaged, magic = 0.",
    "Task get debug info unsuccessfully, input is not valid.",
    "Task get debug info unsuccessfully, handle had been destroyed already, init = 0.",
    "Task get debug info unsuccessfully, task handle had been aged, difference = ",
};

void DispatchUntilDestroyed(SchCtrl* sch)
{
    while (sch->magic.load() == 0xFBADBEEF) {
        XEL_SchDispatch(sch);
    }
}

// Some destroyers come before the wait, some into it, some into a cycle of a busy scheduler.
void DestroyRounds(Policy policy)
{
    const auto start = std::chrono::steady_clock::now();
    for (int round = 0; round < 300; ++round) {
        TestSch sch(policy);
        SchCtrl* raw = sch.Get();
        const Fd busy = Fd::Event(round % 3 == 2 ? 1 : 0);
        ASSERT_EQ(AddFd(raw, busy.Get(), {NopProc}), 0U);
        SchTaskCtrl* task = SchTaskGetHandleByAppFd(busy.Get());
        {
            Runner dispatcher([raw] { DispatchUntilDestroyed(raw); });
            if (round % 3 != 0) {
                ASSERT_TRUE(
                    AwaitTrue([raw] { return std::atomic_ref<u32>(raw->lock.count) != 0; }));
            }
            sch.Destroy();
        }
        XEL_TaskDestroy(task);
    }
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_LT(std::chrono::duration_cast<std::chrono::seconds>(took).count(), 60);
}

TEST_F(SchStressSlow, DestroyBesideABlockedDispatcherOfAPolicy)
{
    DestroyRounds(Policy::Bfs);
    ExpectOnly(kStaleDispatch);
}

TEST_F(SchStressSlow, DestroyBesideABlockedDispatcherWithoutPolicy)
{
    DestroyRounds(Policy::None);
    ExpectOnly(kStaleDispatch);
}

// Several destroyers and a dispatcher on one handle: one of them destroys, all of them end.
TEST_F(SchStressSlow, SeveralDestroyersBesideADispatcher)
{
    for (int round = 0; round < 100; ++round) {
        TestSch sch(round % 2 == 0 ? Policy::Bfs : Policy::None);
        SchCtrl* raw = sch.Get();
        {
            Runner dispatcher([raw] { DispatchUntilDestroyed(raw); });
            Runner first([raw] { XEL_SchDestroy(raw); });
            Runner second([raw] { XEL_SchDestroy(raw); });
            Runner third([raw] { XEL_SchDestroy(raw); });
        }
        EXPECT_EQ(raw->magic.load(), 0U);
        sch.Forget();
    }
    std::vector<std::string> known = kStaleDispatch;
    known.push_back("magic is damaged, magic = 0.");
    known.push_back("handle has been destroyed already, state = 0.");
    ExpectOnly(known);
}

// A thread that never noticed: its handle's record serves one scheduler after the other.
TEST_F(SchStressSlow, StaleDispatcherBesideReuseOfTheRecord)
{
    TestSch first;
    SchCtrl* stale = first.Get();
    std::atomic<bool> stop{false};
    std::atomic<u64> calls{0};
    Runner dispatcher([&] {
        while (!stop.load()) {
            XEL_SchDispatch(stale);
            ++calls;
        }
    });
    first.Destroy();
    int reused = 0;
    u64 seen = calls.load();
    for (int round = 0; round < 400; ++round) {
        TestSch next(round % 2 == 0 ? Policy::Bfs : Policy::None);
        reused += next.Get() == stale ? 1 : 0;
        if (round % 4 == 0) {
            ASSERT_TRUE(AwaitTrue([&] { return std::atomic_ref<u32>(stale->lock.count) != 0; }));
        }
        next.Destroy();
        (void)xeltest::TakeSleeps();
        if (round % 50 == 49) {
            ASSERT_TRUE(AwaitTrue([&] { return calls.load() > seen; })) << "round " << round;
            seen = calls.load();
            ExpectOnly(kStaleDispatch);
        }
    }
    stop.store(true);
    EXPECT_TRUE(dispatcher.AwaitEnd());
    EXPECT_GT(reused, 0);
    ExpectOnly(kStaleDispatch);
}

std::atomic<u64> g_runs;

u32 CountProc(struct epoll_event* /*event*/, u64 /*data*/)
{
    ++g_runs;
    return 0;
}

// Ready descriptors deleted and others added while another thread dispatches: the unit of the
// deleted task is taken at once while the dispatcher still holds, or waits for, its lock.
class Churn
{
public:
    Churn(Policy policy, u32 mask)
        : sch_(policy, 256),
          mask_(mask),
          random_(mask + 1),
          fds_(40),
          heart_(sch_.Get(), {CountProc, 0, 2, 0, "churn"}, 0, EPOLLET),
          dispatcher_([sch = sch_.Get()] { DispatchUntilDestroyed(sch); })
    {
        g_runs.store(0);
    }

    // Adds where there is none, deletes where there is one.
    void Round()
    {
        Fd& fd = fds_[random_() % fds_.size()];
        if (fd.Get() >= 0) {
            ASSERT_EQ(DelFd(sch_.Get(), fd.Get()), 0U);
            fd.Reset();
            return;
        }
        fd = Fd::Event(random_() % 4 == 0 ? 0 : 1);
        const u32 type = static_cast<u32>(random_() % 4);
        const u32 prio = static_cast<u32>(random_() % 32);
        ASSERT_EQ(AddFd(sch_.Get(), fd.Get(), {CountProc, 0, type, prio, "churn"}, mask_), 0U);
    }

    // The dispatcher still runs callbacks.
    bool Beats()
    {
        const u64 seen = g_runs.load();
        Signal(heart_.Fd());
        return AwaitTrue([seen] { return g_runs.load() > seen; });
    }

    u32 EpFd() const { return static_cast<u32>(sch_.EpFd()); }

    void Finish()
    {
        for (const Fd& fd : fds_) {
            if (fd.Get() >= 0) {
                EXPECT_EQ(DelFd(sch_.Get(), fd.Get()), 0U);
            }
        }
        heart_.Remove();
        sch_.Destroy();
        EXPECT_TRUE(dispatcher_.AwaitEnd());
    }

private:
    TestSch sch_;
    u32 mask_;
    std::mt19937 random_;
    std::vector<Fd> fds_;
    ReadyTask heart_;
    Runner dispatcher_;
};

class SchChurnSlow : public SchStressSlow,
                     public ::testing::WithParamInterface<std::tuple<Policy, u32>>
{
protected:
    std::vector<std::string> Known() const
    {
        std::vector<std::string> known = kStaleTasks;
        known.push_back("Sch dispatch, magic is damaged, magic = 0.");
        return known;
    }
};

TEST_P(SchChurnSlow, AddAndDeleteBesideADispatcher)
{
    Churn churn(std::get<0>(GetParam()), std::get<1>(GetParam()));
    for (int round = 0; round < (xeltest::IsSanitized() ? 6000 : 30000); ++round) {
        ASSERT_NO_FATAL_FAILURE(churn.Round());
        if (round % 200 == 199) {
            ASSERT_TRUE(churn.Beats()) << "round " << round;
            ExpectOnly(Known());
        }
    }
    churn.Finish();
    ExpectOnly(Known());
}

TEST_P(SchChurnSlow, EventCacheBesideADispatcherAndChanges)
{
    Churn churn(std::get<0>(GetParam()), std::get<1>(GetParam()));
    std::atomic<bool> stop{false};
    std::atomic<u64> lists{0};
    Runner reader([&] {
        while (!stop.load()) {
            SchEventCacheInfo records[64];
            u32 count = 64;
            EXPECT_EQ(SCH_GetTasksEventCache(churn.EpFd(), records, &count), 0U);
            EXPECT_LE(count, 64U);
            for (u32 i = 0; i < count; ++i) {
                EXPECT_STREQ(records[i].name, "churn");
                EXPECT_LT(records[i].type, 4U);
                EXPECT_GE(records[i].fd, 0);
            }
            ++lists;
        }
    });
    for (int round = 0; round < 2000; ++round) {
        ASSERT_NO_FATAL_FAILURE(churn.Round());
        if (round % 4 == 3) {
            // Writers go first at the locks: a reader gets its turn when they pause.
            const u64 seen = lists.load();
            ASSERT_TRUE(AwaitTrue([&] { return lists.load() > seen; })) << "round " << round;
        }
        if (round % 200 == 199) {
            ASSERT_TRUE(churn.Beats()) << "round " << round;
            ExpectOnly(Known());
        }
    }
    stop.store(true);
    EXPECT_TRUE(reader.AwaitEnd());
    EXPECT_GE(lists.load(), 500U);
    churn.Finish();
    ExpectOnly(Known());
}

INSTANTIATE_TEST_SUITE_P(Kinds, SchChurnSlow,
                         ::testing::Combine(::testing::Values(Policy::None, Policy::Bfs),
                                            ::testing::Values(u32{EPOLLIN},
                                                              u32{EPOLLIN | EPOLLET})),
                         [](const ::testing::TestParamInfo<std::tuple<Policy, u32>>& kind) {
                             const bool none = std::get<0>(kind.param) == Policy::None;
                             const bool edge = (std::get<1>(kind.param) & EPOLLET) != 0;
                             return std::string(none ? "None" : "Bfs") + (edge ? "Edge" : "Level");
                         });

// Lookups by descriptor beside creation and destruction of the schedulers that they find.
TEST_F(SchStressSlow, LookupsBesideCreationAndDestruction)
{
    const Fd epoll = Fd::Epoll();
    const u32 epFd = epoll.U32();
    std::atomic<bool> stop{false};
    std::atomic<u64> found{0};
    std::atomic<u64> missed{0};
    const auto look = [&] {
        while (!stop.load()) {
            SchEventCacheInfo records[8];
            u32 count = 8;
            const bool there = SCH_GetTasksEventCache(epFd, records, &count) == 0;
            ++(there ? found : missed);
            (void)SchGetSchHandleByEpFd(epFd);
        }
    };
    {
        Runner first(look);
        Runner second(look);
        for (int round = 0; round < (xeltest::IsSanitized() ? 400 : 3000) || found.load() == 0 ||
                            missed.load() == 0;
             ++round) {
            SchCtrl* sch = XEL_SchCreate(epFd, 16);
            ASSERT_NE(sch, nullptr);
            XEL_SchDestroy(sch);
        }
        stop.store(true);
    }
    EXPECT_GT(found.load(), 0U);
    EXPECT_GT(missed.load(), 0U);
    EXPECT_LINES();
}

// Each callback looks its own scheduler up while that one is being destroyed, round after round.
u32 LookingProc(struct epoll_event* /*event*/, u64 data)
{
    const auto* sch = reinterpret_cast<const SchCtrl*>(data);
    SchEventCacheInfo records[4];
    u32 count = 4;
    EXPECT_EQ(SCH_GetTasksEventCache(static_cast<u32>(sch->epFd), records, &count), 0U);
    EXPECT_EQ(SchGetSchHandleByEpFd(static_cast<u32>(sch->epFd)), sch);
    ++g_runs;
    return 0;
}

TEST_F(SchStressSlow, CallbacksLookTheirSchedulerUpBesideItsDestroyer)
{
    for (int round = 0; round < 300; ++round) {
        TestSch sch(round % 2 == 0 ? Policy::Bfs : Policy::None);
        SchCtrl* raw = sch.Get();
        const Fd fd = Fd::Event(1);
        ASSERT_EQ(AddFd(raw, fd.Get(), {LookingProc, reinterpret_cast<u64>(raw)}), 0U);
        SchTaskCtrl* task = SchTaskGetHandleByAppFd(fd.Get());
        g_runs.store(0);
        {
            Runner dispatcher([raw] { DispatchUntilDestroyed(raw); });
            ASSERT_TRUE(AwaitTrue([] { return g_runs.load() > 0; }));
            sch.Destroy();
        }
        XEL_TaskDestroy(task);
    }
    ExpectOnly(kStaleDispatch);
}

} // namespace
