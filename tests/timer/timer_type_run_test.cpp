// Destruction by type and by group beside callbacks that are running, and from callbacks.
#include <cerrno>
#include <poll.h>

#include "timer_group_support.h"

namespace
{

using namespace timertest;

class TimerTypeRuns : public TimerOfType
{
protected:
    // A timer of the type that stands in its callback until the gate opens.
    XelTimerNode* MakeRunning(bool hasOwnData, u32 mode = XEL_TIMER_MODE_PERIODIC)
    {
        Probe& used = hasOwnData ? own_ : typeData_;
        used.onRun = [this](XelTimerNode*) { gate_.Pass(); };
        EXPECT_EQ(AddType(&typeData_, mode, 1), 0U);
        XelTimerNode* timer = XEL_TimerCreateAndStart(kGroup, kType, hasOwnData ? &own_ : nullptr);
        EXPECT_TRUE(gate_.AwaitArrival());
        return timer;
    }
    // The callback has ended, and what waited for it is done.
    void LetGo()
    {
        gate_.Open();
        worker_->Run([] {});
    }

    // Lets a run of the timer that is just being made begin at the next registration, and holds it
    // before it reads until the creation is over, unless that waits for it.
    void BeginLateRun()
    {
        RunAtNth(Call::EpollCtl, 1, [this, fd = NextFd()] {
            const u64 node = SchTaskGetHandleByAppFd(fd)->data;
            RunAtNth(Call::Read, 1, [this] {
                lateIsIn_.store(true);
                (void)AwaitTrue([this] { return isMade_.load(); }, 100);
            });
            late_ = std::make_unique<Runner>([this, node] {
                struct epoll_event event = {};
                event.events = EPOLLIN;
                lateResult_ = TimerFdEventProc(&event, node);
            });
            EXPECT_TRUE(AwaitTrue([this] { return lateIsIn_.load(); }));
        });
    }
    void EndLateRun()
    {
        isMade_.store(true);
        late_->Join();
        EXPECT_EQ(lateResult_, 0U);
    }

    Gate gate_;
    std::unique_ptr<Runner> late_;
    std::atomic<bool> lateIsIn_{false};
    std::atomic<bool> isMade_{false};
    u32 lateResult_ = kFail;
};

// A run of a freed timer that comes late may meet a new timer at the same address, which is just
// being made: it finds nothing to read, and looks at nothing that is still written.
TEST_F(TimerTypeRuns, LateRunMeetsATimerThatIsJustBeingMade)
{
    EXPECT_EQ(AddType(&typeData_, XEL_TIMER_MODE_PERIODIC, 60000), 0U);
    std::thread late;
    RunAtNth(Call::EpollCtl, 1, [&late, fd = NextFd()] {
        const u64 node = SchTaskGetHandleByAppFd(fd)->data;
        late = std::thread([node] {
            struct epoll_event event = {};
            event.events = EPOLLIN;
            EXPECT_EQ(TimerFdEventProc(&event, node), 0U);
        });
    });
    EXPECT_NE(XEL_TimerCreateAndStart(kGroup, kType, &own_), nullptr);
    ASSERT_TRUE(late.joinable());
    late.join();
    EXPECT_EQ(own_.runs.load(), 0);
    EXPECT_NO_LOG();
}

TEST_F(TimerTypeRuns, LateRunDoesNotReadTheNumberOfATimerThatIsNotMade)
{
    const TimerAttr attr(&own_);
    const int fd = NextFd();
    xeltest::FailNth(Call::EpollCtl, 1, -1, ENOSPC);
    BeginLateRun();
    EXPECT_EQ(XEL_TimerCreate(worker_->Get(), attr.Get()), nullptr);
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(ends[0], fd);
    EXPECT_EQ(write(ends[1], "sixteen letters.", 16), 16);
    EndLateRun();
    EXPECT_EQ(own_.runs.load(), 0);
    EXPECT_EQ(own_.released.load(), 0);
    char text[17] = {};
    EXPECT_EQ(read(ends[0], text, sizeof(text)), 16);
    EXPECT_STREQ(text, "sixteen letters.");
    EXPECT_EQ(close(ends[0]), 0);
    EXPECT_EQ(close(ends[1]), 0);
    xeltest::DropLog(); // the lines of the failed creation
}

TEST_F(TimerTypeRuns, LateRunUsesNothingOfATimerThatHasNotGotItsOwnerYet)
{
    const HeldWorker held(*worker_);
    EXPECT_EQ(AddType(&typeData_, XEL_TIMER_MODE_PERIODIC, 1), 0U);
    BeginLateRun();
    XelTimerNode* timer = XEL_TimerCreateAndStart(kGroup, kType, &own_);
    ASSERT_NE(timer, nullptr);
    struct pollfd ready = {timer->fd, POLLIN, 0};
    EXPECT_EQ(poll(&ready, 1, 10000), 1);
    EndLateRun();
    EXPECT_EQ(typeData_.runs.load(), 0);
    EXPECT_EQ(own_.runs.load(), 0); // armed after the late run had read
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_NO_LOG();
}

TEST_F(TimerTypeRuns, GroupEndsWhileACallbackRuns)
{
    XelTimerNode* timer = MakeRunning(true);
    const int fd = timer->fd;
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_FALSE(IsListed(timer));
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd), nullptr);
    EXPECT_EQ(typeData_.released.load(), 1);
    EXPECT_EQ(own_.released.load(), 0);
    EXPECT_EQ(timer->magic.load(), 0xABCDEFABU); // the memory is there
    EXPECT_EQ(XEL_TimerStart(timer), 22U);
    EXPECT_LOG(kTimerSource, kInvalid);
    LetGo();
    EXPECT_EQ(own_.released.load(), 1);
    EXPECT_EQ(own_.runs.load(), 1);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_NO_LOG();
}

