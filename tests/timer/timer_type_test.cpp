// Timers made by group and type: creation, who owns which user data, and destruction by type and
// by group.
#include <cerrno>

#include "timer_group_support.h"

namespace
{

using namespace timertest;

TEST_F(TimerOfType, InvalidNumbersAreRefused)
{
    for (const auto& [groupId, typeId] : {std::pair{0U, 1U}, {5U, 0U}, {0U, 0U}}) {
        EXPECT_EQ(XEL_TimerCreateAndStart(groupId, typeId, &own_), nullptr);
        EXPECT_LOG(kTimerSource, Text("Timer create and start unsuccessfully, invalid parameter. "
                                      "(id = %u, type = %u)",
                                      groupId, typeId));
    }
    EXPECT_EQ(XEL_TimerCreateAndStart(9, 1, &own_), nullptr);
    EXPECT_LOG(kTimerSource, "Timer group get unsuccessfully. (groupId = 9)");
    EXPECT_EQ(XEL_TimerCreateAndStart(kGroup, 2, &own_), nullptr);
    EXPECT_LOG(kTimerSource, "Timer type get unsuccessfully. (groupId = 5, timerType = 2)");
    EXPECT_EQ(TimerCreateAndStart(9, 1, &own_), nullptr);
    EXPECT_LOG(kTimerSource, "Timer group get unsuccessfully. (groupId = 9)");
    EXPECT_EQ(own_.released.load(), 0);
}

TEST_F(TimerOfType, NodeThatCannotBeMadeIsRefused)
{
    ASSERT_EQ(AddType(&typeData_), 0U);
    const Footprint before = Measure();
    FailNth(Call::TimerfdCreate, 1, -1, EMFILE);
    EXPECT_EQ(XEL_TimerCreateAndStart(kGroup, kType, &own_), nullptr);
    EXPECT_LOG(kTimerSource, "Timer node create unsuccessfully.");
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(XEL_TimerCreateAndStart(kGroup, kType, nullptr), nullptr);
    EXPECT_LOG(kTimerSource, "Timer node memory malloc null.",
               "Timer create node unsuccessfully, create scheduler task unsuccessfully.",
               "Timer node create unsuccessfully.");
    EXPECT_EQ(Measure(), before);
    EXPECT_EQ(LiveCount(), 0U);
    EXPECT_EQ(own_.released.load(), 0);
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(typeData_.released.load(), 1);
}

// Descriptor and memory are given back, the user data is the caller's; the task stays behind.
TEST_F(TimerOfType, TimerThatCannotBeArmedLeavesItsTask)
{
    ASSERT_EQ(AddType(&typeData_), 0U);
    const Footprint before = Measure();
    Footprint task = {}; // what a task takes
    {
        const Fd event = Fd::Event();
        ASSERT_EQ(AddFd(worker_->Get(), event.Get(), TaskSpec{}), 0U);
        task = Measure();
        ASSERT_EQ(DelFd(worker_->Get(), event.Get()), 0U);
    }
    const int fd = NextFd();
    FailNth(Call::TimerfdSettime, 1, -1, EIO);
    EXPECT_EQ(XEL_TimerCreateAndStart(kGroup, kType, &own_), nullptr);
    EXPECT_LOG(kTimerSource, "Timer start unsuccessfully. (ret = 0xffffffff)");
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(LiveCount(), 0U);
    EXPECT_EQ(own_.released.load(), 0);
    task.descriptors = before.descriptors;
    EXPECT_EQ(Measure(), task);
    EXPECT_NE(SchTaskGetHandleByAppFd(fd), nullptr);
    EXPECT_EQ(DelFd(worker_->Get(), fd), kFail); // EBADF: the task goes all the same
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd), nullptr);
    EXPECT_EQ(LogCount(), 2U);
    DropLog();
    EXPECT_EQ(Measure(), before);
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(typeData_.released.load(), 1);
}

