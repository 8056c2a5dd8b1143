// An eventfd in semaphore mode: each run reads one count and takes one question.
#include "examples/service_platform/admin_desk.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace
{

constexpr size_t kMostWaiting = 64;

} // namespace

AdminDesk::AdminDesk(const Worker& worker, AdminHandler& handler)
    : handler_(handler),
      event_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC | EFD_SEMAPHORE)),
      tasks_(worker)
{
    if (!event_.IsOpen()) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    if (!tasks_.Add(event_.Get(), TaskPlace::Desk, Proc, this)) {
        throw std::runtime_error("no task for the desk");
    }
}

AdminDesk::~AdminDesk()
{
    tasks_.Remove(event_.Get());
}

bool AdminDesk::Ask(u64 request)
{
    const std::lock_guard guard(mutex_);
    if (queue_.size() == kMostWaiting) {
        return false;
    }
    queue_.push_back(request);
    if (eventfd_write(event_.Get(), 1) != 0) {
        queue_.pop_back();
        return false;
    }
    open_.Add();
    return true;
}

// Nothing may be thrown through the library's frames.
u32 AdminDesk::Proc(struct epoll_event*, u64 data)
{
    auto* self = reinterpret_cast<AdminDesk*>(data);
    eventfd_t count = 0;
    if (eventfd_read(self->event_.Get(), &count) != 0) {
        return errno == EAGAIN ? XEL_OK : XEL_FAIL;
    }
    u64 request = 0;
    {
        const std::lock_guard guard(self->mutex_);
        request = self->queue_.front();
        self->queue_.pop_front();
    }
    u32 result = XEL_OK;
    try {
        self->handler_.OnAdmin(request);
    } catch (...) {
        result = XEL_FAIL;
    }
    self->open_.Done();
    return result;
}
