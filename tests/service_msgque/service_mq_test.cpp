// Named service queues: names, bounds, delivery once and in order, overload, and who frees bodies.
#include "service_msgque/xel_service_mq_inner.h"
#include "thread_support.h"

using namespace threadtest;

namespace
{

const xeltest::LogSource kMngSource{"service_msgque/xel_service_mq_mng", 91};

// A service that keeps what it gets; its consumer can be held.
class Service
{
public:
    Service(const char* name, XelThreadCtrl* thread, u32 depth) : name_(name)
    {
        const XelServiceMqConfig config = {depth, thread, Consume, this};
        result = XEL_ServiceMqCreate(name, &config, nullptr);
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service() { XEL_ServiceMqDestroy(name_.c_str()); }

    std::vector<std::string> Bodies()
    {
        const std::lock_guard guard(mutex_);
        return bodies_;
    }
    u32 result = kFail;
    std::atomic<size_t> count{0};
    std::atomic<u64> codes{0};

private:
    static void Consume(XelServiceMsg* message, void* self)
    {
        auto* service = static_cast<Service*>(self);
        const std::lock_guard guard(service->mutex_);
        service->bodies_.emplace_back(static_cast<const char*>(message->data), message->len);
        service->codes += message->code;
        ++service->count;
    }

    std::string name_;
    std::mutex mutex_;
    std::vector<std::string> bodies_;
};

u32 Send(const char* to, const std::string& body, u32 code = 0)
{
    std::string copy = body;
    XelServiceMsg message = {};
    strcpy(message.name, "sender");
    message.code = code;
    message.data = copy.data();
    message.len = static_cast<u32>(copy.size());
    return XEL_ServiceMqSendMsg(to, &message);
}

class ServiceMqTest : public xeltest::CleanProcess
{
protected:
    // The table of names stays for the life of the process.
    void SetUp() override
    {
        CleanProcess::SetUp();
        ServiceMqInit();
        before_ = xeltest::Measure();
    }
};

} // namespace

TEST(ServiceMqFresh, NothingIsKnownBeforeTheFirstService)
{
    XELTEST_IN_FRESH_PROCESS([] {
        EXPECT_EQ(Send("session", "x"), kFail);
        EXPECT_EQ(XEL_ServiceMqGetMsgNum("session"), kFail);
        XEL_ServiceMqDestroy("session");
        EXPECT_NO_LOG();
    });
}

TEST_F(ServiceMqTest, MessagesArriveOnceAndInOrder)
{
    Worker worker;
    Service service("session", worker.Get(), 8);
    ASSERT_EQ(service.result, 0U);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(Send("session", "message " + std::to_string(i), 1), 0U);
    }
    ASSERT_TRUE(AwaitTrue([&] { return service.count == 5; }));
    EXPECT_EQ(service.codes, 5U);
    EXPECT_EQ(service.Bodies().front(), "message 0");
    EXPECT_EQ(service.Bodies().back(), "message 4");
}

TEST_F(ServiceMqTest, NamesAndBodiesAtTheirBounds)
{
    Worker worker;
    const std::string longest(31, 'n');
    Service service(longest.c_str(), worker.Get(), 4);
    EXPECT_EQ(service.result, 0U);
    EXPECT_EQ(Service(std::string(32, 'n').c_str(), worker.Get(), 4).result, 22U);
    EXPECT_EQ(Service("", worker.Get(), 4).result, 22U);
    EXPECT_EQ(Service("nodepth", worker.Get(), 0).result, 22U);
    EXPECT_EQ(Send(longest.c_str(), std::string(4096, 'b')), 0U);
    EXPECT_EQ(Send(longest.c_str(), std::string(4097, 'b')), 22U);
    EXPECT_EQ(Send(longest.c_str(), ""), 22U);
    EXPECT_EQ(Send("", "b"), 22U);
    EXPECT_EQ(Send(std::string(32, 'n').c_str(), "b"), 22U);
    ASSERT_TRUE(AwaitTrue([&] { return service.count == 1; }));
}

TEST_F(ServiceMqTest, TakenAndUnknownNamesAreRefusedAloud)
{
    Worker worker;
    Service service("billing", worker.Get(), 4);
    const XelServiceMqConfig config = {4, worker.Get(), [](XelServiceMsg*, void*) {}, nullptr};
    EXPECT_EQ(XEL_ServiceMqCreate("billing", &config, nullptr), kFail);
    EXPECT_EQ(Send("nobody", "b"), kFail);
    EXPECT_EQ(XEL_ServiceMqGetMsgNum("nobody"), kFail);
    EXPECT_LOG(kMngSource, "Service mq already exist. (service = billing)",
               "Service destination service not exist. (service = nobody)",
               "Service mq destination service not exist. (service = nobody)");
}

