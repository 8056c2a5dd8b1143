// Owners for what the event benchmarks are made of. All of them belong to the benchmark's own
// thread; what runs on a scheduler thread is said where it is.
#ifndef XEL_BENCH_EVENT_OBJECTS_H
#define XEL_BENCH_EVENT_OBJECTS_H

#include <chrono>
#include <cstdint>
#include <utility>
#include <vector>

#include <pthread.h>
#include <semaphore.h>

#include "xel_event.h"

// Wakes one thread by another.
class Signal
{
public:
    Signal() { sem_init(&semaphore_, 0, 0); }
    ~Signal() { sem_destroy(&semaphore_); }
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    void Post() { sem_post(&semaphore_); }
    void Wait();

private:
    sem_t semaphore_;
};

// A scheduler thread with the default attributes. Its events must be gone before it is.
class SchedulerThread
{
public:
    // Throws std::runtime_error when the thread cannot be had.
    explicit SchedulerThread(const char* name);
    ~SchedulerThread();
    SchedulerThread(const SchedulerThread&) = delete;
    SchedulerThread& operator=(const SchedulerThread&) = delete;

    XelThreadCtrl* Handle() const { return thread_; }
    pthread_t Id() const;

private:
    XelThreadCtrl* thread_ = nullptr;
};

class Event
{
public:
    // proc runs on thread. Throws std::runtime_error when the event cannot be had.
    Event(const SchedulerThread& thread, XelEventProc proc, void* data);
    ~Event();
    Event(Event&& other) noexcept : event_(std::exchange(other.event_, nullptr)) {}
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    // Any thread. Whether the notification was taken.
    bool Notify() const { return XEL_EventNotify(event_) == XEL_OK; }

private:
    XelEventNode* event_ = nullptr;
};

double Median(std::vector<double> values);

template <typename Body>
double NanosecondsOf(Body&& body)
{
    const auto begin = std::chrono::steady_clock::now();
    body();
    const auto end = std::chrono::steady_clock::now();
    return std::chrono::duration<double, std::nano>(end - begin).count();
}

#endif // XEL_BENCH_EVENT_OBJECTS_H
