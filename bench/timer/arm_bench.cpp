// What XEL_TimerStart and XEL_TimerStop cost on top of the timerfd_settime that each makes. Every
// iteration times, right after one another, a batch of bare calls and a batch of timer calls, on
// descriptors of the same kind that the same scheduler thread watches, first arming and then
// disarming them; the next iteration takes the other order. All are armed for ten minutes, so
// nothing expires and the scheduler thread sleeps throughout.
//
// The first argument is the number of live timers, all of them armed or disarmed alike; the second
// is how many of them a batch goes through in turn. These are the oldest: in a list of timers they
// stand at the far end. As many bare descriptors are gone through. Going through all of thousands
// is for the record: there it is the processor's caches that are timed.
#include <algorithm>
#include <atomic>
#include <stdexcept>

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "bench/timer/timer_objects.h"
#include "xel_sch_task.h"

namespace
{

constexpr std::uint32_t kTimeoutMs = 600000;
constexpr std::size_t kBatch = 500; // short, so that most batches pass undisturbed

// A timerfd that is bound to a scheduler thread as a timer's is, but is set by hand.
class BareTimer
{
public:
    explicit BareTimer(const SchedulerThread& thread)
        : thread_(&thread), fd_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC))
    {
        XelTaskAttr* attr = XEL_TaskCreateAttr();
        const XelTaskUsrCb callback = {NeverReady, 0};
        const std::uint32_t type = XEL_TASK_TYPE_PRIO;
        XEL_TaskSetAttr(attr, XEL_TASK_ATTR_USR_CB, &callback, sizeof(callback));
        XEL_TaskSetAttr(attr, XEL_TASK_ATTR_TYPE, &type, sizeof(type));
        SchEpollCtlReq request = {EPOLLIN, attr};
        const bool bound =
            XEL_ThreadCtrl(thread.Handle(), XEL_THREAD_CTRL_ADD, fd_, &request) == XEL_OK;
        XEL_TaskDestroyAttr(attr);
        if (!bound) {
            close(fd_);
            throw std::runtime_error("cannot register a timer descriptor");
        }
    }
    ~BareTimer()
    {
        if (fd_ >= 0) {
            XEL_ThreadCtrl(thread_->Handle(), XEL_THREAD_CTRL_DEL, fd_, nullptr);
            close(fd_);
        }
    }
    BareTimer(BareTimer&& other) noexcept
        : thread_(other.thread_), fd_(std::exchange(other.fd_, -1))
    {
    }
    BareTimer(const BareTimer&) = delete;
    BareTimer& operator=(const BareTimer&) = delete;

    bool Set(std::uint32_t timeoutMs) const
    {
        struct itimerspec spec = {};
        spec.it_value.tv_sec = timeoutMs / 1000;
        spec.it_interval = spec.it_value;
        return timerfd_settime(fd_, 0, &spec, nullptr) == 0;
    }

private:
    static std::uint32_t NeverReady(struct epoll_event* /*events*/, std::uint64_t /*data*/)
    {
        return 1;
    }

    const SchedulerThread* thread_;
    int fd_;
};

std::uint32_t NeverRun(XelTimerNode* /*timer*/, std::uint64_t /*expirations*/, void* /*data*/)
{
    return 1;
}

// Timers and bare descriptors, and what a call on one of them took.
class Arena
{
public:
    Arena(std::size_t live, std::size_t used) : used_(used), batch_(std::max(used, kBatch))
    {
        TimerAttr attr(NeverRun, &released_, XEL_TIMER_MODE_PERIODIC, kTimeoutMs);
        attr.SetDestructor(OnRelease);
        for (std::size_t i = 0; i < live; ++i) {
            timers_.push_back(attr.Create(thread_));
        }
        for (std::size_t i = 0; i < used; ++i) {
            bare_.emplace_back(thread_);
        }
    }
    ~Arena()
    {
        for (XelTimerNode* timer : timers_) {
            XEL_TimerDestroy(timer);
        }
        for (std::size_t seen = released_; seen < timers_.size(); seen = released_) {
            released_.wait(seen);
        }
    }
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;

    double StartBare()
    {
        return Time([this](std::size_t i) { return bare_[i].Set(kTimeoutMs); });
    }
    double StopBare()
    {
        return Time([this](std::size_t i) { return bare_[i].Set(0); });
    }
    double Start()
    {
        return Time([this](std::size_t i) { return XEL_TimerStart(timers_[i]) == XEL_OK; });
    }
    double Stop()
    {
        return Time([this](std::size_t i) { return XEL_TimerStop(timers_[i]) == XEL_OK; });
    }
    bool HasRefused() const { return refused_; }

private:
    // On the scheduler thread.
    static void OnRelease(void* data)
    {
        auto* released = static_cast<std::atomic<std::size_t>*>(data);
        released->fetch_add(1);
        released->notify_one();
    }
    // Nanoseconds per call of a batch.
    template <typename Call>
    double Time(Call&& call)
    {
        return NanosecondsOf([&] {
                   std::size_t i = 0;
                   for (std::size_t n = 0; n < batch_; ++n) {
                       refused_ |= !call(i);
                       i = i + 1 == used_ ? 0 : i + 1;
                   }
               }) /
               static_cast<double>(batch_);
    }

    const std::size_t used_;
    const std::size_t batch_;
    bool refused_ = false;
    std::atomic<std::size_t> released_{0};
    SchedulerThread thread_{"bench_timer"};
    std::vector<XelTimerNode*> timers_;
    std::vector<BareTimer> bare_;
};

struct Series {
    std::vector<double> bareNs;
    std::vector<double> timerNs;
};

template <typename Bare, typename Timer>
void Measure(bool bareFirst, Series& series, Bare&& bare, Timer&& timer)
{
    if (bareFirst) {
        series.bareNs.push_back(bare());
        series.timerNs.push_back(timer());
    } else {
        series.timerNs.push_back(timer());
        series.bareNs.push_back(bare());
    }
}

void StartAndStopAgainstSettime(benchmark::State& state)
{
    const auto live = static_cast<std::size_t>(state.range(0));
    const auto used = static_cast<std::size_t>(state.range(1));
    if (!RaiseDescriptorLimit(live + used)) {
        state.SkipWithError("the hard limit of open descriptors is too low");
        return;
    }
    Arena arena(live, used);
    Series start;
    Series stop;
    bool bareFirst = true;
    for (auto _ : state) {
        Measure(
            bareFirst, start, [&] { return arena.StartBare(); }, [&] { return arena.Start(); });
        Measure(
            bareFirst, stop, [&] { return arena.StopBare(); }, [&] { return arena.Stop(); });
        bareFirst = !bareFirst;
    }
    if (arena.HasRefused()) {
        state.SkipWithError("a call was refused");
        return;
    }
    state.counters["settime_ns"] = Median(start.bareNs);
    state.counters["start_on_top_ns"] = Median(start.timerNs) - Median(start.bareNs);
    state.counters["unset_ns"] = Median(stop.bareNs);
    state.counters["stop_on_top_ns"] = Median(stop.timerNs) - Median(stop.bareNs);
}
BENCHMARK(StartAndStopAgainstSettime)
    ->ArgNames({"live", "used"})
    ->Args({10, 10})
    ->Args({10000, 10})
    ->Iterations(2000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(StartAndStopAgainstSettime)
    ->ArgNames({"live", "used"})
    ->Args({9900, 9900})
    ->Iterations(100)
    ->Unit(benchmark::kMicrosecond);

} // namespace
