// The way from a notification to its callback on another core. A ball goes back and forth between
// two scheduler threads, and between two plain threads that do the least possible: epoll_wait, read
// the eventfd, write the other's. The threads of a pair are pinned to two different cores, the same
// two for both pairs. Each iteration lets one pair play a batch and then the other, while the
// threads that do not play sleep in epoll_wait and the main thread waits on a semaphore.
#include <cerrno>
#include <stdexcept>
#include <thread>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "bench/cores.h"
#include "bench/event/event_objects.h"

namespace
{

constexpr std::uint64_t kRounds = 500;
constexpr int kHits = 2; // per round

// The least that a thread needs to react to eventfds.
class BareThread
{
public:
    BareThread() : epFd_(epoll_create1(EPOLL_CLOEXEC)), stopFd_(eventfd(0, EFD_CLOEXEC))
    {
        Watch(stopFd_, nullptr);
        thread_ = std::thread([this] { Run(); });
    }
    ~BareThread()
    {
        eventfd_write(stopFd_, 1);
        thread_.join();
        close(stopFd_);
        close(epFd_);
    }
    BareThread(const BareThread&) = delete;
    BareThread& operator=(const BareThread&) = delete;

    pthread_t Id() { return thread_.native_handle(); }

private:
    friend class BareEvent;

    void Watch(int fd, void* target) const
    {
        struct epoll_event event = {};
        event.events = EPOLLIN;
        event.data.ptr = target;
        if (epoll_ctl(epFd_, EPOLL_CTL_ADD, fd, &event) != 0) {
            throw std::runtime_error("cannot watch a descriptor");
        }
    }
    void Run() const;

    const int epFd_;
    const int stopFd_;
    std::thread thread_;
};

// What Event is, without the library.
class BareEvent
{
public:
    BareEvent(const BareThread& thread, XelEventProc proc, void* data)
        : epFd_(thread.epFd_),
          fd_(eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC)),
          proc_(proc),
          data_(reinterpret_cast<std::uint64_t>(data))
    {
        thread.Watch(fd_, this);
    }
    ~BareEvent()
    {
        epoll_ctl(epFd_, EPOLL_CTL_DEL, fd_, nullptr);
        close(fd_);
    }
    BareEvent(const BareEvent&) = delete;
    BareEvent& operator=(const BareEvent&) = delete;

    bool Notify() const { return eventfd_write(fd_, 1) == 0; }
    void Take() const
    {
        eventfd_t value = 0;
        eventfd_read(fd_, &value);
        proc_(data_);
    }

private:
    const int epFd_;
    const int fd_;
    const XelEventProc proc_;
    const std::uint64_t data_;
};

void BareThread::Run() const
{
    for (;;) {
        struct epoll_event event = {};
        const int ready = epoll_wait(epFd_, &event, 1, -1);
        if (ready < 0 && errno != EINTR) {
            return;
        }
        if (ready == 1 && event.data.ptr == nullptr) {
            return;
        }
        if (ready == 1) {
            static_cast<const BareEvent*>(event.data.ptr)->Take();
        }
    }
}

// A pair of threads and the ball. The near thread counts the rounds.
template <typename Thread, typename Target>
class Pair
{
public:
    template <typename... Name>
    explicit Pair(int nearCore, int farCore, Name... names)
        : nearThread_(names...),
          farThread_(names...),
          near_(nearThread_, OnNear, this),
          far_(farThread_, OnFar, this)
    {
        Pin(nearThread_.Id(), nearCore);
        Pin(farThread_.Id(), farCore);
    }

    void Play(std::uint64_t rounds)
    {
        left_ = rounds; // the notification hands it to the near thread, the semaphore gives it back
        near_.Notify();
        done_.Wait();
    }

private:
    static std::uint32_t OnNear(std::uint64_t data)
    {
        auto* self = reinterpret_cast<Pair*>(data);
        if (self->left_ == 0) {
            self->done_.Post();
            return 0;
        }
        self->left_ -= 1;
        return self->far_.Notify() ? 0 : 1;
    }
    static std::uint32_t OnFar(std::uint64_t data)
    {
        return reinterpret_cast<Pair*>(data)->near_.Notify() ? 0 : 1;
    }

    std::uint64_t left_ = 0;
    Signal done_;
    Thread nearThread_;
    Thread farThread_;
    Target near_;
    Target far_;
};

template <typename AnyPair>
double NanosecondsPerHit(AnyPair& pair)
{
    return NanosecondsOf([&] { pair.Play(kRounds); }) / (kHits * kRounds);
}

void NotifyToCallback(benchmark::State& state)
{
    const std::vector<int> cores = TwoCores();
    if (cores.empty()) {
        state.SkipWithError("needs two cores");
        return;
    }
    Pair<BareThread, BareEvent> bare(cores[0], cores[1]);
    Pair<SchedulerThread, Event> scheduler(cores[0], cores[1], "bench_pong");
    bare.Play(kRounds);
    scheduler.Play(kRounds);
    std::vector<double> bareNs;
    std::vector<double> eventNs;
    for (auto _ : state) {
        bareNs.push_back(NanosecondsPerHit(bare));
        eventNs.push_back(NanosecondsPerHit(scheduler));
    }
    state.counters["bare_ns"] = Median(bareNs);
    state.counters["event_ns"] = Median(eventNs);
    state.counters["ratio"] = Median(eventNs) / Median(bareNs);
}
BENCHMARK(NotifyToCallback)->Iterations(200)->Unit(benchmark::kMillisecond);

} // namespace
