// The light message queue when something fails: every operation on a mutex that cannot be taken or
// given back, and every step of creation.
#include <cerrno>

#include "light_support.h"

namespace
{

using namespace lightmqtest;
using xeltest::kLightMqSource;

constexpr char kLockFailed[] = "[CONN] Mutex lock unsuccessfully. (errno = 5)";
constexpr char kUnlockFailed[] = "[CONN] Mutex unlock unsuccessfully. (errno = 5)";

// With one element inside and the consumer held, so that only the test uses the mutex.
class LightMqFault : public LightMqTest
{
protected:
    void SetUp() override
    {
        LightMqTest::SetUp();
        worker_ = std::make_unique<Worker>();
        consumer_ = std::make_unique<Consumer>(*worker_, 2);
        held_ = std::make_unique<HeldWorker>(*worker_);
        EXPECT_EQ(consumer_->Write(41), 0U);
        xeltest::ResetFaults();
    }
    void TearDown() override
    {
        EXPECT_FALSE(IsHeld(consumer_->Mutex()));
        consumer_->Destroy();
        held_.reset();
        consumer_.reset();
        worker_.reset();
        LightMqTest::TearDown();
    }
    XelLightMq* Queue() const { return consumer_->Get(); }
    pthread_mutex_t& Mutex() const { return consumer_->Mutex(); }
    void ExpectOnlyTheFirstInside() const
    {
        u32 front = 0;
        EXPECT_EQ(XelLightMqGetFront(Queue(), &front), 0U);
        EXPECT_EQ(front, 41U);
        EXPECT_EQ(consumer_->Used(), 1U);
    }

