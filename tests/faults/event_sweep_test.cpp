// Faults in events.
#include "objects.h"

namespace
{

using namespace faulttest;

void UseEvent(Trial& run, XelEventNode* event, const Counts& counts)
{
    const u32 runs = counts.runs.load();
    if (run.Do("XEL_EventNotify", {Call::EventfdWrite},
               [event] { return XEL_EventNotify(event) == 0; })) {
        run.Expect("the callback runs", [&] { return counts.runs.load() == runs + 1; });
    }
}

void EventLife(Trial& run, XelThreadCtrl* thread)
{
    Counts counts;
    XelEventAttr* attr = nullptr;
    (void)run.Do(
        "XEL_EventCreateAttr", {Call::XelMemAllocF},
        [&] { return (attr = XEL_EventCreateAttr()) != nullptr; }, Lines::Silent);
    if (attr == nullptr) {
        return;
    }
    const XelEventUsrCb callback = {CountEvent, reinterpret_cast<u64>(&counts)};
    (void)run.Do("set callback", {}, [&] {
        return XEL_EventSetAttr(attr, XEL_EVENT_ATTR_PROC_INFO, &callback, sizeof(callback)) == 0;
    });
    run.End("set name", {Call::StrncpyS},
            [&] { return XEL_EventSetAttr(attr, XEL_EVENT_ATTR_TASK_NAME, "event", 5) == 0; });
    XelEventNode* event = nullptr;
    (void)run.Do("XEL_EventCreate",
                 {Call::Eventfd, TASK_FATALS, Fatal(Call::StrcpyS, 1), EventList(), TaskTable()},
                 [&] { return (event = XEL_EventCreate(thread, attr)) != nullptr; });
    XEL_EventDestoryAttr(attr);
    if (event != nullptr) {
        UseEvent(run, event, counts);
        EndEvent(run, event);
    }
}

void InnerEventLife(Trial& run, XelThreadCtrl* thread)
{
    Counts counts;
    XelEventNode* event = nullptr;
    (void)run.Do(
        "XelEventInnerCreate",
        {Call::Eventfd, TASK_FATALS, Fatal(Call::StrcpyS, 1), Fatal(Call::StrncpyS, 1), EventList(),
         TaskTable()},
        [&] {
            event =
                XelEventInnerCreate(thread, CountEvent, "inner", reinterpret_cast<u64>(&counts));
            return event != nullptr;
        },
        run.IsFault(Call::XelMemAllocF) ? Lines::Silent : Lines::Logged);
    if (event != nullptr) {
        UseEvent(run, event, counts);
        EndEvent(run, event);
    }
}

using FaultsInEvents = Objects;

TEST_F(FaultsInEvents, LeaveNothing)
{
    SweepBoth("events", "attribute and event", EventLife);
}

TEST_F(FaultsInEvents, MadeInOneCallLeaveNothing)
{
    SweepBoth("events", "in one call", InnerEventLife);
}

} // namespace
