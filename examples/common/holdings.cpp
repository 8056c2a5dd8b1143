// The counts come from the memory service and from /proc. Called from the main thread.
#include "examples/common/holdings.h"

#include <chrono>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>

#include <unistd.h>

#include "xel_mem.h"

namespace
{

constexpr auto kLongestEnd = std::chrono::seconds(5);

long CountEntries(const char* directory)
{
    const std::filesystem::directory_iterator entries(directory);
    return std::distance(begin(entries), end(entries));
}

} // namespace

Holdings CountHoldings()
{
    XelMemUsage usage = {};
    XEL_MemGetUsage(&usage);
    return {static_cast<long>(usage.blocks), CountEntries("/proc/self/fd"),
            CountEntries("/proc/self/task")};
}

// Some tools add a thread of theirs to the first one of a program, so that one is made here. It is
// listed for a moment longer than it can be joined.
long CountThreadsAtRest()
{
    pid_t tid = 0;
    std::thread([&tid] { tid = gettid(); }).join();
    const std::filesystem::path entry = "/proc/self/task/" + std::to_string(tid);
    while (std::filesystem::exists(entry)) {
        std::this_thread::yield();
    }
    return CountHoldings().threads;
}

Holdings CountHoldingsWithThreads(long threads)
{
    const auto deadline = std::chrono::steady_clock::now() + kLongestEnd;
    Holdings now = CountHoldings();
    while (now.threads > threads && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
        now = CountHoldings();
    }
    return now;
}
