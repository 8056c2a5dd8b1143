// What the scheduler runs for a timer: the checks, the read, the callback, the report of a slow
// one, and the teardown.
#include <cerrno>
#include <poll.h>

#include "timer_support.h"

// Has a symbol that can be found; the others have none.
extern "C" __attribute__((visibility("default"))) uint32_t xel_slow(XelTimerNode* timer, uint64_t,
                                                                    void* userData);
uint32_t xel_slow(XelTimerNode* timer, uint64_t expirations, void* userData)
{
    return timertest::RunProbe(timer, expirations, userData);
}

// A name of forty letters.
extern "C" __attribute__((visibility("default"))) uint32_t
xel_slow_callback_with_a_very_long_name_(XelTimerNode* timer, uint64_t, void* userData);
uint32_t xel_slow_callback_with_a_very_long_name_(XelTimerNode* timer, uint64_t expirations,
                                                  void* userData)
{
    return timertest::RunProbe(timer, expirations, userData);
}

namespace
{

using namespace timertest;

std::string Slow(u32 ret, int fd, u64 start, u64 elapsed, const char* func)
{
    return Text("Timer proc timeout. (retUsr = %u, timerfd = %d, startTime = %lu,timeout = %lu, "
                "func = %s)",
                ret, fd, static_cast<unsigned long>(start), static_cast<unsigned long>(elapsed),
                func);
}

std::string Unsuccessful(u32 ret, int fd)
{
    return Text("Timer proc unsuccessfully. (retUsr = %u, timerfd = %d)", ret, fd);
}

// The callback is called by the test itself; the timers' thread is held meanwhile.
class TimerProc : public TimerThreadTest
{
protected:
    void SetUp() override
    {
        TimerThreadTest::SetUp();
        held_ = std::make_unique<HeldWorker>(*worker_);
    }
    void TearDown() override
    {
        held_.reset();
        TimerThreadTest::TearDown();
    }
    // A timer that the test or its callback ends; otherwise End does it by hand.
    XelTimerNode* Make(u32 mode = XEL_TIMER_MODE_PERIODIC)
    {
        return XEL_TimerCreate(worker_->Get(),
                               TimerAttr(&probe_, mode, 0, "by hand", xel_slow).Get());
    }
    void End(XelTimerNode* timer)
    {
        const int released = probe_.released.load();
        InnerTimerDestroy(timer);
        EXPECT_EQ(probe_.released.load(), released + 1);
    }

