// Named service queues: delivery once and in order, bodies and who frees them, overload, and
// consumers that use the queues themselves.
#include <cerrno>

#include "service_support.h"
#include "xel_hash.h"

namespace
{

using namespace servicetest;

TEST_F(ServiceMqTest, RecordsHaveTheirLayout)
{
    static_assert(offsetof(XelServiceMqConfig, depth) == 0);
    static_assert(offsetof(XelServiceMqConfig, thread) == 8);
    static_assert(offsetof(XelServiceMqConfig, callback) == 16);
    static_assert(offsetof(XelServiceMqConfig, userData) == 24 && sizeof(XelServiceMqConfig) == 32);
    static_assert(offsetof(XelServiceMsg, name) == 0 && offsetof(XelServiceMsg, code) == 32);
    static_assert(offsetof(XelServiceMsg, data) == 40 && offsetof(XelServiceMsg, len) == 48);
    static_assert(sizeof(XelServiceMsg) == 56);
    Worker worker;
    const XelServiceMqConfig config = {4, worker.Get(), [](XelServiceMsg*, void*) {}, &worker};
    ASSERT_EQ(XEL_ServiceMqCreate("records", &config, nullptr), 0U);
    EXPECT_EQ(At<u32>(&g_xelServiceMqMng, 0), 1U);
    auto* table = At<void*>(&g_xelServiceMqMng, 8 + sizeof(pthread_mutex_t));
    const void* entry = XelHashDllEntryLkup(table, "records");
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(static_cast<const char*>(entry), "records");
    const void* mq = At<void*>(entry, 32);
    EXPECT_EQ(At<XelThreadCtrl*>(mq, 0), worker.Get());
    EXPECT_EQ(XelLightMqGetUsedNum(At<XelLightMq*>(mq, 8)), 0U);
    EXPECT_EQ(At<XelServiceConsumer>(mq, 16), config.callback);
    EXPECT_EQ(At<void*>(mq, 24), &worker);
    XEL_ServiceMqDestroy("records");
}

TEST_F(ServiceMqTest, MessagesArriveOnceAndInOrder)
{
    Worker worker;
    Service service("session", worker, 8);
    ASSERT_EQ(service.result, 0U);
    std::vector<Received> sent;
    for (u32 i = 0; i < 5; ++i) {
        sent.push_back({"sender", 0xFFFFFFF0U + i, "message " + std::to_string(i)});
        EXPECT_EQ(Send("session", sent.back().body, sent.back().code), 0U);
    }
    ASSERT_TRUE(service.AwaitCount(5));
    worker.Run([] {});
    EXPECT_EQ(service.Messages(), sent);
    EXPECT_EQ(service.ranOn, worker->tid.load());
}

TEST_F(ServiceMqTest, ConsumerGetsItsUserDataEvenNull)
{
    Worker worker;
    static std::atomic<void*> seen;
    static std::atomic<u32> runs;
    runs = 0;
    XelServiceMqConfig config = {4, worker.Get(),
                                 [](XelServiceMsg*, void* data) {
                                     seen = data;
                                     ++runs;
                                 },
                                 &worker};
    // The third argument is not looked at.
    ASSERT_EQ(XEL_ServiceMqCreate("some", &config, reinterpret_cast<void*>(1)), 0U);
    config.userData = nullptr;
    ASSERT_EQ(XEL_ServiceMqCreate("none", &config, nullptr), 0U);
    config = {};
    EXPECT_EQ(Send("some", "b"), 0U);
    EXPECT_TRUE(AwaitTrue([] { return runs == 1; }));
    EXPECT_EQ(seen, &worker);
    EXPECT_EQ(Send("none", "b"), 0U);
    EXPECT_TRUE(AwaitTrue([] { return runs == 2; }));
    EXPECT_EQ(seen, nullptr);
    const HeldWorker held(worker);
    XEL_ServiceMqDestroy("some");
    XEL_ServiceMqDestroy("none");
}

TEST_F(ServiceMqTest, MessageIsCopiedWhenItIsSent)
{
    Worker worker;
    Service service("session", worker, 8);
    {
        const HeldWorker held(worker);
        std::string body = "before";
        XelServiceMsg message = {"first", 1, body.data(), 6};
        EXPECT_EQ(XEL_ServiceMqSendMsg("session", &message), 0U);
        body = "behind";
        memset(&message, 0xEE, sizeof(message));
    }
    ASSERT_TRUE(service.AwaitCount(1));
    EXPECT_EQ(service.Messages(), (std::vector<Received>{{"first", 1, "before"}}));
}

TEST_F(ServiceMqTest, BodiesAtTheirBounds)
{
    Worker worker;
    Service service("bounds", worker, 4);
    std::string longest(4096, 'b');
    longest[0] = 'a';
    longest[4095] = '\0';
    const GuardedText one("1", false);
    const GuardedText most(longest, false);
    const std::string tooLong(4097, 'b');
    XelServiceMsg message = {};
    const auto send = [&](const void* data, u32 len) {
        message.data = const_cast<void*>(data);
        message.len = len;
        return XEL_ServiceMqSendMsg("bounds", &message);
    };
    EXPECT_EQ(send(one.Get(), 1), 0U);
    EXPECT_EQ(send(most.Get(), 4096), 0U);
    const u64 allocated = Calls(Call::XelMemAllocF);
    EXPECT_EQ(send(tooLong.data(), 4097), 22U);
    EXPECT_EQ(send(tooLong.data(), 0xFFFFFFFF), 22U);
    EXPECT_EQ(send(one.Get(), 0), 22U);
    EXPECT_EQ(send(nullptr, 1), 22U);
    EXPECT_EQ(Calls(Call::XelMemAllocF), allocated);
    ASSERT_TRUE(service.AwaitCount(2));
    EXPECT_EQ(service.Bodies(), (std::vector<std::string>{"1", longest}));
    EXPECT_NO_LOG();
}

// One allocation per message, which lives until its consumer has returned.
TEST_F(ServiceMqTest, BodyIsFreedRightAfterTheConsumer)
{
    Worker worker;
    u64 freedInside = 0;
    u64 blocksInside = 0;
    Service service("session", worker, 4, [&](XelServiceMsg& message) {
        freedInside = Calls(Call::XelMemFreeF);
        blocksInside = xeltest::Measure().blocks;
        static_cast<char*>(message.data)[0] = 'X'; // the library's copy
    });
    const u64 blocks = xeltest::Measure().blocks;
    const u64 allocated = Calls(Call::XelMemAllocF);
    const u64 freed = Calls(Call::XelMemFreeF);
    std::string body = "body";
    XelServiceMsg message = {"", 0, body.data(), 4};
    EXPECT_EQ(XEL_ServiceMqSendMsg("session", &message), 0U);
    ASSERT_TRUE(service.AwaitCount(1));
    EXPECT_TRUE(AwaitTrue([&] { return xeltest::Measure().blocks == blocks; }));
    EXPECT_EQ(freedInside, freed);
    EXPECT_EQ(Calls(Call::XelMemFreeF), freed + 1);
    EXPECT_EQ(blocksInside, blocks + 1);
    EXPECT_EQ(Calls(Call::XelMemAllocF), allocated + 1);
    EXPECT_EQ(body, "body");
}

// What the consumer finds in its message is its own: it may scribble on it, and the body is freed
// all the same.
TEST_F(ServiceMqTest, ConsumersCopyIsNobodyElses)
{
    Worker worker;
    Service service("session", worker, 4, [](XelServiceMsg& message) {
        memset(message.name, 0x41, sizeof(message.name));
        message.code = 99;
        message.len = 0;
        message.data = nullptr;
    });
    {
        const HeldWorker held(worker);
        EXPECT_EQ(Send("session", "one", 1), 0U);
        EXPECT_EQ(Send("session", "two", 2), 0U);
    }
    ASSERT_TRUE(service.AwaitCount(2));
    EXPECT_EQ(service.Messages(),
              (std::vector<Received>{{"sender", 1, "one"}, {"sender", 2, "two"}}));
}

TEST_F(ServiceMqTest, OverloadRefusesTheSurplusAndDeliversTheRest)
{
    Worker worker;
    Service service("audit", worker, 3);
    {
        const HeldWorker held(worker);
        for (u32 i = 0; i < 3; ++i) {
            EXPECT_EQ(service.Waiting(), i);
            EXPECT_EQ(Send("audit", std::to_string(i)), 0U);
        }
        const u64 blocks = xeltest::Measure().blocks;
        EXPECT_EQ(Send("audit", "surplus"), kFail);
        EXPECT_LOG(kLightMqSource,
                   "[CONN] Message queue write, enque unsuccessfully. (ret = ffffffff)");
        EXPECT_EQ(xeltest::Measure().blocks, blocks);
        EXPECT_EQ(service.Waiting(), 3U);
    }
    ASSERT_TRUE(service.AwaitCount(3));
    worker.Run([] {});
    EXPECT_EQ(service.Bodies(), (std::vector<std::string>{"0", "1", "2"}));
    EXPECT_EQ(service.Waiting(), 0U);
    EXPECT_EQ(Send("audit", "later"), 0U);
    ASSERT_TRUE(service.AwaitCount(4));
}

TEST_F(ServiceMqTest, CountIsOfMessagesNotYetTaken)
{
    Worker worker;
    std::vector<u32> counts;
    Service service("session", worker, 8,
                    [&](XelServiceMsg&) { counts.push_back(XEL_ServiceMqGetMsgNum("session")); });
    EXPECT_EQ(service.Waiting(), 0U);
    {
        const HeldWorker held(worker);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(Send("session", "b"), 0U);
        }
    }
    ASSERT_TRUE(service.AwaitCount(3));
    EXPECT_EQ(counts, (std::vector<u32>{2, 1, 0}));
}

