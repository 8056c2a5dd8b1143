// Whether a notification and its callback cost more when many events are live. Ten events on one
// scheduler thread pass a token round: the callback of each notifies the next, all on that thread,
// so that no wake-up of another core covers the difference. The same ten do this with no other
// event alive and with 9,990 more on the same thread; they are the oldest, so in a list of events
// they stand at the far end. Each iteration measures both, and creates and destroys the others in
// between, untimed.
#include <sys/resource.h>

#include <benchmark/benchmark.h>

#include "bench/event/event_objects.h"

namespace
{

constexpr std::size_t kFew = 10;
constexpr std::size_t kMany = 10000;
constexpr std::uint64_t kPasses = 5000;
constexpr int kBatches = 5;
constexpr rlim_t kOtherDescriptors = 100; // what the process needs beside the events

// One eventfd per event.
bool RaiseDescriptorLimit()
{
    struct rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return false;
    }
    limit.rlim_cur = limit.rlim_max;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= kMany + kOtherDescriptors;
}

// The ten events. Passes are counted on the scheduler thread.
class Ring
{
public:
    explicit Ring(const SchedulerThread& thread)
    {
        for (std::size_t i = 0; i < kFew; ++i) {
            places_[i] = {this, (i + 1) % kFew};
            events_.emplace_back(thread, OnToken, &places_[i]);
        }
    }
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;

    double NanosecondsPerPass()
    {
        left_ = kPasses; // the notification hands it over, the semaphore gives it back
        return NanosecondsOf([this] {
                   events_.front().Notify();
                   done_.Wait();
               }) /
               kPasses;
    }

private:
    struct Place {
        Ring* ring;
        std::size_t next;
    };

    static std::uint32_t OnToken(std::uint64_t data)
    {
        const auto* place = reinterpret_cast<const Place*>(data);
        Ring* ring = place->ring;
        ring->left_ -= 1;
        if (ring->left_ == 0) {
            ring->done_.Post();
            return 0;
        }
        return ring->events_[place->next].Notify() ? 0 : 1;
    }

    std::uint64_t left_ = 0;
    Signal done_;
    Place places_[kFew] = {};
    std::vector<Event> events_;
};

std::uint32_t NeverNotified(std::uint64_t /*data*/)
{
    return 1;
}

void Measure(Ring& ring, std::vector<double>& out)
{
    for (int i = 0; i < kBatches; ++i) {
        out.push_back(ring.NanosecondsPerPass());
    }
}

void NotifyAndRunBesideLiveEvents(benchmark::State& state)
{
    if (!RaiseDescriptorLimit()) {
        state.SkipWithError("the hard limit of open descriptors is too low for 10,000 events");
        return;
    }
    const SchedulerThread thread("bench_live");
    Ring ring(thread);
    std::vector<double> fewNs;
    std::vector<double> manyNs;
    ring.NanosecondsPerPass();
    for (auto _ : state) {
        Measure(ring, fewNs);
        state.PauseTiming();
        std::vector<Event> others;
        others.reserve(kMany - kFew);
        while (others.size() < kMany - kFew) {
            others.emplace_back(thread, NeverNotified, nullptr);
        }
        state.ResumeTiming();
        Measure(ring, manyNs);
        state.PauseTiming();
        others.clear();
        state.ResumeTiming();
    }
    state.counters["with_10_ns"] = Median(fewNs);
    state.counters["with_10000_ns"] = Median(manyNs);
    state.counters["ratio"] = Median(manyNs) / Median(fewNs);
}
BENCHMARK(NotifyAndRunBesideLiveEvents)->Iterations(20)->Unit(benchmark::kMillisecond);

} // namespace