    std::unique_ptr<Worker> worker_;
    std::unique_ptr<Consumer> consumer_;
    std::unique_ptr<HeldWorker> held_;
};

TEST_F(LightMqFault, WriteWithoutTheMutexWritesNothing)
{
    FailLock();
    EXPECT_EQ(consumer_->Write(42), kFail);
    EXPECT_LOG(kLightMqSource, kLockFailed);
    EXPECT_EQ(Calls(Call::XelFlexibleQueEnqueue), 0U);
    EXPECT_EQ(Calls(Call::EventfdWrite), 0U);
    EXPECT_EQ(Calls(Call::PthreadMutexUnlock), 0U);
    ExpectOnlyTheFirstInside();
}

TEST_F(LightMqFault, ReadWithoutTheMutexTakesNothing)
{
    u32 value = 77;
    FailLock();
    EXPECT_EQ(XelLightMqRead(Queue(), &value), kFail);
    EXPECT_LOG(kLightMqSource, kLockFailed);
    FailLock();
    EXPECT_EQ(XelLightMqGetFront(Queue(), &value), kFail);
    EXPECT_LOG(kLightMqSource, kLockFailed);
    EXPECT_EQ(value, 77U);
    EXPECT_EQ(Calls(Call::PthreadMutexUnlock), 0U);
    ExpectOnlyTheFirstInside();
}

TEST_F(LightMqFault, ClearWithoutTheMutexClearsNothing)
{
    FailLock();
    XelLightMqClear(Queue());
    EXPECT_LOG(kLightMqSource, kLockFailed);
    EXPECT_EQ(Calls(Call::PthreadMutexUnlock), 0U);
    ExpectOnlyTheFirstInside();
}

TEST_F(LightMqFault, QueueWithoutItsMutexCountsAsFullAndEmpty)
{
    FailLock();
    EXPECT_TRUE(XelLightMqIsFull(Queue()));
    EXPECT_LOG(kLightMqSource, kLockFailed);
    FailLock();
    EXPECT_TRUE(XelLightMqIsEmpty(Queue()));
    EXPECT_LOG(kLightMqSource, kLockFailed);
    EXPECT_EQ(Calls(Call::PthreadMutexUnlock), 0U);
    EXPECT_FALSE(XelLightMqIsFull(Queue()));
    EXPECT_FALSE(XelLightMqIsEmpty(Queue()));
}

TEST_F(LightMqFault, CountWithoutTheMutexFailsWithItsOwnPrefix)
{
    FailLock();
    EXPECT_EQ(consumer_->Used(), kFail);
    EXPECT_LOG(kLightMqSource, "[LMQ]Mutex lock unsuccessfully. (errno = 5)");
    EXPECT_EQ(Calls(Call::PthreadMutexUnlock), 0U);
}

TEST_F(LightMqFault, NotifyWithoutTheMutexSendsNothing)
{
    FailLock();
    XelLightMqNotify(Queue());
    EXPECT_LOG(kLightMqSource, kLockFailed);
    EXPECT_EQ(Calls(Call::EventfdWrite), 0U);
    EXPECT_EQ(Calls(Call::PthreadMutexUnlock), 0U);
}

// The element is inside and its wake-up sent by then.
TEST_F(LightMqFault, WriteThatCannotUnlockFailsAfterTheElementIsInside)
{
    FailUnlock(Mutex());
    EXPECT_EQ(consumer_->Write(42), kFail);
    EXPECT_LOG(kLightMqSource, kUnlockFailed);
    EXPECT_EQ(Calls(Call::EventfdWrite), 1U);
    EXPECT_EQ(consumer_->Used(), 2U);
}

// Both failures are told, in the order in which they came.
TEST_F(LightMqFault, UnlockFailureComesAfterThatOfTheQueue)
{
    EXPECT_EQ(consumer_->Write(42), 0U);
    FailUnlock(Mutex());
    EXPECT_EQ(consumer_->Write(43), kFail);
    EXPECT_LOG(kLightMqSource, "[CONN] Message queue write, enque unsuccessfully. (ret = ffffffff)",
               kUnlockFailed);
}

TEST_F(LightMqFault, UnlockFailureHidesTheErrorOfTheEvent)
{
    consumer_->Get()->event->magic = 1;
    FailUnlock(Mutex());
    EXPECT_EQ(consumer_->Write(42), kFail);
    EXPECT_LOG(kLightMqSource,
               From(xeltest::kEventSource, "Eventfd write eventHandle magic error. (magic = 0x1)"),
               "[CONN] Message queue write, event notify unsuccessfully. (ret = 2)", kUnlockFailed);
    consumer_->Get()->event->magic = kEventMagic;
}

TEST_F(LightMqFault, ReadThatCannotUnlockFails)
{
    u32 value = 0;
    FailUnlock(Mutex());
    EXPECT_EQ(XelLightMqGetFront(Queue(), &value), kFail);
    EXPECT_LOG(kLightMqSource, kUnlockFailed);
    FailUnlock(Mutex());
    EXPECT_EQ(XelLightMqRead(Queue(), &value), kFail);
    EXPECT_LOG(kLightMqSource, kUnlockFailed);
    EXPECT_EQ(consumer_->Used(), 0U);
}

TEST_F(LightMqFault, ErrorOfTheQueueIsTheResultOfARead)
{
    u32 value = 77;
    xeltest::FailNth(Call::XelFlexibleQueDequeue, 1, 0x33);
    EXPECT_EQ(XelLightMqRead(Queue(), &value), 0x33U);
    EXPECT_EQ(value, 77U);
    EXPECT_NO_LOG();
    ExpectOnlyTheFirstInside();
}

TEST_F(LightMqFault, AnswersStandWhenTheUnlockFails)
{
    FailUnlock(Mutex());
    EXPECT_FALSE(XelLightMqIsFull(Queue()));
    EXPECT_LOG(kLightMqSource, kUnlockFailed);
    FailUnlock(Mutex());
    EXPECT_FALSE(XelLightMqIsEmpty(Queue()));
    EXPECT_LOG(kLightMqSource, kUnlockFailed);
    FailUnlock(Mutex());
    EXPECT_EQ(consumer_->Used(), 1U);
    EXPECT_LOG(kLightMqSource, "[LMQ] Mutex unlock unsuccessfully. (errno = 5)");
}

TEST_F(LightMqFault, NotifyAndClearLogAFailedUnlock)
{
    FailUnlock(Mutex());
    XelLightMqNotify(Queue());
    EXPECT_LOG(kLightMqSource, kUnlockFailed);
    EXPECT_EQ(Calls(Call::EventfdWrite), 1U);
    FailUnlock(Mutex());
    XelLightMqClear(Queue());
    EXPECT_LOG(kLightMqSource, kUnlockFailed);
    EXPECT_EQ(consumer_->Used(), 0U);
}

class LightMqCreate : public LightMqTest
{
};

// Fails each call of one kind in turn until a creation meets none of them any more; how many there
// were. The thread is held meanwhile, so that the footprint holds still.
u32 FailEach(Call call, XelThreadCtrl* thread)
{
    const XelLightMqConfig config = ConfigOf(2, 4, [](u64) { return 0U; });
    const xeltest::Footprint before = xeltest::Measure();
    for (u32 n = 1; n <= 20; ++n) {
        xeltest::ResetFaults();
        xeltest::FailNth(call, n);
        XelLightMq* queue = XelLightMqCreate(thread, &config);
        if (queue != nullptr) {
            xeltest::ResetFaults();
            XelLightMqDestroy(queue);
            return n - 1;
        }
        for (const xeltest::LogLine& line : xeltest::TakeLog()) {
            EXPECT_NE(line.file, kLightMqSource.file) << line.text;
        }
        EXPECT_EQ(xeltest::Measure(), before) << "failed call " << n;
    }
    ADD_FAILURE() << "creation never succeeds";
    return 0;
}

// What is below it may log; the queue itself does not.
TEST_F(LightMqCreate, EveryFailingStepIsUndoneSilently)
{
    Worker worker;
    const HeldWorker held(worker);
    EXPECT_GE(FailEach(Call::XelMemAllocF, worker.Get()), 4U); // queue, event, two attributes
    EXPECT_EQ(FailEach(Call::PthreadMutexInit, worker.Get()), 1U);
    EXPECT_EQ(FailEach(Call::XelFlexibleQueCreate, worker.Get()), 1U);
    EXPECT_EQ(FailEach(Call::Eventfd, worker.Get()), 1U);
    EXPECT_GE(FailEach(Call::FmmUnitAlloc, worker.Get()), 1U); // its task
    EXPECT_EQ(FailEach(Call::EpollCtl, worker.Get()), 1U);
    EXPECT_NO_LOG();
}

TEST_F(LightMqCreate, FirstStepsFailWithoutAnyLine)
{
    Worker worker;
    const XelLightMqConfig config = ConfigOf(2, 4, [](u64) { return 0U; });
    for (const Call call :
         {Call::XelMemAllocF, Call::PthreadMutexInit, Call::XelFlexibleQueCreate}) {
        xeltest::FailNth(call, 1);
        EXPECT_EQ(XelLightMqCreate(worker.Get(), &config), nullptr);
        EXPECT_NO_LOG();
    }
    EXPECT_EQ(Calls(Call::Eventfd), 0U);
}

// In this order: record, mutex, queue, event.
TEST_F(LightMqCreate, LaterStepsAreNotTried)
{
    Worker worker;
    const XelLightMqConfig config = ConfigOf(2, 4, [](u64) { return 0U; });
    xeltest::FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(XelLightMqCreate(worker.Get(), &config), nullptr);
    EXPECT_EQ(Calls(Call::PthreadMutexInit), 0U);
    xeltest::FailNth(Call::PthreadMutexInit, 1);
    EXPECT_EQ(XelLightMqCreate(worker.Get(), &config), nullptr);
    EXPECT_EQ(Calls(Call::XelFlexibleQueCreate), 0U);
}

TEST_F(LightMqCreate, UnusableSettingsAreRefused)
{
    Worker worker;
    XelLightMqConfig config = ConfigOf(0, 4, [](u64) { return 0U; });
    EXPECT_EQ(XelLightMqCreate(worker.Get(), &config), nullptr);
    config = ConfigOf(4, 0, [](u64) { return 0U; });
    EXPECT_EQ(XelLightMqCreate(worker.Get(), &config), nullptr);
    config = ConfigOf(4, 4, nullptr);
    EXPECT_EQ(XelLightMqCreate(worker.Get(), &config), nullptr);
    EXPECT_NO_LOG();
    config = ConfigOf(4, 4, [](u64) { return 0U; });
    EXPECT_EQ(XelLightMqCreate(nullptr, &config), nullptr);
    EXPECT_LOG(kLightMqSource, From(xeltest::kEventSource, "Eventfd create handle null."));
}

} // namespace