TEST_F(TimerOfType, TimerIsMadeFromTheTypeAndArmed)
{
    ASSERT_EQ(AddType(&typeData_), 0U);
    const XelTimerNode* shared = XEL_TimerCreateAndStart(kGroup, kType, nullptr);
    const XelTimerNode* owning = XEL_TimerCreateAndStart(kGroup, kType, &own_);
    ASSERT_NE(shared, nullptr);
    ASSERT_NE(owning, nullptr);
    EXPECT_EQ(LiveCount(), 2U);
    EXPECT_EQ(g_xelTimerCtrl.timerList.next, &owning->link);
    for (const XelTimerNode* timer : {shared, owning}) {
        EXPECT_EQ(timer->groupId, kGroup);
        EXPECT_EQ(timer->typeId, kType);
        EXPECT_EQ(timer->callback, RunProbe);
        EXPECT_EQ(timer->thread, worker_->Get());
        EXPECT_EQ(timer->mode, 1U);
        EXPECT_EQ(timer->timeout.load(), kLongMs);
        EXPECT_EQ(MsOf(SettingOf(timer->fd).it_interval), kLongMs);
        EXPECT_GT(MsOf(SettingOf(timer->fd).it_value), kLongMs - 30000U);
        EXPECT_STREQ(SchTaskGetHandleByAppFd(timer->fd)->name, "type");
    }
    EXPECT_EQ(shared->userData, &typeData_);
    EXPECT_EQ(shared->destructor, nullptr);
    EXPECT_EQ(owning->userData, &own_);
    EXPECT_EQ(owning->destructor, ReleaseProbe);
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(typeData_.released.load(), 1);
    EXPECT_EQ(own_.released.load(), 1);
    EXPECT_NO_LOG();
}

// Neither at the type nor here is the attribute examined: a mode that is none is not periodic and
// not one-shot, and a timer without callback and time-out is one that waits.
TEST_F(TimerOfType, TimerIsMadeFromAnyAttribute)
{
    XelTimerAttr attr = {};
    attr.mode = 9;
    attr.timeout = kLongMs;
    attr.callback = RunProbe;
    attr.userData = &typeData_;
    ASSERT_EQ(XEL_TimerAddTimerType(kGroup, 1, worker_->Get(), &attr), 0U);
    const XelTimerAttr blank = {};
    ASSERT_EQ(XEL_TimerAddTimerType(kGroup, 2, worker_->Get(), &blank), 0U);
    const HeldWorker held(*worker_);
    XelTimerNode* timer = XEL_TimerCreateAndStart(kGroup, 1, nullptr);
    const XelTimerNode* waiting = XEL_TimerCreateAndStart(kGroup, 2, nullptr);
    ASSERT_NE(timer, nullptr);
    ASSERT_NE(waiting, nullptr);
    EXPECT_EQ(MsOf(SettingOf(waiting->fd).it_value), 0U);
    EXPECT_GT(MsOf(SettingOf(timer->fd).it_value), kLongMs / 2);
    EXPECT_EQ(MsOf(SettingOf(timer->fd).it_interval), 0U);
    Expire(timer);
    EXPECT_EQ(Proc(timer), 0U);
    EXPECT_EQ(typeData_.runs.load(), 1);
    EXPECT_TRUE(IsListed(timer));
    EXPECT_NO_LOG();
    EXPECT_EQ(XEL_TimerResize(timer, 5), kFail);
    EXPECT_LOG(kTimerSource, "Timer not periodic mode, restart unsuccessfully.");
}

// Arming and listing is one step for everybody else, and so is a destruction by type.
TEST_F(TimerOfType, ListIsChangedUnderTheWriteLock)
{
    ASSERT_EQ(AddType(&typeData_), 0U);
    const HeldWorker still(*worker_);
    Held arming = Held::Not;
    Held removing = Held::Not;
    RunAtNth(Call::TimerfdSettime, 1, [&arming] { arming = TimerLockState(); });
    ASSERT_NE(XEL_TimerCreateAndStart(kGroup, kType, nullptr), nullptr);
    EXPECT_EQ(arming, Held::ForWriting);
    RunAtNth(Call::EpollCtl, 1, [&removing] { removing = TimerLockState(); });
    TimerDestroyTypeTimer(kGroup, kType);
    EXPECT_EQ(removing, Held::ForWriting);
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(typeData_.released.load(), 1);
    EXPECT_NO_LOG();
}

