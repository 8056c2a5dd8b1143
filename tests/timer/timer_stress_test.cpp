// Timers, types and groups that come and go on several threads at once: whoever wins a race, each
// user data is released exactly once, and nothing is left.
#include <random>

#include "timer_support.h"

namespace
{

using namespace timertest;

// Fewer rounds where everything takes longer.
int Rounds(int usual)
{
    return IsSanitized() ? usual / 5 : usual;
}

// Makes two threads begin at the same moment, as nearly as can be.
class Start
{
public:
    void Wait()
    {
        arrived_.fetch_add(1);
        while (arrived_.load() < 2) {
        }
    }

private:
    std::atomic<int> arrived_{0};
};

using TimerCall = std::function<void(XelTimerNode*)>;

class TimerStress : public TimerThreadTest
{
protected:
    // In each round one thread uses a timer while another destroys it.
    void RaceDestroy(const TimerCall& use, int rounds)
    {
        Probe probe;
        XelTimerNode* timer = nullptr;
        std::unique_ptr<Start> start;
        std::atomic<int> round{0};
        std::atomic<int> used{0};
        Runner user([&] {
            for (int next = 1; next <= rounds; ++next) {
                while (round.load() < next) {
                    std::this_thread::yield();
                }
                start->Wait();
                use(timer);
                used.store(next);
            }
        });
        for (int next = 1; next <= rounds; ++next) {
            timer = XEL_TimerCreate(worker_->Get(), TimerAttr(&probe).Get());
            EXPECT_NE(timer, nullptr);
            start = std::make_unique<Start>();
            round.store(next);
            start->Wait();
            XEL_TimerDestroy(timer);
            EXPECT_TRUE(AwaitTrue([&] { return used.load() == next; }));
            EXPECT_TRUE(AwaitTrue([&] { return probe.released.load() == 1; })) << "round " << next;
            AwaitGone(*worker_, timer);
            probe.released.store(0);
        }
        user.Join();
        EXPECT_EQ(probe.runs.load(), 0);
        for (const LogLine& line : TakeLog()) {
            EXPECT_EQ(line.text, kInvalid); // the use that came last was refused
        }
    }
};

class TimerStressSlow : public TimerStress
{
};

TEST_F(TimerStress, UseThatRacesDestroyDoesNotKeepTheTimer)
{
    const int rounds = Rounds(40);
    RaceDestroy([](XelTimerNode* timer) { (void)XEL_TimerStart(timer); }, rounds);
    RaceDestroy([](XelTimerNode* timer) { (void)XEL_TimerStop(timer); }, rounds);
    RaceDestroy([](XelTimerNode* timer) { (void)XEL_TimerResize(timer, kLongMs); }, rounds);
}

TEST_F(TimerStressSlow, StartThatRacesDestroyDoesNotKeepTheTimer)
{
    RaceDestroy([](XelTimerNode* timer) { (void)XEL_TimerStart(timer); }, Rounds(3000));
}

TEST_F(TimerStressSlow, StopThatRacesDestroyDoesNotKeepTheTimer)
{
    RaceDestroy([](XelTimerNode* timer) { (void)XEL_TimerStop(timer); }, Rounds(3000));
}

TEST_F(TimerStressSlow, ResizeThatRacesDestroyDoesNotKeepTheTimer)
{
    RaceDestroy([](XelTimerNode* timer) { (void)XEL_TimerResize(timer, kLongMs); }, Rounds(3000));
}

TEST_F(TimerStressSlow, TwoDestroyersOfOneTimer)
{
    RaceDestroy([](XelTimerNode* timer) { XEL_TimerDestroy(timer); }, Rounds(1500));
}

// Several threads create, start, use and destroy timers of two scheduler threads.
TEST_F(TimerStress, TimersComeAndGoOnManyThreads)
{
    Worker other("other");
    const int rounds = Rounds(150);
    constexpr u32 kSides = 4;
    std::vector<std::unique_ptr<Runner>> sides;
    for (u32 side = 0; side < kSides; ++side) {
        sides.push_back(std::make_unique<Runner>([&, side] {
            for (int round = 0; round < rounds; ++round) {
                Probe probe;
                const u32 mode = static_cast<u32>(round) % 2;
                XelTimerNode* timer = XEL_TimerCreate(side % 2 == 0 ? worker_->Get() : other.Get(),
                                                      TimerAttr(&probe, mode, 1).Get());
                EXPECT_EQ(XEL_TimerStart(timer), 0U);
                if (mode == XEL_TIMER_MODE_PERIODIC) {
                    u32 remain = 0;
                    EXPECT_EQ(TimerGetTimerRemainTime(timer, &remain), 0U);
                    EXPECT_TRUE(round % 4 != 1 || probe.AwaitRuns(2));
                    XEL_TimerDestroy(timer);
                }
                EXPECT_TRUE(probe.AwaitReleased());
            }
        }));
    }
    sides.clear();
    worker_->Run([] {});
    other.Run([] {});
    EXPECT_EQ(LiveCount(), 0U);
    EXPECT_NO_LOG();
}

// The probes outlive their timers' last callbacks, whoever ends them.
class TimerGroupStress : public TimerStress
{
protected:
    static constexpr u32 kTimers = 8;

