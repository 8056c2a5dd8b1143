// The library's log as a platform takes it: one line for each refused message would drown the rest
// under overload, so those are counted; every other line goes to standard error as it is.
#ifndef SERVICE_PLATFORM_LOG_WATCH_H
#define SERVICE_PLATFORM_LOG_WATCH_H

#include <atomic>

#include "common/xel_int.h"

class LogWatch
{
public:
    // Takes the log over until the end of the object.
    LogWatch();
    LogWatch(const LogWatch&) = delete;
    LogWatch& operator=(const LogWatch&) = delete;
    ~LogWatch();

    u64 Refusals() const { return refusals_.load(std::memory_order_relaxed); }
    u64 Others() const { return others_.load(std::memory_order_relaxed); }

private:
    static void Take(void* context, u32 level, const char* line, size_t length);

    // Counters only; read when the threads that log have ended.
    std::atomic<u64> refusals_{0};
    std::atomic<u64> others_{0};
};

#endif // SERVICE_PLATFORM_LOG_WATCH_H
