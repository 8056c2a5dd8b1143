// What a task costs in memory, and whether creating, finding and destroying one grows with the
// number of live tasks.
#include <cstdio>
#include <vector>

#include <unistd.h>

#include <benchmark/benchmark.h>

#include "xel_scheduler.h"

namespace
{

constexpr int kFirstFd = 1000; // numbers only: a task does not touch its descriptor

std::uint32_t EmptyProc(struct epoll_event* /*events*/, std::uint64_t /*data*/)
{
    return 0;
}

XelTaskAttr* MakeAttr()
{
    XelTaskAttr* attr = XEL_TaskCreateAttr();
    const XelTaskUsrCb callback = {EmptyProc, 0};
    XEL_TaskSetAttr(attr, XEL_TASK_ATTR_USR_CB, &callback, sizeof(callback));
    return attr;
}

double ResidentBytes()
{
    long pages = 0;
    long resident = 0;
    std::FILE* file = std::fopen("/proc/self/statm", "r");
    if (file != nullptr) {
        if (std::fscanf(file, "%ld %ld", &pages, &resident) != 2) {
            resident = 0;
        }
        std::fclose(file);
    }
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// Resident bytes per task, bound to a scheduler, with 100,000 of them.
void TaskMemory(benchmark::State& state)
{
    const auto count = static_cast<int>(state.range(0));
    const int epFd = epoll_create1(EPOLL_CLOEXEC);
    SchCtrl* sch = XEL_SchCreate(static_cast<std::uint32_t>(epFd), 32);
    XelTaskAttr* attr = MakeAttr();
    double bytes = 0;
    for (auto _ : state) {
        std::vector<SchTaskCtrl*> tasks(static_cast<std::size_t>(count));
        const double before = ResidentBytes();
        for (int i = 0; i < count; ++i) {
            SchTaskCtrl* task = XEL_TaskCreate(kFirstFd + i, attr);
            XEL_TaskAdd(sch, task);
            tasks[static_cast<std::size_t>(i)] = task;
        }
        bytes = (ResidentBytes() - before) / count;
        for (SchTaskCtrl* task : tasks) {
            XEL_TaskDestroy(task);
        }
    }
    XEL_TaskDestroyAttr(attr);
    XEL_SchDestroy(sch);
    close(epFd);
    state.counters["bytes_per_task"] = bytes;
}
BENCHMARK(TaskMemory)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);

// Creating and destroying one more task beside many.
void CreateAndDestroyBeside(benchmark::State& state)
{
    const auto count = static_cast<int>(state.range(0));
    XelTaskAttr* attr = MakeAttr();
    std::vector<SchTaskCtrl*> tasks;
    for (int i = 0; i < count; ++i) {
        tasks.push_back(XEL_TaskCreate(kFirstFd + i, attr));
    }
    for (auto _ : state) {
        XEL_TaskDestroy(XEL_TaskCreate(kFirstFd - 1, attr));
    }
    for (SchTaskCtrl* task : tasks) {
        XEL_TaskDestroy(task);
    }
    XEL_TaskDestroyAttr(attr);
}
BENCHMARK(CreateAndDestroyBeside)->Arg(10)->Arg(1000)->Arg(100000);

} // namespace
