// The light message queue: a mutex around a flexible queue, and one event. Writers on any thread,
// the consumer on the event's scheduler thread. The event is notified while the mutex is held, so
// that elements and wake-ups are paired one to one and in order.
#include "msgque_light/xel_msgque_light_inner.h"

#include <atomic>

#include <pthread.h>

#include "common/xel_barrier.h"
#include "common/xel_lock_guard.h"
#include "common/xel_memory.h"
#include "event/xel_event_list.h"
#include "xel_queue.h"

namespace
{

constexpr u32 kQueueMode = 8;

// A writer keeps the mutex through its notification, a system call that wakes the consumer, who
// wants the mutex at once. Falling asleep for the rest of that call costs both sides several times
// its length. So whoever comes looks first whether a notification is under way, and gives it a
// moment. The marks are hints: queues share them, and one that is lost costs a sleep.
constexpr u32 kMarkCount = 64;
constexpr u32 kLooks = 50;

struct alignas(64) Mark {
    std::atomic<u32> isNotifying;
};

constinit Mark g_marks[kMarkCount] = {};

std::atomic<u32>& MarkOf(const XelLightMq* queue)
{
    return g_marks[reinterpret_cast<uintptr_t>(queue) / alignof(Mark) % kMarkCount].isNotifying;
}

void AwaitNotification(const XelLightMq* queue)
{
    const std::atomic<u32>& mark = MarkOf(queue);
    for (u32 i = 0; i < kLooks && mark.load(std::memory_order_relaxed) != 0; ++i) {
        CpuRelax();
    }
}

// One notification under the mutex; lives until the mutex has been given back.
class Notifying : NoCopy
{
public:
    explicit Notifying(const XelLightMq* queue) : mark_(MarkOf(queue)) {}
    ~Notifying() { mark_.store(0, std::memory_order_relaxed); }

    void Begin() { mark_.store(1, std::memory_order_relaxed); }

private:
    std::atomic<u32>& mark_;
};

// Takes the mutex and reports a failure. errno and result are one here: a pthread function returns
// its error number.
bool Lock(XelLightMq* queue)
{
    AwaitNotification(queue);
    const int error = pthread_mutex_lock(&queue->mutex);
    if (error != 0) {
        XEL_LOG_FAIL(kLightMqLog, "[CONN] Mutex lock unsuccessfully. (errno = %d)", error);
    }
    return error == 0;
}

bool Unlock(XelLightMq* queue)
{
    const int error = pthread_mutex_unlock(&queue->mutex);
    if (error != 0) {
        XEL_LOG_FAIL(kLightMqLog, "[CONN] Mutex unlock unsuccessfully. (errno = %d)", error);
    }
    return error == 0;
}

// One look at or change of the queue under the mutex; lockFailed answers when it cannot be taken.
template <typename Result, typename Body>
Result UnderLock(XelLightMq* queue, Result lockFailed, Body&& body)
{
    if (!Lock(queue)) {
        return lockFailed;
    }
    const Result result = body();
    (void)Unlock(queue);
    return result;
}

// As above, where a failing unlock is a failure of the operation.
template <typename Body>
u32 UnderStrictLock(XelLightMq* queue, Body&& body)
{
    if (!Lock(queue)) {
        return XEL_FAIL;
    }
    const u32 result = body();
    return Unlock(queue) ? result : XEL_FAIL;
}

// Writes one element and wakes the consumer; *isQueued tells whether the element is inside, which
// it stays even when the wake-up fails.
u32 EnqueueAndNotify(XelLightMq* queue, const void* element, bool* isQueued)
{
    u32 ret = XelFlexibleQueEnqueue(queue->queue, element);
    *isQueued = ret == XEL_OK;
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kLightMqLog, "[CONN] Message queue write, enque unsuccessfully. (ret = %x)",
                     ret);
        return ret;
    }
    ret = XEL_EventNotify(queue->event);
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kLightMqLog,
                     "[CONN] Message queue write, event notify unsuccessfully. (ret = %x)", ret);
    }
    return ret;
}

