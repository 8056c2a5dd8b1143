// Inside of the light message queue.
#ifndef XEL_MSGQUE_LIGHT_INNER_H
#define XEL_MSGQUE_LIGHT_INNER_H

#include <pthread.h>

#include "common/xel_int.h"
#include "common/xel_log_site.h"
#include "xel_msgque_light.h"

inline constexpr LogSite kLightMqLog{"msgque_light/xel_msgque_light", 85};

struct XelLightMq {
    pthread_mutex_t mutex; // guards queue; held while the event is notified
    void* queue;
    XelEventNode* event;
};

// As XelLightMqWrite; *isQueued tells whether the element is in the queue, whatever the result.
u32 LightMqWriteNoting(XelLightMq* queue, const void* element, bool* isQueued);

// XelLightMqDestroy in two steps, for an owner whose callback may be under way on another thread:
// from now on its runs are counted; its wake-ups end, and release is called with data once none is
// under way, before the return or on the queue's thread; release then frees the queue.
void LightMqCountRuns(XelLightMq* queue);
void LightMqEndThen(XelLightMq* queue, void (*release)(void* data), void* data);
void LightMqFree(XelLightMq* queue);

#endif // XEL_MSGQUE_LIGHT_INNER_H