// The sender gets the error, and yet nothing is lost: the next wake-up takes it.
TEST_F(ServiceMqTest, MessageWhoseWakeUpFailedKeepsItsBody)
{
    Worker worker;
    Service service("audit", worker, 3);
    xeltest::FailNth(Call::EventfdWrite, 1, -1, EAGAIN);
    EXPECT_EQ(Send("audit", "first"), kFail);
    EXPECT_LOG(kLightMqSource,
               From(xeltest::kEventSource, "Eventfd write unsuccessfully. (errno = 11)", 80),
               "[CONN] Message queue write, event notify unsuccessfully. (ret = ffffffff)");
    EXPECT_EQ(service.Waiting(), 1U);
    EXPECT_EQ(Send("audit", "second"), 0U);
    ASSERT_TRUE(service.AwaitCount(1));
    EXPECT_EQ(service.Bodies(), (std::vector<std::string>{"first"}));
    EXPECT_EQ(service.Waiting(), 1U);
    XelLightMqNotify(QueueOf("audit")->queue);
    ASSERT_TRUE(service.AwaitCount(2));
    EXPECT_EQ(service.Bodies(), (std::vector<std::string>{"first", "second"}));
}

TEST_F(ServiceMqTest, MessageWhoseWakeUpFailedIsDroppedWithItsService)
{
    Worker worker;
    Service service("audit", worker, 3);
    xeltest::FailNth(Call::EventfdWrite, 1, -1, EAGAIN);
    EXPECT_EQ(Send("audit", "first"), kFail);
    EXPECT_EQ(xeltest::TakeTexts().size(), 2U);
    service.Destroy();
    EXPECT_EQ(service.count, 0U);
}

