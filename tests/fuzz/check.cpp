// Checks, footprint, and the definitions in front: the log formats every line and drops it, the one
// second of sleep after a failed dispatch is skipped, the naps of destroyers are short.
#include "check.h"

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

#include "xel_log.h"

namespace
{

constexpr size_t kLineSize = 1024;
constexpr long kNapNs = 50000;

// Counted by whoever logs, read by the fuzzing thread.
constinit std::atomic<u64> g_lines = 0;

int Nap()
{
    const timespec nap = {0, kNapNs};
    return clock_nanosleep(CLOCK_MONOTONIC, 0, &nap, nullptr);
}

} // namespace

extern "C" {

XEL_API unsigned sleep(unsigned)
{
    return 0;
}

XEL_API int usleep(useconds_t)
{
    return Nap();
}

uint32_t LOG_InnerPrint(uint32_t, const char*, uint32_t, const char*, uint32_t, uint32_t,
                        uint32_t level, const char* format, ...)
{
    FUZZ_CHECK(level == XEL_LOG_ERROR || level == XEL_LOG_WARN || level == XEL_LOG_INFO);
    char line[kLineSize];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    FUZZ_CHECK(length >= 0);
    g_lines.fetch_add(1, std::memory_order_relaxed);
    return XEL_OK;
}

} // extern "C"

namespace xelfuzz
{

void Die(const char* file, int line, const char* what)
{
    fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
    abort();
}

void Print(const char* title, const Footprint& footprint)
{
    fprintf(stderr, "%s: blocks %lu, units %lu, pools %lu, descriptors %zu, threads %zu\n", title,
            footprint.blocks, footprint.units, footprint.pools, footprint.descriptors,
            footprint.threads);
}

void Await(const char* what, const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            Die(what, 0, "waited for too long");
        }
        (void)Nap();
    }
}

u64 LogLines()
{
    return g_lines.load(std::memory_order_relaxed);
}

} // namespace xelfuzz
