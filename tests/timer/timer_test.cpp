// Timers: attributes, arming, expiry, and the end on the timer's own thread.
#include <sys/timerfd.h>

#include "thread_support.h"
#include "timer/xel_timer_inner.h"

using namespace threadtest;
using xeltest::Warning;

namespace
{

const xeltest::LogSource kSource{"timer/xel_timer", 69};

std::atomic<u64> g_expirations{0};
std::atomic<int> g_runs{0};
std::atomic<int> g_released{0};
std::atomic<u32> g_result{0};

u32 OnTimer(XelTimerNode* /*timer*/, u64 expirations, void* /*userData*/)
{
    g_expirations += expirations;
    ++g_runs;
    return g_result;
}

u32 DestroyOnTimer(XelTimerNode* timer, u64 /*expirations*/, void* /*userData*/)
{
    ++g_runs;
    XEL_TimerDestroy(timer);
    return 0;
}

void Release(void* /*userData*/)
{
    ++g_released;
}

class TimerAttr
{
public:
    explicit TimerAttr(u32 mode, u32 timeoutMs, XelTimerProc proc = OnTimer)
        : attr_(XEL_TimerCreateAttr())
    {
        const XelTimerUsrCb callback = {proc, &g_runs};
        EXPECT_EQ(XelTimerSetAllAttr(attr_, &callback, &mode, &timeoutMs, "tick"), 0U);
        EXPECT_EQ(XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_DESTRUCTOR,
                                   reinterpret_cast<const void*>(Release), 8),
                  0U);
    }
    TimerAttr(const TimerAttr&) = delete;
    TimerAttr& operator=(const TimerAttr&) = delete;
    ~TimerAttr() { XEL_TimerDestroyAttr(attr_); }
    XelTimerAttr* Get() const { return attr_; }

private:
    XelTimerAttr* attr_;
};

class TimerTest : public xeltest::CleanProcess
{
protected:
    void SetUp() override
    {
        CleanProcess::SetUp();
        g_expirations = 0;
        g_runs = 0;
        g_released = 0;
        g_result = 0;
    }

    // Both the list and the thread have let go of every timer.
    static bool AllGone()
    {
        return AwaitTrue([] { return LiveCount() == 0; });
    }

    static u32 LiveCount()
    {
        pthread_rwlock_rdlock(&g_xelTimerCtrl.timerLock);
        const u32 count = g_xelTimerCtrl.timerCount;
        pthread_rwlock_unlock(&g_xelTimerCtrl.timerLock);
        return count;
    }
};

} // namespace

TEST_F(TimerTest, AttributesRefuseWhatTheyMust)
{
    XelTimerAttr* attr = XEL_TimerCreateAttr();
    u32 value = 2;
    EXPECT_EQ(XEL_TimerSetAttr(nullptr, 0, &value, 4), 22U);
    EXPECT_EQ(XEL_TimerSetAttr(attr, 5, &value, 4), 22U);
    EXPECT_EQ(XEL_TimerSetAttr(attr, 1, nullptr, 4), 22U);
    EXPECT_LOG(kSource, "Timer attr param invalid.", "Timer attr param invalid.",
               "Timer attr param invalid.");
    EXPECT_EQ(XEL_TimerSetAttr(attr, XEL_TIMER_ATTR_MODE, &value, 4), kFail);
    EXPECT_EQ(XEL_TimerSetAttr(attr, XEL_TIMER_ATTR_NAME, "sixteencharacter", 16), kFail);
    EXPECT_EQ(XEL_TimerSetAttr(attr, XEL_TIMER_ATTR_NAME, "longer", 3), kFail);
    EXPECT_LOG(kSource, "Timer attr timer mode invalid. (mode = 2)",
               "Timer attr set unsuccessfully. (ret = 0x16, cmd = 1)",
               "Timer attr name out of range. (name len = 16)",
               "Timer attr set unsuccessfully. (ret = 0x16, cmd = 3)",
               "Timer attr name length too long, (name len = 6, len = 3).",
               "Timer attr set unsuccessfully. (ret = 0x16, cmd = 3)");
    EXPECT_EQ(XEL_TimerSetAttr(attr, XEL_TIMER_ATTR_NAME, "fifteencharacte", 15), 0U);
    XEL_TimerDestroyAttr(attr);
    XEL_TimerDestroyAttr(nullptr);
    EXPECT_LOG(kSource, "Timer attr handle invalid.");
}

