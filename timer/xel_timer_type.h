// What the list of timers needs of timers and types.
#ifndef XEL_TIMER_TIMER_TYPE_H
#define XEL_TIMER_TIMER_TYPE_H

#include "timer/xel_timer_list.h"

// Takes a timer off its scheduler. False (logged) when the scheduler
// refuses; then nothing was changed. The caller holds the write side of the timer lock.
bool TimerDetachNode(XelTimerNode* node);

// The data of the node's type when the node has none of its own, else null. The caller holds the
// group mutex.
TimerTypeData* TimerSharedTypeData(const XelTimerNode* node);

#endif // XEL_TIMER_TIMER_TYPE_H
