// Helpers of the tests of timers.
#include "timer_support.h"

#include <cstring>
#include <poll.h>
#include <utility>

namespace timertest
{

bool Probe::AwaitRuns(int count) const
{
    return AwaitTrue([this, count] { return runs.load() >= count; });
}

bool Probe::AwaitReleased() const
{
    return AwaitTrue([this] { return released.load() > 0; });
}

u32 RunProbe(XelTimerNode* timer, u64 expirations, void* userData)
{
    auto* probe = static_cast<Probe*>(userData);
    probe->expirations.fetch_add(expirations);
    const u32 result = probe->result.load();
    if (probe->onRun) {
        probe->onRun(timer);
    }
    EXPECT_EQ(probe->released.load(), 0) << "released under its callback";
    probe->runs.fetch_add(1);
    return result;
}

void ReleaseProbe(void* userData)
{
    auto* probe = static_cast<Probe*>(userData);
    if (probe->onRelease) {
        probe->onRelease();
    }
    probe->released.fetch_add(1);
}

TimerAttr::TimerAttr(Probe* probe, u32 mode, u32 timeoutMs, const char* name, XelTimerProc proc)
    : attr_(XEL_TimerCreateAttr())
{
    EXPECT_NE(attr_, nullptr);
    const XelTimerUsrCb callback = {proc, probe};
    EXPECT_EQ(XelTimerSetAllAttr(attr_, &callback, &mode, &timeoutMs, name), 0U);
    EXPECT_EQ(XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_DESTRUCTOR,
                               reinterpret_cast<const void*>(ReleaseProbe), 8),
              0U);
}

Timer::Timer(Worker& worker, const TimerAttr& attr)
    : worker_(worker), timer_(XEL_TimerCreate(worker.Get(), attr.Get()))
{
    EXPECT_NE(timer_, nullptr);
}

void Timer::Destroy()
{
    if (timer_ != nullptr) {
        XelTimerNode* timer = Release();
        XEL_TimerDestroy(timer);
        AwaitGone(worker_, timer);
    }
}

XelTimerNode* Timer::Release()
{
    return std::exchange(timer_, nullptr);
}

bool IsListed(const XelTimerNode* timer)
{
    pthread_rwlock_rdlock(&g_xelTimerCtrl.timerLock);
    const bool listed = TimerIsNodeInList(timer);
    pthread_rwlock_unlock(&g_xelTimerCtrl.timerLock);
    return listed;
}

u32 LiveCount()
{
    pthread_rwlock_rdlock(&g_xelTimerCtrl.timerLock);
    const u32 count = g_xelTimerCtrl.timerCount;
    pthread_rwlock_unlock(&g_xelTimerCtrl.timerLock);
    return count;
}

// The teardown is over when a later callback runs.
void AwaitGone(Worker& worker, const XelTimerNode* timer)
{
    EXPECT_TRUE(AwaitTrue([timer] { return !IsListed(timer); }));
    worker.Run([] {});
}

u32 Proc(XelTimerNode* timer, u32 mask)
{
    struct epoll_event events = {};
    events.events = mask;
    return TimerFdEventProc(&events, reinterpret_cast<u64>(timer));
}

struct itimerspec SettingOf(int fd)
{
    struct itimerspec spec = {};
    EXPECT_EQ(timerfd_gettime(fd, &spec), 0);
    return spec;
}

u64 MsOf(const struct timespec& time)
{
    return static_cast<u64>(time.tv_sec) * 1000 + static_cast<u64>(time.tv_nsec) / 1000000;
}

void Expire(const XelTimerNode* timer)
{
    struct itimerspec soon = {};
    soon.it_value.tv_nsec = 1;
    EXPECT_EQ(timerfd_settime(timer->fd, 0, &soon, nullptr), 0);
    struct pollfd ready = {timer->fd, POLLIN, 0};
    EXPECT_EQ(poll(&ready, 1, 10000), 1);
}

void TakeOffThread(const XelTimerNode* timer)
{
    EXPECT_EQ(DelFd(timer->thread, timer->fd), 0U);
}

void PutOnThread(XelTimerNode* timer)
{
    TaskSpec spec;
    spec.proc = TimerFdEventProc;
    spec.data = reinterpret_cast<u64>(timer);
    EXPECT_EQ(AddFd(timer->thread, timer->fd, spec), 0U);
}

ExpectedLine NoTask()
{
    return From(kSchSource, "Sch delete fd unsuccessfully, invalid task handle.");
}

ExpectedLine NotRemoved(int fd)
{
    return From(kSchSource,
                Text("Sch operation unsuccessfully. (fd = %d, op = 2, ret = 0xffffffff)", fd));
}

void TimerTest::SetUp()
{
    ThreadTest::SetUp();
    ASSERT_EQ(g_xelTimerCtrl.timerCount, 0U);
    ASSERT_EQ(g_xelTimerCtrl.groupCount, 0U);
}

void TimerTest::TearDown()
{
    ThreadTest::TearDown();
    EXPECT_EQ(g_xelTimerCtrl.timerCount, 0U);
    EXPECT_EQ(g_xelTimerCtrl.timerList.next, &g_xelTimerCtrl.timerList);
    EXPECT_EQ(g_xelTimerCtrl.timerList.prev, &g_xelTimerCtrl.timerList);
    EXPECT_EQ(g_xelTimerCtrl.groupCount, 0U);
    EXPECT_EQ(g_xelTimerCtrl.groupList.next, &g_xelTimerCtrl.groupList);
    EXPECT_EQ(g_xelTimerCtrl.groupList.prev, &g_xelTimerCtrl.groupList);
}

void TimerThreadTest::SetUp()
{
    TimerTest::SetUp();
    worker_ = std::make_unique<Worker>();
    worker_->Run([] {});
}

void TimerThreadTest::TearDown()
{
    worker_.reset();
    TimerTest::TearDown();
}

} // namespace timertest
