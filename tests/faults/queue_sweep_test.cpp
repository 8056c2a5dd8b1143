// Faults in light queues and service queues.
#include <utility>

#include "msgque_light/xel_msgque_light_inner.h"
#include "objects.h"
#include "service_msgque/xel_service_mq_inner.h"
#include "xel_hash.h"

namespace
{

using namespace faulttest;

// A consumer that takes all there is; its last act is to count.
struct Consumer {
    XelLightMq* queue = nullptr;
    std::atomic<bool> isReady{false};
    std::atomic<u32> taken{0};
    std::atomic<u32> wakeUps{0};
};

u32 TakeAll(u64 data)
{
    auto* consumer = reinterpret_cast<Consumer*>(data);
    u32 value = 0;
    u32 taken = 0;
    for (int tries = 0; tries < 4 && XelLightMqRead(consumer->queue, &value) == 0; ++tries) {
        ++taken;
    }
    consumer->taken.fetch_add(taken);
    consumer->wakeUps.fetch_add(1);
    return 0;
}

// Every element that was written is taken, at the latest after one more wake-up.
void DrainLightQueue(Trial& run, Consumer& consumer, u32 written)
{
    int wakeUps = 0;
    for (int tries = 0; tries < 20 && wakeUps < 3 && consumer.taken.load() < written; ++tries) {
        const u32 before = consumer.wakeUps.load();
        XelLightMqNotify(consumer.queue);
        if (AwaitTrue([&] { return consumer.wakeUps.load() > before; }, 200)) {
            ++wakeUps; // the notification was not the step that fails
        }
    }
    // A read that cannot unlock has taken its element out all the same.
    run.Expect("all is taken", [&] {
        return consumer.taken.load() >= written || run.IsFault(Call::PthreadMutexUnlock);
    });
}

void UseLightQueue(Trial& run, Consumer& consumer)
{
    XelLightMq* queue = consumer.queue;
    const u32 value = 1;
    const bool isWritten = run.Do("XelLightMqWrite",
                                  {Call::PthreadMutexLock, Call::PthreadMutexUnlock,
                                   Call::XelFlexibleQueEnqueue, Call::EventfdWrite},
                                  [&] { return XelLightMqWrite(queue, &value) == 0; });
    const bool isInside =
        isWritten || run.IsFault(Call::EventfdWrite) || run.IsFault(Call::PthreadMutexUnlock);
    if (isWritten) {
        run.Expect("the consumer runs", [&] { return consumer.wakeUps.load() > 0; });
    }
    DrainLightQueue(run, consumer, isInside ? 1 : 0);
    (void)run.Do("XelLightMqGetUsedNum", {Call::PthreadMutexLock},
                 [&] { return XelLightMqGetUsedNum(queue) == 0; });
    (void)run.Do("XelLightMqIsFull", {Call::PthreadMutexLock},
                 [&] { return !XelLightMqIsFull(queue); });
    (void)run.Do("XelLightMqIsEmpty and Clear", {}, [&] {
        XelLightMqClear(queue);
        return XelLightMqIsEmpty(queue);
    });
}

void LightLife(Trial& run, XelThreadCtrl* thread)
{
    Consumer consumer;
    XelLightMqConfig config = {4, sizeof(u32), "light", TakeAll, reinterpret_cast<u64>(&consumer)};
    (void)run.Do(
        "XelLightMqCreate",
        {Call::PthreadMutexInit, Call::XelFlexibleQueCreate, Call::Eventfd, TASK_FATALS,
         Fatal(Call::StrcpyS, 1), Fatal(Call::StrncpyS, 1), EventList(), TaskTable()},
        [&] { return (consumer.queue = XelLightMqCreate(thread, &config)) != nullptr; },
        Lines::Silent);
    if (consumer.queue == nullptr) {
        return;
    }
    CheckedLocks::Set(&consumer.queue->mutex);
    UseLightQueue(run, consumer);
    XelEventNode* event = consumer.queue->event;
    const u32 events = g_xelEventList.count;
    XelLightMqDestroy(consumer.queue);
    if (g_xelEventList.count == events) { // the list could not be locked: the event is still there
        EXPECT_TRUE(run.IsFault(Call::PthreadRwlockWrlock));
        EndEvent(run, event);
    } else {
        FreeLeftBlock(run, event);
    }
    MayLeaveBoundTasks(run);
}

constexpr char kService[] = "sweep-service";

void CountMessage(XelServiceMsg* /*message*/, void* data)
{
    static_cast<Counts*>(data)->runs.fetch_add(1);
}

const XelServiceMqEntry* FindService()
{
    return static_cast<const XelServiceMqEntry*>(
        XelHashDllEntryLkup(g_xelServiceMqMng.table, kService));
}

void UseService(Trial& run, const Counts& counts)
{
    const XelServiceMqEntry* entry = FindService();
    ASSERT_NE(entry, nullptr);
    XelLightMq* queue = entry->mq->queue;
    CheckedLocks::Set(&queue->mutex);
    char body[] = "body";
    const XelServiceMsg message = {"sweep", 1, body, sizeof(body)};
    const bool isSent = run.Do(
        "XEL_ServiceMqSendMsg",
        {Call::XelMemAllocF, Call::StrncpyS, Call::XelFlexibleQueEnqueue, Call::EventfdWrite,
         Fatal(Call::PthreadMutexLock, &queue->mutex),
         Fatal(Call::PthreadMutexUnlock, &queue->mutex)},
        [&] { return XEL_ServiceMqSendMsg(kService, &message) == 0; },
        run.IsFault(Call::XelMemAllocF) ? Lines::Silent : Lines::Logged);
    const bool wasLost = run.IsFault(Call::PthreadMutexUnlock) ||
                         run.IsFault(Call::XelFlexibleQueDequeue) ||
                         run.IsFault(Call::PthreadMutexLock);
    if (isSent && !wasLost) {
        run.Expect("the consumer runs", [&] { return counts.runs.load() == 1; });
    } else if (isSent) { // a read that failed leaves the message, or drops it: it has been tried
        run.Expect("the consumer runs, or the read failed", [&] {
            return counts.runs.load() == 1 || XelLightMqGetUsedNum(queue) == 0 || LogCount() > 0;
        });
    }
    (void)run.Do("XEL_ServiceMqGetMsgNum", {Fatal(Call::PthreadMutexLock, &queue->mutex)},
                 [&] { return XEL_ServiceMqGetMsgNum(kService) != XEL_FAIL; });
}

bool CreateService(const XelServiceMqConfig& config)
{
    return XEL_ServiceMqCreate(kService, &config, nullptr) == 0;
}

#define SERVICE_FATALS                                                                             \
    Call::PthreadMutexInit, Call::XelFlexibleQueCreate, Call::Eventfd, TASK_FATALS,                \
        Fatal(Call::StrcpyS, 1), Fatal(Call::StrcpyS, 3, 3), Fatal(Call::StrncpyS, 2, 2),          \
        Call::XelHashDllTblCreate, Call::XelHashDllEntryAdd, EventList(), TaskTable()

// Destruction does not wait for a consumer: the thread has to be past it.
void EndService(Trial& run)
{
    const XelLightMq* queue = FindService()->mq->queue;
    CheckedLocks::Set(&queue->mutex);
    XelEventNode* event = queue->event;
    const u32 events = g_xelEventList.count;
    XEL_ServiceMqDestroy(kService);
    EXPECT_EQ(FindService(), nullptr);
    if (g_xelEventList.count == events) {
        EXPECT_TRUE(run.IsFault(Call::PthreadRwlockWrlock));
        EndEvent(run, event);
    } else {
        FreeLeftBlock(run, event);
    }
    MayLeaveBoundTasks(run);
}

void ServiceLife(Trial& run, XelThreadCtrl* thread, Counted& counted)
{
    Counts counts;
    const XelServiceMqConfig config = {4, thread, CountMessage, &counts};
    if (run.Do("XEL_ServiceMqCreate", {SERVICE_FATALS}, [&] { return CreateService(config); })) {
        UseService(run, counts);
        UseThread(run, thread, counted);
        EndService(run);
    }
}

// The table of services is made anew in each run; a creation that failed is made again.
void FirstServiceLife(Trial& run, XelThreadCtrl* thread)
{
    Counts counts;
    const XelServiceMqConfig config = {4, thread, CountMessage, &counts};
    void* table = std::exchange(g_xelServiceMqMng.table, nullptr);
    g_xelServiceMqMng.inited.store(0);
    run.End("the first XEL_ServiceMqCreate", {SERVICE_FATALS},
            [&] { return CreateService(config); });
    EndService(run);
    XelHashDllTblDestroy(g_xelServiceMqMng.table);
    g_xelServiceMqMng.table = table;
    g_xelServiceMqMng.inited.store(1);
}

using FaultsInLightQueuesSlow = Objects;
using FaultsInServiceQueuesSlow = Objects;

TEST_F(FaultsInLightQueuesSlow, LeaveNothing)
{
    SweepBoth("light queues", "queue and consumer", LightLife);
}

TEST_F(FaultsInServiceQueuesSlow, LeaveNothing)
{
    SweepBoth("service queues", "service and message",
              [this](Trial& run) { ServiceLife(run, worker_->Get(), *counted_); });
}

TEST_F(FaultsInServiceQueuesSlow, OfTheFirstServiceCanBeRepeated)
{
    SweepBoth("service queues", "first service", FirstServiceLife);
}

} // namespace