TEST_F(TimerTypeRuns, TypeDataOutlivesTheCallbackThatUsesIt)
{
    MakeRunning(false);
    EXPECT_EQ(XEL_TimerDelTimerType(kGroup, kType), 0U);
    EXPECT_EQ(group_->typeCount, 0U);
    EXPECT_EQ(TypeOf(), nullptr);
    EXPECT_EQ(typeData_.released.load(), 0);
    LetGo();
    EXPECT_EQ(typeData_.released.load(), 1);
    EXPECT_EQ(typeData_.runs.load(), 1);
    EXPECT_NO_LOG();
}

// The run that is over finds its timer gone, and says so.
TEST_F(TimerTypeRuns, OneShotWhoseTypeEndedMeanwhileIsReleasedOnce)
{
    MakeRunning(true, XEL_TIMER_MODE_ONE_SHOT);
    EXPECT_EQ(XEL_TimerDelTimerType(kGroup, kType), 0U);
    EXPECT_EQ(own_.released.load(), 0);
    LetGo();
    EXPECT_EQ(own_.released.load(), 1);
    EXPECT_EQ(typeData_.released.load(), 1);
    EXPECT_LOG(kTimerSource, kInvalid, "Timer node delete unsuccessfully. (ret = 0x16)");
}

TEST_F(TimerTypeRuns, PendingEndAndEndByGroupAreOne)
{
    XelTimerNode* timer = MakeRunning(true);
    XEL_TimerDestroy(timer);
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(own_.released.load(), 0);
    LetGo();
    EXPECT_EQ(own_.released.load(), 1);
    EXPECT_EQ(own_.runs.load(), 1);
    EXPECT_NO_LOG();
}

TEST_F(TimerTypeRuns, TypeMayBeMadeAnewWhileTheOldOnesCallbackRuns)
{
    MakeRunning(false);
    Probe next;
    EXPECT_EQ(XEL_TimerDelTimerType(kGroup, kType), 0U);
    EXPECT_EQ(AddType(&next, XEL_TIMER_MODE_PERIODIC, 1), 0U);
    ASSERT_NE(XEL_TimerCreateAndStart(kGroup, kType, nullptr), nullptr);
    LetGo();
    EXPECT_EQ(typeData_.released.load(), 1);
    EXPECT_TRUE(next.AwaitRuns(2));
    XEL_TimerDestroyGroup(kGroup);
    worker_->Run([] {});
    EXPECT_EQ(next.released.load(), 1);
    DropLog(); // a run that began beside the end says that its timer is gone
}

