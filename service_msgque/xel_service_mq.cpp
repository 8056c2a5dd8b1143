// The queue of one service: message bodies copied into tracked memory, queued in a light queue, and
// handed to the consumer on the service's scheduler thread. A body is freed by whoever takes its
// message out: the consumer's wake-up, or the destruction of the queue.
#include "service_msgque/xel_service_mq_inner.h"

#include "common/xel_memory.h"
#include "msgque_light/xel_msgque_light_inner.h"

XelServiceMq* ServiceMqCreate(const char* name, const XelServiceMqConfig* config)
{
    auto* mq = XEL_ALLOC_RECORD(XelServiceMq, kServiceMqLog);
    if (mq == nullptr) {
        XEL_LOG_FAIL(kServiceMqLog, "Service mq create unsuccessfully, no memory.");
        return nullptr;
    }
    mq->callback = config->callback;
    mq->userData = config->userData;
    // Complete before the event exists that leads here.
    mq->thread = config->thread;
    XelLightMqConfig lightConfig = {};
    lightConfig.capacity = config->depth;
    lightConfig.elemSize = sizeof(XelServiceMsg);
    (void)strncpy_s(lightConfig.name, sizeof(lightConfig.name), name, XEL_NAME_SIZE - 1);
    lightConfig.callback = ServiceMqCbWrapper;
    lightConfig.userData = reinterpret_cast<u64>(mq);
    mq->queue = XelLightMqCreate(config->thread, &lightConfig);
    if (mq->queue == nullptr) {
        XEL_LOG_FAIL(kServiceMqLog,
                     "Service mq create unsuccessfully, create message queue unsuccessfully.");
        XEL_FREE(kServiceMqLog, mq);
        return nullptr;
    }
    LightMqCountRuns(mq->queue);
    return mq;
}

namespace
{

void Release(void* data)
{
    auto* mq = static_cast<XelServiceMq*>(data);
    ServiceMqClear(mq);
    LightMqFree(mq->queue);
    XEL_FREE(kServiceMqLog, mq);
}

} // namespace

// The wake-ups end first: none finds the queue emptied under its hands. One that has begun goes on
// with the queue, and releases it at its end.
void ServiceMqDestroy(XelServiceMq* mq)
{
    if (mq != nullptr) {
        LightMqEndThen(mq->queue, Release, mq);
    }
}

// A queue whose mutex fails counts as empty, which ends the loop. A failed read that took nothing
// leaves a null body.
void ServiceMqClear(XelServiceMq* mq)
{
    while (!XelLightMqIsEmpty(mq->queue)) {
        XelServiceMsg message = {};
        (void)XelLightMqRead(mq->queue, &message);
        XEL_FREE(kServiceMqLog, message.data);
    }
}

// A message whose wake-up failed stays queued and keeps its body, although the sender sees the
// error; only one that was not queued is freed here.
u32 ServiceMqSendMsg(XelServiceMq* mq, const XelServiceMsg* message)
{
    void* body = XEL_ALLOC(kServiceMqLog, message->len);
    if (body == nullptr) {
        return XEL_ENOMEM;
    }
    (void)memcpy_s(body, message->len, message->data, message->len);
    XelServiceMsg queued = {};
    queued.code = message->code;
    const int error =
        strncpy_s(queued.name, sizeof(queued.name), message->name, XEL_SERVICE_NAME_SIZE - 1);
    if (error != 0) {
        XEL_FREE(kServiceMqLog, body);
        XEL_LOG_FAIL(kServiceMqLog, "Service mq send unsuccessfully. (ret = %d)", error);
        return XEL_EINVAL;
    }
    queued.data = body;
    queued.len = message->len;
    bool isQueued = false;
    const u32 ret = LightMqWriteNoting(mq->queue, &queued, &isQueued);
    if (!isQueued) {
        XEL_FREE(kServiceMqLog, body);
    }
    return ret;
}

u32 ServiceMqGetMsgNum(XelServiceMq* mq)
{
    return XelLightMqGetUsedNum(mq->queue);
}

// One wake-up takes one message. A read that failed after it took the message leaves a body to
// free, any other null. The message is the consumer's to change, so its body is kept aside.
u32 ServiceMqCbWrapper(u64 data)
{
    auto* mq = reinterpret_cast<XelServiceMq*>(data);
    XelServiceMsg message = {};
    const u32 ret = XelLightMqRead(mq->queue, &message);
    void* body = message.data;
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kServiceMqLog, "Service mq read msg unsuccessfully. (ret = %#x)", ret);
        XEL_FREE(kServiceMqLog, body);
        return ret;
    }
    mq->callback(&message, mq->userData);
    XEL_FREE(kServiceMqLog, body);
    return XEL_OK;
}