TEST_F(TimerTest, OneShotRunsOnceAndFreesItself)
{
    Worker worker;
    const TimerAttr attr(XEL_TIMER_MODE_ONE_SHOT, 5);
    XelTimerNode* timer = XEL_TimerCreate(worker.Get(), attr.Get());
    ASSERT_NE(timer, nullptr);
    ASSERT_EQ(XEL_TimerStart(timer), 0U);
    ASSERT_TRUE(AllGone());
    ASSERT_TRUE(AwaitTrue([] { return g_released == 1; }));
    EXPECT_EQ(g_runs, 1);
    u32 remain = 7;
    EXPECT_EQ(XEL_TimerStart(timer), 22U);
    EXPECT_EQ(XEL_TimerStop(timer), 22U);
    EXPECT_EQ(XEL_TimerResize(timer, 5), 22U);
    EXPECT_EQ(TimerGetTimerRemainTime(timer, &remain), kFail);
    XEL_TimerDestroy(timer);
    EXPECT_EQ(remain, 7U);
    EXPECT_LOG(kSource, "Timer handle invalid.", "Timer handle invalid.", "Timer handle invalid.",
               "Timer handle invalid.", "Timer handle invalid.");
}

TEST_F(TimerTest, PeriodicRunsUntilDestroyed)
{
    Worker worker;
    const TimerAttr attr(XEL_TIMER_MODE_PERIODIC, 2);
    XelTimerNode* timer = XEL_TimerCreate(worker.Get(), attr.Get());
    ASSERT_EQ(XEL_TimerStart(timer), 0U);
    ASSERT_TRUE(AwaitTrue([] { return g_runs >= 5; }));
    EXPECT_GE(g_expirations, 5U);
    EXPECT_EQ(XEL_TimerResize(timer, 60000), 0U);
    u32 remain = 0;
    EXPECT_EQ(TimerGetTimerRemainTime(timer, &remain), 0U);
    EXPECT_LE(remain, 60000U);
    EXPECT_GT(remain, 30000U);
    XEL_TimerDestroy(timer);
    XEL_TimerDestroy(timer);
    ASSERT_TRUE(AwaitTrue([] { return g_released == 1; }));
    EXPECT_LOG(kSource, "Timer handle invalid.");
}

TEST_F(TimerTest, LateCallbackLearnsHowManyPeriodsWentBy)
{
    Worker worker;
    const TimerAttr attr(XEL_TIMER_MODE_PERIODIC, 2);
    XelTimerNode* timer = XEL_TimerCreate(worker.Get(), attr.Get());
    {
        HeldWorker held(worker);
        ASSERT_EQ(XEL_TimerStart(timer), 0U);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        held.Open();
    }
    ASSERT_TRUE(AwaitTrue([] { return g_runs >= 1; }));
    EXPECT_GE(g_expirations, 9U);
    XEL_TimerDestroy(timer);
    ASSERT_TRUE(AllGone());
}

TEST_F(TimerTest, TimeoutOfZeroNeverFiresAndStopDisarms)
{
    Worker worker;
    const TimerAttr attr(XEL_TIMER_MODE_PERIODIC, 0);
    XelTimerNode* timer = XEL_TimerCreate(worker.Get(), attr.Get());
    EXPECT_EQ(XEL_TimerStart(timer), 0U);
    EXPECT_EQ(XEL_TimerResize(timer, 50000), 0U);
    EXPECT_EQ(XEL_TimerStop(timer), 0U);
    u32 remain = 7;
    EXPECT_EQ(TimerGetTimerRemainTime(timer, &remain), 0U);
    EXPECT_EQ(remain, 0U);
    XEL_TimerDestroy(timer);
    ASSERT_TRUE(AllGone());
    EXPECT_EQ(g_runs, 0);
}

TEST_F(TimerTest, OneShotCannotBeResized)
{
    Worker worker;
    const TimerAttr attr(XEL_TIMER_MODE_ONE_SHOT, 50000);
    XelTimerNode* timer = XEL_TimerCreate(worker.Get(), attr.Get());
    u32 remain = 7;
    EXPECT_EQ(XEL_TimerResize(timer, 5), kFail);
    EXPECT_EQ(TimerGetTimerRemainTime(timer, &remain), kFail);
    EXPECT_LOG(kSource, "Timer not periodic mode, restart unsuccessfully.",
               "Timer not periodic mode, get remain time unsuccessfully.");
    EXPECT_EQ(timer->timeout, 50000U);
    XEL_TimerDestroy(timer);
    ASSERT_TRUE(AllGone());
}

