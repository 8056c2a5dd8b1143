// Names of services: what is refused in silence and what aloud, how much of a name is read, and how
// names find their queues.
#include "service_support.h"

namespace
{

using namespace servicetest;

const std::string kLongest(31, 'n');
const std::string kTooLong(32, 'n');

TEST_F(ServiceMqTest, UnusableArgumentsOfACreationAreRefusedInSilence)
{
    Worker worker;
    const XelServiceMqConfig good = ConfigOf(worker);
    XelServiceMqConfig noDepth = good;
    noDepth.depth = 0;
    XelServiceMqConfig noThread = good;
    noThread.thread = nullptr;
    XelServiceMqConfig noCallback = good;
    noCallback.callback = nullptr;
    const u64 locks = Calls(Call::PthreadMutexLock);
    EXPECT_EQ(XEL_ServiceMqCreate(nullptr, &good, nullptr), 22U);
    EXPECT_EQ(XEL_ServiceMqCreate("", &good, nullptr), 22U);
    EXPECT_EQ(XEL_ServiceMqCreate(kTooLong.c_str(), &good, nullptr), 22U);
    EXPECT_EQ(XEL_ServiceMqCreate("name", nullptr, nullptr), 22U);
    for (const XelServiceMqConfig* config : {&noDepth, &noThread, &noCallback}) {
        EXPECT_EQ(XEL_ServiceMqCreate("name", config, nullptr), 22U);
        EXPECT_EQ(ServiceMqCreateParamCheck("name", config), 22U);
    }
    EXPECT_EQ(Calls(Call::PthreadMutexLock), locks);
    const Service taken("taken", worker, 4);
    for (const XelServiceMqConfig* config : {&noDepth, &noThread, &noCallback}) {
        EXPECT_EQ(XEL_ServiceMqCreate("taken", config, nullptr), 22U); // that comes first
    }
    EXPECT_EQ(XEL_ServiceMqCreate("taken", nullptr, nullptr), 22U);
    EXPECT_EQ(ServiceMqCreateParamCheck("name", &good), 0U);
    EXPECT_EQ(QueueOf("name"), nullptr);
    EXPECT_NO_LOG();
}

TEST_F(ServiceMqTest, UnusableArgumentsOfASendAreRefusedInSilence)
{
    Worker worker;
    Service service("name", worker, 4);
    char body[4] = "abc";
    const XelServiceMsg good = {"sender", 1, body, 3};
    XelServiceMsg nameless = good;
    nameless.name[0] = '\0';
    XelServiceMsg unterminated = good;
    memset(unterminated.name, 'x', sizeof(unterminated.name));
    unterminated.code = 0; // a terminator, but one too late
    EXPECT_EQ(XEL_ServiceMqSendMsg(nullptr, &good), 22U);
    EXPECT_EQ(XEL_ServiceMqSendMsg("", &good), 22U);
    EXPECT_EQ(XEL_ServiceMqSendMsg(kTooLong.c_str(), &good), 22U);
    EXPECT_EQ(XEL_ServiceMqSendMsg("name", nullptr), 22U);
    EXPECT_EQ(XEL_ServiceMqSendMsg("name", &unterminated), 22U);
    EXPECT_EQ(ServiceMqSendMsgParamCheck("name", &unterminated), 22U);
    EXPECT_EQ(ServiceMqSendMsgParamCheck("name", &good), 0U);
    EXPECT_EQ(service.Waiting(), 0U);
    EXPECT_EQ(XEL_ServiceMqSendMsg("name", &nameless), 0U);
    ASSERT_TRUE(service.AwaitCount(1));
    EXPECT_EQ(service.Messages().front(), (Received{"", 1, "abc"}));
    EXPECT_NO_LOG();
}

// The message is looked at before its destination is looked for.
TEST_F(ServiceMqTest, UnusableMessageToAnUnknownServiceIsRefusedInSilence)
{
    char body[1] = {};
    const XelServiceMsg good = {"sender", 0, body, 1};
    XelServiceMsg bodyless = good;
    bodyless.data = nullptr;
    XelServiceMsg empty = good;
    empty.len = 0;
    XelServiceMsg tooLong = good;
    tooLong.len = 4097;
    XelServiceMsg unterminated = good;
    memset(unterminated.name, 'x', sizeof(unterminated.name));
    const u64 locks = Calls(Call::PthreadMutexLock);
    EXPECT_EQ(XEL_ServiceMqSendMsg("nobody", nullptr), 22U);
    for (const XelServiceMsg* message : {&bodyless, &empty, &tooLong, &unterminated}) {
        EXPECT_EQ(XEL_ServiceMqSendMsg("nobody", message), 22U);
    }
    EXPECT_EQ(Calls(Call::PthreadMutexLock), locks);
    EXPECT_NO_LOG();
}

TEST_F(ServiceMqTest, NoNameIsCountedAndDestroyedInSilence)
{
    const u64 locks = Calls(Call::PthreadMutexLock);
    EXPECT_EQ(XEL_ServiceMqGetMsgNum(nullptr), kFail);
    EXPECT_EQ(XEL_ServiceMqGetMsgNum(""), kFail);
    XEL_ServiceMqDestroy(nullptr);
    XEL_ServiceMqDestroy("");
    EXPECT_EQ(Calls(Call::PthreadMutexLock), locks);
    EXPECT_NO_LOG();
}

TEST_F(ServiceMqTest, TakenAndUnknownNamesAreRefusedAloud)
{
    Worker worker;
    Service service("billing", worker, 4);
    const XelServiceMqConfig config = ConfigOf(worker);
    EXPECT_EQ(XEL_ServiceMqCreate("billing", &config, nullptr), kFail);
    EXPECT_LOG(kServiceMqMngSource, "Service mq already exist. (service = billing)");
    EXPECT_EQ(Send("nobody", "b"), kFail);
    EXPECT_LOG(kServiceMqMngSource, "Service destination service not exist. (service = nobody)");
    EXPECT_EQ(XEL_ServiceMqGetMsgNum("nobody"), kFail);
    EXPECT_LOG(kServiceMqMngSource, "Service mq destination service not exist. (service = nobody)");
    XEL_ServiceMqDestroy("nobody");
    EXPECT_NO_LOG();
    EXPECT_EQ(Send("billing", "b"), 0U);
    ASSERT_TRUE(service.AwaitCount(1));
    EXPECT_FALSE(IsHeld(g_xelServiceMqMng.mutex));
}

TEST_F(ServiceMqTest, LongestNameIsAService)
{
    Worker worker;
    Service service(kLongest, worker, 4);
    EXPECT_EQ(service.result, 0U);
    EXPECT_EQ(Send(kLongest.c_str(), "b", 1, kLongest.c_str()), 0U);
    ASSERT_TRUE(service.AwaitCount(1));
    EXPECT_EQ(service.Messages().front(), (Received{kLongest, 1, "b"}));
    EXPECT_EQ(service.Waiting(), 0U);
}

// A longer name is unknown, even when the longest possible one that it begins with is a service.
TEST_F(ServiceMqTest, NamesWithoutEndAreReadForThirtyTwoCharacters)
{
    Worker worker;
    Service service(kLongest, worker, 4);
    const GuardedText endless(kTooLong, false);
    const XelServiceMqConfig config = ConfigOf(worker);
    EXPECT_EQ(XEL_ServiceMqCreate(endless.Get(), &config, nullptr), 22U);
    EXPECT_EQ(Send(endless.Get(), "b"), 22U);
    XEL_ServiceMqDestroy(endless.Get());
    EXPECT_NO_LOG();
    EXPECT_EQ(XEL_ServiceMqGetMsgNum(endless.Get()), kFail);
    EXPECT_LOG(kServiceMqMngSource,
               "Service mq destination service not exist. (service = " + kTooLong + ")");
    EXPECT_EQ(service.Waiting(), 0U);
}

TEST_F(ServiceMqTest, NoNameIsReadBehindItsEnd)
{
    Worker worker;
    const GuardedText name("short", true);
    const GuardedText longest(kLongest, true);
    const GuardedText unknown("unknown", true);
    const XelServiceMqConfig config = ConfigOf(worker);
    for (const char* text : {name.Get(), longest.Get()}) {
        EXPECT_EQ(XEL_ServiceMqCreate(text, &config, nullptr), 0U);
        EXPECT_EQ(Send(text, "b"), 0U);
        EXPECT_TRUE(AwaitTrue([text] { return XEL_ServiceMqGetMsgNum(text) == 0; }));
        const HeldWorker held(worker);
        XEL_ServiceMqDestroy(text);
    }
    EXPECT_EQ(Send(unknown.Get(), "b"), kFail);
    EXPECT_EQ(XEL_ServiceMqGetMsgNum(unknown.Get()), kFail);
    XEL_ServiceMqDestroy(unknown.Get());
    EXPECT_LOG(kServiceMqMngSource, "Service destination service not exist. (service = unknown)",
               "Service mq destination service not exist. (service = unknown)");
}

// The registry keeps the name itself.
TEST_F(ServiceMqTest, NameMayGoAfterCreation)
{
    Worker worker;
    char name[] = "session";
    const XelServiceMqConfig config = ConfigOf(worker);
    ASSERT_EQ(XEL_ServiceMqCreate(name, &config, nullptr), 0U);
    memset(name, 'x', sizeof(name) - 1);
    EXPECT_EQ(XEL_ServiceMqGetMsgNum("session"), 0U);
    EXPECT_EQ(XEL_ServiceMqGetMsgNum(name), kFail);
    EXPECT_LOG(kServiceMqMngSource,
               "Service mq destination service not exist. (service = xxxxxxx)");
    XEL_ServiceMqDestroy("session");
    EXPECT_EQ(QueueOf("session"), nullptr);
}

TEST_F(ServiceMqTest, NamesThatDifferLateAreDistinctServices)
{
    Worker worker;
    Service one("a-long-service-name-1", worker, 4);
    Service two("a-long-service-name-2", worker, 4);
    EXPECT_STREQ(QueueOf(one.Name())->queue->event->name, "a-long-service-");
    EXPECT_STREQ(QueueOf(two.Name())->queue->event->name, "a-long-service-");
    EXPECT_EQ(Send("a-long-service-name-2", "b"), 0U);
    ASSERT_TRUE(two.AwaitCount(1));
    EXPECT_EQ(one.count, 0U);
}

TEST_F(ServiceMqTest, EventTakesFifteenCharactersOfTheName)
{
    Worker worker;
    const Service fits("fifteen-letters", worker, 4);
    const Service cut("sixteen-letters!", worker, 4);
    EXPECT_STREQ(QueueOf(fits.Name())->queue->event->name, "fifteen-letters");
    EXPECT_STREQ(QueueOf(cut.Name())->queue->event->name, "sixteen-letters");
}

// Two names with one hash value, and many more in one bucket.
TEST_F(ServiceMqTest, NamesThatCollideAreDistinctServices)
{
    Worker worker;
    ASSERT_EQ(ServiceMqBKDRHashSum("aF"), ServiceMqBKDRHashSum("b\xC3"));
    std::vector<std::string> names{"aF", "b\xC3"};
    for (int i = 0; names.size() < 20; ++i) {
        const std::string name = "service " + std::to_string(i);
        if (ServiceMqStrHashCal(name.c_str()) == ServiceMqStrHashCal("aF")) {
            names.push_back(name);
        }
    }
    std::vector<std::unique_ptr<Service>> services;
    for (const std::string& name : names) {
        services.push_back(std::make_unique<Service>(name, worker, 2));
        EXPECT_EQ(services.back()->result, 0U);
    }
    for (const auto& service : services) {
        EXPECT_EQ(Send(service->Name(), service->Name()), 0U);
    }
    for (const auto& service : services) {
        ASSERT_TRUE(service->AwaitCount(1));
        EXPECT_EQ(service->Bodies().front(), service->Name());
    }
    // Out of the middle first.
    for (size_t i = 0; i < services.size(); ++i) {
        services[(i + 7) % services.size()].reset();
        for (size_t left = i + 1; left < services.size(); ++left) {
            EXPECT_NE(QueueOf(names[(left + 7) % names.size()].c_str()), nullptr);
        }
    }
    EXPECT_NO_LOG();
}

TEST(ServiceMqHash, NamesCountTheirCharactersWithSign)
{
    EXPECT_EQ(ServiceMqBKDRHashSum(""), 0U);
    EXPECT_EQ(ServiceMqBKDRHashSum("ab"), 97U * 131 + 98);
    EXPECT_EQ(ServiceMqBKDRHashSum("\xFF"), 0xFFFFFFFFU);
    EXPECT_EQ(ServiceMqBKDRHashSum("\x80z"), (0U - 128) * 131 + 122);
    u32 expected = 0; // past the end of 32 bits
    for (int i = 0; i < 31; ++i) {
        expected = expected * 131 + 'n';
    }
    EXPECT_EQ(ServiceMqBKDRHashSum(kLongest.c_str()), expected);
    EXPECT_EQ(ServiceMqStrHashCal("ab"), (97U * 131 + 98) & 31);
    EXPECT_EQ(ServiceMqStrHashCal("\xFF"), 31U);
}

// The arguments are swapped: positive when the second is greater.
TEST(ServiceMqHash, MatchComparesTheSecondWithTheFirst)
{
    EXPECT_EQ(ServiceMqHashMatch("a", "a"), 0);
    EXPECT_GT(ServiceMqHashMatch("a", "b"), 0);
    EXPECT_LT(ServiceMqHashMatch("b", "a"), 0);
    EXPECT_LT(ServiceMqHashMatch("ab", "a"), 0);
}

} // namespace