TEST_F(TimerOfType, OwnDataIsReleasedWithTheTimerAndTypeDataWithTheType)
{
    ASSERT_EQ(AddType(&typeData_, XEL_TIMER_MODE_PERIODIC, 1), 0U);
    XelTimerNode* shared = XEL_TimerCreateAndStart(kGroup, kType, nullptr);
    XelTimerNode* owning = XEL_TimerCreateAndStart(kGroup, kType, &own_);
    ASSERT_TRUE(typeData_.AwaitRuns(1));
    ASSERT_TRUE(own_.AwaitRuns(1));
    XEL_TimerDestroy(shared);
    XEL_TimerDestroy(owning);
    AwaitGone(*worker_, shared);
    AwaitGone(*worker_, owning);
    EXPECT_EQ(own_.released.load(), 1);
    EXPECT_EQ(typeData_.released.load(), 0);
    EXPECT_EQ(XEL_TimerDelTimerType(kGroup, kType), 0U);
    EXPECT_EQ(typeData_.released.load(), 1);
    EXPECT_EQ(own_.released.load(), 1);
    EXPECT_NO_LOG();
}

TEST_F(TimerOfType, OneShotTypeMakesTimersThatFreeThemselves)
{
    ASSERT_EQ(AddType(&typeData_, XEL_TIMER_MODE_ONE_SHOT, 1), 0U);
    for (const bool hasOwnData : {true, false}) {
        Probe& used = hasOwnData ? own_ : typeData_;
        XelTimerNode* timer = XEL_TimerCreateAndStart(kGroup, kType, hasOwnData ? &own_ : nullptr);
        ASSERT_TRUE(used.AwaitRuns(1));
        AwaitGone(*worker_, timer);
        EXPECT_EQ(own_.released.load(), 1);
        EXPECT_EQ(typeData_.released.load(), 0);
        EXPECT_EQ(XEL_TimerStart(timer), 22U);
        EXPECT_LOG(kTimerSource, kInvalid);
    }
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(typeData_.released.load(), 1);
}

// The timer's thread may see an expiry before the creation has returned; it finds the timer.
TEST_F(TimerOfType, TimerThatExpiresAtOnceIsNotLost)
{
    ASSERT_EQ(AddType(&typeData_, XEL_TIMER_MODE_ONE_SHOT, 1), 0U);
    const int fd = NextFd();
    RunAtNth(Call::TimerfdSettime, 1, [fd] {
        struct itimerspec soon = {};
        soon.it_value.tv_nsec = 1;
        EXPECT_EQ(timerfd_settime(fd, 0, &soon, nullptr), 0);
        EXPECT_FALSE(AwaitTrue([] { return LogCount() > 0; }, 20));
    });
    const XelTimerNode* timer = XEL_TimerCreateAndStart(kGroup, kType, &own_);
    ASSERT_TRUE(own_.AwaitReleased());
    AwaitGone(*worker_, timer);
    EXPECT_EQ(own_.runs.load(), 1);
    EXPECT_NO_LOG();
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(typeData_.released.load(), 1);
}

TEST_F(TimerOfType, MatchesLookAtTheNumbers)
{
    XelTimerNode node = {};
    node.groupId = 5;
    node.typeId = 2;
    EXPECT_TRUE(TimerDestroyTimerTypeMatch(&node, 5, 2));
    EXPECT_FALSE(TimerDestroyTimerTypeMatch(&node, 5, 3));
    EXPECT_FALSE(TimerDestroyTimerTypeMatch(&node, 4, 2));
    EXPECT_TRUE(TimerDestroyTimerGroupMatch(&node, 5, 2));
    EXPECT_TRUE(TimerDestroyTimerGroupMatch(&node, 5, 3));
    EXPECT_FALSE(TimerDestroyTimerGroupMatch(&node, 4, 2));
}

