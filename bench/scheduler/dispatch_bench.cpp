// What one dispatched event costs on top of the bare system calls of the same cycle. Each iteration
// times a batch of bare cycles and a batch of dispatch cycles right after one another, so that both
// see the same machine; on_top_ns is the difference per event.
#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <vector>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "alloc_counter.h"
#include "xel_scheduler.h"

namespace
{

constexpr int kBatch = 2000;
constexpr std::uint32_t kEpSize = 128;

std::uint64_t g_runs = 0;

std::uint32_t EmptyProc(struct epoll_event* /*events*/, std::uint64_t /*data*/)
{
    g_runs += 1;
    return 0;
}

// Always-ready descriptors: eventfds that were written and are never read.
class ReadySet
{
public:
    explicit ReadySet(int count)
    {
        for (int i = 0; i < count; ++i) {
            fds_.push_back(eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC));
        }
    }
    ~ReadySet()
    {
        for (const int fd : fds_) {
            close(fd);
        }
    }
    ReadySet(const ReadySet&) = delete;
    ReadySet& operator=(const ReadySet&) = delete;
    const std::vector<int>& Fds() const { return fds_; }

private:
    std::vector<int> fds_;
};

// A scheduler on an epoll instance of its own, with a task per descriptor.
class Loop
{
public:
    Loop(const ReadySet& set, bool hasPolicy) : epFd_(epoll_create1(EPOLL_CLOEXEC)), set_(set)
    {
        const SchEpollOps ops = {epoll_wait, Control, Error, nullptr};
        sch_ = SCH_CreateSch(epFd_, kEpSize, &ops, hasPolicy ? &g_schBfsPolicyOps : nullptr);
        XelTaskAttr* attr = XEL_TaskCreateAttr();
        const XelTaskUsrCb callback = {EmptyProc, 0};
        XEL_TaskSetAttr(attr, XEL_TASK_ATTR_USR_CB, &callback, sizeof(callback));
        SchEpollCtlReq request = {EPOLLIN, attr};
        for (const int fd : set.Fds()) {
            if (SCH_EpollCtrl(sch_, XEL_SCH_EPOLL_ADD, fd, &request) != 0) {
                throw std::runtime_error("cannot register a descriptor");
            }
        }
        XEL_TaskDestroyAttr(attr);
    }
    ~Loop()
    {
        for (const int fd : set_.Fds()) {
            SCH_EpollCtrl(sch_, XEL_SCH_EPOLL_DEL, fd, nullptr);
        }
        XEL_SchDestroy(sch_);
        close(epFd_);
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    void Cycle() { XEL_SchDispatch(sch_); }

private:
    static int Control(int epFd, std::uint32_t op, int fd, struct epoll_event* event)
    {
        static constexpr int kOps[] = {EPOLL_CTL_ADD, EPOLL_CTL_MOD, EPOLL_CTL_DEL};
        return epoll_ctl(epFd, kOps[op], fd, event);
    }
    static int Error() { return errno; }

    int epFd_;
    const ReadySet& set_;
    SchCtrl* sch_ = nullptr;
};

// The floor: the same wait, and a call through a pointer for each event.
class BareLoop
{
public:
    explicit BareLoop(const ReadySet& set) : epFd_(epoll_create1(EPOLL_CLOEXEC)), events_(kEpSize)
    {
        for (const int fd : set.Fds()) {
            struct epoll_event event = {};
            event.events = EPOLLIN;
            event.data.ptr = reinterpret_cast<void*>(EmptyProc);
            epoll_ctl(epFd_, EPOLL_CTL_ADD, fd, &event);
        }
    }
    ~BareLoop() { close(epFd_); }
    BareLoop(const BareLoop&) = delete;
    BareLoop& operator=(const BareLoop&) = delete;

    void Cycle(int maxEvents)
    {
        const int ready = epoll_wait(epFd_, events_.data(), maxEvents, 0);
        for (int i = 0; i < ready; ++i) {
            auto& event = events_[static_cast<std::size_t>(i)];
            reinterpret_cast<XelTaskProc>(event.data.ptr)(&event, 0);
        }
    }

private:
    int epFd_;
    std::vector<struct epoll_event> events_;
};

template <typename Body>
double NanosecondsPerEvent(int cycles, Body&& body)
{
    const std::uint64_t runs = g_runs;
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < cycles; ++i) {
        body();
    }
    const auto end = std::chrono::steady_clock::now();
    return std::chrono::duration<double, std::nano>(end - begin).count() /
           static_cast<double>(g_runs - runs);
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

void Compare(benchmark::State& state, bool hasPolicy)
{
    const auto count = static_cast<int>(state.range(0));
    const int cycles = kBatch / count;
    const ReadySet set(count);
    Loop loop(set, hasPolicy);
    const ReadySet bareSet(count);
    BareLoop bare(bareSet);
    for (int i = 0; i < kBatch; ++i) {
        loop.Cycle();
    }
    std::vector<double> bareNs;
    std::vector<double> loopNs;
    const std::uint64_t allocations = AllocationCount();
    std::uint64_t measured = 0;
    for (auto _ : state) {
        const std::uint64_t before = AllocationCount();
        const double one = NanosecondsPerEvent(cycles, [&] { bare.Cycle(count); });
        const double other = NanosecondsPerEvent(cycles, [&] { loop.Cycle(); });
        measured += AllocationCount() - before;
        bareNs.push_back(one);
        loopNs.push_back(other);
    }
    benchmark::DoNotOptimize(allocations);
    state.counters["bare_ns"] = Median(bareNs);
    state.counters["dispatch_ns"] = Median(loopNs);
    state.counters["on_top_ns"] = Median(loopNs) - Median(bareNs);
    state.counters["allocations"] = static_cast<double>(measured);
}

// One ready descriptor, BFS policy: one wait and one callback per cycle.
void BfsOneReady(benchmark::State& state)
{
    Compare(state, true);
}
BENCHMARK(BfsOneReady)->Arg(1)->Iterations(500)->Unit(benchmark::kMicrosecond);

// 100 ready descriptors, no policy: one wait and 100 callbacks per cycle.
void NoPolicyHundredReady(benchmark::State& state)
{
    Compare(state, false);
}
BENCHMARK(NoPolicyHundredReady)->Arg(100)->Iterations(500)->Unit(benchmark::kMicrosecond);

// 1,000,000 warm cycles with 100 ready descriptors under the BFS policy.
void AllocationsOfAMillionCycles(benchmark::State& state)
{
    constexpr int kCycles = 1000000;
    const ReadySet set(100);
    Loop loop(set, true);
    for (int i = 0; i < kBatch; ++i) {
        loop.Cycle();
    }
    std::uint64_t allocations = 0;
    for (auto _ : state) {
        const std::uint64_t before = AllocationCount();
        for (int i = 0; i < kCycles; ++i) {
            loop.Cycle();
        }
        allocations = AllocationCount() - before;
    }
    state.counters["cycles"] = kCycles;
    state.counters["allocations"] = static_cast<double>(allocations);
}
BENCHMARK(AllocationsOfAMillionCycles)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace
