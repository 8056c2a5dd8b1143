// Many threads created, used and destroyed, from several sides at once: nothing is lost, nothing is
// left.
#include <cerrno>

#include "thread_support.h"

namespace
{

using namespace threadtest;
using namespace xeltest;

// Rounds of create, use and destroy on several sides at once; the time goes into the 10 ms polls.
void MakeRounds(int sides, int roundsPerSide)
{
    std::atomic<u32> runs{0};
    std::vector<std::unique_ptr<Runner>> runners;
    for (int side = 0; side < sides; ++side) {
        runners.push_back(std::make_unique<Runner>([&runs, roundsPerSide] {
            for (int round = 0; round < roundsPerSide; ++round) {
                Worker worker("quick");
                worker.Run([&runs] { runs.fetch_add(1); });
            }
        }));
    }
    runners.clear();
    EXPECT_EQ(runs.load(), static_cast<u32>(sides * roundsPerSide));
    EXPECT_TRUE(AwaitGone("quick"));
    EXPECT_NO_LOG();
}

class ThreadStress : public ThreadTest
{
};
class ThreadStressSlow : public ThreadTest
{
};

TEST_F(ThreadStress, TwoHundredRoundsLeaveNothing)
{
    MakeRounds(20, 10);
}

TEST_F(ThreadStressSlow, ThousandRoundsLeaveNothing)
{
    MakeRounds(20, 50);
}

TEST_F(ThreadStressSlow, RoundsOneAfterTheOtherLeaveNothing)
{
    MakeRounds(1, 200);
}

// Destroyed before the thread had a chance to run at all.
TEST_F(ThreadStress, DestroyRightAfterCreation)
{
    for (int i = 0; i < 30; ++i) {
        Worker worker;
    }
    EXPECT_NO_LOG();
}

// Descriptors come and go on a running thread from several sides.
TEST_F(ThreadStress, BindingFromManySidesWhileDispatching)
{
    Worker worker;
    std::atomic<u32> runs{0};
    const int rounds = IsSanitized() ? 50 : 200;
    std::vector<std::unique_ptr<Runner>> sides;
    for (int side = 0; side < 4; ++side) {
        sides.push_back(std::make_unique<Runner>([&] {
            for (int round = 0; round < rounds; ++round) {
                worker.Run([&runs] { runs.fetch_add(1); });
            }
        }));
    }
    sides.clear();
    EXPECT_EQ(runs.load(), static_cast<u32>(4 * rounds));
    EXPECT_NO_LOG();
}

// Questions while threads come and go.
TEST_F(ThreadStress, QueriesBesideCreationAndDestruction)
{
    std::atomic<bool> stop{false};
    std::atomic<u64> asked{0};
    Runner asker([&] {
        while (!stop.load()) {
            XelSchDeployInfo infos[64] = {};
            u32 count = 64;
            EXPECT_EQ(THREAD_GetSchDeployInfo(-1, infos, &count), 0U);
            EXPECT_LE(count, 8U);
            for (u32 i = 0; i < count; ++i) {
                EXPECT_NE(infos[i].tid, 0U);
                EXPECT_NE(infos[i].epSize, 0U);
            }
            EXPECT_EQ(XEL_ThreadGetCtxHandle(), nullptr);
            asked.fetch_add(1);
        }
    });
    MakeRounds(8, 5);
    stop.store(true);
    asker.Join();
    EXPECT_GT(asked.load(), 0U);
}

// A wait that always fails: each cycle pauses, nothing else happens, and the end of the failures is
// the end of it.
TEST_F(ThreadStress, WaitsThatAlwaysFailDoNotHarmTheProcess)
{
    SetSleepHook([](u32) { (void)AwaitTrue([] { return false; }, 1); });
    Worker worker;
    Worker healthy("healthy");
    {
        HeldWorker held(healthy); // waits itself, so that it does not fail
        FailAll(Call::EpollWait, -1, EBADF);
        const Fd wake = Fd::Event(1); // ends the wait that is under way
        ASSERT_EQ(AddFd(worker.Get(), wake.Get(), {}), 0U);
        EXPECT_TRUE(AwaitTrue(
            [] { return LogCount("Sch dispatch, get events unsuccessfully. (ret = -1).") > 5; }));
        ASSERT_EQ(DelFd(worker.Get(), wake.Get()), 0U);
        ResetFaults();
    }
    bool ran = false;
    worker.Run([&ran] { ran = true; });
    EXPECT_TRUE(ran);
    DropLog();
}

} // namespace