TEST_F(TimerTypeRuns, CallbackMayEndItsOwnTypeAndGroup)
{
    for (const bool endsGroup : {false, true}) {
        for (const bool hasOwnData : {true, false}) {
            for (const u32 mode : {XEL_TIMER_MODE_PERIODIC, XEL_TIMER_MODE_ONE_SHOT}) {
                Probe typeData;
                Probe own;
                Probe& used = hasOwnData ? own : typeData;
                used.onRun = [&](XelTimerNode*) {
                    if (endsGroup) {
                        XEL_TimerDestroyGroup(kGroup);
                    } else {
                        EXPECT_EQ(XEL_TimerDelTimerType(kGroup, kType), 0U);
                    }
                    EXPECT_EQ(used.released.load(), 0);
                };
                ASSERT_EQ(XEL_TimerCreateGroup(kGroup), 0U);
                DropLog(); // it may exist
                ASSERT_EQ(AddType(&typeData, mode, 1), 0U);
                ASSERT_NE(XEL_TimerCreateAndStart(kGroup, kType, hasOwnData ? &own : nullptr),
                          nullptr);
                ASSERT_TRUE(used.AwaitRuns(1));
                worker_->Run([] {});
                EXPECT_EQ(used.runs.load(), 1);
                EXPECT_EQ(typeData.released.load(), 1);
                EXPECT_EQ(own.released.load(), hasOwnData ? 1 : 0);
                EXPECT_EQ(LiveCount(), 0U);
                const bool saysSo = mode == XEL_TIMER_MODE_ONE_SHOT;
                EXPECT_EQ(LogCount(kInvalid), saysSo ? 1U : 0U);
                EXPECT_EQ(LogCount(), saysSo ? 2U : 0U);
                DropLog();
            }
        }
    }
}

// Another thread's timer is in its callback while a callback ends their group.
TEST_F(TimerTypeRuns, CallbackMayEndAGroupThatRunsElsewhere)
{
    Worker other("other");
    Probe killerData;
    killerData.onRun = [](XelTimerNode*) { XEL_TimerDestroyGroup(kGroup); };
    MakeRunning(true);
    ASSERT_EQ(XEL_TimerAddTimerType(kGroup, 2, other.Get(),
                                    TimerAttr(&killerData, XEL_TIMER_MODE_PERIODIC, 1).Get()),
              0U);
    ASSERT_NE(XEL_TimerCreateAndStart(kGroup, 2, nullptr), nullptr);
    ASSERT_TRUE(killerData.AwaitReleased());
    other.Run([] {});
    EXPECT_EQ(own_.released.load(), 0);
    EXPECT_EQ(typeData_.released.load(), 1);
    EXPECT_EQ(g_xelTimerCtrl.groupCount, 0U);
    LetGo();
    EXPECT_EQ(own_.released.load(), 1);
    EXPECT_NO_LOG();
}

// The teardown after a run ends the timer that ran, though its memory may have been given to
// another one in between.
TEST_F(TimerTypeRuns, TeardownAfterARunEndsNoOtherTimer)
{
    Probe next;
    XelTimerNode* made = nullptr;
    ASSERT_EQ(AddType(&typeData_, XEL_TIMER_MODE_ONE_SHOT, 1), 0U);
    own_.onRun = [&](XelTimerNode*) {
        // The teardown is about to take the timer out of the list.
        RunAtNth(Call::PthreadRwlockWrlock, 1, [&] {
            XEL_TimerDestroyGroup(kGroup);
            made = XEL_TimerCreate(worker_->Get(), TimerAttr(&next).Get());
        });
    };
    ASSERT_NE(XEL_TimerCreateAndStart(kGroup, kType, &own_), nullptr);
    ASSERT_TRUE(own_.AwaitReleased());
    worker_->Run([] {});
    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(IsListed(made));
    EXPECT_EQ(next.released.load(), 0);
    EXPECT_EQ(typeData_.released.load(), 1);
    if (IsListed(made)) {
        XEL_TimerDestroy(made);
        AwaitGone(*worker_, made);
    }
    EXPECT_LOG(kTimerSource, kInvalid, "Timer node delete unsuccessfully. (ret = 0x16)");
}

} // namespace
