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

#endif // XEL_MSGQUE_LIGHT_INNER_H
