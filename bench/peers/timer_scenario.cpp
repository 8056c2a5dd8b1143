// Timers: the cost of one more beside many, and how exactly a thousand of them run.
#include <atomic>
#include <cstdint>
#include <unistd.h>
#include <vector>

#include "bench/peers/loop.h"
#include "bench/peers/scenario.h"

namespace
{

constexpr std::uint32_t kHourMs = 3600 * 1000;
constexpr std::uint64_t kNsPerMs = 1000000;

void Nothing(void* /*data*/) {}

// Armed timers that never expire while somebody looks.
class FarTimers
{
public:
    FarTimers(Loop& loop, int count) : loop_(loop), timers_(static_cast<std::size_t>(count))
    {
        for (Timer& timer : timers_) {
            timer.periodMs = kHourMs;
            timer.proc = Nothing;
            loop_.Add(timer);
        }
    }
    ~FarTimers()
    {
        for (Timer& timer : timers_) {
            loop_.Delete(timer);
        }
        loop_.Settle();
    }
    FarTimers(const FarTimers&) = delete;
    FarTimers& operator=(const FarTimers&) = delete;

private:
    Loop& loop_;
    std::vector<Timer> timers_;
};

// Timers that note how late they run. The grid of a timer begins where it was created; what a peer
// loses on the grid counts as lateness. The grids are spread evenly over the period.
class Periodic
{
public:
    Periodic(Loop& loop, int count, int periodMs, double seconds)
        : loop_(loop),
          periodNs_(static_cast<std::uint64_t>(periodMs) * kNsPerMs),
          spanNs_(static_cast<std::uint64_t>(seconds * 1e9)),
          targets_(static_cast<std::size_t>(count))
    {
        latenessUs_.reserve(static_cast<std::size_t>(2 * count * seconds * 1e3 / periodMs));
        // A loop that runs meanwhile takes its share of the processor: there the timers come in
        // several rounds of a period each, side by side, with time enough between two. Any other
        // one gets all within the first period, before one of them is due.
        const std::size_t rounds = loop.RunsFromCreation() ? 8 : 1;
        const std::uint64_t spreadNs = periodNs_ / targets_.size();
        std::uint64_t roundNs = NowNs();
        for (std::size_t first = 0; first < rounds; ++first) {
            roundNs += periodNs_;
            for (std::size_t i = first; i < targets_.size(); i += rounds) {
                Create(targets_[i], roundNs + i * spreadNs);
            }
        }
        fromNs_.store(NowNs() + kWarmUpMs * kNsPerMs, std::memory_order_release);
    }
    void Stop()
    {
        for (Target& target : targets_) {
            loop_.Delete(target.timer);
        }
        loop_.Settle();
    }

    // Processor time of the process between the end of the warm-up and the end of the measurement.
    std::uint64_t WaitAndCountCpuNs() const
    {
        SleepUntil(fromNs_.load());
        const std::uint64_t begin = ProcessCpuNs();
        SleepUntil(fromNs_.load() + spanNs_);
        return ProcessCpuNs() - begin;
    }

    // One sample per run between these two moments; the loop's, until Stop has returned.
    std::vector<double>& LatenessUs() { return latenessUs_; }

private:
    struct Target {
        Timer timer;
        Periodic* owner = nullptr;
        std::uint64_t dueNs = 0;
    };

    static constexpr std::uint64_t kWarmUpMs = 200;

