// Creation of the objects that the timer benchmarks share. A benchmark without its timers has
// nothing to measure: a failed creation throws.
#include "bench/timer/timer_objects.h"

#include <stdexcept>
#include <sys/resource.h>

bool RaiseDescriptorLimit(std::size_t needed)
{
    constexpr rlim_t kOthers = 100; // what the process needs besides
    struct rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return false;
    }
    limit.rlim_cur = limit.rlim_max;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= needed + kOthers;
}

TimerAttr::TimerAttr(XelTimerProc proc, void* data, std::uint32_t mode, std::uint32_t timeoutMs)
    : attr_(XEL_TimerCreateAttr())
{
    const XelTimerUsrCb callback = {proc, data};
    if (XelTimerSetAllAttr(attr_, &callback, &mode, &timeoutMs, "bench") != XEL_OK) {
        throw std::runtime_error("cannot set a timer attribute");
    }
}

void TimerAttr::SetDestructor(XelTimerDestructor destructor)
{
    if (XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_DESTRUCTOR,
                         reinterpret_cast<const void*>(destructor), sizeof(destructor)) != XEL_OK) {
        throw std::runtime_error("cannot set a destructor");
    }
}

XelTimerNode* TimerAttr::Create(const SchedulerThread& thread) const
{
    XelTimerNode* timer = XEL_TimerCreate(thread.Handle(), attr_);
    if (timer == nullptr) {
        throw std::runtime_error("cannot create a timer");
    }
    return timer;
}

std::uint32_t Flush::OnEvent(std::uint64_t data)
{
    reinterpret_cast<Flush*>(data)->done_.Post();
    return 0;
}
