// What the tests of timer groups and types share.
#ifndef XEL_TESTS_TIMER_GROUP_SUPPORT_H
#define XEL_TESTS_TIMER_GROUP_SUPPORT_H

#include "timer_support.h"

namespace timertest
{

constexpr u32 kGroup = 5;
constexpr u32 kType = 1;

inline bool GroupMutexIsHeld()
{
    if (pthread_mutex_trylock(&g_xelTimerCtrl.groupMutex) != 0) {
        return true;
    }
    pthread_mutex_unlock(&g_xelTimerCtrl.groupMutex);
    return false;
}

// Fixture: a group that is destroyed at the end, if it still lives.
class TimerGroupTest : public TimerThreadTest
{
protected:
    void SetUp() override
    {
        TimerThreadTest::SetUp();
        ASSERT_EQ(XEL_TimerCreateGroup(kGroup), 0U);
        group_ = TimerGetGroupByGroupId(kGroup);
    }
    // The probes of timers and types that a test made must be released before it returns.
    void TearDown() override
    {
        if (TimerGetGroupByGroupId(kGroup) != nullptr) {
            XEL_TimerDestroyGroup(kGroup);
        }
        TimerThreadTest::TearDown();
    }
    u32 AddType(Probe* data, u32 mode = XEL_TIMER_MODE_PERIODIC, u32 timeoutMs = kLongMs,
                u32 typeId = kType)
    {
        return XEL_TimerAddTimerType(kGroup, typeId, worker_->Get(),
                                     TimerAttr(data, mode, timeoutMs, "type").Get());
    }
    XelTimerType* TypeOf(u32 typeId = kType) { return TimerGetTypeByTypeId(group_, typeId); }

    XelTimerGroup* group_ = nullptr;
};

// With the user data of a type and that of one timer.
class TimerOfType : public TimerGroupTest
{
protected:
    Probe typeData_;
    Probe own_;
};

} // namespace timertest

#endif // XEL_TESTS_TIMER_GROUP_SUPPORT_H
