// Timers as their scheduler thread runs them: one-shot and periodic, late callbacks, failing ones,
// and callbacks that end timers.
#include "timer_support.h"

namespace
{

using namespace timertest;

class TimerRuns : public TimerThreadTest
{
protected:
    Probe probe_;
};

TEST_F(TimerRuns, OneShotRunsOnceAndFreesItself)
{
    Timer timer(*worker_, probe_, XEL_TIMER_MODE_ONE_SHOT, 2);
    timer.Start();
    XelTimerNode* gone = timer.Release();
    ASSERT_TRUE(probe_.AwaitReleased());
    AwaitGone(*worker_, gone);
    EXPECT_EQ(probe_.runs.load(), 1);
    EXPECT_EQ(probe_.expirations.load(), 1U);
    u32 remain = 7;
    EXPECT_EQ(XEL_TimerStart(gone), 22U);
    EXPECT_EQ(XEL_TimerStop(gone), 22U);
    EXPECT_EQ(XEL_TimerResize(gone, 5), 22U);
    EXPECT_EQ(TimerGetTimerRemainTime(gone, &remain), kFail);
    XEL_TimerDestroy(gone);
    EXPECT_EQ(remain, 7U);
    EXPECT_LOG(kTimerSource, kInvalid, kInvalid, kInvalid, kInvalid, kInvalid);
    EXPECT_EQ(probe_.released.load(), 1);
}

// During its own callback the one-shot timer still is one.
TEST_F(TimerRuns, OneShotIsAHandleUntilItsCallbackReturned)
{
    u32 started = 99;
    probe_.onRun = [&started](XelTimerNode* self) { started = XEL_TimerStart(self); };
    Timer timer(*worker_, probe_, XEL_TIMER_MODE_ONE_SHOT, 1);
    timer.Start();
    AwaitGone(*worker_, timer.Release());
    EXPECT_EQ(started, 0U);
    EXPECT_EQ(probe_.runs.load(), 1); // it ended all the same
    EXPECT_EQ(probe_.released.load(), 1);
    EXPECT_NO_LOG();
}

TEST_F(TimerRuns, CallbackAndDestructorRunOnTheTimersThread)
{
    pthread_t threads[3] = {};
    probe_.onRun = [&](XelTimerNode*) { threads[0] = pthread_self(); };
    probe_.onRelease = [&] { threads[1] = pthread_self(); };
    Timer timer(*worker_, probe_, XEL_TIMER_MODE_PERIODIC, 1);
    timer.Start();
    ASSERT_TRUE(probe_.AwaitRuns(3));
    timer.Destroy();
    worker_->Run([&] { threads[2] = pthread_self(); });
    EXPECT_TRUE(pthread_equal(threads[0], threads[2]));
    EXPECT_TRUE(pthread_equal(threads[1], threads[2]));
    EXPECT_EQ(probe_.released.load(), 1);
}

// The mark of a destroy takes precedence over an expiry that was not run yet.
TEST_F(TimerRuns, ExpiryThatWaitsIsDroppedByDestroy)
{
    Timer timer(*worker_, probe_, XEL_TIMER_MODE_PERIODIC, 1);
    {
        const HeldWorker held(*worker_);
        Expire(timer.Get());
        XEL_TimerDestroy(timer.Get());
    }
    AwaitGone(*worker_, timer.Release());
    EXPECT_EQ(probe_.runs.load(), 0);
    EXPECT_EQ(probe_.released.load(), 1);
    EXPECT_NO_LOG();
}

// At least as many periods as went by in between: the kernel counts them.
TEST_F(TimerRuns, LateCallbackLearnsHowManyPeriodsWentBy)
{
    const Timer timer(*worker_, probe_, XEL_TIMER_MODE_PERIODIC, 2);
    const auto begin = std::chrono::steady_clock::now();
    {
        const HeldWorker held(*worker_);
        timer.Start();
        EXPECT_TRUE(AwaitTrue([&begin] {
            return std::chrono::steady_clock::now() - begin > std::chrono::milliseconds(30);
        }));
    }
    ASSERT_TRUE(probe_.AwaitRuns(1));
    EXPECT_GE(probe_.expirations.load(), 10U);
    EXPECT_LE(probe_.runs.load() * 2, static_cast<int>(probe_.expirations.load()));
}

// A callback that is longer than the period: the next one hears of more than one.
TEST_F(TimerRuns, CallbackLongerThanThePeriodMakesTheNextOneCountMore)
{
    std::vector<u64> counts;
    u64 before = 0;
    probe_.onRun = [&](XelTimerNode* self) {
        const u64 sum = probe_.expirations.load();
        counts.push_back(sum - before);
        before = sum;
        if (counts.size() == 1) {
            // Three more periods, as the kernel sees them.
            const auto begin = std::chrono::steady_clock::now();
            EXPECT_TRUE(AwaitTrue([&] {
                return std::chrono::steady_clock::now() - begin > std::chrono::milliseconds(15);
            }));
            EXPECT_EQ(self->timeout.load(), 5U);
        }
    };
    Timer timer(*worker_, probe_, XEL_TIMER_MODE_PERIODIC, 5);
    timer.Start();
    ASSERT_TRUE(probe_.AwaitRuns(2));
    timer.Destroy();
    EXPECT_GE(counts[1], 2U);
}

TEST_F(TimerRuns, PeriodicTimerGoesOnAfterAFailure)
{
    probe_.result.store(5);
    Timer timer(*worker_, probe_, XEL_TIMER_MODE_PERIODIC, 1);
    const std::string line =
        Text("Timer proc unsuccessfully. (retUsr = 5, timerfd = %d)", timer->fd);
    timer.Start();
    ASSERT_TRUE(probe_.AwaitRuns(3));
    timer.Destroy();
    worker_->Destroy();
    EXPECT_EQ(LogCount(line), static_cast<size_t>(probe_.runs.load()));
    for (const LogLine& came : TakeLog()) {
        // The dispatcher adds its own line to each.
        EXPECT_TRUE(came.file == kTimerSource.file || came.file == kSchSource.file) << came.text;
    }
}

TEST_F(TimerRuns, StoppedTimerRunsNoMore)
{
    Timer timer(*worker_, probe_, XEL_TIMER_MODE_PERIODIC, 1);
    timer.Start();
    ASSERT_TRUE(probe_.AwaitRuns(2));
    EXPECT_EQ(XEL_TimerStop(timer.Get()), 0U);
    worker_->Run([] {}); // a callback that was under way is over
    worker_->Run([] {});
    const int runs = probe_.runs.load();
    EXPECT_EQ(MsOf(SettingOf(timer->fd).it_value), 0U);
    worker_->Run([] {});
    EXPECT_EQ(probe_.runs.load(), runs);
    timer.Start();
    EXPECT_TRUE(probe_.AwaitRuns(runs + 1));
}

TEST_F(TimerRuns, ResizedTimerRunsAtItsNewPeriod)
{
    Timer timer(*worker_, probe_);
    timer.Start();
    EXPECT_EQ(XEL_TimerResize(timer.Get(), 1), 0U);
    EXPECT_TRUE(probe_.AwaitRuns(3));
    EXPECT_EQ(XEL_TimerResize(timer.Get(), kLongMs), 0U);
    worker_->Run([] {});
    EXPECT_EQ(MsOf(SettingOf(timer->fd).it_interval), kLongMs);
    EXPECT_NO_LOG();
}

TEST_F(TimerRuns, CallbackMayDestroyItsOwnTimer)
{
    for (const u32 mode : {XEL_TIMER_MODE_PERIODIC, XEL_TIMER_MODE_ONE_SHOT}) {
        Probe probe;
        probe.onRun = [](XelTimerNode* self) { XEL_TimerDestroy(self); };
        Timer timer(*worker_, probe, mode, 1);
        timer.Start();
        AwaitGone(*worker_, timer.Release());
        EXPECT_EQ(probe.runs.load(), 1);
        EXPECT_EQ(probe.released.load(), 1);
    }
    EXPECT_NO_LOG();
}

TEST_F(TimerRuns, CallbackMayDestroyATimerOfAnotherThread)
{
    Worker other("other");
    Probe victimProbe;
    Timer victim(other, victimProbe, XEL_TIMER_MODE_PERIODIC, 1);
    victim.Start();
    XelTimerNode* handle = victim.Release();
    probe_.onRun = [handle](XelTimerNode*) { XEL_TimerDestroy(handle); };
    Timer killer(*worker_, probe_, XEL_TIMER_MODE_ONE_SHOT, 1);
    killer.Start();
    AwaitGone(*worker_, killer.Release());
    AwaitGone(other, handle);
    EXPECT_EQ(victimProbe.released.load(), 1);
    EXPECT_NO_LOG();
}

// A timer of the same thread that is ready as well has not run yet and never does.
TEST_F(TimerRuns, CallbackMayDestroyATimerThatIsReadyToo)
{
    Probe second;
    Timer one(*worker_, probe_);
    Timer two(*worker_, second);
    XelTimerNode* handles[] = {one.Get(), two.Get()};
    const auto destroyOther = [&handles](XelTimerNode* self) {
        XEL_TimerDestroy(self == handles[0] ? handles[1] : handles[0]);
    };
    probe_.onRun = destroyOther;
    second.onRun = destroyOther;
    {
        const HeldWorker held(*worker_);
        Expire(one.Get());
        Expire(two.Get());
    }
    EXPECT_TRUE(AwaitTrue([] { return LiveCount() == 1; }));
    worker_->Run([] {});
    EXPECT_EQ(probe_.runs.load() + second.runs.load(), 1);
    EXPECT_EQ(probe_.released.load() + second.released.load(), 1);
    const bool oneLives = probe_.released.load() == 0;
    (void)(oneLives ? two : one).Release();
    EXPECT_NO_LOG();
}

// The locks are free while a destructor runs.
TEST_F(TimerRuns, DestructorMayCallBack)
{
    XelTimerNode* made = nullptr;
    Probe next;
    probe_.onRelease = [&] {
        made = XEL_TimerCreate(worker_->Get(), TimerAttr(&next).Get());
        EXPECT_EQ(XEL_TimerStart(made), 0U);
        EXPECT_EQ(XEL_TimerCreateGroup(77), 0U);
        XEL_TimerDestroyGroup(77);
    };
    Timer timer(*worker_, probe_, XEL_TIMER_MODE_ONE_SHOT, 1);
    timer.Start();
    AwaitGone(*worker_, timer.Release());
    ASSERT_NE(made, nullptr);
    XEL_TimerDestroy(made);
    AwaitGone(*worker_, made);
    EXPECT_EQ(next.released.load(), 1);
    EXPECT_NO_LOG();
}

} // namespace
