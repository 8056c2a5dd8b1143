// What the timer benchmarks are made of, beside the owners of the event benchmarks.
#ifndef XEL_BENCH_TIMER_OBJECTS_H
#define XEL_BENCH_TIMER_OBJECTS_H

#include <cstddef>
#include <cstdint>

#include "bench/event/event_objects.h"
#include "xel_timer.h"

// Timers cost a descriptor each. False when the hard limit does not allow this many.
bool RaiseDescriptorLimit(std::size_t needed);

// A timer attribute for the length of a creation or more.
class TimerAttr
{
public:
    TimerAttr(XelTimerProc proc, void* data, std::uint32_t mode, std::uint32_t timeoutMs);
    ~TimerAttr() { XEL_TimerDestroyAttr(attr_); }
    TimerAttr(const TimerAttr&) = delete;
    TimerAttr& operator=(const TimerAttr&) = delete;

    void SetDestructor(XelTimerDestructor destructor);
    // Throws std::runtime_error when the timer cannot be had.
    XelTimerNode* Create(const SchedulerThread& thread) const;

private:
    XelTimerAttr* attr_;
};

// Waits until a scheduler thread has run everything that was ready before the call.
class Flush
{
public:
    explicit Flush(const SchedulerThread& thread) : event_(thread, OnEvent, this) {}

    void Wait()
    {
        event_.Notify();
        done_.Wait();
    }

private:
    static std::uint32_t OnEvent(std::uint64_t data);

    Signal done_;
    Event event_;
};

#endif // XEL_BENCH_TIMER_OBJECTS_H
