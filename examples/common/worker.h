// Owners of what an example is made of: a scheduler thread, and an event on one. Both are created
// and destroyed by the main thread; an event must go before its thread does.
#ifndef COMMON_WORKER_H
#define COMMON_WORKER_H

#include "common/xel_int.h"
#include "xel_event.h"

class Worker
{
public:
    // Throws std::runtime_error when the thread cannot be had. name: at most 15 characters.
    explicit Worker(const char* name);
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    // Waits for the end of the callback that runs.
    ~Worker();

    XelThreadCtrl* Handle() const { return thread_; }

private:
    XelThreadCtrl* thread_ = nullptr;
};

class WorkerEvent
{
public:
    // proc runs on worker, once per notification, and gets data. Throws std::runtime_error when the
    // event cannot be had. name: at most 15 characters.
    WorkerEvent(const Worker& worker, XelEventProc proc, const char* name, void* data);
    WorkerEvent(const WorkerEvent&) = delete;
    WorkerEvent& operator=(const WorkerEvent&) = delete;
    ~WorkerEvent();

    // May be called from any thread, callbacks included. Throws std::runtime_error when the
    // notification is refused.
    void Notify() const;
    // The same for callbacks, which have nobody to throw at: their result is logged.
    u32 TryNotify() const { return XEL_EventNotify(event_); }

private:
    XelEventNode* event_ = nullptr;
};

#endif // COMMON_WORKER_H
