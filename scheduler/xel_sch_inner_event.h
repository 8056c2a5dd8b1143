// Waking a dispatcher for a destroyer: how many times, and with what.
#ifndef XEL_SCHEDULER_SCH_INNER_EVENT_H
#define XEL_SCHEDULER_SCH_INNER_EVENT_H

#include "scheduler/xel_scheduler_inner.h"

// Writes the inner event. Returns whether the wake-up is on its way; a failure is logged.
bool InnerEventNotify(SchTaskCtrl* inner);

// Writes it again while the destroyer waits; silent, since the next attempt follows.
void InnerEventRepeat(SchTaskCtrl* inner);

#endif // XEL_SCHEDULER_SCH_INNER_EVENT_H