// Only timers of the type, then only those of the group; others stay, also those of no group.
TEST_F(TimerOfType, DestructionByTypeAndByGroupPicksItsTimers)
{
    Probe otherType;
    Probe otherGroup;
    Probe loose;
    Probe owns[3];
    ASSERT_EQ(AddType(&typeData_, 1, kLongMs, 1), 0U);
    ASSERT_EQ(AddType(&otherType, 1, kLongMs, 2), 0U);
    ASSERT_EQ(XEL_TimerCreateGroup(6), 0U);
    ASSERT_EQ(XEL_TimerAddTimerType(6, 1, worker_->Get(), TimerAttr(&otherGroup).Get()), 0U);
    const Timer of0(*worker_, loose);
    ASSERT_NE(XEL_TimerCreateAndStart(kGroup, 1, &owns[0]), nullptr);
    const XelTimerNode* byType = XEL_TimerCreateAndStart(kGroup, 2, &owns[1]);
    const XelTimerNode* byGroup = XEL_TimerCreateAndStart(6, 1, &owns[2]);
    TimerDestroyTypeTimer(kGroup, 1);
    EXPECT_EQ(LiveCount(), 3U);
    EXPECT_EQ(owns[0].released.load(), 1);
    EXPECT_TRUE(IsListed(byType));
    TimerDestroyGroupTimer(kGroup);
    EXPECT_EQ(LiveCount(), 2U);
    EXPECT_EQ(owns[1].released.load(), 1);
    EXPECT_TRUE(IsListed(byGroup));
    EXPECT_EQ(owns[2].released.load(), 0);
    EXPECT_EQ(typeData_.released.load() + otherType.released.load(), 0);
    XEL_TimerDestroyGroup(kGroup);
    XEL_TimerDestroyGroup(6);
    EXPECT_EQ(owns[2].released.load(), 1);
    EXPECT_EQ(typeData_.released.load(), 1);
    EXPECT_EQ(otherType.released.load(), 1);
    EXPECT_EQ(otherGroup.released.load(), 1);
    EXPECT_TRUE(IsListed(of0.Get()));
    EXPECT_NO_LOG();
}

// On the caller's thread, newest first, before the type's own data; pending ones as well.
TEST_F(TimerOfType, DestructionIsSynchronousAndInTheListsOrder)
{
    std::vector<int> order;
    Probe owns[3];
    typeData_.onRelease = [&order] { order.push_back(-1); };
    ASSERT_EQ(AddType(&typeData_), 0U);
    const HeldWorker held(*worker_);
    int fds[3] = {};
    for (int i = 0; i < 3; ++i) {
        owns[i].onRelease = [&order, i] { order.push_back(i); };
        XelTimerNode* timer = XEL_TimerCreateAndStart(kGroup, kType, &owns[i]);
        fds[i] = timer->fd;
        if (i == 1) {
            XEL_TimerDestroy(timer);
        }
    }
    EXPECT_EQ(XEL_TimerDelTimerType(kGroup, kType), 0U);
    EXPECT_EQ(order, (std::vector<int>{2, 1, 0, -1}));
    for (const int fd : fds) {
        EXPECT_FALSE(IsOpen(fd));
        EXPECT_EQ(SchTaskGetHandleByAppFd(fd), nullptr);
    }
    EXPECT_EQ(LiveCount(), 0U);
    EXPECT_NO_LOG();
}

