// Fixture and steps of the objects on a scheduler thread.
#include "objects.h"

#include <cerrno>

#include "service_msgque/xel_service_mq_inner.h"
#include "xel_mem.h"

namespace faulttest
{

u32 CountEvent(u64 data)
{
    reinterpret_cast<Counts*>(data)->runs.fetch_add(1);
    return 0;
}

void MayLeaveBoundTasks(Trial& run)
{
    run.MayLeaveTasks({TaskTable(), TaskLookUp()});
    if (run.IsFault(Call::EpollCtl, ENOENT)) {
        run.MayLeaveTasks({Call::EpollCtl});
    }
}

void FreeLeftBlock(const Trial& run, XelEventNode* event)
{
    if (run.IsFault(Call::PthreadRwlockWrlock) && TakeLine("Event list lock unsuccessfully.")) {
        XEL_MemFreeF(event, "sweep", 1, 0);
    }
}

void EndEvent(Trial& run, XelEventNode* event)
{
    const u32 listed = g_xelEventList.count;
    run.End("XEL_EventDestroy", {EventList(1)}, [&] {
        XEL_EventDestroy(event);
        return g_xelEventList.count == listed - 1;
    });
    FreeLeftBlock(run, event);
    MayLeaveBoundTasks(run);
}

// The table of services stays for the life of the process, so it is made first.
void Objects::SetUp()
{
    counted_ = std::make_unique<Counted>();
    ServiceMqInit();
    CleanProcess::SetUp();
    worker_ = std::make_unique<Worker>("objects");
    WarmUpSlots();
}

void Objects::TearDown()
{
    worker_.reset();
    CleanProcess::TearDown();
    counted_.reset();
}

void Objects::SweepBoth(const char* family, const char* name, Life life)
{
    SweepBoth(family, name, [life, this](Trial& run) { life(run, worker_->Get()); });
}

void Objects::SweepBoth(const char* family, const char* name, const Scenario& scenario)
{
    Sweep(family, name, Extent::Calls, scenario);
    Sweep(family, name, Extent::Locks, scenario);
}

void Objects::WarmUpSlots()
{
    std::vector<Fd> fds;
    const u32 runs = counted_->runs.load();
    {
        const threadtest::HeldWorker held(*worker_);
        for (int i = 0; i < 8; ++i) {
            fds.push_back(Fd::Event(1));
            SchEpollCtlReq request = {EPOLLIN, counted_->attr};
            ASSERT_EQ(
                XEL_ThreadCtrl(worker_->Get(), XEL_THREAD_CTRL_ADD, fds.back().Get(), &request),
                0U);
        }
    }
    EXPECT_TRUE(AwaitTrue([&] { return counted_->runs.load() >= runs + fds.size(); }));
    for (const Fd& fd : fds) {
        EXPECT_EQ(threadtest::DelFd(worker_->Get(), fd.Get()), 0U);
    }
}

} // namespace faulttest
