// Many writers and one consumer: every element is accounted for.
#include "light_support.h"

namespace
{

using namespace lightmqtest;

class LightMqStress : public LightMqTest
{
protected:
    static constexpr u32 kWriters = 4;
    static constexpr u32 kEach = xeltest::IsSanitized() ? 500 : 3000;
};

// A small queue, so that many writes are refused: what was let in comes out, once, and in the order
// of its writer; what was refused left one line each.
TEST_F(LightMqStress, WrittenIsTakenPlusRefused)
{
    Worker worker;
    Consumer consumer(worker, 8);
    std::atomic<u32> written{0};
    std::atomic<u32> refused{0};
    {
        std::vector<std::unique_ptr<Runner>> writers;
        for (u32 writer = 0; writer < kWriters; ++writer) {
            writers.push_back(std::make_unique<Runner>([&, writer] {
                for (u32 i = 0; i < kEach; ++i) {
                    const u32 ret = consumer.Write(writer * kEach + i);
                    ++(ret == 0 ? written : refused);
                }
            }));
        }
    }
    EXPECT_EQ(written + refused, kWriters * kEach);
    EXPECT_GE(written, 8U);
    ASSERT_TRUE(AwaitTrue([&] { return consumer.Count() == written; })) << consumer.Count();
    worker.Run([] {});
    EXPECT_EQ(consumer.Count(), written);
    EXPECT_EQ(consumer.wakeUps, static_cast<int>(written.load()));
    EXPECT_EQ(
        xeltest::LogCount("[CONN] Message queue write, enque unsuccessfully. (ret = ffffffff)"),
        refused);
    EXPECT_EQ(xeltest::LogCount(), refused);
    u32 next[kWriters] = {};
    for (const u32 value : consumer.Taken()) {
        u32& expected = next[value / kEach];
        ASSERT_GE(value % kEach, expected);
        expected = value % kEach + 1;
    }
    xeltest::DropLog();
}

// Every operation beside the consumer; the counts stay within the bounds.
TEST_F(LightMqStress, LooksAndClearsBesideWriters)
{
    Worker worker;
    Consumer consumer(worker, 16);
    std::atomic<u32> written{0};
    std::atomic<bool> isOver{false};
    {
        Runner looker([&] {
            while (!isOver) {
                u32 value = 0;
                EXPECT_LE(consumer.Used(), 16U);
                (void)XelLightMqIsFull(consumer.Get());
                (void)XelLightMqIsEmpty(consumer.Get());
                if (XelLightMqGetFront(consumer.Get(), &value) == 0) {
                    EXPECT_LT(value, kEach);
                }
                XelLightMqClear(consumer.Get());
                XelLightMqNotify(consumer.Get());
            }
        });
        {
            std::vector<std::unique_ptr<Runner>> writers;
            for (u32 writer = 0; writer < 2; ++writer) {
                writers.push_back(std::make_unique<Runner>([&] {
                    for (u32 i = 0; i < kEach; ++i) {
                        written += consumer.Write(i) == 0 ? 1 : 0;
                    }
                }));
            }
        }
        isOver = true;
    }
    // A wake-up for each element let in, cleared or not.
    ASSERT_TRUE(AwaitTrue([&] { return consumer.wakeUps >= static_cast<int>(written.load()); }));
    EXPECT_LE(consumer.Count(), written);
    xeltest::DropLog(); // refused writes are a matter of luck
}

} // namespace
