// What the tests of timers share: user data that counts what is done with it, attributes and timers
// that clean up after themselves, and the task callback called by hand.
#ifndef XEL_TESTS_TIMER_SUPPORT_H
#define XEL_TESTS_TIMER_SUPPORT_H

#include <atomic>
#include <string>

#include <sys/timerfd.h>

#include "thread_support.h"
#include "timer/xel_timer_inner.h"

namespace timertest
{

using namespace threadtest;
using namespace xeltest;

constexpr char kInvalid[] = "Timer handle invalid.";
constexpr u32 kLongMs = 600000; // never in a test's life

// User data of a timer. A count goes up as the last thing that a callback does with it.
struct Probe {
    std::atomic<int> runs{0};
    std::atomic<int> released{0};
    std::atomic<u64> expirations{0};
    std::atomic<u32> result{0};
    std::function<void(XelTimerNode*)> onRun = nullptr;
    std::function<void()> onRelease = nullptr;

    bool AwaitRuns(int count) const;
    bool AwaitReleased() const;
};
// Timer callback and destructor over a probe.
u32 RunProbe(XelTimerNode* timer, u64 expirations, void* userData);
void ReleaseProbe(void* userData);

// A timer attribute over a probe. A time-out of 0 stays disarmed when started.
class TimerAttr
{
public:
    explicit TimerAttr(Probe* probe, u32 mode = XEL_TIMER_MODE_PERIODIC, u32 timeoutMs = kLongMs,
                       const char* name = "timer", XelTimerProc proc = RunProbe);
    TimerAttr(const TimerAttr&) = delete;
    TimerAttr& operator=(const TimerAttr&) = delete;
    ~TimerAttr() { XEL_TimerDestroyAttr(attr_); }
    XelTimerAttr* Get() const { return attr_; }
    XelTimerAttr* operator->() const { return attr_; }

private:
    XelTimerAttr* attr_;
};

// A timer that is destroyed at the end, if it still lives; its probe is not used afterwards.
class Timer
{
public:
    Timer(Worker& worker, const TimerAttr& attr);
    Timer(Worker& worker, Probe& probe, u32 mode = XEL_TIMER_MODE_PERIODIC, u32 timeoutMs = kLongMs)
        : Timer(worker, TimerAttr(&probe, mode, timeoutMs))
    {
    }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;
    ~Timer() { Destroy(); }
    XelTimerNode* Get() const { return timer_; }
    XelTimerNode* operator->() const { return timer_; }
    void Start() const { EXPECT_EQ(XEL_TimerStart(timer_), 0U); }
    void Destroy();
    // Ended by somebody else.
    XelTimerNode* Release();

private:
    Worker& worker_;
    XelTimerNode* timer_;
};

// Under the timer lock.
bool IsListed(const XelTimerNode* timer);
u32 LiveCount();
// How the timer lock is held at this moment, by the caller or by somebody else.
inline Held TimerLockState()
{
    return HoldOf(g_xelTimerCtrl.timerLock);
}
// Waits until the thread has let go of a timer that was told to end.
void AwaitGone(Worker& worker, const XelTimerNode* timer);

// The task callback, called by the test: the timer's thread must be held meanwhile.
u32 Proc(XelTimerNode* timer, u32 mask = EPOLLIN);
// What the kernel has for a descriptor.
struct itimerspec SettingOf(int fd);
u64 MsOf(const struct timespec& time);
// Makes a timer's descriptor readable and waits until it is; the timer's interval stays off.
void Expire(const XelTimerNode* timer);

// Takes a task off its thread behind the timer's back, and puts it back.
void TakeOffThread(const XelTimerNode* timer);
void PutOnThread(XelTimerNode* timer);
// The lines of a refused removal of such a task.
ExpectedLine NoTask();
ExpectedLine NotRemoved(int fd);

// Fixture: leaves process, threads, timers and groups as found.
class TimerTest : public ThreadTest
{
protected:
    void SetUp() override;
    void TearDown() override;
};

// With a scheduler thread that has what it ever takes.
class TimerThreadTest : public TimerTest
{
protected:
    void SetUp() override;
    void TearDown() override;

    std::unique_ptr<Worker> worker_;
};

} // namespace timertest

#endif // XEL_TESTS_TIMER_SUPPORT_H
