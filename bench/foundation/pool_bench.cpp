// What the services cost that stand in the way of every task and event.
#include <algorithm>
#include <random>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "xel_list.h"
#include "xel_log.h"
#include "xel_pool.h"

namespace
{

constexpr size_t kUnitSize = 136;

void UnitIsValid(benchmark::State& state)
{
    void* pool = FmmCtrlCreate(kUnitSize, 1024, 6);
    std::vector<void*> units(static_cast<size_t>(state.range(0)));
    for (void*& unit : units) {
        unit = FmmUnitAlloc(pool);
    }
    std::shuffle(units.begin(), units.end(), std::mt19937(1));
    size_t next = 0;
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(FmmUnitIsValid(units[next], 0));
        next = next + 1 == units.size() ? 0 : next + 1;
    }
    FmmCtrlDestroy(pool);
}
BENCHMARK(UnitIsValid)->Arg(16)->Arg(1000)->Arg(100000);

void UnitAllocAndFree(benchmark::State& state)
{
    void* pool = FmmCtrlCreate(kUnitSize, 1024, 6);
    while (state.KeepRunning()) {
        void* unit = FmmUnitAlloc(pool);
        benchmark::DoNotOptimize(unit);
        FmmUnitFree(unit);
    }
    FmmCtrlDestroy(pool);
}
BENCHMARK(UnitAllocAndFree);

void AddAndDelete(benchmark::State& state, XelDll* node)
{
    XelDll head;
    uint32_t counter = 0;
    XelDllInit(&head, &counter);
    while (state.KeepRunning()) {
        XelDllInitAndAddPrev(&head, node, nullptr);
        XelDllDel(node);
    }
    benchmark::DoNotOptimize(counter);
}

void ListOfPoolNodes(benchmark::State& state)
{
    void* pool = FmmCtrlCreate(sizeof(XelDll), 1024, 2);
    AddAndDelete(state, static_cast<XelDll*>(FmmUnitAlloc(pool)));
    FmmCtrlDestroy(pool);
}
BENCHMARK(ListOfPoolNodes);

void ListOfOtherNodes(benchmark::State& state)
{
    XelDll node = {};
    AddAndDelete(state, &node);
}
BENCHMARK(ListOfOtherNodes);

// Grows a list and takes it apart in random order: per node, the time must hardly depend on how
// many there are.
void ListTakenApart(benchmark::State& state)
{
    std::vector<XelDll> nodes(static_cast<size_t>(state.range(0)));
    std::vector<XelDll*> order;
    order.reserve(nodes.size());
    for (XelDll& node : nodes) {
        order.push_back(&node);
    }
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    XelDll head;
    uint32_t counter = 0;
    XelDllInit(&head, &counter);
    while (state.KeepRunning()) {
        for (XelDll& node : nodes) {
            XelDllInitAndAddPrev(&head, &node, nullptr);
        }
        for (XelDll* node : order) {
            XelDllDel(node);
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ListTakenApart)->Arg(1000)->Arg(100000);

void LogLineToNothing(benchmark::State& state)
{
    const int saved = dup(STDERR_FILENO);
    const int nothing = open("/dev/null", O_WRONLY);
    dup2(nothing, STDERR_FILENO);
    while (state.KeepRunning()) {
        LOG_InnerPrint(0, "bench/foundation/pool_bench", 1, "<unknown>", 9, 1, XEL_LOG_ERROR,
                       "Value is too large. (value = %d, name = %s)", 42, "name");
    }
    dup2(saved, STDERR_FILENO);
    close(saved);
    close(nothing);
}
BENCHMARK(LogLineToNothing);

} // namespace
