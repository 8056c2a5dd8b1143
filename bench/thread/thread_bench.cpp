// What a scheduler thread costs to create and to destroy, and whether many rounds leave anything
// behind. A destroy looks for the end of the thread every 10 ms and sleeps once more after the look
// that finds it, so it takes 20 ms as a rule.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "xel_mem.h"
#include "xel_pool.h"
#include "xel_thread.h"

namespace
{

using Clock = std::chrono::steady_clock;

constexpr auto kLongestEnd = std::chrono::seconds(5);

long CountEntries(const char* directory)
{
    const std::filesystem::directory_iterator entries(directory);
    return std::distance(begin(entries), end(entries));
}

// What the process holds. The descriptor of the look at /proc is in every count alike.
struct Holdings {
    double blocks;
    double units;
    double descriptors;
    double threads;
};

Holdings CountHoldings()
{
    XelMemUsage memory = {};
    XEL_MemGetUsage(&memory);
    FmmUsage pools = {};
    FmmGetUsage(&pools);
    return {static_cast<double>(memory.blocks), static_cast<double>(pools.units),
            static_cast<double>(CountEntries("/proc/self/fd")),
            static_cast<double>(CountEntries("/proc/self/task"))};
}

// Scheduler threads are detached, so nobody can join the last instructions of one: its end shows in
// /proc only.
Holdings HoldingsOnceThreadsEnded(double threads)
{
    const auto deadline = Clock::now() + kLongestEnd;
    Holdings now = CountHoldings();
    while (now.threads > threads && Clock::now() < deadline) {
        std::this_thread::yield();
        now = CountHoldings();
    }
    return now;
}

double MicrosecondsSince(Clock::time_point begin)
{
    return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

struct RoundTimes {
    std::vector<double> createUs;
    std::vector<double> destroyUs;
};

// Whether the thread could be created and destroyed.
bool RunRound(const XelThreadAttr* attr, RoundTimes& times)
{
    const auto create = Clock::now();
    XelThreadCtrl* thread = XEL_ThreadCreate(attr);
    times.createUs.push_back(MicrosecondsSince(create));
    const auto destroy = Clock::now();
    const bool ended = thread != nullptr && SchEventThreadDestory(thread) == XEL_OK;
    times.destroyUs.push_back(MicrosecondsSince(destroy));
    return ended;
}

void Report(benchmark::State& state, const RoundTimes& times, const Holdings& before)
{
    const Holdings after = HoldingsOnceThreadsEnded(before.threads);
    state.counters["create_us"] = Median(times.createUs);
    state.counters["destroy_us"] = Median(times.destroyUs);
    state.counters["blocks_left"] = after.blocks - before.blocks;
    state.counters["descriptors_left"] = after.descriptors - before.descriptors;
    state.counters["threads_left"] = after.threads - before.threads;
    state.counters["units_left"] = after.units - before.units;
}

// The first round, uncounted, makes the tables that stay for the life of the process.
void CreateAndDestroy(benchmark::State& state)
{
    constexpr const char* kName = "bench_thread";
    XelThreadAttr* attr = XEL_ThreadCreateAttr();
    XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_NAME, kName, std::strlen(kName));
    const double threadsAtStart = CountHoldings().threads;
    RoundTimes first;
    bool ended = RunRound(attr, first);
    const Holdings before = HoldingsOnceThreadsEnded(threadsAtStart);
    RoundTimes times;
    for (auto _ : state) {
        ended = RunRound(attr, times) && ended;
    }
    if (ended) {
        Report(state, times, before);
    } else {
        state.SkipWithError("a scheduler thread could not be created or destroyed");
    }
    XEL_ThreadDestroyAttr(attr);
}
BENCHMARK(CreateAndDestroy)->Iterations(1000)->Unit(benchmark::kMicrosecond);

} // namespace
