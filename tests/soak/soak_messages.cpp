// Events, light queues and services, loaded up to refusal. Queues are ended in a callback of their
// own thread, where no consumer is in progress, so what is dropped can be counted.
#include "soak.h"

#include <cstring>
#include <string>

#include "xel_event.h"
#include "xel_msgque_light.h"
#include "xel_service_mq.h"

namespace soak
{

namespace
{

constexpr u32 kEvents = 8;
constexpr u32 kCapacity = 32;
constexpr u32 kMaxBody = 256;

u32 OnEvent(u64 data)
{
    reinterpret_cast<std::atomic<u64>*>(data)->fetch_add(1);
    Of(Book::Notifications).out.fetch_add(1);
    return 0;
}

struct Event {
    XelEventNode* node;
    std::atomic<u64> runs;
    u64 notified;
};

// Consumer's side of a light queue; only its thread touches the next number.
struct LightConsumer {
    XelLightMq* queue;
    u64 next;
};

u32 OnElement(u64 data)
{
    auto* consumer = reinterpret_cast<LightConsumer*>(data);
    u64 number = 0;
    SOAK_CHECK(XelLightMqRead(consumer->queue, &number) == XEL_OK);
    SOAK_CHECK(number == consumer->next);
    consumer->next += 1;
    Of(Book::LightElements).out.fetch_add(1);
    return 0;
}

void OnMessage(XelServiceMsg* message, void* userData)
{
    auto* next = static_cast<u32*>(userData); // only this thread touches it
    SOAK_CHECK(message->code == *next && message->len > 0 && message->len <= kMaxBody);
    const auto* body = static_cast<const u8*>(message->data);
    SOAK_CHECK(body[0] == static_cast<u8>(message->code) && body[message->len - 1] == body[0]);
    *next += 1;
    Of(Book::ServiceMessages).out.fetch_add(1);
}

} // namespace

void SoakEvents(Worker& worker)
{
    Event events[kEvents] = {};
    for (Event& event : events) {
        XelThreadCtrl* thread = SharedThread(worker.random.Below(kSharedThreads));
        event.node =
            XelEventInnerCreate(thread, OnEvent, "soak", reinterpret_cast<u64>(&event.runs));
        SOAK_CHECK(event.node != nullptr);
    }
    // One round in four is a burst.
    const u32 count = worker.random.Below(4) == 0 ? 2000 : worker.random.Below(64);
    for (u32 i = 0; i < count; ++i) {
        Event& event = events[worker.random.Below(kEvents)];
        event.notified += 1;
        Of(Book::Notifications).in.fetch_add(1);
        SOAK_CHECK(XEL_EventNotify(event.node) == XEL_OK);
    }
    for (Event& event : events) {
        Await("the runs of an event", [&event] { return event.runs.load() >= event.notified; });
        XEL_EventDestroy(event.node);
        SOAK_CHECK(event.runs.load() == event.notified);
    }
    worker.operations.fetch_add(2 * kEvents + count);
}

void SoakLightQueues(Worker& worker)
{
    XelThreadCtrl* thread = SharedThread(worker.random.Below(kSharedThreads));
    LightConsumer consumer = {};
    const XelLightMqConfig config = {kCapacity, sizeof(u64), "soak", OnElement,
                                     reinterpret_cast<u64>(&consumer)};
    consumer.queue = XelLightMqCreate(thread, &config);
    SOAK_CHECK(consumer.queue != nullptr);
    Ledger& book = Of(Book::LightElements);
    const u32 count = worker.random.Below(4 * kCapacity);
    u64 number = 0;
    for (u32 i = 0; i < count; ++i) {
        book.in.fetch_add(1);
        if (XelLightMqWrite(consumer.queue, &number) == XEL_OK) {
            number += 1;
        } else {
            book.refused.fetch_add(1);
        }
    }
    if (worker.random.Below(2) == 0) {
        Await("an empty queue", [&consumer] { return XelLightMqIsEmpty(consumer.queue); });
    }
    RunOn(thread, [&book, &consumer] {
        book.dropped.fetch_add(XelLightMqGetUsedNum(consumer.queue));
        XelLightMqDestroy(consumer.queue);
    });
    worker.operations.fetch_add(2 + count);
}

void SoakServices(Worker& worker)
{
    const std::string name = "soak.service.of.worker." + std::to_string(worker.number);
    XelThreadCtrl* thread = SharedThread(worker.random.Below(kSharedThreads));
    u32 next = 0;
    const XelServiceMqConfig config = {kCapacity, thread, OnMessage, &next};
    SOAK_CHECK(XEL_ServiceMqCreate(name.c_str(), &config, nullptr) == XEL_OK);
    SOAK_CHECK(XEL_ServiceMqCreate(name.c_str(), &config, nullptr) == XEL_FAIL);
    Ledger& book = Of(Book::ServiceMessages);
    const u32 count = worker.random.Below(4 * kCapacity);
    u8 body[kMaxBody];
    u32 code = 0;
    for (u32 i = 0; i < count; ++i) {
        memset(body, static_cast<u8>(code), sizeof(body));
        const XelServiceMsg message = {"soak", code, body, 1 + worker.random.Below(kMaxBody)};
        book.in.fetch_add(1);
        if (XEL_ServiceMqSendMsg(name.c_str(), &message) == XEL_OK) {
            code += 1;
        } else {
            book.refused.fetch_add(1);
        }
    }
    RunOn(thread, [&book, &name] {
        book.dropped.fetch_add(XEL_ServiceMqGetMsgNum(name.c_str()));
        XEL_ServiceMqDestroy(name.c_str());
    });
    SOAK_CHECK(XEL_ServiceMqGetMsgNum(name.c_str()) == XEL_FAIL);
    worker.operations.fetch_add(4 + count);
}

} // namespace soak