// What is left of such a timer is as it was; type and group go all the same.
TEST_F(TimerOfType, TimerWhoseTaskCannotBeRemovedStaysListed)
{
    Probe others[2];
    ASSERT_EQ(AddType(&typeData_), 0U);
    ASSERT_NE(XEL_TimerCreateAndStart(kGroup, kType, &others[0]), nullptr);
    XelTimerNode* timer = XEL_TimerCreateAndStart(kGroup, kType, &own_);
    ASSERT_NE(XEL_TimerCreateAndStart(kGroup, kType, &others[1]), nullptr);
    TakeOffThread(timer);
    EXPECT_EQ(XEL_TimerDelTimerType(kGroup, kType), 0U);
    const std::string line =
        Text("Timer task delete unsuccessfully. (ret = 0xffffffff, fd = %d)", timer->fd);
    EXPECT_LOG(kTimerSource, NoTask(), NotRemoved(timer->fd), line);
    EXPECT_EQ(others[0].released.load() + others[1].released.load(), 2);
    EXPECT_EQ(typeData_.released.load(), 1);
    EXPECT_EQ(own_.released.load(), 0);
    EXPECT_EQ(LiveCount(), 1U);
    EXPECT_TRUE(IsListed(timer));
    EXPECT_TRUE(IsOpen(timer->fd));
    EXPECT_EQ(timer->magic.load(), 0xABCDEFABU);
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_LOG(kTimerSource, NoTask(), NotRemoved(timer->fd), line);
    EXPECT_EQ(g_xelTimerCtrl.groupCount, 0U);
    PutOnThread(timer);
    XEL_TimerDestroy(timer);
    AwaitGone(*worker_, timer);
    EXPECT_EQ(own_.released.load(), 1);
}

TEST_F(TimerOfType, TimerCountStaysAtZero)
{
    ASSERT_EQ(AddType(&typeData_), 0U);
    ASSERT_NE(XEL_TimerCreateAndStart(kGroup, kType, &own_), nullptr);
    g_xelTimerCtrl.timerCount = 0;
    TimerDestroyTypeTimer(kGroup, kType);
    EXPECT_EQ(g_xelTimerCtrl.timerCount, 0U);
    EXPECT_EQ(own_.released.load(), 1);
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(typeData_.released.load(), 1);
}

TEST_F(TimerOfType, TimersAreUsedLikeAnyOther)
{
    ASSERT_EQ(AddType(&typeData_), 0U);
    XelTimerNode* timer = XEL_TimerCreateAndStart(kGroup, kType, &own_);
    u32 remain = 0;
    EXPECT_EQ(XEL_TimerStop(timer), 0U);
    EXPECT_EQ(XEL_TimerStart(timer), 0U);
    EXPECT_EQ(TimerGetTimerRemainTime(timer, &remain), 0U);
    EXPECT_GT(remain, kLongMs / 2);
    EXPECT_EQ(XEL_TimerResize(timer, 1), 0U);
    EXPECT_TRUE(own_.AwaitRuns(2));
    XEL_TimerDestroy(timer);
    AwaitGone(*worker_, timer);
    EXPECT_EQ(own_.released.load(), 1);
    EXPECT_EQ(XEL_TimerDelTimerType(kGroup, kType), 0U);
    EXPECT_EQ(typeData_.released.load(), 1);
    EXPECT_NO_LOG();
}

// Only the group mutex is held while user data is released: timers may be used.
TEST_F(TimerOfType, DestructorMayUseTimers)
{
    Probe kept;
    const Timer other(*worker_, kept);
    XelTimerNode* made = nullptr;
    own_.onRelease = [&] {
        EXPECT_EQ(XEL_TimerStart(other.Get()), 0U);
        made = XEL_TimerCreate(worker_->Get(), TimerAttr(&kept).Get());
        XEL_TimerDestroy(made);
    };
    typeData_.onRelease = [&] { EXPECT_EQ(XEL_TimerStop(other.Get()), 0U); };
    ASSERT_EQ(AddType(&typeData_), 0U);
    ASSERT_NE(XEL_TimerCreateAndStart(kGroup, kType, &own_), nullptr);
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(own_.released.load(), 1);
    EXPECT_EQ(typeData_.released.load(), 1);
    ASSERT_NE(made, nullptr);
    AwaitGone(*worker_, made);
    EXPECT_NO_LOG();
}

} // namespace
