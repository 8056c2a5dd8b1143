// How many of something there are, and the wait until none is left. Counted up and down on any
// thread; the waiter may destroy what was counted once it has seen zero: the last act of a
// counting thread is the unlock.
#ifndef SERVICE_PLATFORM_GAUGE_H
#define SERVICE_PLATFORM_GAUGE_H

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "common/xel_int.h"

using Clock = std::chrono::steady_clock;

class Gauge
{
public:
    void Add()
    {
        const std::lock_guard guard(mutex_);
        ++count_;
    }
    void Done()
    {
        const std::lock_guard guard(mutex_);
        if (--count_ == 0) {
            none_.notify_all();
        }
    }
    u64 Now() const
    {
        const std::lock_guard guard(mutex_);
        return count_;
    }
    // False: some are left at the deadline.
    bool WaitForZero(Clock::time_point deadline)
    {
        std::unique_lock guard(mutex_);
        return none_.wait_until(guard, deadline, [this] { return count_ == 0; });
    }

private:
    mutable std::mutex mutex_; // guards the count
    std::condition_variable none_;
    u64 count_ = 0;
};

#endif // SERVICE_PLATFORM_GAUGE_H
