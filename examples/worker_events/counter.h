// Counts runs on scheduler threads; the main thread waits for a number of them. The main thread may
// destroy a counter once it has waited for the last run: the runner's last act is the unlock.
#ifndef WORKER_EVENTS_COUNTER_H
#define WORKER_EVENTS_COUNTER_H

#include <condition_variable>
#include <mutex>

#include "common/xel_int.h"

class Counter
{
public:
    // Any thread. Returns the new count.
    u64 Add()
    {
        const std::lock_guard guard(mutex_);
        count_ += 1;
        if (count_ == wanted_) {
            reached_.notify_one();
        }
        return count_;
    }
    // One thread at a time.
    void WaitFor(u64 count)
    {
        std::unique_lock guard(mutex_);
        wanted_ = count;
        reached_.wait(guard, [&] { return count_ >= count; });
    }
    u64 Value()
    {
        const std::lock_guard guard(mutex_);
        return count_;
    }

private:
    std::mutex mutex_; // guards both numbers
    std::condition_variable reached_;
    u64 count_ = 0;
    u64 wanted_ = 0;
};

#endif // WORKER_EVENTS_COUNTER_H
