// Timer groups and types: creation by number, who owns which user data, destruction by type and
// group while callbacks run.
#include "thread_support.h"
#include "timer/xel_timer_inner.h"

using namespace threadtest;

namespace
{

const xeltest::LogSource kSource{"timer/xel_timer", 69};

// User data that says whether it was released.
struct Data {
    std::atomic<int> runs{0};
    std::atomic<int> released{0};
};

std::atomic<Gate*> g_gate{nullptr};

u32 CountRun(XelTimerNode* /*timer*/, u64 /*expirations*/, void* userData)
{
    ++static_cast<Data*>(userData)->runs;
    if (Gate* gate = g_gate.load()) {
        gate->Pass();
        EXPECT_EQ(static_cast<Data*>(userData)->released, 0) << "released under its callback";
    }
    return 0;
}

void MarkReleased(void* userData)
{
    ++static_cast<Data*>(userData)->released;
}

class TimerGroupTest : public xeltest::CleanProcess
{
protected:
    static u32 AddType(u32 groupId, u32 typeId, XelThreadCtrl* thread, Data* data, u32 timeoutMs)
    {
        XelTimerAttr* attr = XEL_TimerCreateAttr();
        const XelTimerUsrCb callback = {CountRun, data};
        const u32 mode = XEL_TIMER_MODE_PERIODIC;
        EXPECT_EQ(XelTimerSetAllAttr(attr, &callback, &mode, &timeoutMs, "type"), 0U);
        EXPECT_EQ(XEL_TimerSetAttr(attr, XEL_TIMER_ATTR_DESTRUCTOR,
                                   reinterpret_cast<const void*>(MarkReleased), 8),
                  0U);
        const u32 ret = XEL_TimerAddTimerType(groupId, typeId, thread, attr);
        XEL_TimerDestroyAttr(attr);
        return ret;
    }
};

} // namespace

TEST_F(TimerGroupTest, NumbersOfZeroAndUnknownOnesAreRefused)
{
    Worker worker;
    EXPECT_EQ(XEL_TimerCreateGroup(0), kFail);
    XEL_TimerDestroyGroup(0);
    XEL_TimerDestroyGroup(9);
    EXPECT_EQ(XEL_TimerDelTimerType(0, 1), 22U);
    EXPECT_EQ(XEL_TimerDelTimerType(9, 1), 1U);
    EXPECT_EQ(XEL_TimerCreateAndStart(9, 1, nullptr), nullptr);
    EXPECT_LOG(kSource, "Timer group create unsuccessfully, invalid parameter. (groupId = 0)",
               "Timer group destroy unsuccessfully, invalid parameter.",
               xeltest::Warning("Timer group already destroy. (groupId = 9)"),
               "Timer delete timer type unsuccessfully, invalid parameter. (id = 0, type = 1)",
               "Timer delete timer type group get unsuccessfully. (groupId = 9)",
               "Timer group get unsuccessfully. (groupId = 9)");
}

TEST_F(TimerGroupTest, ExistingGroupAndTypeAreKept)
{
    Worker worker;
    Data first;
    Data second;
    EXPECT_EQ(XEL_TimerCreateGroup(5), 0U);
    EXPECT_EQ(XEL_TimerCreateGroup(5), 0U);
    EXPECT_EQ(g_xelTimerCtrl.groupCount, 1U);
    EXPECT_EQ(AddType(5, 1, worker.Get(), &first, 10000), 0U);
    EXPECT_EQ(AddType(5, 1, worker.Get(), &second, 10000), 0U);
    EXPECT_EQ(second.released, 1);
    EXPECT_EQ(first.released, 0);
    EXPECT_EQ(XEL_TimerDelTimerType(5, 2), 2U);
    EXPECT_EQ(XEL_TimerDelTimerType(5, 1), 0U);
    EXPECT_EQ(first.released, 1);
    XEL_TimerDestroyGroup(5);
    EXPECT_EQ(g_xelTimerCtrl.groupCount, 0U);
    (void)xeltest::TakeLog();
}

TEST_F(TimerGroupTest, OwnDataIsReleasedWithTheTimerAndTypeDataWithTheType)
{
    Worker worker;
    Data typeData;
    Data own;
    ASSERT_EQ(XEL_TimerCreateGroup(5), 0U);
    ASSERT_EQ(AddType(5, 1, worker.Get(), &typeData, 1), 0U);
    XelTimerNode* shared = XEL_TimerCreateAndStart(5, 1, nullptr);
    XelTimerNode* owning = XEL_TimerCreateAndStart(5, 1, &own);
    ASSERT_TRUE(AwaitTrue([&] { return typeData.runs > 0 && own.runs > 0; }));
    XEL_TimerDestroy(shared);
    XEL_TimerDestroy(owning);
    ASSERT_TRUE(AwaitTrue([&] { return own.released == 1; }));
    EXPECT_EQ(typeData.released, 0);
    XEL_TimerDestroyGroup(5);
    EXPECT_EQ(typeData.released, 1);
    EXPECT_EQ(own.released, 1);
}

TEST_F(TimerGroupTest, DeletedTypeLeavesARunningCallbackItsDataAndItsTimer)
{
    Worker worker;
    ASSERT_EQ(XEL_TimerCreateGroup(5), 0U);
    for (const bool hasOwnData : {true, false}) {
        Data typeData;
        Data own;
        Gate held;
        g_gate = &held;
        ASSERT_EQ(AddType(5, 1, worker.Get(), &typeData, 1), 0U);
        ASSERT_NE(XEL_TimerCreateAndStart(5, 1, hasOwnData ? &own : nullptr), nullptr);
        ASSERT_TRUE(held.AwaitArrival());
        g_gate = nullptr;
        EXPECT_EQ(XEL_TimerDelTimerType(5, 1), 0U);
        EXPECT_EQ(typeData.released, hasOwnData ? 1 : 0);
        EXPECT_EQ(own.released, 0);
        held.Open();
        worker.Run([] {}); // the callback has ended
        EXPECT_EQ(typeData.released, 1);
        EXPECT_EQ(own.released, hasOwnData ? 1 : 0);
    }
    XEL_TimerDestroyGroup(5);
    EXPECT_NO_LOG();
}

TEST_F(TimerGroupTest, GroupsComeAndGoWhileTheirTimersFire)
{
    Worker one("one");
    Worker two("two");
    const int rounds = xeltest::IsSanitized() ? 30 : 150;
    for (int round = 0; round < rounds; ++round) {
        Data typeData[2];
        Data own[8];
        ASSERT_EQ(XEL_TimerCreateGroup(5), 0U);
        ASSERT_EQ(AddType(5, 1, one.Get(), &typeData[0], 1), 0U);
        ASSERT_EQ(AddType(5, 2, two.Get(), &typeData[1], 1), 0U);
        for (u32 i = 0; i < 8; ++i) {
            ASSERT_NE(XEL_TimerCreateAndStart(5, 1 + i % 2, i < 4 ? &own[i] : nullptr), nullptr);
        }
        if (round % 2 == 0) {
            ASSERT_TRUE(AwaitTrue([&] { return own[0].runs > 0 && typeData[1].runs > 0; }));
        }
        XEL_TimerDestroyGroup(5);
        one.Run([] {});
        two.Run([] {});
        for (u32 i = 0; i < 4; ++i) {
            ASSERT_EQ(own[i].released, 1);
        }
        ASSERT_EQ(typeData[0].released, 1);
        ASSERT_EQ(typeData[1].released, 1);
    }
    (void)xeltest::TakeLog(); // a callback whose timer was destroyed beside it says so
}
