// What the tests of events share: attributes and events that clean up after themselves, and
// callbacks that count.
#ifndef XEL_TESTS_EVENT_SUPPORT_H
#define XEL_TESTS_EVENT_SUPPORT_H

#include <atomic>
#include <string>

#include "event/xel_event_inner.h"
#include "thread_support.h"

namespace eventtest
{

using namespace threadtest;
using namespace xeltest;

// An event callback with a function behind it: its data is the function.
using Reaction = std::function<u32()>;
u32 React(u64 data);
u64 DataOf(const Reaction& reaction);

// Counts its runs; its data is the counter.
u32 CountRun(u64 data);
u64 DataOf(std::atomic<u32>& runs);

// An event attribute with a callback, unless that is null, and a name.
class EventAttr
{
public:
    explicit EventAttr(XelEventProc proc = CountRun, u64 data = 0,
                       const std::string& name = "event");
    EventAttr(const EventAttr&) = delete;
    EventAttr& operator=(const EventAttr&) = delete;
    ~EventAttr() { XEL_EventDestoryAttr(attr_); }
    XelEventAttr* Get() const { return attr_; }
    XelEventAttr* operator->() const { return attr_; }

private:
    XelEventAttr* attr_;
};

// An event that is destroyed at the end, if it still lives.
class Event
{
public:
    Event(const Worker& worker, XelEventProc proc, u64 data, const std::string& name = "event");
    Event(const Worker& worker, std::atomic<u32>& runs) : Event(worker, CountRun, DataOf(runs)) {}
    Event(const Worker& worker, const Reaction& reaction) : Event(worker, React, DataOf(reaction))
    {
    }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    ~Event() { Destroy(); }
    XelEventNode* Get() const { return event_; }
    XelEventNode* operator->() const { return event_; }
    void Notify() const { EXPECT_EQ(XEL_EventNotify(event_), 0U); }
    void Destroy();
    // Destroyed by somebody else.
    XelEventNode* Release();

private:
    XelEventNode* event_;
};

// Fixture: leaves process, threads and the list of events as found.
class EventTest : public ThreadTest
{
protected:
    void SetUp() override;
    void TearDown() override;
};

} // namespace eventtest

#endif // XEL_TESTS_EVENT_SUPPORT_H
