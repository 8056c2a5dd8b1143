// The leak guard: counts before and after each test.
#include "support/clean_process.h"

#include <ostream>
#include <thread>
#include <unistd.h>

#include "support/faults.h"
#include "support/helpers.h"
#include "support/log_recorder.h"
#include "xel_scheduler.h"

namespace xeltest
{

namespace
{

constexpr int kLeaveTimeoutMs = 20000;

void ForgetSettings()
{
    ResetFaults();
    UseRealClock();
    UseRealSleep(false);
    SetSleepHook(nullptr);
    (void)TakeSleeps();
    (void)TakeUsleeps();
    (void)TakePoolRequests();
}

} // namespace

void PrintTo(const Footprint& footprint, std::ostream* out)
{
    *out << "descriptors " << footprint.descriptors << ", threads " << footprint.threads
         << ", blocks " << footprint.blocks << ", units " << footprint.units << ", pools "
         << footprint.pools;
}

void WarmUp()
{
    // A sanitizer starts a thread of its own beside the first one. A joined thread is listed still
    // for a moment.
    pid_t tid = 0;
    std::thread([&tid] { tid = gettid(); }).join();
    const std::string entry = "/proc/self/task/" + std::to_string(tid);
    (void)AwaitTrue([&entry] { return access(entry.c_str(), F_OK) != 0; });
    const Fd epoll = Fd::Epoll();
    const Fd event = Fd::Event();
    const Attr attr;
    XEL_TaskDestroy(XEL_TaskCreate(event.Get(), attr.Get()));
    XEL_SchDestroy(XEL_SchCreate(static_cast<u32>(epoll.Get()), 8));
}

void CleanProcess::SetUp()
{
    ForgetSettings();
    WarmUp();
    DropLog();
    ForgetSettings();
    before_ = Measure();
}

void CleanProcess::TearDown()
{
    EXPECT_NO_LOG() << "lines that the test did not take";
    ForgetSettings();
    (void)AwaitTrue([this] { return Measure() == before_; }, HasFailure() ? 100 : kLeaveTimeoutMs);
    EXPECT_EQ(Measure(), before_);
}

} // namespace xeltest
