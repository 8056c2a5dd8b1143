// Start, stop, resize, remaining time and destroy: what they set, what they refuse, and what a
// failing system call leaves.
#include <cerrno>
#include <csignal>
#include <limits>
#include <poll.h>
#include <sys/mman.h>

#include "timer_support.h"

namespace
{

using namespace timertest;

// Catches the first write to the pages of a timer, and lets it and all later ones pass.
class FirstWrite
{
public:
    explicit FirstWrite(const XelTimerNode* node)
    {
        const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
        begin_ = reinterpret_cast<uintptr_t>(node) / page * page;
        end_ = (reinterpret_cast<uintptr_t>(node + 1) + page - 1) / page * page;
        where_ = nullptr;
        struct sigaction action = {};
        action.sa_sigaction = OnWrite;
        action.sa_flags = SA_SIGINFO;
        EXPECT_EQ(sigaction(SIGSEGV, &action, &before_), 0);
        Protect(PROT_READ);
    }
    FirstWrite(const FirstWrite&) = delete;
    FirstWrite& operator=(const FirstWrite&) = delete;
    ~FirstWrite()
    {
        Protect(PROT_READ | PROT_WRITE);
        EXPECT_EQ(sigaction(SIGSEGV, &before_, nullptr), 0);
    }
    static const void* Where() { return where_.load(); }

private:
    static void Protect(int protection)
    {
        if (mprotect(reinterpret_cast<void*>(begin_), end_ - begin_, protection) != 0) {
            abort();
        }
    }
    static void OnWrite(int /*signal*/, siginfo_t* info, void* /*context*/)
    {
        const auto address = reinterpret_cast<uintptr_t>(info->si_addr);
        if (address < begin_ || address >= end_) {
            (void)signal(SIGSEGV, SIG_DFL); // a real fault: it comes again
            return;
        }
        const void* none = nullptr;
        (void)where_.compare_exchange_strong(none, info->si_addr);
        Protect(PROT_READ | PROT_WRITE);
    }

    inline static uintptr_t begin_ = 0;
    inline static uintptr_t end_ = 0;
    inline static std::atomic<const void*> where_{nullptr};
    struct sigaction before_ = {};
};

class TimerArm : public TimerThreadTest
{
protected:
    // Every operation finds the handle unusable.
    static void ExpectUnusable(XelTimerNode* timer)
    {
        u32 remain = 7;
        const u64 armed = Calls(Call::TimerfdSettime);
        EXPECT_EQ(XEL_TimerStart(timer), 22U);
        EXPECT_EQ(XEL_TimerStop(timer), 22U);
        EXPECT_EQ(XEL_TimerResize(timer, 5), 22U);
        EXPECT_EQ(TimerGetTimerRemainTime(timer, &remain), kFail);
        XEL_TimerDestroy(timer);
        EXPECT_EQ(remain, 7U);
        EXPECT_EQ(Calls(Call::TimerfdSettime), armed);
        EXPECT_LOG(kTimerSource, kInvalid, kInvalid, kInvalid, kInvalid, kInvalid);
    }
    static std::string Failed(const char* what, int fd, int error)
    {
        return Text("Timer %s unsuccessfully. (fd = %d, errno = %d)", what, fd, error);
    }