    Probe probe_;
    std::unique_ptr<HeldWorker> held_;
};

TEST_F(TimerProc, CallbackGetsHandleCountAndData)
{
    XelTimerNode* timer = Make();
    XelTimerNode* seen = nullptr;
    probe_.onRun = [&seen](XelTimerNode* ran) { seen = ran; };
    Expire(timer);
    EXPECT_EQ(Proc(timer), 0U);
    EXPECT_EQ(seen, timer);
    EXPECT_EQ(probe_.runs.load(), 1);
    EXPECT_EQ(probe_.expirations.load(), 1U);
    Expire(timer);
    EXPECT_EQ(Proc(timer, EPOLLIN | EPOLLERR), 0U);
    EXPECT_EQ(probe_.runs.load(), 2);
    EXPECT_NO_LOG();
    End(timer);
}

// One read, no allocation.
TEST_F(TimerProc, ExpiryCostsOneRead)
{
    XelTimerNode* timer = Make();
    Expire(timer);
    const u64 reads = Calls(Call::Read);
    const u64 allocations = Calls(Call::XelMemAllocF);
    EXPECT_EQ(Proc(timer), 0U);
    EXPECT_EQ(Calls(Call::Read), reads + 1);
    EXPECT_EQ(Calls(Call::XelMemAllocF), allocations);
    EXPECT_EQ(Calls(Call::SystimeGetMilliSec), 2U);
    End(timer);
}

// A late run of a freed timer may find a timer of another thread at its address.
TEST_F(TimerProc, AnotherSchedulerThreadNeitherRunsNorEndsIt)
{
    XelTimerNode* timer = Make();
    Expire(timer);
    Worker other;
    for (const u32 pending : {0U, kTimerPending}) {
        timer->destroyPending.store(pending);
        other.Run([timer] { EXPECT_EQ(Proc(timer), kFail); });
        EXPECT_LOG(kTimerSource, "Timer proc unsuccessfully, magic:0.");
        EXPECT_TRUE(IsListed(timer));
    }
    EXPECT_EQ(probe_.runs.load(), 0);
    timer->destroyPending.store(0);
    EXPECT_EQ(Proc(timer), 0U) << "its expiration is there";
    EXPECT_EQ(probe_.runs.load(), 1);
    End(timer);
}

// The magic comes before the end that was asked for.
TEST_F(TimerProc, DamagedMagicIsRefusedFirst)
{
    XelTimerNode* timer = Make();
    Expire(timer);
    timer->destroyPending.store(1);
    for (const u32 magic : {0x1234U, 0xABCDEFAAU}) {
        timer->magic.store(magic);
        EXPECT_EQ(Proc(timer), kFail);
        EXPECT_LOG(kTimerSource, Text("Timer proc unsuccessfully, magic:%#x.", magic));
    }
    timer->magic.store(0xABCDEFAB);
    EXPECT_TRUE(IsListed(timer));
    timer->destroyPending.store(0);
    EXPECT_EQ(Proc(timer), 0U); // still readable
    EXPECT_EQ(probe_.runs.load(), 1);
    End(timer);
}

TEST_F(TimerProc, GoneTimerIsRefusedUnread)
{
    XelTimerNode* timer = Make();
    End(timer);
    EXPECT_EQ(Proc(timer), kFail);
    EXPECT_LOG(kTimerSource, "Timer proc unsuccessfully, magic:0.");
}

// Whatever the mask says, and without a read.
TEST_F(TimerProc, PendingEndTearsDown)
{
    for (const u32 mode : {XEL_TIMER_MODE_ONE_SHOT, XEL_TIMER_MODE_PERIODIC}) {
        for (const u32 mask : {0U, static_cast<u32>(EPOLLIN)}) {
            XelTimerNode* timer = Make(mode);
            const int fd = timer->fd;
            timer->destroyPending.store(1);
            const u64 reads = Calls(Call::Read);
            const int released = probe_.released.load();
            EXPECT_EQ(Proc(timer, mask), 0U);
            EXPECT_EQ(Calls(Call::Read), reads);
            EXPECT_EQ(probe_.released.load(), released + 1);
            EXPECT_FALSE(IsListed(timer));
            EXPECT_FALSE(IsOpen(fd));
            EXPECT_EQ(SchTaskGetHandleByAppFd(fd), nullptr);
        }
    }
    EXPECT_EQ(probe_.runs.load(), 0);
    EXPECT_NO_LOG();
}

// The read tells what is ready; other bits are not looked at.
// What a run reads may be the short delay of an end that was asked for after its first look.
TEST_F(TimerProc, EndThatComesBeforeTheReadRunsNoCallback)
{
    for (const u32 mode : {XEL_TIMER_MODE_ONE_SHOT, XEL_TIMER_MODE_PERIODIC}) {
        XelTimerNode* timer = Make(mode);
        Expire(timer);
        RunAtNth(Call::Read, 1, [timer] {
            EXPECT_EQ(XEL_TimerStop(timer), 0U); // what was reported is gone
            XEL_TimerDestroy(timer);
            struct pollfd ready = {timer->fd, POLLIN, 0};
            EXPECT_EQ(poll(&ready, 1, 10000), 1);
        });
        EXPECT_EQ(Proc(timer), 0U);
        EXPECT_EQ(probe_.runs.load(), 0);
        EXPECT_EQ(probe_.released.load(), 1);
        EXPECT_EQ(LiveCount(), 0U);
        probe_.released.store(0);
    }
    EXPECT_NO_LOG();
}

TEST_F(TimerProc, MaskWithoutReadinessDoesNothing)
{
    XelTimerNode* timer = Make(XEL_TIMER_MODE_ONE_SHOT);
    Expire(timer);
    const u64 reads = Calls(Call::Read);
    for (const u32 mask : {0U, static_cast<u32>(EPOLLOUT), static_cast<u32>(EPOLLHUP | EPOLLERR)}) {
        EXPECT_EQ(Proc(timer, mask), 0U);
    }
    EXPECT_EQ(Calls(Call::Read), reads);
    EXPECT_TRUE(IsListed(timer));
    EXPECT_EQ(Proc(timer), 0U);
    EXPECT_EQ(probe_.runs.load(), 1);
    EXPECT_FALSE(IsListed(timer));
    EXPECT_NO_LOG();
}

TEST_F(TimerProc, NothingToReadIsSilent)
{
    for (const u32 mode : {XEL_TIMER_MODE_ONE_SHOT, XEL_TIMER_MODE_PERIODIC}) {
        XelTimerNode* timer = Make(mode);
        EXPECT_EQ(Proc(timer), 0U); // EAGAIN
        Expire(timer);
        FailNth(Call::Read, 1, -1, EINTR);
        EXPECT_EQ(Proc(timer), 0U);
        FailNth(Call::Read, 1, -1, EAGAIN);
        EXPECT_EQ(Proc(timer), 0U);
        for (const int count : {0, 4}) { // too short counts as well
            FailNth(Call::Read, 1, count, EAGAIN);
            EXPECT_EQ(Proc(timer), 0U);
            FailNth(Call::Read, 1, count, EINTR);
            EXPECT_EQ(Proc(timer), 0U);
        }
        EXPECT_TRUE(IsListed(timer));
        End(timer);
        probe_.released.store(0);
    }
    EXPECT_EQ(probe_.runs.load(), 0);
    EXPECT_EQ(Calls(Call::SystimeGetMilliSec), 0U);
    EXPECT_NO_LOG();
}

// A platform's own read may answer so; the kernel's timer never does.
TEST_F(TimerProc, CountOfZeroThatWasReadIsARun)
{
    XelTimerNode* timer = Make(XEL_TIMER_MODE_ONE_SHOT);
    FailNth(Call::Read, 1, 8, 0);
    EXPECT_EQ(Proc(timer), 0U);
    EXPECT_EQ(probe_.runs.load(), 1);
    EXPECT_FALSE(IsListed(timer));
    EXPECT_NO_LOG();
}

TEST_F(TimerProc, FailedReadIsLogged)
{
    XelTimerNode* timer = Make(XEL_TIMER_MODE_ONE_SHOT);
    Expire(timer);
    for (const int count : {-1, 0, 4}) {
        FailNth(Call::Read, 1, count, EIO);
        EXPECT_EQ(Proc(timer), kFail);
        EXPECT_LOG(kTimerSource, Text("Timerfd %d read unsuccessfully. (errno = 5, readCnt = %d)",
                                      timer->fd, count));
    }
    EXPECT_EQ(probe_.runs.load(), 0);
    EXPECT_TRUE(IsListed(timer)); // it was not the expiry that ends it
    End(timer);
}

TEST_F(TimerProc, ResultOfTheCallbackIsLoggedAndBecomesTheFailure)
{
    XelTimerNode* timer = Make();
    for (const u32 ret : {1U, 22U, 0xFFFFFFFEU}) {
        probe_.result.store(ret);
        Expire(timer);
        EXPECT_EQ(Proc(timer), kFail);
        EXPECT_LOG(kTimerSource, Unsuccessful(ret, timer->fd));
        EXPECT_TRUE(IsListed(timer));
    }
    End(timer);
}

// The teardown comes before the line about the result.
TEST_F(TimerProc, OneShotEndsWhateverItsCallbackReturns)
{
    for (const u32 ret : {0U, 9U}) {
        XelTimerNode* timer = Make(XEL_TIMER_MODE_ONE_SHOT);
        const int fd = timer->fd;
        const int released = probe_.released.load();
        probe_.released.store(0);
        size_t linesAtRelease = 99;
        probe_.onRelease = [&] { linesAtRelease = LogCount(); };
        probe_.result.store(ret);
        Expire(timer);
        EXPECT_EQ(Proc(timer), ret == 0 ? 0U : kFail);
        EXPECT_EQ(probe_.released.load(), 1) << released;
        EXPECT_EQ(linesAtRelease, 0U);
        EXPECT_FALSE(IsListed(timer));
        EXPECT_FALSE(IsOpen(fd));
        EXPECT_EQ(LogCount(), ret == 0 ? 0U : 1U);
        EXPECT_EQ(LogCount(Unsuccessful(9, fd)), ret == 0 ? 0U : 1U);
        DropLog();
    }
}

// The stored name is altered: each second character is raised by one.
TEST_F(TimerProc, CallbackOf400MillisecondsIsReported)
{
    XelTimerNode* timer = Make();
    for (const u64 elapsed : {u64{400}, u64{401}, u64{100000}}) {
        Expire(timer);
        ScriptMilliSec({7000, 7000 + elapsed});
        EXPECT_EQ(Proc(timer), 0U);
        EXPECT_LOG(kTimerSource, Warning(Slow(0, timer->fd, 7000, elapsed, "xfl`smox")));
    }
    End(timer);
}

// After seven weeks the clock is past 32 bits.
TEST_F(TimerProc, SlowCallbackIsReportedWithTheWholeTime)
{
    XelTimerNode* timer = Make();
    const std::pair<u64, u64> times[] = {{5000000000, 400}, {4294967000, 400}, {1, 4294967296}};
    for (const auto& [start, elapsed] : times) {
        Expire(timer);
        ScriptMilliSec({start, start + elapsed});
        EXPECT_EQ(Proc(timer), 0U);
        EXPECT_LOG(kTimerSource, Warning(Slow(0, timer->fd, start, elapsed, "xfl`smox")));
    }
    End(timer);
}

TEST_F(TimerProc, LongNameIsReportedWithItsFirstThirtyOneLetters)
{
    const TimerAttr attr(&probe_, XEL_TIMER_MODE_PERIODIC, 0, "by hand",
                         xel_slow_callback_with_a_very_long_name_);
    XelTimerNode* timer = XEL_TimerCreate(worker_->Get(), attr.Get());
    ASSERT_NE(timer, nullptr);
    Expire(timer);
    ScriptMilliSec({0, 400});
    EXPECT_EQ(Proc(timer), 0U);
    EXPECT_LOG(kTimerSource,
               Warning(Slow(0, timer->fd, 0, 400, "xfl`smox_damlcadk`wjti_b_wesy`l")));
    End(timer);
}

TEST_F(TimerProc, CallbackOf399MillisecondsIsNot)
{
    XelTimerNode* timer = Make();
    for (const u64 elapsed : {u64{0}, u64{1}, u64{398}, u64{399}}) {
        Expire(timer);
        ScriptMilliSec({7000, 7000 + elapsed});
        EXPECT_EQ(Proc(timer), 0U);
    }
    EXPECT_EQ(probe_.runs.load(), 4);
    EXPECT_NO_LOG();
    End(timer);
}

// The time is taken around the callback alone.
TEST_F(TimerProc, TimeRunsWhileTheCallbackRuns)
{
    XelTimerNode* timer = Make(XEL_TIMER_MODE_ONE_SHOT);
    const int fd = timer->fd;
    ScriptMilliSec({5000});
    RunAtNth(Call::Read, 1, [] { ScriptMilliSec({6000}); });
    probe_.onRun = [](XelTimerNode*) { ScriptMilliSec({6500}); };
    probe_.onRelease = [] { ScriptMilliSec({7500}); };
    Expire(timer);
    EXPECT_EQ(Proc(timer), 0U);
    EXPECT_LOG(kTimerSource, Warning(Slow(0, fd, 6000, 500, "xfl`smox")));
}

TEST_F(TimerProc, SlowAndFailedCallbackIsReportedInThatOrder)
{
    XelTimerNode* timer = Make(XEL_TIMER_MODE_ONE_SHOT);
    const int fd = timer->fd;
    size_t linesAtRelease = 99;
    probe_.onRelease = [&] { linesAtRelease = LogCount(); };
    probe_.result.store(3);
    Expire(timer);
    ScriptMilliSec({0, 400});
    EXPECT_EQ(Proc(timer), kFail);
    EXPECT_EQ(linesAtRelease, 1U); // the teardown comes in between
    EXPECT_LOG(kTimerSource, Warning(Slow(3, fd, 0, 400, "xfl`smox")), Unsuccessful(3, fd));
}

TEST_F(TimerProc, SlowCallbackWithoutANameIsReportedAllTheSame)
{
    XelTimerNode* timer = Make();
    Expire(timer);
    ScriptMilliSec({0, 400});
    FailNth(Call::BacktraceSymbols, 1);
    EXPECT_EQ(Proc(timer), 0U);
    EXPECT_LOG(kTimerSource, Warning(Slow(0, timer->fd, 0, 400, "")));
    End(timer);
}

// A timer is run by its magic, whether it has been listed yet or not.
TEST_F(TimerProc, TimerOutsideTheListRunsByItsMagic)
{
    const TimerAttr attr(&probe_, XEL_TIMER_MODE_ONE_SHOT);
    XelTimerNode* timer = TimerCreateNode(worker_->Get(), attr.Get());
    ASSERT_NE(timer, nullptr);
    Expire(timer);
    EXPECT_EQ(Proc(timer), 0U);
    EXPECT_EQ(probe_.runs.load(), 1);
    const char text[] = "Timer node delete unsuccessfully. (ret = 0x16)";
    EXPECT_LOG(kTimerSource, kInvalid, text);
    timer->destroyPending.store(1);
    EXPECT_EQ(Proc(timer), 0U);
    EXPECT_LOG(kTimerSource, kInvalid, text);
    EXPECT_TRUE(IsOpen(timer->fd));
    EXPECT_EQ(probe_.released.load(), 0);
    TimerAddNode(timer);
    End(timer);
}

class TimerTeardown : public TimerProc
{
};

TEST_F(TimerTeardown, GivesEverythingBackInItsOrder)
{
    const Footprint before = Measure();
    XelTimerNode* timer = Make();
    const int fd = timer->fd;
    u32 magic = 1;
    probe_.onRelease = [&] {
        EXPECT_FALSE(IsOpen(fd));
        EXPECT_EQ(SchTaskGetHandleByAppFd(fd), nullptr);
        EXPECT_FALSE(IsListed(timer));
        EXPECT_EQ(timer->magic.load(), 0xABCDEFABU);
        EXPECT_EQ(timer->fd, -1);
        RunAtNth(Call::XelMemFreeF, 1, [&] { magic = timer->magic.load(); });
    };
    End(timer);
    EXPECT_EQ(magic, 0U);
    EXPECT_EQ(Measure(), before);
    EXPECT_NO_LOG();
}

// For writing, and given back before the thread is asked to forget the task.
TEST_F(TimerTeardown, ListIsChangedUnderTheWriteLockOnly)
{
    XelTimerNode* timer = TimerCreateNode(worker_->Get(), TimerAttr(&probe_).Get());
    ASSERT_NE(timer, nullptr);
    Held atEnd = Held::Not;
    Held atLine = Held::Not;
    Held atRemoval = Held::ForWriting;
    {
        const AnyCaller any; // giving the lock back may be the last act of the call
        for (const auto& change : {+[](XelTimerNode* node) { TimerAddNode(node); },
                                   +[](XelTimerNode* node) { (void)TimerDelNode(node); }}) {
            RunAtNth(Call::PthreadRwlockUnlock, 1, [&atEnd] { atEnd = TimerLockState(); });
            change(timer);
            EXPECT_EQ(atEnd, Held::ForWriting);
            atEnd = Held::Not;
        }
    }
    RunAtNextLine([&atLine] { atLine = TimerLockState(); });
    EXPECT_EQ(TimerDelNode(timer), 22U);
    EXPECT_LOG(kTimerSource, kInvalid);
    EXPECT_EQ(atLine, Held::ForWriting);
    TimerAddNode(timer);
    RunAtNth(Call::EpollCtl, 1, [&atRemoval] { atRemoval = TimerLockState(); });
    End(timer);
    EXPECT_EQ(atRemoval, Held::Not);
}

TEST_F(TimerTeardown, WithoutDestructorTheDataIsLeftAlone)
{
    XelTimerNode* timer = Make();
    timer->destructor = nullptr;
    InnerTimerDestroy(timer);
    EXPECT_EQ(probe_.released.load(), 0);
    EXPECT_NO_LOG();
}

TEST_F(TimerTeardown, UnknownTimerIsRefused)
{
    XelTimerNode* timer = Make();
    End(timer);
    for (XelTimerNode* bad : {timer, static_cast<XelTimerNode*>(nullptr)}) {
        InnerTimerDestroy(bad);
        EXPECT_LOG(kTimerSource, kInvalid, "Timer node delete unsuccessfully. (ret = 0x16)");
    }
    XelTimerNode* damaged = Make();
    damaged->magic.store(7);
    InnerTimerDestroy(damaged);
    EXPECT_LOG(kTimerSource, kInvalid, "Timer node delete unsuccessfully. (ret = 0x16)");
    EXPECT_TRUE(IsListed(damaged));
    damaged->magic.store(0xABCDEFAB);
    probe_.released.store(0);
    End(damaged);
}

// Out of the list, but neither closed nor freed.
TEST_F(TimerTeardown, TimerWhoseTaskCannotBeRemovedStaysAsItIs)
{
    XelTimerNode* timer = Make();
    const int fd = timer->fd;
    TakeOffThread(timer);
    const u64 frees = Calls(Call::XelMemFreeF);
    InnerTimerDestroy(timer);
    EXPECT_LOG(kTimerSource, NoTask(), NotRemoved(fd),
               "Timer task delete unsuccessfully. (ret = 0xffffffff)");
    EXPECT_EQ(Calls(Call::XelMemFreeF), frees);
    EXPECT_FALSE(IsListed(timer));
    EXPECT_EQ(LiveCount(), 0U);
    EXPECT_TRUE(IsOpen(fd));
    EXPECT_EQ(timer->fd, fd);
    EXPECT_EQ(timer->magic.load(), 0xABCDEFABU);
    EXPECT_EQ(probe_.released.load(), 0);
    EXPECT_EQ(XEL_TimerStart(timer), 22U);
    EXPECT_LOG(kTimerSource, kInvalid);
    PutOnThread(timer);
    TimerAddNode(timer);
    End(timer);
}

} // namespace