TEST_F(TimerTest, FailingCallbackIsReportedAndAPeriodicTimerGoesOn)
{
    Worker worker;
    g_result = 5;
    const TimerAttr attr(XEL_TIMER_MODE_PERIODIC, 2);
    XelTimerNode* timer = XEL_TimerCreate(worker.Get(), attr.Get());
    const int fd = timer->fd;
    ASSERT_EQ(XEL_TimerStart(timer), 0U);
    ASSERT_TRUE(AwaitTrue([] { return g_runs >= 2; }));
    XEL_TimerDestroy(timer);
    ASSERT_TRUE(AllGone());
    worker.Destroy();
    const std::string line = Text("Timer proc unsuccessfully. (retUsr = 5, timerfd = %d)", fd);
    int lines = 0;
    for (const std::string& text : xeltest::TakeTexts()) {
        lines += text == line ? 1 : 0;
    }
    EXPECT_EQ(lines, g_runs);
}

TEST_F(TimerTest, CallbackMayDestroyItsOwnTimer)
{
    Worker worker;
    const TimerAttr attr(XEL_TIMER_MODE_PERIODIC, 1, DestroyOnTimer);
    ASSERT_EQ(XEL_TimerStart(XEL_TimerCreate(worker.Get(), attr.Get())), 0U);
    ASSERT_TRUE(AwaitTrue([] { return g_released == 1; }));
    EXPECT_EQ(g_runs, 1);
}

TEST_F(TimerTest, SlowCallbackIsReportedFrom400Milliseconds)
{
    Worker worker;
    const TimerAttr attr(XEL_TIMER_MODE_PERIODIC, 0);
    XelTimerNode* timer = XEL_TimerCreate(worker.Get(), attr.Get());
    struct itimerspec soon = {};
    soon.it_value.tv_nsec = 1;
    for (const u64 end : {1399U, 1400U}) {
        xeltest::ScriptMilliSec({1000, end});
        const int runs = g_runs;
        ASSERT_EQ(timerfd_settime(timer->fd, 0, &soon, nullptr), 0);
        ASSERT_TRUE(AwaitTrue([runs] { return g_runs > runs; }));
        worker.Run([] {}); // the line, if any, is written
    }
    xeltest::UseRealClock();
    const auto lines = xeltest::TakeLog();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].level, 80U);
    EXPECT_EQ(lines[0].text.find(Text("Timer proc timeout. (retUsr = 0, timerfd = %d, startTime = "
                                      "1000,timeout = 400, func = ",
                                      timer->fd)),
              0U);
    XEL_TimerDestroy(timer);
    ASSERT_TRUE(AllGone());
}

TEST_F(TimerTest, EveryFailingStepOfCreationIsUndone)
{
    Worker worker;
    const TimerAttr attr(XEL_TIMER_MODE_ONE_SHOT, 5);
    EXPECT_EQ(XEL_TimerCreate(nullptr, attr.Get()), nullptr);
    EXPECT_LOG(kSource, "Invalid parameters.");
    xeltest::FailNth(Call::TimerfdCreate, 1, -1, EMFILE);
    EXPECT_EQ(XEL_TimerCreate(worker.Get(), attr.Get()), nullptr);
    EXPECT_LOG(kSource, "Timer node create unsuccessfully.");
    xeltest::FailNth(Call::XelMemAllocF, 1, 0, ENOMEM);
    EXPECT_EQ(XEL_TimerCreate(worker.Get(), attr.Get()), nullptr);
    EXPECT_LOG(kSource, "Timer node memory malloc null.",
               "Timer create node unsuccessfully, create scheduler task unsuccessfully.",
               "Timer node create unsuccessfully.");
    xeltest::FailNth(Call::XelMemAllocF, 2, 0, ENOMEM);
    EXPECT_EQ(XEL_TimerCreate(worker.Get(), attr.Get()), nullptr);
    EXPECT_LOG(kSource, "Timer task attribute create unsuccessfully.",
               "Timer create node unsuccessfully, create scheduler task unsuccessfully.",
               "Timer node create unsuccessfully.");
    EXPECT_EQ(LiveCount(), 0U);
}

TEST_F(TimerTest, StopThatRacesDestroyNeverKeepsTheTimerAlive)
{
    Worker worker;
    const TimerAttr attr(XEL_TIMER_MODE_PERIODIC, 1);
    constexpr int kRounds = 200;
    for (int round = 0; round < kRounds; ++round) {
        XelTimerNode* timer = XEL_TimerCreate(worker.Get(), attr.Get());
        std::atomic<bool> go{false};
        Runner stopper([&] {
            while (!go) {
            }
            (void)XEL_TimerStop(timer);
        });
        go = true;
        XEL_TimerDestroy(timer);
        stopper.Join();
        ASSERT_TRUE(AllGone()) << "round " << round;
    }
    ASSERT_TRUE(AwaitTrue([] { return g_released == kRounds; }));
    (void)xeltest::TakeLog(); // a stop that came last was refused
}
