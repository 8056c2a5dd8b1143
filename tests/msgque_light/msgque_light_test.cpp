// The light message queue: order, bounds, wake-ups, and what stays in it.
#include "light_support.h"

#include <array>

#include "xel_queue.h"

namespace
{

using namespace lightmqtest;
using xeltest::kEventSource;
using xeltest::kLightMqSource;

constexpr char kEnqueueFailed[] =
    "[CONN] Message queue write, enque unsuccessfully. (ret = ffffffff)";
constexpr char kWakeUpFailed[] =
    "[CONN] Message queue write, event notify unsuccessfully. (ret = ffffffff)";

TEST_F(LightMqTest, RecordsHaveTheirLayout)
{
    static_assert(offsetof(XelLightMqConfig, capacity) == 0);
    static_assert(offsetof(XelLightMqConfig, elemSize) == 4);
    static_assert(offsetof(XelLightMqConfig, name) == 8);
    static_assert(offsetof(XelLightMqConfig, callback) == 24);
    static_assert(offsetof(XelLightMqConfig, userData) == 32 && sizeof(XelLightMqConfig) == 40);
    Worker worker;
    Consumer consumer(worker, 4);
    HeldWorker held(worker);
    auto* mutex = reinterpret_cast<pthread_mutex_t*>(consumer.Get());
    bool wasHeld = false;
    xeltest::RunAtNth(Call::XelFlexibleQueEnqueue, 1, [&] { wasHeld = IsHeld(*mutex); });
    EXPECT_EQ(consumer.Write(7), 0U);
    EXPECT_TRUE(wasHeld);
    EXPECT_FALSE(IsHeld(*mutex));
    void* queue = At<void*>(consumer.Get(), sizeof(pthread_mutex_t));
    EXPECT_EQ(XelFlexibleQueGetUsedNum(queue), 1U);
    auto* event = At<XelEventNode*>(consumer.Get(), sizeof(pthread_mutex_t) + sizeof(void*));
    EXPECT_EQ(XEL_EventNotify(event), 0U);
    held.Open();
    ASSERT_TRUE(AwaitTrue([&] { return consumer.wakeUps == 2; }));
}

TEST_F(LightMqTest, NewQueueIsEmpty)
{
    Worker worker;
    const Consumer consumer(worker, 1);
    EXPECT_EQ(consumer.Used(), 0U);
    EXPECT_TRUE(XelLightMqIsEmpty(consumer.Get()));
    EXPECT_FALSE(XelLightMqIsFull(consumer.Get()));
    u32 value = 77;
    EXPECT_EQ(XelLightMqRead(consumer.Get(), &value), kFail);
    EXPECT_EQ(XelLightMqGetFront(consumer.Get(), &value), kFail);
    EXPECT_EQ(value, 77U);
    EXPECT_EQ(Calls(Call::EventfdWrite), 0U);
    EXPECT_NO_LOG();
}

TEST_F(LightMqTest, EventCarriesNameThreadAndCallback)
{
    Worker worker;
    std::atomic<u64> seen{0};
    XelLightMqConfig config = ConfigOf(
        2, 4,
        [](u64 data) {
            ++*reinterpret_cast<std::atomic<u64>*>(data);
            return 0U;
        },
        reinterpret_cast<u64>(&seen));
    strcpy(config.name, "fifteen-letters");
    XelLightMq* queue = XelLightMqCreate(worker.Get(), &config);
    ASSERT_NE(queue, nullptr);
    config = {};
    EXPECT_STREQ(queue->event->name, "fifteen-letters");
    EXPECT_EQ(queue->event->thread, worker.Get());
    const u32 value = 1;
    EXPECT_EQ(XelLightMqWrite(queue, &value), 0U);
    EXPECT_TRUE(AwaitTrue([&] { return seen == 1; }));
    const HeldWorker held(worker);
    XelLightMqDestroy(queue);
}

TEST_F(LightMqTest, ConsumerRunsOnTheThreadOfTheQueue)
{
    Worker worker;
    Worker other("other");
    Consumer consumer(worker, 4);
    EXPECT_EQ(consumer.Write(1), 0U);
    ASSERT_TRUE(AwaitTrue([&] { return consumer.wakeUps == 1; }));
    EXPECT_EQ(consumer.ranOn, worker->tid.load());
}

TEST_F(LightMqTest, ElementsArriveInOrderOnePerWakeUp)
{
    Worker worker;
    Consumer consumer(worker, 4);
    {
        HeldWorker held(worker);
        for (u32 i = 1; i <= 3; ++i) {
            EXPECT_EQ(consumer.Write(i), 0U);
        }
        EXPECT_EQ(consumer.Used(), 3U);
        held.Open();
    }
    ASSERT_TRUE(AwaitTrue([&] { return consumer.Count() == 3; }));
    worker.Run([] {});
    EXPECT_EQ(consumer.Taken(), (std::vector<u32>{1, 2, 3}));
    EXPECT_EQ(consumer.wakeUps, 3);
}

TEST_F(LightMqTest, FullQueueRefusesAndSendsNoWakeUp)
{
    Worker worker;
    Consumer consumer(worker, 2);
    {
        HeldWorker held(worker);
        EXPECT_TRUE(XelLightMqIsEmpty(consumer.Get()));
        EXPECT_EQ(consumer.Write(1), 0U);
        EXPECT_FALSE(XelLightMqIsFull(consumer.Get()));
        EXPECT_FALSE(XelLightMqIsEmpty(consumer.Get()));
        EXPECT_EQ(consumer.Write(2), 0U);
        EXPECT_TRUE(XelLightMqIsFull(consumer.Get()));
        const u64 writes = Calls(Call::EventfdWrite);
        EXPECT_EQ(consumer.Write(3), kFail);
        EXPECT_LOG(kLightMqSource, kEnqueueFailed);
        EXPECT_EQ(Calls(Call::EventfdWrite), writes);
        EXPECT_EQ(consumer.Used(), 2U);
        held.Open();
    }
    ASSERT_TRUE(AwaitTrue([&] { return consumer.wakeUps == 2; }));
    worker.Run([] {});
    EXPECT_EQ(consumer.wakeUps, 2);
    EXPECT_EQ(consumer.Taken(), (std::vector<u32>{1, 2}));
}

TEST_F(LightMqTest, EnqueueErrorIsTheResult)
{
    Worker worker;
    const Consumer consumer(worker, 2);
    xeltest::FailNth(Call::XelFlexibleQueEnqueue, 1, 0xAB);
    EXPECT_EQ(consumer.Write(1), 0xABU);
    EXPECT_LOG(kLightMqSource, "[CONN] Message queue write, enque unsuccessfully. (ret = ab)");
    EXPECT_EQ(Calls(Call::EventfdWrite), 0U);
    EXPECT_FALSE(IsHeld(consumer.Mutex()));
}

TEST_F(LightMqTest, FrontIsCopiedAndStays)
{
    Worker worker;
    Consumer consumer(worker, 3);
    const HeldWorker held(worker);
    EXPECT_EQ(consumer.Write(41), 0U);
    EXPECT_EQ(consumer.Write(42), 0U);
    for (int i = 0; i < 2; ++i) {
        u32 front = 0;
        EXPECT_EQ(XelLightMqGetFront(consumer.Get(), &front), 0U);
        EXPECT_EQ(front, 41U);
        EXPECT_EQ(consumer.Used(), 2U);
    }
    consumer.Destroy();
}

// Elements of an odd size, copied whole and no byte further, again and again round the ring.
TEST_F(LightMqTest, ElementsAreCopiedByValue)
{
    using Element = std::array<u8, 61>;
    struct Guarded {
        Element element;
        u8 behind;
    };
    Worker worker;
    const XelLightMqConfig config = ConfigOf(3, sizeof(Element), [](u64) { return 0U; });
    XelLightMq* queue = XelLightMqCreate(worker.Get(), &config);
    ASSERT_NE(queue, nullptr);
    const auto elementOf = [](u32 value) {
        Element element;
        element.fill(static_cast<u8>(value));
        element.back() = static_cast<u8>(~value);
        return element;
    };
    for (u32 i = 0; i < 20; ++i) {
        Element written = elementOf(i);
        EXPECT_EQ(XelLightMqWrite(queue, &written), 0U);
        written = elementOf(i + 100);
        EXPECT_EQ(XelLightMqWrite(queue, &written), 0U);
        written.fill(0xEE);
        for (const u32 expected : {i, i + 100}) {
            Guarded out = {{}, 0x5A};
            EXPECT_EQ(XelLightMqRead(queue, out.element.data()), 0U);
            EXPECT_EQ(out.element, elementOf(expected));
            EXPECT_EQ(out.behind, 0x5A);
        }
    }
    const HeldWorker held(worker);
    XelLightMqDestroy(queue);
}

TEST_F(LightMqTest, ReadingDoesNotTouchTheEvent)
{
    Worker worker;
    Consumer consumer(worker, 4);
    {
        const HeldWorker held(worker);
        EXPECT_EQ(consumer.Write(1), 0U);
        EXPECT_EQ(consumer.Write(2), 0U);
        const u64 reads = Calls(Call::EventfdRead);
        u32 value = 0;
        EXPECT_EQ(XelLightMqRead(consumer.Get(), &value), 0U);
        EXPECT_EQ(value, 1U);
        EXPECT_EQ(consumer.Used(), 1U);
        EXPECT_EQ(Calls(Call::EventfdRead), reads);
    }
    ASSERT_TRUE(AwaitTrue([&] { return consumer.wakeUps == 2; }));
    EXPECT_EQ(consumer.Taken(), (std::vector<u32>{2}));
}

TEST_F(LightMqTest, ClearedElementsStillWakeTheConsumer)
{
    Worker worker;
    Consumer consumer(worker, 4);
    {
        const HeldWorker held(worker);
        EXPECT_EQ(consumer.Write(1), 0U);
        EXPECT_EQ(consumer.Write(2), 0U);
        XelLightMqClear(consumer.Get());
        EXPECT_TRUE(XelLightMqIsEmpty(consumer.Get()));
        EXPECT_EQ(consumer.Used(), 0U);
    }
    ASSERT_TRUE(AwaitTrue([&] { return consumer.wakeUps == 2; }));
    worker.Run([] {});
    EXPECT_EQ(consumer.wakeUps, 2);
    EXPECT_EQ(consumer.Count(), 0U);
    EXPECT_EQ(consumer.Write(3), 0U);
    ASSERT_TRUE(AwaitTrue([&] { return consumer.Count() == 1; }));
    EXPECT_NO_LOG();
}

TEST_F(LightMqTest, NotifyWakesOnlyForElementsInside)
{
    Worker worker;
    Consumer consumer(worker, 2);
    XelLightMqNotify(consumer.Get());
    EXPECT_EQ(Calls(Call::EventfdWrite), 0U);
    {
        const HeldWorker held(worker);
        EXPECT_EQ(consumer.Write(1), 0U);
        XelLightMqNotify(consumer.Get());
    }
    ASSERT_TRUE(AwaitTrue([&] { return consumer.wakeUps == 2; }));
    worker.Run([] {});
    EXPECT_EQ(consumer.wakeUps, 2);
    EXPECT_EQ(consumer.Count(), 1U);
}

TEST_F(LightMqTest, WakeUpsAreSentUnderTheMutex)
{
    Worker worker;
    Consumer consumer(worker, 4);
    bool wasHeld = false;
    const auto look = [&] {
        wasHeld = false;
        xeltest::RunAtNth(Call::EventfdWrite, 1, [&] { wasHeld = IsHeld(consumer.Mutex()); });
    };
    const HeldWorker held(worker);
    look();
    EXPECT_EQ(consumer.Write(1), 0U);
    EXPECT_TRUE(wasHeld);
    look();
    XelLightMqNotify(consumer.Get());
    EXPECT_TRUE(wasHeld);
    EXPECT_FALSE(IsHeld(consumer.Mutex()));
    consumer.Destroy();
}

TEST_F(LightMqTest, FailedWakeUpKeepsTheElement)
{
    Worker worker;
    Consumer consumer(worker, 2);
    xeltest::FailNth(Call::EventfdWrite, 1, -1, EAGAIN);
    EXPECT_EQ(consumer.Write(7), kFail);
    EXPECT_LOG(
        kLightMqSource,
        xeltest::ExpectedLine(kEventSource, 80, "Eventfd write unsuccessfully. (errno = 11)"),
        kWakeUpFailed);
    EXPECT_EQ(consumer.Used(), 1U);
    EXPECT_FALSE(IsHeld(consumer.Mutex()));
    XelLightMqNotify(consumer.Get());
    ASSERT_TRUE(AwaitTrue([&] { return consumer.Count() == 1; }));
    EXPECT_EQ(consumer.Taken().front(), 7U);
}

// The event's own result, whatever it is, is passed on.
TEST_F(LightMqTest, EventErrorIsTheResult)
{
    Worker worker;
    Consumer consumer(worker, 2);
    consumer.Get()->event->magic = 1;
    EXPECT_EQ(consumer.Write(7), 2U);
    EXPECT_LOG(kLightMqSource,
               From(kEventSource, "Eventfd write eventHandle magic error. (magic = 0x1)"),
               "[CONN] Message queue write, event notify unsuccessfully. (ret = 2)");
    XelLightMqNotify(consumer.Get());
    EXPECT_LOG(kLightMqSource,
               From(kEventSource, "Eventfd write eventHandle magic error. (magic = 0x1)"),
               "[CONN] Event notify unsuccessfully. (ret = 2)");
    consumer.Get()->event->magic = kEventMagic;
}

TEST_F(LightMqTest, FailedExtraWakeUpIsLogged)
{
    Worker worker;
    Consumer consumer(worker, 2);
    const HeldWorker held(worker);
    EXPECT_EQ(consumer.Write(1), 0U);
    xeltest::FailNth(Call::EventfdWrite, 1, -1, EIO);
    XelLightMqNotify(consumer.Get());
    EXPECT_LOG(kLightMqSource,
               xeltest::ExpectedLine(kEventSource, 80, "Eventfd write unsuccessfully. (errno = 5)"),
               "[CONN] Event notify unsuccessfully. (ret = ffffffff)");
    EXPECT_FALSE(IsHeld(consumer.Mutex()));
    EXPECT_EQ(consumer.Used(), 1U);
    consumer.Destroy();
}

TEST_F(LightMqTest, DestroyDropsElementsUnseen)
{
    Worker worker;
    Consumer consumer(worker, 8);
    {
        const HeldWorker held(worker);
        for (u32 i = 0; i < 5; ++i) {
            EXPECT_EQ(consumer.Write(i), 0U);
        }
        consumer.Destroy();
    }
    worker.Run([] {});
    EXPECT_EQ(consumer.wakeUps, 0);
    EXPECT_NO_LOG();
}

TEST_F(LightMqTest, CallbackMayWriteToItsOwnQueue)
{
    struct Chain {
        XelLightMq* queue = nullptr;
        std::atomic<u32> last{0};
    } chain;
    Worker worker;
    const XelLightMqConfig config = ConfigOf(
        1, sizeof(u32),
        [](u64 data) {
            auto* self = reinterpret_cast<Chain*>(data);
            u32 value = 0;
            EXPECT_EQ(XelLightMqRead(self->queue, &value), 0U);
            const u32 next = value + 1;
            if (next <= 50) {
                EXPECT_EQ(XelLightMqWrite(self->queue, &next), 0U);
            }
            self->last = value;
            return 0U;
        },
        reinterpret_cast<u64>(&chain));
    chain.queue = XelLightMqCreate(worker.Get(), &config);
    const u32 first = 1;
    EXPECT_EQ(XelLightMqWrite(chain.queue, &first), 0U);
    EXPECT_TRUE(AwaitTrue([&] { return chain.last == 50; }));
    const HeldWorker held(worker);
    XelLightMqDestroy(chain.queue);
}

} // namespace
