// The light message queue: order, bounds, wake-ups, and what a failing mutex leads to.
#include "msgque_light/xel_msgque_light_inner.h"
#include "thread_support.h"

using namespace threadtest;

namespace
{

const xeltest::LogSource kSource{"msgque_light/xel_msgque_light", 85};

// A queue of u32 whose consumer moves one element per wake-up into a vector.
class Consumer
{
public:
    Consumer(XelThreadCtrl* thread, u32 capacity)
    {
        XelLightMqConfig config = {};
        config.capacity = capacity;
        config.elemSize = sizeof(u32);
        strcpy(config.name, "light");
        config.callback = [](u64 self) { return reinterpret_cast<Consumer*>(self)->Take(); };
        config.userData = reinterpret_cast<u64>(this);
        queue_ = XelLightMqCreate(thread, &config);
    }
    Consumer(const Consumer&) = delete;
    Consumer& operator=(const Consumer&) = delete;
    ~Consumer() { XelLightMqDestroy(queue_); }

    XelLightMq* Queue() const { return queue_; }
    u32 Write(u32 value) const { return XelLightMqWrite(queue_, &value); }
    size_t Count()
    {
        const std::lock_guard guard(mutex_);
        return taken_.size();
    }
    std::vector<u32> Taken()
    {
        const std::lock_guard guard(mutex_);
        return taken_;
    }
    std::atomic<int> wakeUps{0};

private:
    u32 Take()
    {
        u32 value = 0;
        ++wakeUps;
        if (XelLightMqRead(queue_, &value) == 0) {
            const std::lock_guard guard(mutex_);
            taken_.push_back(value);
        }
        return 0;
    }

    XelLightMq* queue_ = nullptr;
    std::mutex mutex_;
    std::vector<u32> taken_;
};

class LightMqTest : public xeltest::CleanProcess
{
};

} // namespace

TEST_F(LightMqTest, ElementsArriveInOrderOnePerWakeUp)
{
    Worker worker;
    Consumer consumer(worker.Get(), 4);
    {
        HeldWorker held(worker);
        for (u32 i = 1; i <= 3; ++i) {
            EXPECT_EQ(consumer.Write(i), 0U);
        }
        EXPECT_EQ(XelLightMqGetUsedNum(consumer.Queue()), 3U);
        held.Open();
    }
    ASSERT_TRUE(AwaitTrue([&] { return consumer.Count() == 3; }));
    EXPECT_EQ(consumer.Taken(), (std::vector<u32>{1, 2, 3}));
    EXPECT_EQ(consumer.wakeUps, 3);
}

TEST_F(LightMqTest, FullQueueRefusesAndSendsNoWakeUp)
{
    Worker worker;
    Consumer consumer(worker.Get(), 2);
    {
        HeldWorker held(worker);
        EXPECT_TRUE(XelLightMqIsEmpty(consumer.Queue()));
        EXPECT_EQ(consumer.Write(1), 0U);
        EXPECT_FALSE(XelLightMqIsFull(consumer.Queue()));
        EXPECT_EQ(consumer.Write(2), 0U);
        EXPECT_TRUE(XelLightMqIsFull(consumer.Queue()));
        EXPECT_EQ(consumer.Write(3), kFail);
        EXPECT_LOG(kSource, "[CONN] Message queue write, enque unsuccessfully. (ret = ffffffff)");
        u32 front = 0;
        EXPECT_EQ(XelLightMqGetFront(consumer.Queue(), &front), 0U);
        EXPECT_EQ(front, 1U);
        EXPECT_EQ(XelLightMqGetUsedNum(consumer.Queue()), 2U);
        held.Open();
    }
    ASSERT_TRUE(AwaitTrue([&] { return consumer.wakeUps == 2; }));
    worker.Run([] {});
    EXPECT_EQ(consumer.wakeUps, 2);
}

TEST_F(LightMqTest, NotifyWakesOnlyForElementsInside)
{
    Worker worker;
    Consumer consumer(worker.Get(), 2);
    XelLightMqNotify(consumer.Queue());
    worker.Run([] {});
    EXPECT_EQ(consumer.wakeUps, 0);
    {
        HeldWorker held(worker);
        EXPECT_EQ(consumer.Write(1), 0U);
        XelLightMqNotify(consumer.Queue());
        held.Open();
    }
    ASSERT_TRUE(AwaitTrue([&] { return consumer.wakeUps == 2; }));
    EXPECT_EQ(consumer.Count(), 1U);
}

TEST_F(LightMqTest, FailedWakeUpKeepsTheElement)
{
    Worker worker;
    Consumer consumer(worker.Get(), 2);
    xeltest::FailNth(Call::EventfdWrite, 1, -1, EAGAIN);
    EXPECT_EQ(consumer.Write(7), kFail);
    EXPECT_EQ(XelLightMqGetUsedNum(consumer.Queue()), 1U);
    (void)xeltest::TakeLog();
    XelLightMqClear(consumer.Queue());
    EXPECT_EQ(XelLightMqGetUsedNum(consumer.Queue()), 0U);
}

TEST_F(LightMqTest, FailingMutexCountsAsFullAndEmpty)
{
    Worker worker;
    Consumer consumer(worker.Get(), 2);
    u32 value = 0;
    const auto failLock = [] { xeltest::FailNth(Call::PthreadMutexLock, 1, 5, 0); };
    failLock();
    EXPECT_EQ(consumer.Write(1), kFail);
    failLock();
    EXPECT_EQ(XelLightMqRead(consumer.Queue(), &value), kFail);
    failLock();
    EXPECT_TRUE(XelLightMqIsFull(consumer.Queue()));
    failLock();
    EXPECT_TRUE(XelLightMqIsEmpty(consumer.Queue()));
    const std::string lock = "[CONN] Mutex lock unsuccessfully. (errno = 5)";
    EXPECT_LOG(kSource, lock, lock, lock, lock);
    failLock();
    EXPECT_EQ(XelLightMqGetUsedNum(consumer.Queue()), kFail);
    EXPECT_LOG(kSource, "[LMQ]Mutex lock unsuccessfully. (errno = 5)");
}

TEST_F(LightMqTest, EveryFailingStepOfCreationIsUndoneSilently)
{
    Worker worker;
    XelLightMqConfig config = {};
    config.capacity = 2;
    config.elemSize = 4;
    config.callback = [](u64) { return 0U; };
    const std::pair<Call, long> steps[] = {
        {Call::XelMemAllocF, 0}, {Call::PthreadMutexInit, 5}, {Call::XelFlexibleQueCreate, 0}};
    for (const auto& [call, result] : steps) {
        xeltest::FailNth(call, 1, result, 0);
        EXPECT_EQ(XelLightMqCreate(worker.Get(), &config), nullptr);
        EXPECT_NO_LOG();
    }
}
