// Creation and destruction of the objects that the event benchmarks share. A benchmark without its
// thread or event has nothing to measure: a failed creation throws.
#include "bench/event/event_objects.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

void Signal::Wait()
{
    while (sem_wait(&semaphore_) != 0) { // bounded by the signals that arrive
    }
}

SchedulerThread::SchedulerThread(const char* name)
{
    XelThreadAttr* attr = XEL_ThreadCreateAttr();
    if (XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_NAME, name, std::strlen(name)) == XEL_OK) {
        thread_ = XEL_ThreadCreate(attr);
    }
    XEL_ThreadDestroyAttr(attr);
    if (thread_ == nullptr) {
        throw std::runtime_error("cannot create a scheduler thread");
    }
}

SchedulerThread::~SchedulerThread()
{
    (void)SchEventThreadDestory(thread_);
}

pthread_t SchedulerThread::Id() const
{
    std::uint64_t id = 0;
    (void)XEL_ThreadGetInfo(thread_, XEL_THREAD_INFO_TID, &id, sizeof(id));
    return static_cast<pthread_t>(id);
}

Event::Event(const SchedulerThread& thread, XelEventProc proc, void* data)
    : event_(XelEventInnerCreate(thread.Handle(), proc, "bench",
                                 reinterpret_cast<std::uint64_t>(data)))
{
    if (event_ == nullptr) {
        throw std::runtime_error("cannot create an event");
    }
}

Event::~Event()
{
    if (event_ != nullptr) {
        XEL_EventDestroy(event_);
    }
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}
