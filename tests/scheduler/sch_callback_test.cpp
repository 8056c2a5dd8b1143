// Callbacks that add, modify and delete tasks of the scheduler that runs them.
#include <functional>

#include <gtest/gtest.h>

#include "sch_dispatch_support.h"

namespace
{

using namespace schtest;

// The callback of these tests: its data is the address of a function.
u32 CallProc(struct epoll_event* /*event*/, u64 data)
{
    (*reinterpret_cast<std::function<void()>*>(data))();
    return 0;
}

TaskSpec Calling(std::function<void()>& body, u32 type = 2)
{
    return {CallProc, reinterpret_cast<u64>(&body), type};
}

class SchCallback : public SchTest, public ::testing::WithParamInterface<Policy>
{
protected:
    Notes Cycles(SchCtrl* sch, int count)
    {
        (void)HookRecorder::Take();
        sch->waitTimeout = 0;
        for (int i = 0; i < count; ++i) {
            XEL_SchDispatch(sch);
        }
        return HookRecorder::Take();
    }
};

TEST_P(SchCallback, MayAddATask)
{
    TestSch sch(GetParam());
    std::unique_ptr<ReadyTask> added;
    std::function<void()> body = [&] {
        added = std::make_unique<ReadyTask>(sch.Get(), TaskSpec{NoteProc, 7}, 1, EPOLLET);
    };
    const ReadyTask adder(sch.Get(), Calling(body), 1, EPOLLET);
    EXPECT_EQ(Cycles(sch.Get(), 3), Notes{"run 7"});
    added.reset();
    EXPECT_LINES();
}

TEST_P(SchCallback, MayDeleteItself)
{
    TestSch sch(GetParam());
    Fd fd = Fd::Event(1);
    int runs = 0;
    std::function<void()> body = [&] {
        ++runs;
        EXPECT_EQ(DelFd(sch.Get(), fd.Get()), 0U);
        fd.Reset();
    };
    ASSERT_EQ(AddFd(sch.Get(), fd.Get(), Calling(body)), 0U);
    Cycles(sch.Get(), 3);
    EXPECT_EQ(runs, 1);
    EXPECT_LINES();
}

TEST_P(SchCallback, MayReplaceItself)
{
    TestSch sch(GetParam());
    const Fd fd = Fd::Event(1);
    std::function<void()> body = [&] {
        EXPECT_EQ(DelFd(sch.Get(), fd.Get()), 0U);
        EXPECT_EQ(AddFd(sch.Get(), fd.Get(), {NoteProc, 8}, EPOLLET), 0U);
    };
    ASSERT_EQ(AddFd(sch.Get(), fd.Get(), Calling(body)), 0U);
    EXPECT_EQ(Cycles(sch.Get(), 3), Notes{"run 8"});
    EXPECT_EQ(DelFd(sch.Get(), fd.Get()), 0U);
    EXPECT_LINES();
}

TEST_P(SchCallback, MayModifyItself)
{
    TestSch sch(GetParam());
    const Fd fd = Fd::Event(1);
    std::function<void()> body = [&] {
        EXPECT_EQ(ModFd(sch.Get(), fd.Get(), {NoteProc, 9, 0, 31, "modified"}), 0U);
    };
    ASSERT_EQ(AddFd(sch.Get(), fd.Get(), Calling(body)), 0U);
    EXPECT_EQ(Cycles(sch.Get(), 3), (Notes{"run 9", "run 9"}));
    EXPECT_EQ(DelFd(sch.Get(), fd.Get()), 0U);
    EXPECT_LINES();
}

// The other task is ready too, and stands behind: it is met as a dead one and does not run.
TEST_P(SchCallback, MayDeleteAnotherReadyTask)
{
    TestSch sch(GetParam());
    Fd victim = Fd::Event(1);
    std::function<void()> body = [&] {
        EXPECT_EQ(DelFd(sch.Get(), victim.Get()), 0U);
        victim.Reset();
    };
    const ReadyTask killer(sch.Get(), Calling(body, 0), 1, EPOLLET);
    ASSERT_EQ(AddFd(sch.Get(), victim.Get(), {NoteProc, 1}), 0U);
    const ReadyTask bystander(sch.Get(), {NoteProc, 2}, 1, EPOLLET);
    EXPECT_EQ(Cycles(sch.Get(), 4), Notes{"run 2"});
    if (GetParam() == Policy::None) {
        EXPECT_LINES(TaskLine("Task has damaged. (magic = 0)"),
                     TaskLine("Task get info process unsuccessfully, task is invalid."),
                     SchLine("Event process, invalid task-ctrl."));
    } else {
        EXPECT_LINES(TaskLine("Task has damaged. (magic = 0)"),
                     TaskLine("Task get event unsuccessfully, task is invalid."));
    }
}

// The replacement takes the dead task's unit at once. What was queued for the dead one is refused;
// the replacement runs for its own readiness.
TEST_P(SchCallback, MayReplaceAnotherReadyTask)
{
    TestSch sch(GetParam());
    Fd victim = Fd::Event(1);
    std::unique_ptr<ReadyTask> heir;
    std::function<void()> body = [&] {
        EXPECT_EQ(DelFd(sch.Get(), victim.Get()), 0U);
        victim.Reset();
        heir = std::make_unique<ReadyTask>(sch.Get(), TaskSpec{NoteProc, 2}, 1, EPOLLET);
    };
    const ReadyTask killer(sch.Get(), Calling(body, 0), 1, EPOLLET);
    ASSERT_EQ(AddFd(sch.Get(), victim.Get(), {NoteProc, 1}), 0U);
    const Notes notes = Cycles(sch.Get(), 6);
    EXPECT_EQ(std::count(notes.begin(), notes.end(), "run 1"), 0);
    EXPECT_GE(std::count(notes.begin(), notes.end(), "run 2"), 1);
    if (GetParam() == Policy::None) {
        EXPECT_LINES(TaskLine("Task get info process unsuccessfully, task is invalid."),
                     SchLine("Event process, invalid task-ctrl."));
    } else {
        const Lines lines = TakeLines();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_TRUE(lines[0].text.starts_with(
            "Task get event unsuccessfully, task has been aged. (old ver = "));
    }
    heir.reset();
}

// A hundred tasks that each replace themselves and a neighbour, for a while.
TEST_P(SchCallback, ManyMayReplaceEachOther)
{
    TestSch sch(GetParam());
    std::vector<Fd> fds;
    std::function<void(size_t)> renew = [&](size_t i) {
        EXPECT_EQ(DelFd(sch.Get(), fds[i].Get()), 0U);
        fds[i].Reset();
        fds[i] = Fd::Event(1);
    };
    size_t runs = 0;
    std::vector<std::function<void()>> bodies(100);
    for (size_t i = 0; i < bodies.size(); ++i) {
        fds.push_back(Fd::Event(1));
        bodies[i] = [&, i] {
            ++runs;
            for (const size_t which : {i, (i * 7 + runs) % bodies.size()}) {
                renew(which);
                const u32 type = static_cast<u32>(runs + which) % 4;
                EXPECT_EQ(AddFd(sch.Get(), fds[which].Get(), Calling(bodies[which], type)), 0U);
            }
        };
    }
    for (size_t i = 0; i < bodies.size(); ++i) {
        ASSERT_EQ(AddFd(sch.Get(), fds[i].Get(), Calling(bodies[i])), 0U);
    }
    sch->waitTimeout = 0;
    const size_t enoughRuns = xeltest::IsSanitized() ? 300 : 2000;
    for (int cycle = 0; runs < enoughRuns && cycle < 20000; ++cycle) {
        XEL_SchDispatch(sch.Get());
    }
    EXPECT_GE(runs, enoughRuns);
    for (const Fd& fd : fds) {
        EXPECT_EQ(DelFd(sch.Get(), fd.Get()), 0U);
    }
    (void)xeltest::TakeLog(); // dead and aged tasks were met
}

INSTANTIATE_TEST_SUITE_P(Policies, SchCallback, ::testing::Values(Policy::None, Policy::Bfs),
                         [](const ::testing::TestParamInfo<Policy>& kind) {
                             return kind.param == Policy::None ? "None" : "Bfs";
                         });

} // namespace