    // Creates a timer at that moment. After a delay, a loop that runs meanwhile gets it whole
    // periods later, so that the grids of the timers that follow are not bunched.
    void Create(Target& target, std::uint64_t moment)
    {
        std::uint64_t now = NowNs();
        if (now > moment && loop_.RunsFromCreation()) {
            moment += (now - moment + periodNs_ - 1) / periodNs_ * periodNs_;
        }
        for (; now < moment; now = NowNs()) {
        }
        target.owner = this;
        target.timer.periodMs = static_cast<std::uint32_t>(periodNs_ / kNsPerMs);
        target.timer.proc = OnExpiry;
        target.timer.data = &target;
        loop_.RefreshTime();
        target.dueNs = NowNs();
        loop_.Add(target.timer);
    }
    static void SleepUntil(std::uint64_t moment)
    {
        for (std::uint64_t now = NowNs(); now < moment; now = NowNs()) {
            usleep(static_cast<useconds_t>((moment - now) / 1000 + 1));
        }
    }
    static void OnExpiry(void* data)
    {
        auto* target = static_cast<Target*>(data);
        Periodic* self = target->owner;
        target->dueNs += target->timer.expirations * target->timer.periodMs * kNsPerMs;
        const std::uint64_t now = NowNs();
        const std::uint64_t from = self->fromNs_.load(std::memory_order_relaxed);
        if (now >= from && now - from < self->spanNs_) {
            const auto lateNs = static_cast<std::int64_t>(now - target->dueNs); // below 0: early
            self->latenessUs_.push_back(static_cast<double>(lateNs) / 1e3);
        }
    }

    Loop& loop_;
    const std::uint64_t periodNs_;
    const std::uint64_t spanNs_;
    std::atomic<std::uint64_t> fromNs_{UINT64_MAX}; // known when all timers are created
    std::vector<double> latenessUs_;
    std::vector<Target> targets_;
};

struct Cost {
    std::uint64_t callNs = 0; // inside create, start, stop and destroy
    std::uint64_t cpuNs = 0;  // of the whole process, what a peer does later included
};

Cost CreateAndDestroy(Loop& loop, std::vector<Timer>& batch)
{
    const std::uint64_t cpuBegin = ProcessCpuNs();
    const std::uint64_t begin = NowNs();
    for (Timer& timer : batch) {
        timer.periodMs = kHourMs;
        timer.proc = Nothing;
        loop.Add(timer);
        loop.Delete(timer);
    }
    const std::uint64_t end = NowNs();
    loop.Settle();
    return {end - begin, ProcessCpuNs() - cpuBegin};
}

} // namespace

void TimerChurnScenario(const Arguments& arguments, Line& line)
{
    constexpr std::size_t kBatch = 100; // over before a scheduler thread frees the first of them
    LoopOptions options;
    options.timers = true;
    const auto loop = MakeLoop(options);
    const FarTimers beside(*loop, arguments.Whole("beside", 10));
    std::vector<Timer> batch(kBatch);
    CreateAndDestroy(*loop, batch); // warm-up
    const auto budget = static_cast<std::uint64_t>(arguments.Real("seconds", 0.1) * 1e9);
    const std::uint64_t begin = NowNs();
    std::vector<double> callNs;
    std::vector<double> cpuNs;
    while (NowNs() - begin < budget) {
        const Cost cost = CreateAndDestroy(*loop, batch);
        callNs.push_back(static_cast<double>(cost.callNs) / kBatch);
        cpuNs.push_back(static_cast<double>(cost.cpuNs) / kBatch);
    }
    line.Put("call_ns", Percentile(callNs, 0.5));
    line.Put("cpu_ns", Percentile(cpuNs, 0.5));
}

void TimerPeriodicScenario(const Arguments& arguments, Line& line)
{
    const int count = arguments.Whole("count", 1000);
    const int periodMs = arguments.Whole("period", 10);
    const double seconds = arguments.Real("seconds", 1);
    LoopOptions options;
    options.timers = true;
    options.ownThread = true;
    const auto loop = MakeLoop(options);
    Periodic periodic(*loop, count, periodMs, seconds);
    loop->Start();
    const auto cpuNs = static_cast<double>(periodic.WaitAndCountCpuNs());
    loop->Join();
    periodic.Stop();
    std::vector<double>& samples = periodic.LatenessUs();
    const auto runs = static_cast<double>(samples.size());
    line.Put("p50_us", Percentile(samples, 0.50));
    line.Put("p99_us", Percentile(samples, 0.99));
    line.Put("runs_per_due", runs / (count * seconds * 1e3 / periodMs));
    line.Put("cpu_us_per_run", cpuNs / 1e3 / runs);
}
