// Creation and destruction of workers and events. The library has logged the reason of a failure
// when it is thrown here.
#include "examples/common/worker.h"

#include <cstring>
#include <stdexcept>

Worker::Worker(const char* name)
{
    XelThreadAttr* attr = XEL_ThreadCreateAttr();
    if (XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_NAME, name, strlen(name)) == XEL_OK) {
        thread_ = XEL_ThreadCreate(attr);
    }
    XEL_ThreadDestroyAttr(attr);
    if (thread_ == nullptr) {
        throw std::runtime_error("cannot create a scheduler thread");
    }
}

Worker::~Worker()
{
    (void)SchEventThreadDestory(thread_);
}

WorkerEvent::WorkerEvent(const Worker& worker, XelEventProc proc, const char* name, void* data)
    : event_(XelEventInnerCreate(worker.Handle(), proc, name, reinterpret_cast<u64>(data)))
{
    if (event_ == nullptr) {
        throw std::runtime_error("cannot create an event");
    }
}

WorkerEvent::~WorkerEvent()
{
    XEL_EventDestroy(event_);
}

void WorkerEvent::Notify() const
{
    if (TryNotify() != XEL_OK) {
        throw std::runtime_error("cannot notify an event");
    }
}
