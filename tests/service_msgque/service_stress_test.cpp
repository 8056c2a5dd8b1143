// Many senders, services that come and go: every message is accounted for and no body is lost.
#include "service_support.h"

namespace
{

using namespace servicetest;

constexpr char kFull[] = "[CONN] Message queue write, enque unsuccessfully. (ret = ffffffff)";

class ServiceMqStress : public ServiceMqTest
{
protected:
    static constexpr u32 kSenders = 4;
    static constexpr u32 kEach = xeltest::IsSanitized() ? 300 : 3000;

    // Runs body(sender) on a thread for each sender, and waits for their ends.
    static void SendFromAll(const std::function<void(u32 sender)>& body)
    {
        std::vector<std::unique_ptr<Runner>> senders;
        for (u32 sender = 0; sender < kSenders; ++sender) {
            senders.push_back(std::make_unique<Runner>([&body, sender] { body(sender); }));
        }
    }
    // Each sender's messages carry their numbers as codes; they must come in rising order, one by
    // one when none was refused.
    static void ExpectOrderPerSender(const std::vector<Received>& messages, bool isGapless)
    {
        u32 next[kSenders] = {};
        for (const Received& message : messages) {
            u32& expected = next[message.sender[0] - 'A'];
            ASSERT_GE(message.code, expected);
            ASSERT_TRUE(!isGapless || message.code == expected);
            ASSERT_EQ(message.body, message.sender + std::to_string(message.code));
            expected = message.code + 1;
        }
    }
    static u32 SendNumbered(const char* to, u32 sender, u32 number)
    {
        const std::string name(1, static_cast<char>('A' + sender));
        return Send(to, name + std::to_string(number), number, name.c_str());
    }
};

TEST_F(ServiceMqStress, EverySenderIsHeardInItsOrder)
{
    Worker worker;
    Service service("session", worker, kSenders * kEach);
    SendFromAll([](u32 sender) {
        for (u32 i = 0; i < kEach; ++i) {
            EXPECT_EQ(SendNumbered("session", sender, i), 0U);
        }
    });
    ASSERT_TRUE(service.AwaitCount(kSenders * kEach));
    worker.Run([] {});
    EXPECT_EQ(service.count, kSenders * kEach);
    ExpectOrderPerSender(service.Messages(), true);
    EXPECT_NO_LOG();
}

TEST_F(ServiceMqStress, SentIsDeliveredPlusRefused)
{
    Worker worker;
    Service service("session", worker, 4);
    std::atomic<u32> taken{0};
    std::atomic<u32> refused{0};
    SendFromAll([&](u32 sender) {
        for (u32 i = 0; i < kEach; ++i) {
            const u32 ret = SendNumbered("session", sender, i);
            EXPECT_TRUE(ret == 0 || ret == kFail);
            ++(ret == 0 ? taken : refused);
        }
    });
    EXPECT_EQ(taken + refused, kSenders * kEach);
    ASSERT_TRUE(service.AwaitCount(taken));
    worker.Run([] {});
    EXPECT_EQ(service.count, taken);
    EXPECT_EQ(xeltest::LogCount(kFull), refused);
    EXPECT_EQ(xeltest::LogCount(), refused);
    ExpectOrderPerSender(service.Messages(), false);
    xeltest::DropLog();
}

// Wake-ups that fail now and then leave messages behind, which later wake-ups take: what was queued
// is what the consumer got and what is still inside.
TEST_F(ServiceMqStress, FailedWakeUpsLoseNoMessage)
{
    Worker worker;
    Service service("session", worker, 100);
    for (u64 n = 5; n <= 50; n += 5) {
        xeltest::FailNth(Call::EventfdWrite, n, -1, EAGAIN);
    }
    u32 refused = 0;
    for (u32 i = 0; i < 60; ++i) {
        refused += SendNumbered("session", 0, i) != 0 ? 1 : 0;
    }
    EXPECT_EQ(refused, 10U);
    ASSERT_TRUE(service.AwaitCount(50));
    EXPECT_EQ(service.Waiting(), 10U);
    for (u32 i = 0; i < 10; ++i) {
        XelLightMqNotify(QueueOf("session")->queue);
    }
    ASSERT_TRUE(service.AwaitCount(60));
    ExpectOrderPerSender(service.Messages(), true);
    EXPECT_EQ(xeltest::TakeLog().size(), 20U);
}

// Lookups, counts and sends to others beside a name that comes and goes. Nobody sends to it while
// it goes; counting is allowed at any time.
TEST_F(ServiceMqStress, ServicesComeAndGoBesideSenders)
{
    constexpr u32 kRounds = kEach / 30;
    Worker worker;
    Worker passingWorker("passing");
    Service staying("staying", worker, kSenders * kEach);
    std::atomic<bool> isOver{false};
    u32 passed = 0;
    {
        Runner counter([&] {
            while (!isOver) {
                const u32 waiting = XEL_ServiceMqGetMsgNum("passing");
                EXPECT_TRUE(waiting <= 2 || waiting == kFail);
            }
        });
        Runner passer([&] {
            for (u32 round = 0; round < kRounds; ++round) {
                Service passing("passing", passingWorker, 2);
                EXPECT_EQ(passing.result, 0U);
                EXPECT_EQ(Send("passing", "kept"), 0U);
                EXPECT_TRUE(passing.AwaitCount(1));
                const HeldWorker held(passingWorker);
                EXPECT_EQ(Send("passing", "dropped"), 0U);
                passing.Destroy();
                passed += passing.count == 1 ? 1 : 0;
            }
        });
        SendFromAll([](u32 sender) {
            for (u32 i = 0; i < kEach; ++i) {
                EXPECT_EQ(SendNumbered("staying", sender, i), 0U);
            }
        });
        passer.Join();
        isOver = true;
    }
    EXPECT_EQ(passed, kRounds);
    ASSERT_TRUE(staying.AwaitCount(kSenders * kEach));
    ExpectOrderPerSender(staying.Messages(), true);
    xeltest::DropLog(); // the counter meets the name and its absence as luck has it
}

// Several threads race for one name: one gets it.
TEST_F(ServiceMqStress, OneCreatorGetsTheName)
{
    const u32 rounds = xeltest::IsSanitized() ? 10 : 50;
    const Worker worker;
    const XelServiceMqConfig config = ConfigOf(worker);
    for (u32 round = 0; round < rounds; ++round) {
        std::atomic<u32> winners{0};
        SendFromAll([&](u32) {
            const u32 ret = XEL_ServiceMqCreate("wanted", &config, nullptr);
            EXPECT_TRUE(ret == 0 || ret == kFail);
            winners += ret == 0 ? 1 : 0;
        });
        EXPECT_EQ(winners, 1U);
        EXPECT_EQ(
            xeltest::TakeTexts(),
            std::vector<std::string>(kSenders - 1, "Service mq already exist. (service = wanted)"));
        XEL_ServiceMqDestroy("wanted");
    }
}

} // namespace