// Fills a cleared record; what was made before a failure is undone.
bool Construct(XelLightMq* queue, XelThreadCtrl* thread, const XelLightMqConfig* config)
{
    if (pthread_mutex_init(&queue->mutex, nullptr) != 0) {
        return false;
    }
    queue->queue = XelFlexibleQueCreate(config->elemSize, kQueueMode, config->capacity);
    if (queue->queue == nullptr) {
        (void)pthread_mutex_destroy(&queue->mutex);
        return false;
    }
    queue->event = XelEventInnerCreate(thread, config->callback, config->name, config->userData);
    if (queue->event == nullptr) {
        XelFlexibleQueDestroy(queue->queue);
        (void)pthread_mutex_destroy(&queue->mutex);
        return false;
    }
    return true;
}

} // namespace

XelLightMq* XelLightMqCreate(XelThreadCtrl* thread, const XelLightMqConfig* config)
{
    auto* queue = XEL_ALLOC_RECORD(XelLightMq, kLightMqLog);
    if (queue == nullptr) {
        return nullptr;
    }
    if (!Construct(queue, thread, config)) {
        XEL_FREE(kLightMqLog, queue);
        return nullptr;
    }
    return queue;
}

// The event goes first: its callback must not find a queue that is gone.
void XelLightMqDestroy(XelLightMq* queue)
{
    XEL_EventDestroy(queue->event);
    LightMqFree(queue);
}

void LightMqCountRuns(XelLightMq* queue)
{
    EventCountRuns(queue->event);
}

void LightMqEndThen(XelLightMq* queue, void (*release)(void* data), void* data)
{
    EventDestroyThen(queue->event, release, data);
}

void LightMqFree(XelLightMq* queue)
{
    XelFlexibleQueDestroy(queue->queue);
    (void)pthread_mutex_destroy(&queue->mutex);
    XEL_FREE(kLightMqLog, queue);
}

uint32_t XelLightMqWrite(XelLightMq* queue, const void* element)
{
    bool isQueued = false;
    return LightMqWriteNoting(queue, element, &isQueued);
}

u32 LightMqWriteNoting(XelLightMq* queue, const void* element, bool* isQueued)
{
    *isQueued = false;
    Notifying notifying(queue);
    return UnderStrictLock(queue, [&] {
        notifying.Begin();
        return EnqueueAndNotify(queue, element, isQueued);
    });
}

uint32_t XelLightMqRead(XelLightMq* queue, void* buffer)
{
    return UnderStrictLock(queue, [&] { return XelFlexibleQueDequeue(queue->queue, buffer); });
}

uint32_t XelLightMqGetFront(XelLightMq* queue, void* buffer)
{
    return UnderStrictLock(queue, [&] { return XelFlexibleQueGetFront(queue->queue, buffer); });
}

void XelLightMqClear(XelLightMq* queue)
{
    (void)UnderLock(queue, false, [&] {
        XelFlexibleQueClear(queue->queue);
        return true;
    });
}

// A queue that cannot be locked counts as full, so that producers stop.
bool XelLightMqIsFull(XelLightMq* queue)
{
    return UnderLock(queue, true, [&] { return XelIsFlexibleQueFull(queue->queue); });
}

// And as empty, so that a draining loop ends.
bool XelLightMqIsEmpty(XelLightMq* queue)
{
    return UnderLock(queue, true, [&] { return XelIsFlexibleQueEmpty(queue->queue); });
}

uint32_t XelLightMqGetUsedNum(XelLightMq* queue)
{
    int error = pthread_mutex_lock(&queue->mutex);
    if (error != 0) {
        XEL_LOG_FAIL(kLightMqLog, "[LMQ]Mutex lock unsuccessfully. (errno = %d)", error);
        return XEL_FAIL;
    }
    const u32 used = XelFlexibleQueGetUsedNum(queue->queue);
    error = pthread_mutex_unlock(&queue->mutex);
    if (error != 0) {
        XEL_LOG_FAIL(kLightMqLog, "[LMQ] Mutex unlock unsuccessfully. (errno = %d)", error);
    }
    return used;
}

void XelLightMqNotify(XelLightMq* queue)
{
    (void)UnderLock(queue, false, [&] {
        if (!XelIsFlexibleQueEmpty(queue->queue)) {
            const u32 ret = XEL_EventNotify(queue->event);
            if (ret != XEL_OK) {
                XEL_LOG_FAIL(kLightMqLog, "[CONN] Event notify unsuccessfully. (ret = %x)", ret);
            }
        }
        return true;
    });
}