    u32 AddType(u32 groupId, u32 typeId, XelThreadCtrl* thread, Probe* data, u32 mode)
    {
        return XEL_TimerAddTimerType(groupId, typeId, thread, TimerAttr(data, mode, 1).Get());
    }
    // Makes timers of two types, and ends their group in the middle of it all.
    void OneRound(u32 groupId, Worker* workers[2], int round)
    {
        Probe typeData[2];
        Probe own[kTimers];
        EXPECT_EQ(XEL_TimerCreateGroup(groupId), 0U);
        for (u32 i = 0; i < 2; ++i) {
            EXPECT_EQ(AddType(groupId, 1 + i, workers[i]->Get(), &typeData[i],
                              static_cast<u32>(round + 1) % 2),
                      0U);
        }
        for (u32 i = 0; i < kTimers; ++i) {
            EXPECT_NE(XEL_TimerCreateAndStart(groupId, 1 + i % 2, i < 4 ? &own[i] : nullptr),
                      nullptr);
        }
        if (round % 2 == 0) {
            EXPECT_TRUE(own[0].AwaitRuns(1) && typeData[1].AwaitRuns(1));
        }
        if (round % 3 == 0) {
            EXPECT_EQ(XEL_TimerDelTimerType(groupId, 1), 0U);
        }
        XEL_TimerDestroyGroup(groupId);
        workers[0]->Run([] {});
        workers[1]->Run([] {});
        for (u32 i = 0; i < 4; ++i) {
            EXPECT_EQ(own[i].released.load(), 1);
        }
        EXPECT_EQ(typeData[0].released.load(), 1);
        EXPECT_EQ(typeData[1].released.load(), 1);
    }
    // What a run says that another thread took its timer from.
    static void ExpectOnlyGoneTimers()
    {
        for (const LogLine& line : TakeLog()) {
            const bool isExpected = line.text == kInvalid ||
                                    line.text == "Timer proc unsuccessfully, magic:0." ||
                                    line.text == "Timer node delete unsuccessfully. (ret = 0x16)" ||
                                    line.file != kTimerSource.file;
            EXPECT_TRUE(isExpected) << line.text;
        }
    }
};

TEST_F(TimerGroupStress, GroupsComeAndGoWhileTheirTimersFire)
{
    Worker other("other");
    Worker* workers[2] = {worker_.get(), &other};
    const int rounds = Rounds(150);
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        OneRound(5, workers, round);
    }
    EXPECT_EQ(LiveCount(), 0U);
    ExpectOnlyGoneTimers();
}

// Groups of different numbers on several threads, all on the same two scheduler threads.
TEST_F(TimerGroupStress, ThreadsHaveTheirOwnGroups)
{
    Worker other("other");
    Worker* workers[2] = {worker_.get(), &other};
    const int rounds = Rounds(50);
    std::vector<std::unique_ptr<Runner>> sides;
    for (u32 side = 0; side < 3; ++side) {
        sides.push_back(std::make_unique<Runner>([&, side] {
            for (int round = 0; round < rounds && !HasFailure(); ++round) {
                OneRound(10 + side, workers, round);
            }
        }));
    }
    sides.clear();
    EXPECT_EQ(g_xelTimerCtrl.groupCount, 0U);
    ExpectOnlyGoneTimers();
}

// Timers end through their own destroy, through their one shot, through their type and through
// their group, at random, while callbacks make new ones.
class TimerGroupStressSlow : public TimerGroupStress
{
protected:
    // What one of the threads that share a group does next.
    void Step(u32 choice, Probe* types, Worker* workers[2])
    {
        const u32 typeId = 1 + choice % 2;
        switch (choice / 2 % 8) {
        case 0:
            EXPECT_EQ(XEL_TimerCreateGroup(5), 0U);
            break;
        case 1:
            // The offered data is released when the type exists, and not taken without its group.
            offered_.fetch_add(AddType(5, typeId, workers[typeId - 1]->Get(), &types[typeId - 1],
                                       choice % 3 % 2) == 0
                                   ? 1
                                   : 0);
            break;
        case 2:
            (void)XEL_TimerDelTimerType(5, typeId);
            break;
        case 3:
            XEL_TimerDestroyGroup(5);
            break;
        default:
            Make(typeId, choice);
            break;
        }
    }
    void Make(u32 typeId, u32 choice)
    {
        auto* own = new Probe;
        own->onRelease = [this] { released_.fetch_add(1); };
        XelTimerNode* timer = XEL_TimerCreateAndStart(5, typeId, own);
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            owns_.emplace_back(own);
        }
        if (timer != nullptr) {
            made_.fetch_add(1);
            if (choice % 5 == 0) {
                XEL_TimerDestroy(timer);
            }
        }
    }

    std::mutex mutex_; // of owns_
    std::vector<std::unique_ptr<Probe>> owns_;
    std::atomic<int> made_{0};
    std::atomic<int> released_{0};
    std::atomic<int> offered_{0};
};

TEST_F(TimerGroupStressSlow, ManyThreadsShareAGroup)
{
    Worker other("other");
    Worker* workers[2] = {worker_.get(), &other};
    Probe types[2];
    const int steps = Rounds(6000);
    std::vector<std::unique_ptr<Runner>> sides;
    for (u32 side = 0; side < 3; ++side) {
        sides.push_back(std::make_unique<Runner>([&, side] {
            std::minstd_rand random(side + 1);
            for (int step = 0; step < steps; ++step) {
                Step(static_cast<u32>(random()) >> 4, types, workers);
            }
        }));
    }
    sides.clear();
    EXPECT_EQ(XEL_TimerCreateGroup(5), 0U);
    XEL_TimerDestroyGroup(5);
    worker_->Run([] {});
    other.Run([] {});
    EXPECT_TRUE(AwaitTrue([] { return LiveCount() == 0; }));
    EXPECT_GT(made_.load(), 0);
    EXPECT_EQ(released_.load(), made_.load());
    EXPECT_EQ(types[0].released.load() + types[1].released.load(), offered_.load());
    DropLog(); // most steps meet a group or type that is not there
}

} // namespace
