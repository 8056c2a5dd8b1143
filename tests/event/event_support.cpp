// Helpers of the tests of events.
#include "event_support.h"

#include <utility>

namespace eventtest
{

u32 React(u64 data)
{
    return (*reinterpret_cast<const Reaction*>(data))();
}

u64 DataOf(const Reaction& reaction)
{
    return reinterpret_cast<u64>(&reaction);
}

u32 CountRun(u64 data)
{
    if (data != 0) {
        reinterpret_cast<std::atomic<u32>*>(data)->fetch_add(1);
    }
    return 0;
}

u64 DataOf(std::atomic<u32>& runs)
{
    return reinterpret_cast<u64>(&runs);
}

EventAttr::EventAttr(XelEventProc proc, u64 data, const std::string& name)
    : attr_(XEL_EventCreateAttr())
{
    EXPECT_NE(attr_, nullptr);
    if (proc != nullptr) {
        const XelEventUsrCb callback{proc, data};
        EXPECT_EQ(XEL_EventSetAttr(attr_, XEL_EVENT_ATTR_PROC_INFO, &callback, sizeof(callback)),
                  0U);
    }
    EXPECT_EQ(XEL_EventSetAttr(attr_, XEL_EVENT_ATTR_TASK_NAME, name.c_str(), name.size()), 0U);
}

Event::Event(const Worker& worker, XelEventProc proc, u64 data, const std::string& name)
    : event_(XEL_EventCreate(worker.Get(), EventAttr(proc, data, name).Get()))
{
    EXPECT_NE(event_, nullptr);
}

void Event::Destroy()
{
    if (event_ != nullptr) {
        XEL_EventDestroy(Release());
    }
}

XelEventNode* Event::Release()
{
    return std::exchange(event_, nullptr);
}

void EventTest::SetUp()
{
    ThreadTest::SetUp();
    ASSERT_EQ(g_xelEventList.count, 0U);
}

void EventTest::TearDown()
{
    ThreadTest::TearDown();
    EXPECT_EQ(g_xelEventList.count, 0U);
    EXPECT_EQ(g_xelEventList.head.next, &g_xelEventList.head);
    EXPECT_EQ(g_xelEventList.head.prev, &g_xelEventList.head);
}

} // namespace eventtest
