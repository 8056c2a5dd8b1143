// The creations that arm at once, and what a failing step of them leaves: nothing.
#include <cerrno>

#include "timer_support.h"

namespace
{

using namespace timertest;

class TimerCreateAndStart : public TimerThreadTest
{
protected:
    XelTimerNode* InOneCall(u32 mode = XEL_TIMER_MODE_PERIODIC)
    {
        return TimerInnerCreateAndStart(worker_->Get(), &callback_, mode, kLongMs, "at once");
    }

    Probe probe_;
    XelTimerUsrCb callback_ = {RunProbe, &probe_};
    XelTimerOneShotParam oneShot_ = {1, nullptr, RunProbe, &probe_};
};

TEST_F(TimerCreateAndStart, ArmsAtOnce)
{
    XelTimerNode* timer = InOneCall();
    ASSERT_NE(timer, nullptr);
    EXPECT_GT(MsOf(SettingOf(timer->fd).it_value), kLongMs / 2);
    EXPECT_EQ(MsOf(SettingOf(timer->fd).it_interval), kLongMs);
    EXPECT_STREQ(SchTaskGetHandleByAppFd(timer->fd)->name, "at once");
    EXPECT_EQ(timer->destructor, nullptr);
    XEL_TimerDestroy(timer);
    AwaitGone(*worker_, timer);
    EXPECT_NO_LOG();
}

TEST_F(TimerCreateAndStart, EveryFailureGivesNullAndLeavesNothing)
{
    const Footprint before = Measure();
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(InOneCall(), nullptr);
    EXPECT_LOG(kTimerSource, "Timer attr handle malloc null.");
    EXPECT_EQ(InOneCall(2), nullptr);
    EXPECT_LOG(kTimerSource, "Timer attr timer mode invalid. (mode = 2)",
               "Timer attr set unsuccessfully. (ret = 0x16, cmd = 1)");
    FailNth(Call::TimerfdCreate, 1, -1, EMFILE);
    EXPECT_EQ(InOneCall(), nullptr);
    EXPECT_LOG(kTimerSource, "Timer node create unsuccessfully.");
    EXPECT_EQ(Measure(), before);
    EXPECT_EQ(LiveCount(), 0U);
}

// The timer that could not be armed ends on the caller's thread, before the call returns.
TEST_F(TimerCreateAndStart, FailedStartDestroysTheTimerAtOnce)
{
    const Footprint before = Measure();
    const HeldWorker held(*worker_);
    const Footprint whileHeld = Measure();
    const int fd = NextFd();
    FailNth(Call::TimerfdSettime, 1, -1, EIO);
    EXPECT_EQ(InOneCall(), nullptr);
    EXPECT_LOG(kTimerSource, Text("Timer start unsuccessfully. (fd = %d, errno = 5)", fd));
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd), nullptr);
    EXPECT_EQ(LiveCount(), 0U);
    EXPECT_EQ(Measure(), whileHeld);
    EXPECT_NE(before, whileHeld); // the holder's own descriptor is what differs
}

// Its task cannot be removed, so it is neither closed nor freed; the caller gets null all the same.
TEST_F(TimerCreateAndStart, FailedStartIsNullAlsoWhenTheTimerCannotBeDestroyed)
{
    const int fd = NextFd();
    XelTimerNode* timer = nullptr;
    FailNth(Call::TimerfdSettime, 1, -1, EIO);
    RunAtNth(Call::TimerfdSettime, 1, [&] {
        timer = reinterpret_cast<XelTimerNode*>(SchTaskGetHandleByAppFd(fd)->data);
        EXPECT_EQ(DelFd(worker_->Get(), fd), 0U);
    });
    EXPECT_EQ(InOneCall(), nullptr);
    EXPECT_LOG(kTimerSource, Text("Timer start unsuccessfully. (fd = %d, errno = 5)", fd), NoTask(),
               NotRemoved(fd), "Timer task delete unsuccessfully. (ret = 0xffffffff)");
    ASSERT_NE(timer, nullptr);
    EXPECT_FALSE(IsListed(timer));
    EXPECT_TRUE(IsOpen(fd));
    PutOnThread(timer);
    TimerAddNode(timer);
    InnerTimerDestroy(timer);
    EXPECT_NO_LOG();
}

TEST_F(TimerCreateAndStart, OneShotNeedsParametersAndAName)
{
    oneShot_.thread = worker_->Get();
    EXPECT_EQ(XelTimerCreateOneShotAndStart(nullptr, "name"), nullptr);
    EXPECT_EQ(XelTimerCreateOneShotAndStart(&oneShot_, nullptr), nullptr);
    EXPECT_NO_LOG();
    EXPECT_EQ(XelTimerCreateOneShotAndStart(&oneShot_, "sixteen-letters!"), nullptr);
    EXPECT_LOG(kTimerSource, "Timer attr name out of range. (name len = 16)",
               "Timer attr set unsuccessfully. (ret = 0x16, cmd = 3)");
    oneShot_.thread = nullptr;
    EXPECT_EQ(XelTimerCreateOneShotAndStart(&oneShot_, ""), nullptr);
    EXPECT_LOG(kTimerSource, "Invalid parameters.");
    EXPECT_EQ(LiveCount(), 0U);
}

TEST_F(TimerCreateAndStart, OneShotRunsOnceWithItsParameters)
{
    oneShot_.thread = worker_->Get();
    for (const char* name : {"", "fifteen-letters"}) {
        HeldWorker held(*worker_);
        XelTimerNode* timer = XelTimerCreateOneShotAndStart(&oneShot_, name);
        ASSERT_NE(timer, nullptr);
        EXPECT_EQ(timer->mode, 0U);
        EXPECT_EQ(timer->timeout.load(), 1U);
        EXPECT_STREQ(SchTaskGetHandleByAppFd(timer->fd)->name, name);
        const int runs = probe_.runs.load();
        held.Open();
        EXPECT_TRUE(probe_.AwaitRuns(runs + 1));
        AwaitGone(*worker_, timer);
        EXPECT_EQ(probe_.runs.load(), runs + 1);
    }
    EXPECT_EQ(probe_.released.load(), 0); // no destructor was given
    EXPECT_NO_LOG();
}

} // namespace
