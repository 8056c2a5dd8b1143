// Light queues and service queues. Elements and bodies carry their number, so order and loss show.
#include "world.h"

#include <cstdio>
#include <cstring>

namespace xelfuzz
{

namespace
{

constexpr u32 kMaxElement = 64;
constexpr u32 kServiceDepth = 6;

u64 DataOf(u32 slot)
{
    return u64{g_world.queues[slot].generation} << 8 | slot;
}

// Two names differ behind the fifteenth character only, one has the full length.
const char* NameOf(u32 slot)
{
    static const char* const names[kServices] = {"s", "a.service.name.1", "a.service.name.2",
                                                 "a.name.of.thirty.one.characters"};
    return names[slot];
}

void CheckUsed(const QueueSlot& slot)
{
    const u32 used = slot.written - slot.taken;
    FUZZ_CHECK(XelLightMqGetUsedNum(slot.queue) == used);
    FUZZ_CHECK(XelLightMqIsEmpty(slot.queue) == (used == 0));
    FUZZ_CHECK(XelLightMqIsFull(slot.queue) == (used == slot.capacity));
}

// Takes or looks at the oldest element; it has to be the one that was written first.
void ReadQueue(QueueSlot& slot, bool isFront)
{
    u8 element[kMaxElement] = {};
    const u32 result =
        isFront ? XelLightMqGetFront(slot.queue, element) : XelLightMqRead(slot.queue, element);
    FUZZ_CHECK((result == XEL_OK) == (slot.written != slot.taken));
    if (result != XEL_OK) {
        return;
    }
    for (u32 i = 0; i < kMaxElement; ++i) {
        FUZZ_CHECK(element[i] == (i < slot.elemSize ? static_cast<u8>(slot.taken) : 0));
    }
    slot.taken += isFront ? 0 : 1;
}

u32 OnQueue(u64 data)
{
    const Hold hold(g_world.lock);
    const u32 self = static_cast<u32>(data & 0xFF);
    FUZZ_CHECK(self < kQueues);
    QueueSlot& slot = g_world.queues[self];
    if (slot.isLive && DataOf(self) == data) {
        ReadQueue(slot, false);
        CheckUsed(slot);
    }
    return 0;
}

void CreateQueue(Input& input)
{
    const u32 index = input.Below(kQueues);
    QueueSlot& slot = g_world.queues[index];
    if (slot.isLive) {
        return;
    }
    const u32 generation = slot.generation + 1;
    slot = {
        nullptr, false, PickThread(input), generation, input.Below(9), input.Below(kMaxElement + 1),
        0,       0};
    XelLightMqConfig config = {slot.capacity, slot.elemSize, "queue", OnQueue, DataOf(index)};
    slot.queue = XelLightMqCreate(g_world.threads[slot.thread].thread, &config);
    slot.isLive = slot.queue != nullptr;
    FUZZ_CHECK(slot.isLive == (slot.capacity != 0 && slot.elemSize != 0));
}

void DestroyQueue(QueueSlot& slot)
{
    slot.isLive = false;
    XelLightMqDestroy(slot.queue);
}

u32 OnMessageBody(const XelServiceMsg* message)
{
    const auto* body = static_cast<const u8*>(message->data);
    for (u32 i = 1; i < message->len; ++i) {
        FUZZ_CHECK(body[i] == body[0]);
    }
    return body[0];
}

void OnMessage(XelServiceMsg* message, void* userData)
{
    const Hold hold(g_world.lock);
    auto* slot = static_cast<ServiceSlot*>(userData);
    const u64 number = slot->delivered.fetch_add(1);
    FUZZ_CHECK(number < slot->sent.load());
    FUZZ_CHECK(OnMessageBody(message) == static_cast<u8>(number));
    FUZZ_CHECK(message->code == static_cast<u32>(number) && strcmp(message->name, "fuzz") == 0);
}

void CreateService(Input& input)
{
    const u32 index = input.Below(kServices);
    ServiceSlot& slot = g_world.services[index];
    const u32 thread = PickThread(input);
    const XelServiceMqConfig config = {input.Below(16) == 15 ? 0 : kServiceDepth,
                                       g_world.threads[thread].thread, OnMessage, &slot};
    const u32 result = XEL_ServiceMqCreate(NameOf(index), &config, nullptr);
    if (config.depth == 0) {
        FUZZ_CHECK(result == XEL_EINVAL);
        return;
    }
    FUZZ_CHECK(result == (slot.isLive ? XEL_FAIL : XEL_OK));
    if (!slot.isLive) {
        slot.isLive = true;
        slot.thread = thread;
        slot.sent = 0;
        slot.delivered = 0;
    }
}

// Names of any length that no service has, and messages that are refused.
void OddService(Input& input)
{
    char name[64] = {};
    memset(name, 'n', input.Below(sizeof(name)));
    u8 body[8] = {};
    XelServiceMsg message = {"fuzz", 0, body, sizeof(body)};
    XEL_ServiceMqDestroy(name);
    FUZZ_CHECK(XEL_ServiceMqGetMsgNum(name) == XEL_FAIL);
    const u32 unknown = XEL_ServiceMqSendMsg(name, &message);
    FUZZ_CHECK(unknown == XEL_EINVAL || unknown == XEL_FAIL);
    memset(message.name, 'x', input.Flag() ? sizeof(message.name) : 0);
    message.len = input.Flag() ? 0 : XEL_SERVICE_MSG_SIZE_MAX + 1;
    FUZZ_CHECK(XEL_ServiceMqSendMsg(NameOf(0), &message) == XEL_EINVAL);
    XEL_ServiceMqDestroy(nullptr);
    FUZZ_CHECK(XEL_ServiceMqSendMsg(nullptr, &message) == XEL_EINVAL);
}

void CountService(u32 index)
{
    const ServiceSlot& slot = g_world.services[index];
    const u32 count = XEL_ServiceMqGetMsgNum(NameOf(index));
    if (!slot.isLive) {
        FUZZ_CHECK(count == XEL_FAIL);
        return;
    }
    // A message that was taken may wait for the lock before it counts as delivered.
    FUZZ_CHECK(count <= slot.sent.load() - slot.delivered.load());
}

// All messages are delivered before the queue goes; nobody sends any more.
void EndService(u32 index)
{
    ServiceSlot& slot = g_world.services[index];
    {
        const Hold hold(g_world.lock);
        if (!slot.isLive) {
            return;
        }
        slot.isLive = false;
    }
    Await("all messages", [&slot] { return slot.delivered.load() == slot.sent.load(); });
    Quiesce(slot.thread);
    XEL_ServiceMqDestroy(NameOf(index));
}

} // namespace

void WriteQueue(u32 index)
{
    QueueSlot& slot = g_world.queues[index];
    if (!slot.isLive) {
        return;
    }
    u8 element[kMaxElement];
    memset(element, static_cast<u8>(slot.written), sizeof(element));
    const bool hasRoom = slot.written - slot.taken < slot.capacity;
    FUZZ_CHECK((XelLightMqWrite(slot.queue, element) == XEL_OK) == hasRoom);
    slot.written += hasRoom ? 1 : 0;
}

void SendToService(u32 index, u32 length)
{
    ServiceSlot& slot = g_world.services[index];
    if (!slot.isLive) {
        return;
    }
    static u8 body[XEL_SERVICE_MSG_SIZE_MAX]; // under the lock
    const u32 size = 1 + length % sizeof(body);
    memset(body, static_cast<u8>(slot.sent.load()), size);
    const XelServiceMsg message = {"fuzz", static_cast<u32>(slot.sent.load()), body, size};
    const u32 result = XEL_ServiceMqSendMsg(NameOf(index), &message);
    FUZZ_CHECK(result == XEL_OK || slot.sent.load() - slot.delivered.load() >= kServiceDepth);
    slot.sent.fetch_add(result == XEL_OK ? 1 : 0);
}

// On the services' own thread, where no consumer is in progress: what is queued is dropped.
void DestroyServicesOf(u32 thread)
{
    for (u32 i = 0; i < kServices; ++i) {
        ServiceSlot& slot = g_world.services[i];
        if (slot.isLive && slot.thread == thread) {
            slot.isLive = false;
            XEL_ServiceMqDestroy(NameOf(i));
        }
    }
}

void CallQueues(Input& input)
{
    const Hold hold(g_world.lock);
    const u32 index = input.Below(kQueues);
    QueueSlot& slot = g_world.queues[index];
    const u32 call = input.Below(8);
    if (!slot.isLive || call == 0) {
        CreateQueue(input);
        return;
    }
    switch (call) {
    case 1:
        ReadQueue(slot, input.Flag());
        break;
    case 2:
        XelLightMqClear(slot.queue);
        slot.taken = slot.written;
        break;
    case 3:
        XelLightMqNotify(slot.queue);
        break;
    case 4:
        DestroyQueue(slot);
        return;
    default:
        WriteQueue(index);
        break;
    }
    CheckUsed(slot);
}

void CallServices(Input& input)
{
    const u32 index = input.Below(kServices);
    const u32 call = input.Below(8);
    if (call == 0) {
        EndService(index);
        return;
    }
    const Hold hold(g_world.lock);
    switch (call) {
    case 1:
    case 2:
        CreateService(input);
        break;
    case 3:
        OddService(input);
        break;
    case 4:
        CountService(index);
        break;
    default:
        SendToService(index, input.Number());
        break;
    }
}

void EndQueues(u32 thread)
{
    const Hold hold(g_world.lock);
    for (QueueSlot& slot : g_world.queues) {
        if (slot.isLive && (thread == kThreads || slot.thread == thread)) {
            DestroyQueue(slot);
        }
    }
}

void EndServices(u32 thread)
{
    for (u32 i = 0; i < kServices; ++i) {
        if (thread == kThreads || g_world.services[i].thread == thread) {
            EndService(i);
        }
    }
}

} // namespace xelfuzz
