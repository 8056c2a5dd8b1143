// The inner event of a scheduler's destruction: a private eventfd, as a task on the scheduler's own
// epoll instance, whose write ends the dispatcher's wait. It is not bound to the policy: with a
// policy it only ends the wait, without one SchInnerEventProc reads it. Created, written and
// removed by the destroying thread; the callback runs on the dispatching one.
#include "scheduler/xel_sch_inner_event.h"

#include <cerrno>
#include <sys/eventfd.h>
#include <unistd.h>

#include "common/xel_memory.h"
#include "scheduler/xel_sch_task_bind.h"

namespace
{

constexpr u32 kInnerType = XEL_TASK_TYPE_GROUP;
constexpr u32 kInnerPrio = kTaskPrioCount - 1;
// In semaphore mode the eventfd stays readable for that many reads.
constexpr u64 kWakeUps = 3;

SchTaskCtrl* CreateInnerTask(i32 fd)
{
    XelTaskAttr attr = {};
    attr.magic = kTaskAttrMagic;
    attr.proc = SchInnerEventProc;
    attr.data = static_cast<u64>(fd);
    attr.type = kInnerType;
    attr.prio = kInnerPrio;
    (void)strcpy_s(attr.name, sizeof(attr.name), "schInnerEvent");
    return SchTaskCreate(fd, &attr);
}

} // namespace

SchTaskCtrl* SchInnerEventCreate(i32 epFd, const SchEpollOps* ops)
{
    const i32 fd = eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd == -1) {
        XEL_LOG_FAIL(kSchLog, "create event fd unsuccessfully, errno = %d.", errno);
        return nullptr;
    }
    SchTaskCtrl* task = CreateInnerTask(fd);
    if (task == nullptr) {
        close(fd);
        return nullptr;
    }
    TaskKeepTo(task, epFd);
    struct epoll_event event = {};
    event.events = EPOLLIN;
    event.data.ptr = task;
    if (ops->ctl(epFd, XEL_SCH_EPOLL_ADD, fd, &event) != 0) {
        XEL_LOG_FAIL(kSchLog, "inner event add epoll unsuccessfully:%d, errno:%d.", fd,
                     ops->getErrNo());
        SchTaskDestroy(task);
        close(fd);
        return nullptr;
    }
    return task;
}

void SchInnerEventDestroy(i32 epFd, SchTaskCtrl* task, const SchEpollOps* ops)
{
    const auto fd = static_cast<i32>(SchTaskGetFdBySchHandle(task));
    if (fd < 0) {
        XEL_LOG_FAIL(kSchLog, "scheduler inner event task damage.");
        return;
    }
    if (ops->ctl(epFd, XEL_SCH_EPOLL_DEL, fd, nullptr) != 0) {
        XEL_LOG_FAIL(kSchLog,
                     "Sch innner event del epoll unsuccessfully. (fd = %d, epfd = %d, errno = %d)",
                     fd, epFd, ops->getErrNo());
    }
    SchTaskDestroy(task);
    close(fd);
}

// One read takes one wake-up; the value is of no use.
u32 SchInnerEventProc(struct epoll_event* event, u64 fd)
{
    if ((event->events & EPOLLIN) != 0) {
        eventfd_t value = 0;
        if (eventfd_read(static_cast<i32>(fd), &value) != 0) {
            XEL_LOG_FAIL(kSchLog, "scheduler inner event read unsuccessfully.");
        }
    }
    return XEL_OK;
}

bool InnerEventNotify(SchTaskCtrl* inner)
{
    const auto fd = static_cast<i32>(SchTaskGetFdBySchHandle(inner));
    if (fd < 0) {
        XEL_LOG_FAIL(kSchLog, "scheduler inner event task damage.");
        return false;
    }
    // Bounded by the signals that arrive.
    while (eventfd_write(fd, kWakeUps) != 0) {
        const int error = errno;
        if (error != EINTR) {
            XEL_LOG_FAIL(kSchLog, "event fd write unsuccessfully, errno = %d.", error);
            return false;
        }
    }
    return true;
}

void InnerEventRepeat(SchTaskCtrl* inner)
{
    const auto fd = static_cast<i32>(SchTaskGetFdBySchHandle(inner));
    if (fd >= 0) {
        (void)eventfd_write(fd, kWakeUps);
    }
}
