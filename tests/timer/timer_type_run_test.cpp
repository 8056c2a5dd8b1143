// Destruction by type and by group beside callbacks that are running, and from callbacks.
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

    Gate gate_;
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