    Probe probe_;
};

TEST_F(TimerArm, OnlyLiveTimersAreUsable)
{
    ExpectUnusable(nullptr);
    ExpectUnusable(reinterpret_cast<XelTimerNode*>(8)); // never read
    Timer timer(*worker_, probe_);
    timer->magic.store(0x1234);
    ExpectUnusable(timer.Get());
    timer->magic.store(0xABCDEFAB);
    XelTimerNode* gone = timer.Get();
    timer.Destroy();
    ExpectUnusable(gone);
}

TEST_F(TimerArm, HandleChecksAlone)
{
    const Timer timer(*worker_, probe_);
    XelTimerNode other = {};
    other.magic.store(0xABCDEFAB);
    EXPECT_FALSE(TimerIsNodeInList(nullptr));
    EXPECT_FALSE(TimerIsHandleLegal(nullptr));
    EXPECT_FALSE(TimerHandleIsAvailable(nullptr));
    EXPECT_FALSE(TimerIsNodeInList(&other));
    EXPECT_FALSE(TimerIsHandleLegal(&other));
    EXPECT_FALSE(TimerHandleIsAvailable(&other));
    EXPECT_TRUE(TimerIsNodeInList(timer.Get()));
    EXPECT_TRUE(TimerIsHandleLegal(timer.Get()));
    EXPECT_TRUE(TimerHandleIsAvailable(timer.Get()));
    for (const u32 flag : {1U, 2U, 0U}) {
        timer->destroyPending.store(flag);
        EXPECT_TRUE(TimerIsHandleLegal(timer.Get()));
        EXPECT_EQ(TimerHandleIsAvailable(timer.Get()), flag != 1) << flag;
    }
    timer->magic.store(0);
    EXPECT_TRUE(TimerIsNodeInList(timer.Get()));
    EXPECT_FALSE(TimerIsHandleLegal(timer.Get()));
    EXPECT_FALSE(TimerHandleIsAvailable(timer.Get()));
    timer->magic.store(0xABCDEFAB);
    EXPECT_NO_LOG();
}

TEST_F(TimerArm, ValueAndIntervalFollowTheModeAndTheMilliseconds)
{
    const Timer once(*worker_, probe_, XEL_TIMER_MODE_ONE_SHOT);
    const Timer periodic(*worker_, probe_);
    EXPECT_EQ(TimerSetStartTime(periodic.Get(), 61999), 0);
    EXPECT_EQ(SettingOf(periodic->fd).it_interval.tv_sec, 61);
    EXPECT_EQ(SettingOf(periodic->fd).it_interval.tv_nsec, 999000000);
    EXPECT_LE(MsOf(SettingOf(periodic->fd).it_value), 61999U);
    EXPECT_GT(MsOf(SettingOf(periodic->fd).it_value), 30000U);
    constexpr u32 kLongest = std::numeric_limits<u32>::max();
    EXPECT_EQ(TimerSetStartTime(once.Get(), kLongest), 0);
    EXPECT_EQ(MsOf(SettingOf(once->fd).it_interval), 0U);
    EXPECT_LE(MsOf(SettingOf(once->fd).it_value), kLongest);
    EXPECT_GT(MsOf(SettingOf(once->fd).it_value), kLongest - 30000U);
    for (const Timer* timer : {&once, &periodic}) {
        EXPECT_EQ(TimerSetStartTime(timer->Get(), 0), 0);
        EXPECT_EQ(MsOf(SettingOf((*timer)->fd).it_value), 0U);
        EXPECT_EQ(MsOf(SettingOf((*timer)->fd).it_interval), 0U);
    }
    EXPECT_EQ(probe_.runs.load(), 0);
}

TEST_F(TimerArm, StartAgainRestartsTheFullPeriod)
{
    const Timer timer(*worker_, probe_);
    struct itimerspec almost = {};
    almost.it_value.tv_sec = 100;
    ASSERT_EQ(timerfd_settime(timer->fd, 0, &almost, nullptr), 0);
    timer.Start();
    EXPECT_GT(MsOf(SettingOf(timer->fd).it_value), kLongMs - 30000U);
    EXPECT_EQ(MsOf(SettingOf(timer->fd).it_interval), kLongMs);
    EXPECT_NO_LOG();
}

TEST_F(TimerArm, StopDisarmsAndKeepsThePeriod)
{
    const Timer timer(*worker_, probe_);
    timer.Start();
    EXPECT_EQ(XEL_TimerStop(timer.Get()), 0U);
    EXPECT_EQ(MsOf(SettingOf(timer->fd).it_value), 0U);
    EXPECT_EQ(XEL_TimerStop(timer.Get()), 0U);
    EXPECT_EQ(timer->timeout.load(), kLongMs);
    timer.Start();
    EXPECT_GT(MsOf(SettingOf(timer->fd).it_value), kLongMs - 30000U);
}

TEST_F(TimerArm, TimeoutOfZeroStaysDisarmed)
{
    for (const u32 mode : {XEL_TIMER_MODE_ONE_SHOT, XEL_TIMER_MODE_PERIODIC}) {
        const Timer timer(*worker_, probe_, mode, 0);
        timer.Start();
        EXPECT_EQ(SettingOf(timer->fd).it_value.tv_nsec, 0);
        EXPECT_EQ(MsOf(SettingOf(timer->fd).it_value), 0U);
        EXPECT_TRUE(IsListed(timer.Get()));
    }
    EXPECT_EQ(probe_.runs.load(), 0);
    EXPECT_NO_LOG();
}

TEST_F(TimerArm, FailedStartLeavesTheTimerRegistered)
{
    const Timer timer(*worker_, probe_);
    FailNth(Call::TimerfdSettime, 1, -1, EIO);
    EXPECT_EQ(XEL_TimerStart(timer.Get()), kFail);
    EXPECT_LOG(kTimerSource, Failed("start", timer->fd, EIO));
    EXPECT_EQ(MsOf(SettingOf(timer->fd).it_value), 0U);
    timer.Start();
    EXPECT_GT(MsOf(SettingOf(timer->fd).it_value), 0U);
}

TEST_F(TimerArm, FailedStopLeavesTheTimerArmed)
{
    const Timer timer(*worker_, probe_);
    timer.Start();
    FailNth(Call::TimerfdSettime, 1, -1, EINVAL);
    EXPECT_EQ(XEL_TimerStop(timer.Get()), kFail);
    EXPECT_LOG(kTimerSource, Failed("stop", timer->fd, EINVAL));
    EXPECT_GT(MsOf(SettingOf(timer->fd).it_value), 0U);
}

TEST_F(TimerArm, ResizeStoresAndArms)
{
    const Timer timer(*worker_, probe_);
    EXPECT_EQ(XEL_TimerResize(timer.Get(), 50000), 0U);
    EXPECT_EQ(timer->timeout.load(), 50000U);
    EXPECT_EQ(MsOf(SettingOf(timer->fd).it_interval), 50000U);
    EXPECT_GT(MsOf(SettingOf(timer->fd).it_value), 20000U);
    EXPECT_EQ(XEL_TimerResize(timer.Get(), 0), 0U);
    EXPECT_EQ(timer->timeout.load(), 0U);
    EXPECT_EQ(MsOf(SettingOf(timer->fd).it_value), 0U);
    EXPECT_NO_LOG();
}

TEST_F(TimerArm, FailedResizeKeepsTheNewPeriod)
{
    const Timer timer(*worker_, probe_);
    timer.Start();
    FailNth(Call::TimerfdSettime, 1, -1, EIO);
    EXPECT_EQ(XEL_TimerResize(timer.Get(), 50000), kFail);
    EXPECT_LOG(kTimerSource, Failed("resize", timer->fd, EIO));
    EXPECT_EQ(timer->timeout.load(), 50000U);
    EXPECT_EQ(MsOf(SettingOf(timer->fd).it_interval), kLongMs);
    timer.Start();
    EXPECT_EQ(MsOf(SettingOf(timer->fd).it_interval), 50000U);
}

TEST_F(TimerArm, OneShotIsNotResizedNorAskedForItsTime)
{
    const Timer timer(*worker_, probe_, XEL_TIMER_MODE_ONE_SHOT);
    timer.Start();
    u32 remain = 7;
    EXPECT_EQ(XEL_TimerResize(timer.Get(), 5), kFail);
    EXPECT_LOG(kTimerSource, "Timer not periodic mode, restart unsuccessfully.");
    EXPECT_EQ(TimerGetTimerRemainTime(timer.Get(), &remain), kFail);
    EXPECT_LOG(kTimerSource, "Timer not periodic mode, get remain time unsuccessfully.");
    EXPECT_EQ(remain, 7U);
    EXPECT_EQ(timer->timeout.load(), kLongMs);
    EXPECT_GT(MsOf(SettingOf(timer->fd).it_value), kLongMs - 30000U);
    EXPECT_EQ(Calls(Call::TimerfdGettime), 0U);
}

TEST_F(TimerArm, RemainingTimeIsThatOfTheNextExpiry)
{
    const Timer timer(*worker_, probe_);
    u32 remain = 7;
    EXPECT_EQ(TimerGetTimerRemainTime(timer.Get(), &remain), 0U);
    EXPECT_EQ(remain, 0U);
    timer.Start();
    const u64 before = MsOf(SettingOf(timer->fd).it_value);
    EXPECT_EQ(TimerGetTimerRemainTime(timer.Get(), &remain), 0U);
    const u64 after = MsOf(SettingOf(timer->fd).it_value);
    EXPECT_LE(remain, before);
    EXPECT_GE(remain, after);
    EXPECT_NO_LOG();
}

TEST_F(TimerArm, FailedQuestionLeavesTheAnswerAlone)
{
    const Timer timer(*worker_, probe_);
    timer.Start();
    u32 remain = 7;
    FailNth(Call::TimerfdGettime, 1, -1, EFAULT);
    EXPECT_EQ(TimerGetTimerRemainTime(timer.Get(), &remain), kFail);
    EXPECT_LOG(kTimerSource, Failed("get remain time", timer->fd, EFAULT));
    EXPECT_EQ(remain, 7U);
}

// The period is there before the first expiry with it can come.
TEST_F(TimerArm, ResizeStoresThePeriodBeforeItArms)
{
    const Timer timer(*worker_, probe_);
    u32 timeout = 0;
    RunAtNth(Call::TimerfdSettime, 1, [&] { timeout = timer->timeout.load(); });
    EXPECT_EQ(XEL_TimerResize(timer.Get(), 50000), 0U);
    EXPECT_EQ(timeout, 50000U);
}

// Two threads that arm at once: the period that stays is the one that is armed.
TEST_F(TimerArm, PeriodThatComesInBetweenIsArmed)
{
    const std::function<u32(XelTimerNode*)> operations[] = {
        [](XelTimerNode* node) { return XEL_TimerStart(node); },
        [](XelTimerNode* node) { return XEL_TimerResize(node, kLongMs); },
    };
    for (const auto& operation : operations) {
        const Timer timer(*worker_, probe_);
        RunAtNth(Call::TimerfdSettime, 1,
                 [&timer] { EXPECT_EQ(XEL_TimerResize(timer.Get(), 50000), 0U); });
        EXPECT_EQ(operation(timer.Get()), 0U);
        EXPECT_EQ(timer->timeout.load(), 50000U);
        EXPECT_EQ(MsOf(SettingOf(timer->fd).it_interval), 50000U);
    }
    EXPECT_NO_LOG();
}

// An arming that fails is over.
TEST_F(TimerArm, PeriodThatComesInBetweenIsNotTriedAfterAFailure)
{
    const Timer timer(*worker_, probe_);
    xeltest::FailNth(Call::TimerfdSettime, 1, -1, EIO); // the second is the other thread's
    RunAtNth(Call::TimerfdSettime, 1,
             [&timer] { EXPECT_EQ(XEL_TimerResize(timer.Get(), 50000), 0U); });
    const u64 armed = Calls(Call::TimerfdSettime);
    EXPECT_EQ(XEL_TimerStart(timer.Get()), kFail);
    EXPECT_EQ(Calls(Call::TimerfdSettime), armed + 2);
    EXPECT_LOG(kTimerSource, Failed("start", timer->fd, EIO));
}

// The handle stays good until an operation is over, and operations do not wait for each other.
TEST_F(TimerArm, OperationsHoldTheLockForReadingWhileTheyWork)
{
    Timer timer(*worker_, probe_);
    XelTimerNode* node = timer.Release();
    u32 remain = 0;
    const std::pair<Call, std::function<void()>> operations[] = {
        {Call::TimerfdSettime, [node] { (void)XEL_TimerStart(node); }},
        {Call::TimerfdSettime, [node] { (void)XEL_TimerStop(node); }},
        {Call::TimerfdSettime, [node] { (void)XEL_TimerResize(node, kLongMs); }},
        {Call::TimerfdGettime, [&] { (void)TimerGetTimerRemainTime(node, &remain); }},
        {Call::TimerfdSettime, [node] { XEL_TimerDestroy(node); }},
    };
    for (const auto& [call, operation] : operations) {
        Held seen = Held::Not;
        RunAtNth(call, 1, [&seen] { seen = TimerLockState(); });
        operation();
        EXPECT_EQ(seen, Held::ForReading);
    }
    AwaitGone(*worker_, node);
    EXPECT_NO_LOG();
}

// The lock is free again after each result.
TEST_F(TimerArm, NoOperationKeepsTheLock)
{
    const Timer timer(*worker_, probe_, XEL_TIMER_MODE_ONE_SHOT);
    const Timer periodic(*worker_, probe_);
    u32 remain = 0;
    const std::function<void()> operations[] = {
        [&] { (void)XEL_TimerStart(nullptr); },
        [&] { (void)XEL_TimerResize(timer.Get(), 1); },
        [&] { (void)TimerGetTimerRemainTime(timer.Get(), &remain); },
        [&] { (void)XEL_TimerResize(periodic.Get(), kLongMs); },
        [&] { (void)TimerGetTimerRemainTime(periodic.Get(), &remain); },
        [&] { (void)TimerDelNode(nullptr); },
        [&] { XEL_TimerDestroy(nullptr); },
    };
    for (const auto& operation : operations) {
        operation();
        ASSERT_EQ(pthread_rwlock_trywrlock(&g_xelTimerCtrl.timerLock), 0);
        pthread_rwlock_unlock(&g_xelTimerCtrl.timerLock);
    }
    EXPECT_EQ(LogCount(), 5U);
    DropLog();
}

// The end is left to the timer's own thread.
TEST_F(TimerArm, DestroyMarksTheTimerAndArmsOneMillisecond)
{
    for (const u32 mode : {XEL_TIMER_MODE_ONE_SHOT, XEL_TIMER_MODE_PERIODIC}) {
        Probe probe;
        Timer timer(*worker_, probe, mode);
        XelTimerNode* node = timer.Release();
        const int fd = node->fd;
        {
            const HeldWorker held(*worker_);
            u32 pendingWhenArmed = 9;
            u32 timeoutWhenArmed = 9;
            RunAtNth(Call::TimerfdSettime, 1, [&] {
                pendingWhenArmed = node->destroyPending.load();
                timeoutWhenArmed = node->timeout.load();
            });
            XEL_TimerDestroy(node);
            EXPECT_EQ(pendingWhenArmed, 1U); // an expiry in between runs no callback any more
            EXPECT_EQ(timeoutWhenArmed, 1U);
            EXPECT_EQ(node->timeout.load(), 1U);
            EXPECT_EQ(node->destroyPending.load(), 1U);
            struct pollfd ready = {fd, POLLIN, 0};
            EXPECT_EQ(poll(&ready, 1, 10000), 1);
            EXPECT_TRUE(IsListed(node));
            EXPECT_EQ(probe.released.load(), 0);
            ExpectUnusable(node); // a second destroy among them
        }
        AwaitGone(*worker_, node);
        EXPECT_EQ(probe.released.load(), 1);
        EXPECT_EQ(probe.runs.load(), 0);
        EXPECT_FALSE(IsOpen(fd));
        EXPECT_EQ(SchTaskGetHandleByAppFd(fd), nullptr);
    }
}

// A start that has passed its check would arm the short delay as if it were the timer's period, and
// the callback would run at its end, if the mark came later.
TEST_F(TimerArm, DestroyMarksTheTimerBeforeItsPeriodIsShort)
{
    Timer timer(*worker_, probe_);
    XelTimerNode* node = timer.Release();
    {
        const HeldWorker held(*worker_);
        const FirstWrite write(node);
        XEL_TimerDestroy(node);
        EXPECT_EQ(write.Where(), &node->destroyPending);
        EXPECT_EQ(node->timeout.load(), 1U);
    }
    AwaitGone(*worker_, node);
    EXPECT_EQ(probe_.released.load(), 1);
    EXPECT_NO_LOG();
}

TEST_F(TimerArm, DestroyThatCannotArmLeavesTheTimerMarked)
{
    Timer timer(*worker_, probe_);
    XelTimerNode* node = timer.Release();
    FailNth(Call::TimerfdSettime, 1, -1, EIO);
    XEL_TimerDestroy(node);
    EXPECT_LOG(kTimerSource, Failed("reset destroy time", node->fd, EIO));
    EXPECT_EQ(node->timeout.load(), 1U);
    EXPECT_EQ(node->destroyPending.load(), 1U);
    EXPECT_TRUE(IsListed(node));
    ExpectUnusable(node);
    ASSERT_EQ(TimerSetStartTime(node, 1), 0);
    AwaitGone(*worker_, node);
    EXPECT_EQ(probe_.released.load(), 1);
}

// The line has the error of the operation, not that of the arming after it.
TEST_F(TimerArm, ErrorIsTheOperationsOwnWhenTheEndComesInBetween)
{
    const std::pair<const char*, std::function<u32(XelTimerNode*)>> operations[] = {
        {"start", [](XelTimerNode* node) { return XEL_TimerStart(node); }},
        {"stop", [](XelTimerNode* node) { return XEL_TimerStop(node); }},
        {"resize", [](XelTimerNode* node) { return XEL_TimerResize(node, kLongMs); }},
    };
    for (const auto& [name, operation] : operations) {
        Probe probe;
        Timer timer(*worker_, probe);
        XelTimerNode* node = timer.Release();
        {
            const HeldWorker held(*worker_);
            FailNth(Call::TimerfdSettime, 1, -1, EIO); // the second is that of the end
            FailNth(Call::TimerfdSettime, 3, -1, EBADF);
            RunAtNth(Call::TimerfdSettime, 1, [node] { XEL_TimerDestroy(node); });
            EXPECT_EQ(operation(node), kFail);
            EXPECT_LOG(kTimerSource, Failed(name, node->fd, EIO));
        }
        AwaitGone(*worker_, node);
        EXPECT_EQ(probe.released.load(), 1);
    }
}

// The end comes between the check and the arming: its short delay stays armed.
TEST_F(TimerArm, EndThatComesInBetweenStaysArmed)
{
    const std::function<u32(XelTimerNode*)> operations[] = {
        [](XelTimerNode* node) { return XEL_TimerStart(node); },
        [](XelTimerNode* node) { return XEL_TimerStop(node); },
        [](XelTimerNode* node) { return XEL_TimerResize(node, kLongMs); },
    };
    for (const auto& operation : operations) {
        Probe probe;
        Timer timer(*worker_, probe);
        XelTimerNode* node = timer.Release();
        {
            const HeldWorker held(*worker_);
            RunAtNth(Call::TimerfdSettime, 1, [node] { XEL_TimerDestroy(node); });
            EXPECT_EQ(operation(node), 0U);
            struct pollfd ready = {node->fd, POLLIN, 0};
            EXPECT_EQ(poll(&ready, 1, 10000), 1);
        }
        AwaitGone(*worker_, node);
        EXPECT_EQ(probe.released.load(), 1);
        EXPECT_EQ(probe.runs.load(), 0);
    }
    EXPECT_NO_LOG();
}

} // namespace