TEST_F(ServiceMqTest, NamesThatDifferLateAreDistinctServices)
{
    Worker worker;
    Service one("a-long-service-name-1", worker.Get(), 4);
    Service two("a-long-service-name-2", worker.Get(), 4);
    EXPECT_EQ(Send("a-long-service-name-2", "b"), 0U);
    ASSERT_TRUE(AwaitTrue([&] { return two.count == 1; }));
    EXPECT_EQ(one.count, 0U);
}

TEST_F(ServiceMqTest, OverloadRefusesTheSurplusAndDeliversTheRest)
{
    Worker worker;
    Service service("audit", worker.Get(), 3);
    {
        HeldWorker held(worker);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(Send("audit", std::to_string(i)), 0U);
        }
        EXPECT_EQ(Send("audit", "surplus"), kFail);
        EXPECT_EQ(XEL_ServiceMqGetMsgNum("audit"), 3U);
        held.Open();
    }
    ASSERT_TRUE(AwaitTrue([&] { return service.count == 3; }));
    EXPECT_EQ(service.Bodies(), (std::vector<std::string>{"0", "1", "2"}));
    (void)xeltest::TakeLog();
}

TEST_F(ServiceMqTest, MessageWhoseWakeUpFailedKeepsItsBody)
{
    Worker worker;
    Service service("audit", worker.Get(), 3);
    xeltest::FailNth(Call::EventfdWrite, 1, -1, EAGAIN);
    EXPECT_EQ(Send("audit", "first"), kFail);
    EXPECT_EQ(XEL_ServiceMqGetMsgNum("audit"), 1U);
    EXPECT_EQ(Send("audit", "second"), 0U);
    ASSERT_TRUE(AwaitTrue([&] { return service.count == 1; }));
    EXPECT_EQ(service.Bodies(), (std::vector<std::string>{"first"}));
    (void)xeltest::TakeLog();
}

TEST_F(ServiceMqTest, DestroyedServiceDropsItsMessagesAndFreesTheName)
{
    Worker worker;
    for (int round = 0; round < 20; ++round) {
        Service service("metrics", worker.Get(), 64);
        ASSERT_EQ(service.result, 0U);
        HeldWorker held(worker);
        for (int i = 0; i < 50; ++i) {
            ASSERT_EQ(Send("metrics", std::string(100, 'm')), 0U);
        }
        XEL_ServiceMqDestroy("metrics");
        held.Open();
    }
}

TEST_F(ServiceMqTest, FailedStepsOfASendLeakNothing)
{
    Worker worker;
    Service service("audit", worker.Get(), 3);
    xeltest::FailNth(Call::XelMemAllocF, 1, 0, ENOMEM);
    EXPECT_EQ(Send("audit", "b"), 12U);
    EXPECT_NO_LOG();
    xeltest::FailNth(Call::StrncpyS, 1, 22, 0);
    EXPECT_EQ(Send("audit", "b"), 22U);
    EXPECT_LOG((xeltest::LogSource{"service_msgque/xel_service_mq", 87}),
               "Service mq send unsuccessfully. (ret = 22)");
}

TEST_F(ServiceMqTest, EverySenderIsHeardInItsOrder)
{
    Worker worker;
    constexpr int kSenders = 3;
    constexpr int kEach = xeltest::IsSanitized() ? 300 : 3000;
    Service service("session", worker.Get(), 100000);
    {
        std::vector<std::unique_ptr<Runner>> senders;
        for (int sender = 0; sender < kSenders; ++sender) {
            senders.push_back(std::make_unique<Runner>([sender] {
                for (int i = 0; i < kEach; ++i) {
                    EXPECT_EQ(Send("session", std::string(1, static_cast<char>('A' + sender)) +
                                                  std::to_string(i)),
                              0U);
                }
            }));
        }
    }
    ASSERT_TRUE(AwaitTrue([&] { return service.count == static_cast<size_t>(kSenders * kEach); }));
    int next[kSenders] = {};
    for (const std::string& body : service.Bodies()) {
        int& expected = next[body[0] - 'A'];
        ASSERT_EQ(body.substr(1), std::to_string(expected));
        ++expected;
    }
}

TEST(ServiceMqHash, NamesCountTheirCharactersWithSign)
{
    EXPECT_EQ(ServiceMqBKDRHashSum(""), 0U);
    EXPECT_EQ(ServiceMqBKDRHashSum("ab"), 97U * 131 + 98);
    EXPECT_EQ(ServiceMqBKDRHashSum("\xFF"), 0xFFFFFFFFU);
    EXPECT_EQ(ServiceMqStrHashCal("ab"), (97U * 131 + 98) & 31);
    EXPECT_EQ(ServiceMqHashMatch("a", "a"), 0);
    EXPECT_GT(ServiceMqHashMatch("a", "b"), 0);
}
