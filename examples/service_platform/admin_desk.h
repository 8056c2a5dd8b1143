// Urgent questions to a service, beside its message queue: a task of our own on the service's
// thread, of a schedule type and priority that goes before every event there. A question is
// answered after the callback that is running, however many messages wait.
#ifndef SERVICE_PLATFORM_ADMIN_DESK_H
#define SERVICE_PLATFORM_ADMIN_DESK_H

#include <deque>
#include <mutex>

#include "examples/common/unique_fd.h"
#include "examples/service_platform/gauge.h"
#include "examples/service_platform/tasks.h"

class AdminHandler
{
public:
    // On the service's thread. May throw: the library logs the failed run.
    virtual void OnAdmin(u64 request) = 0;

protected:
    ~AdminHandler() = default;
};

class AdminDesk
{
public:
    // Throws std::runtime_error or std::system_error.
    AdminDesk(const Worker& worker, AdminHandler& handler);
    AdminDesk(const AdminDesk&) = delete;
    AdminDesk& operator=(const AdminDesk&) = delete;
    // Nobody asks any more, and all questions have been handled.
    ~AdminDesk();

    // False: too many wait already. Any thread.
    bool Ask(u64 request);
    bool WaitUntilEmpty(Clock::time_point deadline) { return open_.WaitForZero(deadline); }

private:
    static u32 Proc(struct epoll_event* event, u64 data);

    AdminHandler& handler_;
    std::mutex mutex_; // guards the queue
    std::deque<u64> queue_;
    Gauge open_;
    UniqueFd event_; // counts the questions
    Tasks tasks_;
};

#endif // SERVICE_PLATFORM_ADMIN_DESK_H
