// The first steps of the registry, each in a process that has not used it yet.
#include "service_support.h"

namespace
{

using namespace servicetest;

u32 Inited()
{
    return g_xelServiceMqMng.inited.load();
}

TEST(ServiceMqFresh, NothingIsKnownBeforeTheFirstService)
{
    XELTEST_IN_FRESH_PROCESS([] {
        EXPECT_EQ(Send("session", "x"), kFail);
        EXPECT_EQ(Send("session", ""), 22U); // a body of no bytes
        EXPECT_EQ(XEL_ServiceMqSendMsg("session", nullptr), 22U);
        EXPECT_EQ(XEL_ServiceMqGetMsgNum("session"), kFail);
        EXPECT_EQ(XEL_ServiceMqGetMsgNum(std::string(32, 'n').c_str()), kFail);
        XEL_ServiceMqDestroy("session");
        EXPECT_NO_LOG();
        EXPECT_EQ(Inited(), 0U);
        EXPECT_EQ(g_xelServiceMqMng.table, nullptr);
        EXPECT_EQ(Calls(Call::XelMemAllocF), 0U);
    });
}

TEST(ServiceMqFresh, OnlyAnAcceptableCreationMakesTheTable)
{
    XELTEST_IN_FRESH_PROCESS([] {
        Worker worker;
        XelServiceMqConfig config = ConfigOf(worker, 0);
        EXPECT_EQ(XEL_ServiceMqCreate("first", &config, nullptr), 22U);
        EXPECT_EQ(Inited(), 0U);
        EXPECT_EQ(Calls(Call::XelHashDllTblCreate), 0U);
        config.depth = 1;
        EXPECT_EQ(XEL_ServiceMqCreate("first", &config, nullptr), 0U);
        EXPECT_EQ(Inited(), 1U);
        EXPECT_EQ(XEL_ServiceMqCreate("second", &config, nullptr), 0U);
        const u64 locks = xeltest::CallsHere(Call::PthreadMutexLock);
        ServiceMqInit();
        EXPECT_EQ(xeltest::CallsHere(Call::PthreadMutexLock), locks);
        EXPECT_EQ(Calls(Call::XelHashDllTblCreate), 1U);
        XEL_ServiceMqDestroy("first");
        XEL_ServiceMqDestroy("second");
        EXPECT_EQ(Inited(), 1U);
        EXPECT_EQ(Send("first", "x"), kFail);
        EXPECT_LOG(kServiceMqMngSource, "Service destination service not exist. (service = first)");
    });
}

// Without a table the queue cannot be registered; the next creation tries again.
TEST(ServiceMqFresh, FailedTableIsMadeByTheNextCreation)
{
    XELTEST_IN_FRESH_PROCESS([] {
        Worker worker;
        const XelServiceMqConfig config = ConfigOf(worker);
        const xeltest::Footprint before = xeltest::Measure();
        for (const Call call : {Call::XelHashDllTblCreate, Call::XelMemAllocF}) {
            xeltest::FailNth(call, 1);
            {
                const xeltest::AnyCaller anyCaller; // the table calls the library's allocator
                EXPECT_EQ(XEL_ServiceMqCreate("first", &config, nullptr), kFail);
            }
            EXPECT_LOG(
                kServiceMqMngSource, "Service mq init unsuccessfully.",
                "Service mq add to hash unsuccessfully. (service = first, ret = 0xffffffff)");
            EXPECT_EQ(Inited(), 0U);
            EXPECT_EQ(g_xelServiceMqMng.table, nullptr);
            EXPECT_EQ(XEL_ServiceMqGetMsgNum("first"), kFail);
            EXPECT_NO_LOG();
            EXPECT_EQ(xeltest::Measure().blocks, before.blocks);
            EXPECT_EQ(xeltest::Measure().descriptors, before.descriptors);
        }
        EXPECT_EQ(XEL_ServiceMqCreate("first", &config, nullptr), 0U);
        EXPECT_EQ(XEL_ServiceMqGetMsgNum("first"), 0U);
        XEL_ServiceMqDestroy("first");
        EXPECT_NO_LOG();
    });
}

TEST(ServiceMqFresh, FirstCreationsFromSeveralThreadsShareOneTable)
{
    XELTEST_IN_FRESH_PROCESS([] {
        Worker worker;
        const XelServiceMqConfig config = ConfigOf(worker);
        const char* names[] = {"one", "two", "three", "four"};
        {
            std::atomic<u32> waiting{0};
            std::vector<std::unique_ptr<Runner>> creators;
            for (const char* name : names) {
                creators.push_back(std::make_unique<Runner>([&, name] {
                    ++waiting;
                    EXPECT_TRUE(AwaitTrue([&] { return waiting == 4; }));
                    EXPECT_EQ(XEL_ServiceMqCreate(name, &config, nullptr), 0U);
                }));
            }
        }
        EXPECT_EQ(Calls(Call::XelHashDllTblCreate), 1U);
        for (const char* name : names) {
            EXPECT_EQ(XEL_ServiceMqGetMsgNum(name), 0U);
            XEL_ServiceMqDestroy(name);
        }
        EXPECT_NO_LOG();
    });
}

} // namespace