// A wake-up that has begun goes on when another thread destroys the service: it takes its message,
// and what is left is dropped at its end.
TEST_F(ServiceMqTest, WakeUpUnderWayOutlivesTheDestruction)
{
    Worker worker;
    std::vector<std::string> bodies;
    Service service("session", worker, 4, [&bodies](XelServiceMsg& message) {
        bodies.emplace_back(static_cast<const char*>(message.data), message.len);
    });
    const u64 blocks = xeltest::Measure().blocks;
    {
        const HeldWorker held(worker);
        EXPECT_EQ(Send("session", "one", 1), 0U);
        EXPECT_EQ(Send("session", "two", 2), 0U);
        // After the notification is taken, before the queue is looked at.
        xeltest::RunAtNth(Call::SystimeGetMilliSec, 1, [&] {
            Runner destroyer([] { XEL_ServiceMqDestroy("session"); });
            destroyer.Join();
        });
    }
    EXPECT_TRUE(AwaitTrue([&] { return xeltest::Measure().blocks < blocks; }));
    worker.Run([] {});
    EXPECT_EQ(bodies, std::vector<std::string>{"one"});
    EXPECT_NO_LOG();
}

TEST_F(ServiceMqTest, DestroyedServiceDropsItsMessagesAndFreesTheName)
{
    Worker worker;
    const u64 blocks = xeltest::Measure().blocks;
    for (int round = 0; round < 20; ++round) {
        Service service("metrics", worker, 64);
        ASSERT_EQ(service.result, 0U);
        {
            const HeldWorker held(worker);
            for (int i = 0; i < 50; ++i) {
                ASSERT_EQ(Send("metrics", std::string(100, 'm')), 0U);
            }
            service.Destroy();
        }
        worker.Run([] {});
        EXPECT_EQ(service.count, 0U);
        EXPECT_EQ(xeltest::Measure().blocks, blocks);
    }
    EXPECT_NO_LOG();
}

TEST_F(ServiceMqTest, ConsumerSendsToItsOwnService)
{
    Worker worker;
    Service service("chain", worker, 1, [](XelServiceMsg& message) {
        if (message.code < 100) {
            EXPECT_EQ(Send("chain", std::to_string(message.code), message.code + 1), 0U);
        }
    });
    EXPECT_EQ(Send("chain", "start", 1), 0U);
    ASSERT_TRUE(service.AwaitCount(100));
    EXPECT_EQ(service.Messages().back(), (Received{"sender", 100, "99"}));
}

