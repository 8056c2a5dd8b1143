// A hundred thousand timers are created, fire, and end: in waves, by turns one-shot timers that end
// themselves and periodic ones that are destroyed once they have run. Each run and each release of
// user data is counted; memory blocks, pool units and descriptors are compared with what there was
// before the first wave. The counters print what is left, and are to be 0.
#include <atomic>
#include <stdexcept>
#include <vector>

#include <dirent.h>

#include <benchmark/benchmark.h>

#include "bench/timer/timer_objects.h"
#include "xel_mem.h"
#include "xel_pool.h"

namespace
{

constexpr std::size_t kTimers = 100000;
constexpr std::size_t kWave = 1000;
constexpr std::uint32_t kTimeoutMs = 2;

struct Usage {
    double blocks;
    double units;
    double descriptors;
};

double CountDescriptors()
{
    double count = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        throw std::runtime_error("cannot list the descriptors");
    }
    while (readdir(dir) != nullptr) {
        count += 1;
    }
    closedir(dir);
    return count;
}

Usage Measure()
{
    XelMemUsage memory = {};
    XEL_MemGetUsage(&memory);
    FmmUsage pools = {};
    FmmGetUsage(&pools);
    return {static_cast<double>(memory.blocks), static_cast<double>(pools.units),
            CountDescriptors()};
}

// The counts of one place in the waves; its timers come one after another. The scheduler thread
// counts.
struct Place {
    std::atomic<std::uint32_t> runs{0};
    std::atomic<std::uint32_t> releases{0};
};

class Waves
{
public:
    explicit Waves(const SchedulerThread& thread) : thread_(thread), flush_(thread), places_(kWave)
    {
        flush_.Wait();
    }

    // Returns when every timer of the wave is gone. A periodic one runs at least once before it is
    // destroyed.
    void Run(std::uint32_t mode)
    {
        std::vector<XelTimerNode*> timers;
        wave_ += 1;
        for (Place& place : places_) {
            place.runs.store(0);
            TimerAttr attr(OnTimer, &place, mode, kTimeoutMs);
            attr.SetDestructor(OnRelease);
            timers.push_back(attr.Create(thread_));
            refused_ |= XEL_TimerStart(timers.back()) != XEL_OK;
        }
        for (std::size_t i = 0; i < kWave; ++i) {
            AwaitAtLeast(places_[i].runs, 1);
            if (mode == XEL_TIMER_MODE_PERIODIC) {
                XEL_TimerDestroy(timers[i]);
            }
        }
        for (const Place& place : places_) {
            AwaitAtLeast(place.releases, wave_);
        }
        flush_.Wait();
        for (const Place& place : places_) {
            runs_ += place.runs.load();
        }
    }
    bool HasRefused() const { return refused_; }
    std::uint64_t Runs() const { return runs_; }
    std::uint64_t Releases() const
    {
        std::uint64_t sum = 0;
        for (const Place& place : places_) {
            sum += place.releases.load();
        }
        return sum;
    }

private:
    static std::uint32_t OnTimer(XelTimerNode* /*timer*/, std::uint64_t /*expirations*/, void* data)
    {
        auto* place = static_cast<Place*>(data);
        place->runs.fetch_add(1);
        place->runs.notify_one();
        return 0;
    }
    static void OnRelease(void* data)
    {
        auto* place = static_cast<Place*>(data);
        place->releases.fetch_add(1);
        place->releases.notify_one();
    }
    static void AwaitAtLeast(const std::atomic<std::uint32_t>& count, std::uint32_t wanted)
    {
        for (std::uint32_t seen = count.load(); seen < wanted; seen = count.load()) {
            count.wait(seen);
        }
    }

    const SchedulerThread& thread_;
    Flush flush_;
    std::vector<Place> places_;
    std::uint32_t wave_ = 0;
    std::uint64_t runs_ = 0;
    bool refused_ = false;
};

void HundredThousandTimers(benchmark::State& state)
{
    if (!RaiseDescriptorLimit(kWave)) {
        state.SkipWithError("the hard limit of open descriptors is too low");
        return;
    }
    const SchedulerThread thread("bench_life");
    Waves waves(thread);
    // What the scheduler keeps for its own life once it has met a crowd is there after one wave.
    waves.Run(XEL_TIMER_MODE_ONE_SHOT);
    const std::uint64_t warmUp = waves.Runs();
    const Usage before = Measure();
    for (auto _ : state) {
        for (std::size_t wave = 0; wave < kTimers / kWave; ++wave) {
            waves.Run(wave % 2 == 0 ? XEL_TIMER_MODE_ONE_SHOT : XEL_TIMER_MODE_PERIODIC);
        }
    }
    const Usage after = Measure();
    if (waves.HasRefused() || waves.Releases() != kTimers + kWave) {
        state.SkipWithError("a timer was not started, or timers and releases differ in number");
        return;
    }
    state.counters["timers"] = kTimers;
    state.counters["runs"] = static_cast<double>(waves.Runs() - warmUp);
    state.counters["released"] = static_cast<double>(waves.Releases() - kWave);
    state.counters["left_blocks"] = after.blocks - before.blocks;
    state.counters["left_units"] = after.units - before.units;
    state.counters["left_fds"] = after.descriptors - before.descriptors;
}
BENCHMARK(HundredThousandTimers)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace
