// Service queues when something fails: every step of creation with its lines and its undo, sending,
// taking, clearing.
#include <cerrno>

#include "service_support.h"

namespace
{

using namespace servicetest;
using xeltest::ExpectedLine;

class ServiceMqFault : public ServiceMqTest
{
};

constexpr char kNoQueue[] =
    "Service mq create unsuccessfully, create message queue unsuccessfully.";
constexpr char kNotCreated[] = "Service mq create unsuccessfully. (service = broken)";

ExpectedLine InMng(const std::string& text)
{
    return xeltest::From(kServiceMqMngSource, text);
}

// A creation that fails: result and lines, nothing left, and the name still free. The thread is
// held meanwhile, so that the footprint holds still too.
void ExpectRefused(const Worker& worker, u32 result, const std::vector<ExpectedLine>& lines)
{
    const XelServiceMqConfig config = ConfigOf(worker);
    const xeltest::Footprint before = xeltest::Measure();
    EXPECT_EQ(XEL_ServiceMqCreate("broken", &config, nullptr), result);
    xeltest::ResetFaults();
    EXPECT_TRUE(xeltest::LogIs(kServiceMqSource, lines));
    EXPECT_EQ(xeltest::Measure(), before);
    EXPECT_EQ(QueueOf("broken"), nullptr);
    EXPECT_FALSE(IsHeld(g_xelServiceMqMng.mutex));
    EXPECT_EQ(XEL_ServiceMqCreate("broken", &config, nullptr), 0U);
    XEL_ServiceMqDestroy("broken");
    EXPECT_NO_LOG();
    xeltest::ResetFaults();
}

TEST_F(ServiceMqFault, NoMemoryForTheQueueOfTheService)
{
    Worker worker;
    const HeldWorker held(worker);
    xeltest::FailNth(Call::XelMemAllocF, 1);
    ExpectRefused(worker, kFail,
                  {"Service mq create unsuccessfully, no memory.", InMng(kNotCreated)});
}

TEST_F(ServiceMqFault, NoLightQueue)
{
    Worker worker;
    const HeldWorker held(worker);
    for (const auto& [call, nth] : {std::pair{Call::XelMemAllocF, 2U},
                                    {Call::PthreadMutexInit, 1U},
                                    {Call::XelFlexibleQueCreate, 1U}}) {
        xeltest::FailNth(call, nth);
        ExpectRefused(worker, kFail, {kNoQueue, InMng(kNotCreated)});
    }
}

TEST_F(ServiceMqFault, NoEvent)
{
    Worker worker;
    const HeldWorker held(worker);
    xeltest::FailNth(Call::Eventfd, 1, -1, EMFILE);
    ExpectRefused(worker, kFail,
                  {From(xeltest::kEventSource, "Event create fd unsuccessfully. (errno = 24)"),
                   kNoQueue, InMng(kNotCreated)});
}

TEST_F(ServiceMqFault, NoSchedulerThreadBehindTheHandle)
{
    Worker worker;
    const HeldWorker held(worker);
    u32 noThread[64] = {1};
    XelServiceMqConfig config = ConfigOf(worker);
    config.thread = reinterpret_cast<XelThreadCtrl*>(noThread);
    EXPECT_EQ(XEL_ServiceMqCreate("broken", &config, nullptr), kFail);
    EXPECT_LOG(
        kServiceMqSource, From(xeltest::kThreadSource, "Thread magic is damaged, magic = 0x1."),
        From(xeltest::kEventSource, "Event fd add to epoll unsuccessfully. (ret = 0xffffffff)"),
        kNoQueue, InMng(kNotCreated));
    EXPECT_EQ(QueueOf("broken"), nullptr);
}

// The allocations of a creation in order; the last three are of the entry and of the table's node
// and key.
TEST_F(ServiceMqFault, EveryAllocationOfACreation)
{
    Worker worker;
    const HeldWorker held(worker);
    const xeltest::AnyCaller anyCaller; // the table calls the library's allocator
    const XelServiceMqConfig config = ConfigOf(worker);
    const u64 before = Calls(Call::XelMemAllocF);
    ASSERT_EQ(XEL_ServiceMqCreate("broken", &config, nullptr), 0U);
    const u64 total = Calls(Call::XelMemAllocF) - before;
    XEL_ServiceMqDestroy("broken");
    ASSERT_GE(total, 8U);
    for (u64 n = 1; n <= total - 3; ++n) {
        const xeltest::Footprint footprint = xeltest::Measure();
        xeltest::FailNth(Call::XelMemAllocF, n);
        EXPECT_EQ(XEL_ServiceMqCreate("broken", &config, nullptr), kFail);
        xeltest::ResetFaults();
        EXPECT_EQ(xeltest::TakeTexts().back(), kNotCreated);
        EXPECT_EQ(xeltest::Measure(), footprint) << "failed allocation " << n;
    }
    xeltest::FailNth(Call::XelMemAllocF, total - 2);
    ExpectRefused(worker, 12,
                  {InMng("Service mq add to hash unsuccessfully. (service = broken, ret = 0xc)")});
    for (const u64 n : {total - 1, total}) {
        xeltest::FailNth(Call::XelMemAllocF, n);
        ExpectRefused(
            worker, kFail,
            {InMng("Service mq add to hash unsuccessfully. (service = broken, ret = 0xffffffff)")});
    }
}

TEST_F(ServiceMqFault, TablesErrorIsTheResult)
{
    Worker worker;
    const HeldWorker held(worker);
    xeltest::FailNth(Call::XelHashDllEntryAdd, 1, 0x1234);
    const u64 before = xeltest::Measure().blocks;
    u64 atLine = 0;
    xeltest::RunAtNextLine([&atLine] { atLine = xeltest::Measure().blocks; });
    ExpectRefused(
        worker, 0x1234,
        {InMng("Service mq add to hash unsuccessfully. (service = broken, ret = 0x1234)")});
    EXPECT_EQ(atLine, before); // the queue is gone when the failure is told
}

// The copy of the name into the entry is the last one of a creation.
TEST_F(ServiceMqFault, NameThatCannotBeCopied)
{
    Worker worker;
    const HeldWorker held(worker);
    const XelServiceMqConfig config = ConfigOf(worker);
    const u64 before = Calls(Call::StrcpyS);
    ASSERT_EQ(XEL_ServiceMqCreate("broken", &config, nullptr), 0U);
    const u64 copies = Calls(Call::StrcpyS) - before;
    XEL_ServiceMqDestroy("broken");
    xeltest::FailNth(Call::StrcpyS, copies, ERANGE);
    ExpectRefused(worker, 22,
                  {InMng("Service mq add node unsuccessfully. (ret = 34)"),
                   InMng("Service mq add to hash unsuccessfully. (service = broken, ret = 0x16)")});
}

TEST_F(ServiceMqFault, FailedStepsOfASendLeaveNothing)
{
    Worker worker;
    Service service("audit", worker, 3);
    const HeldWorker held(worker);
    const xeltest::Footprint before = xeltest::Measure();
    xeltest::FailNth(Call::XelMemAllocF, 1, 0, ENOMEM);
    EXPECT_EQ(Send("audit", "b"), 12U);
    EXPECT_NO_LOG();
    xeltest::FailNth(Call::StrncpyS, 1, ERANGE);
    u64 atLine = 0;
    xeltest::RunAtNextLine([&atLine] { atLine = xeltest::Measure().blocks; });
    EXPECT_EQ(Send("audit", "b"), 22U);
    EXPECT_EQ(atLine, before.blocks); // the copy is gone when the failure is told
    EXPECT_LOG(kServiceMqSource, "Service mq send unsuccessfully. (ret = 34)");
    xeltest::FailNth(Call::XelFlexibleQueEnqueue, 1, 0x77);
    EXPECT_EQ(Send("audit", "b"), 0x77U);
    EXPECT_LOG(kLightMqSource, "[CONN] Message queue write, enque unsuccessfully. (ret = 77)");
    FailLock(2); // the first is the registry's
    EXPECT_EQ(Send("audit", "b"), kFail);
    EXPECT_LOG(kLightMqSource, "[CONN] Mutex lock unsuccessfully. (errno = 5)");
    EXPECT_EQ(Calls(Call::EventfdWrite), 0U);
    EXPECT_EQ(xeltest::Measure(), before);
    EXPECT_EQ(service.Waiting(), 0U);
}

// The message is inside by then: the sender gets the error, the consumer the message.
TEST_F(ServiceMqFault, SendThatCannotUnlockDeliversAllTheSame)
{
    Worker worker;
    Service service("audit", worker, 3);
    {
        const HeldWorker held(worker);
        FailUnlock(QueueOf("audit")->queue->mutex, 2);
        EXPECT_EQ(Send("audit", "b"), kFail);
        EXPECT_LOG(kLightMqSource, "[CONN] Mutex unlock unsuccessfully. (errno = 5)");
        EXPECT_EQ(service.Waiting(), 1U);
    }
    ASSERT_TRUE(service.AwaitCount(1));
    EXPECT_EQ(service.Bodies(), (std::vector<std::string>{"b"}));
}

TEST_F(ServiceMqFault, CountWithoutTheMutexOfTheQueueFails)
{
    Worker worker;
    const Service service("audit", worker, 3);
    FailLock(2);
    EXPECT_EQ(service.Waiting(), kFail);
    EXPECT_LOG(kLightMqSource, "[LMQ]Mutex lock unsuccessfully. (errno = 5)");
    FailUnlock(QueueOf("audit")->queue->mutex, 1); // the registry's comes last
    EXPECT_EQ(service.Waiting(), 0U);
    EXPECT_LOG(kLightMqSource, "[LMQ] Mutex unlock unsuccessfully. (errno = 5)");
}

TEST_F(ServiceMqFault, WakeUpWithoutMessageIsAnError)
{
    Worker worker;
    Service service("audit", worker, 3);
    EXPECT_EQ(ServiceMqCbWrapper(reinterpret_cast<u64>(QueueOf("audit"))), kFail);
    EXPECT_LOG(kServiceMqSource, "Service mq read msg unsuccessfully. (ret = 0xffffffff)");
    EXPECT_EQ(service.count, 0U);
}

TEST_F(ServiceMqFault, ErrorOfTheQueueIsTheResultOfAWakeUp)
{
    Worker worker;
    Service service("audit", worker, 3);
    const HeldWorker held(worker);
    EXPECT_EQ(Send("audit", "b"), 0U);
    xeltest::FailNth(Call::XelFlexibleQueDequeue, 1, 0x33);
    EXPECT_EQ(ServiceMqCbWrapper(reinterpret_cast<u64>(QueueOf("audit"))), 0x33U);
    EXPECT_LOG(kServiceMqSource, "Service mq read msg unsuccessfully. (ret = 0x33)");
    EXPECT_EQ(service.count, 0U);
    EXPECT_EQ(service.Waiting(), 1U);
    service.Destroy();
}

// As it happens: the message is gone when its wake-up comes.
TEST_F(ServiceMqFault, ClearedMessagesLeaveTheirWakeUpsBehind)
{
    Worker worker;
    Service service("audit", worker, 3);
    {
        const HeldWorker held(worker);
        const u64 blocks = xeltest::Measure().blocks;
        EXPECT_EQ(Send("audit", "one"), 0U);
        EXPECT_EQ(Send("audit", "two"), 0U);
        ServiceMqClear(QueueOf("audit"));
        EXPECT_EQ(service.Waiting(), 0U);
        EXPECT_EQ(xeltest::Measure().blocks, blocks);
        EXPECT_NO_LOG();
    }
    const std::string unread = "Service mq read msg unsuccessfully. (ret = 0xffffffff)";
    ASSERT_TRUE(AwaitTrue([&] { return xeltest::LogCount(unread) == 2; }));
    worker.Run([] {});
    EXPECT_EQ(service.count, 0U);
    EXPECT_EQ(xeltest::LogCount(unread), 2U);
    xeltest::DropLog(); // the event tells of its callback's result as well
    EXPECT_EQ(Send("audit", "three"), 0U);
    ASSERT_TRUE(service.AwaitCount(1));
}

TEST_F(ServiceMqFault, WakeUpWithoutTheMutexKeepsTheMessage)
{
    Worker worker;
    Service service("audit", worker, 3);
    const HeldWorker held(worker);
    EXPECT_EQ(Send("audit", "one"), 0U);
    FailLock();
    EXPECT_EQ(ServiceMqCbWrapper(reinterpret_cast<u64>(QueueOf("audit"))), kFail);
    EXPECT_LOG(kServiceMqSource,
               From(kLightMqSource, "[CONN] Mutex lock unsuccessfully. (errno = 5)"),
               "Service mq read msg unsuccessfully. (ret = 0xffffffff)");
    EXPECT_EQ(service.Waiting(), 1U);
}

// The message is out of the queue by then; it is not delivered, but its body is not lost either.
TEST_F(ServiceMqFault, MessageLostToAFailingUnlockIsFreed)
{
    Worker worker;
    Service service("audit", worker, 3);
    {
        const HeldWorker held(worker);
        pthread_mutex_t& mutex = QueueOf("audit")->queue->mutex;
        const u64 blocks = xeltest::Measure().blocks;
        EXPECT_EQ(Send("audit", "one"), 0U);
        FailUnlock(mutex);
        EXPECT_EQ(ServiceMqCbWrapper(reinterpret_cast<u64>(QueueOf("audit"))), kFail);
        EXPECT_LOG(kServiceMqSource,
                   From(kLightMqSource, "[CONN] Mutex unlock unsuccessfully. (errno = 5)"),
                   "Service mq read msg unsuccessfully. (ret = 0xffffffff)");
        EXPECT_EQ(xeltest::Measure().blocks, blocks);
        EXPECT_EQ(Send("audit", "two"), 0U);
        FailUnlock(mutex, 2); // of the read: the first is of the look whether it is empty
        ServiceMqClear(QueueOf("audit"));
        EXPECT_LOG(kLightMqSource, "[CONN] Mutex unlock unsuccessfully. (errno = 5)");
        EXPECT_EQ(xeltest::Measure().blocks, blocks);
        service.Destroy();
    }
    EXPECT_EQ(service.count, 0U);
}

TEST_F(ServiceMqFault, FailedReadOfAClearIsRepeated)
{
    Worker worker;
    Service service("audit", worker, 3);
    const HeldWorker held(worker);
    const u64 blocks = xeltest::Measure().blocks;
    EXPECT_EQ(Send("audit", "one"), 0U);
    EXPECT_EQ(Send("audit", "two"), 0U);
    FailLock(2); // of the first read
    ServiceMqClear(QueueOf("audit"));
    EXPECT_LOG(kLightMqSource, "[CONN] Mutex lock unsuccessfully. (errno = 5)");
    EXPECT_EQ(service.Waiting(), 0U);
    EXPECT_EQ(xeltest::Measure().blocks, blocks);
    service.Destroy();
}

// A mutex that cannot be taken ends the loop.
TEST_F(ServiceMqFault, ClearEndsWhenTheQueueCannotBeLookedAt)
{
    Worker worker;
    Service service("audit", worker, 3);
    const HeldWorker held(worker);
    EXPECT_EQ(Send("audit", "one"), 0U);
    FailLock(1);
    ServiceMqClear(QueueOf("audit"));
    EXPECT_LOG(kLightMqSource, "[CONN] Mutex lock unsuccessfully. (errno = 5)");
    EXPECT_EQ(service.Waiting(), 1U);
}

TEST_F(ServiceMqFault, NothingIsDestroyedForNull)
{
    const xeltest::Footprint before = xeltest::Measure();
    ServiceMqDestroy(nullptr);
    ServiceMqMemFree(nullptr);
    EXPECT_EQ(Calls(Call::XelMemFreeF), 0U);
    void* block = ServiceMqMemAlloc(10);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(xeltest::Measure().blocks, before.blocks + 1);
    ServiceMqMemFree(block);
    EXPECT_EQ(xeltest::Measure(), before);
    xeltest::FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(ServiceMqMemAlloc(10), nullptr);
}

} // namespace