TEST_F(ServiceMqTest, ConsumersPlayPingPong)
{
    Worker pingWorker;
    Worker pongWorker("pong");
    Service pong("pong", pongWorker, 1,
                 [](XelServiceMsg& message) { EXPECT_EQ(Send("ping", "b", message.code), 0U); });
    Service ping("ping", pingWorker, 1, [](XelServiceMsg& message) {
        if (message.code < 100) {
            EXPECT_EQ(Send("pong", "b", message.code + 1), 0U);
        }
    });
    EXPECT_EQ(Send("ping", "b", 1), 0U);
    ASSERT_TRUE(ping.AwaitCount(100));
    pongWorker.Run([] {}); // its last run, which sent the last ball, has ended
    EXPECT_EQ(pong.count, 99U);
    EXPECT_EQ(ping.ranOn, pingWorker->tid.load());
    EXPECT_EQ(pong.ranOn, pongWorker->tid.load());
}

TEST_F(ServiceMqTest, ConsumerDestroysItsOwnService)
{
    Worker worker;
    Service* self = nullptr;
    Service service("once", worker, 4, [&self](XelServiceMsg& message) {
        self->Destroy();
        EXPECT_EQ(std::string(static_cast<const char*>(message.data), message.len), "last");
    });
    self = &service;
    {
        const HeldWorker held(worker);
        EXPECT_EQ(Send("once", "last"), 0U);
        EXPECT_EQ(Send("once", "dropped"), 0U);
    }
    ASSERT_TRUE(service.AwaitCount(1));
    worker.Run([] {});
    EXPECT_EQ(service.count, 1U);
    EXPECT_EQ(Send("once", "b"), kFail);
    EXPECT_LOG(kServiceMqMngSource, "Service destination service not exist. (service = once)");
}

TEST_F(ServiceMqTest, ConsumerCreatesAndDestroysOtherServices)
{
    Worker worker;
    std::unique_ptr<Service> born;
    Service parent("parent", worker, 4, [&](XelServiceMsg& message) {
        if (message.code == 1) {
            born = std::make_unique<Service>("child", worker, 4);
        } else {
            born->Destroy();
        }
    });
    EXPECT_EQ(Send("parent", "b", 1), 0U);
    ASSERT_TRUE(parent.AwaitCount(1));
    EXPECT_EQ(born->result, 0U);
    EXPECT_EQ(Send("child", "b"), 0U);
    ASSERT_TRUE(born->AwaitCount(1));
    EXPECT_EQ(Send("parent", "b", 2), 0U);
    ASSERT_TRUE(parent.AwaitCount(2));
    EXPECT_EQ(QueueOf("child"), nullptr);
}

// Nobody makes a service of that name while the old one's queue goes.
TEST_F(ServiceMqTest, NameStaysTakenUntilItsQueueIsGone)
{
    Worker worker;
    Service service("session", worker, 4);
    const HeldWorker held(worker);
    bool isHeld = false;
    bool isNamed = false;
    xeltest::RunAtNth(Call::EpollCtl, 1, [&] {
        isHeld = IsHeld(g_xelServiceMqMng.mutex);
        isNamed = QueueOf("session") != nullptr;
    });
    service.Destroy();
    EXPECT_TRUE(isHeld);
    EXPECT_TRUE(isNamed);
    EXPECT_EQ(QueueOf("session"), nullptr);
}

// Creation and counting hold the registry; a send gives it back before it copies and queues.
TEST_F(ServiceMqTest, RegistryIsFreeWhileAMessageIsSent)
{
    Worker worker;
    bool whileMaking = false;
    bool whileCopying = true;
    bool whileQueueing = true;
    bool whileCounting = false;
    pthread_mutex_t& registry = g_xelServiceMqMng.mutex;
    xeltest::RunAtNth(Call::Eventfd, 1, [&] { whileMaking = IsHeld(registry); });
    const Service service("session", worker, 4);
    const HeldWorker held(worker);
    xeltest::RunAtNth(Call::XelMemAllocF, 1, [&] { whileCopying = IsHeld(registry); });
    xeltest::RunAtNth(Call::XelFlexibleQueEnqueue, 1, [&] { whileQueueing = IsHeld(registry); });
    EXPECT_EQ(Send("session", "b"), 0U);
    xeltest::RunAtNth(Call::PthreadMutexLock, 2, [&] { whileCounting = IsHeld(registry); });
    EXPECT_EQ(service.Waiting(), 1U);
    EXPECT_TRUE(whileMaking);
    EXPECT_FALSE(whileCopying);
    EXPECT_FALSE(whileQueueing);
    EXPECT_TRUE(whileCounting);
}

} // namespace
