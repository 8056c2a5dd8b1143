// Binding of tasks to a scheduler, and epoll control: the one-call form that creates a task, binds
// it and registers its descriptor, and undoes that. It owns nothing; it goes through the task
// table's functions and the scheduler's epoll operations. Any thread may call, callbacks included.
#include <cerrno>

#include "common/xel_memory.h"
#include "scheduler/xel_sch_dbg_inner.h"
#include "scheduler/xel_sch_task_bind.h"
#include "scheduler/xel_sch_task_watch.h"
#include "scheduler/xel_scheduler_inner.h"

namespace
{

// The epoll operations of this library and those of the kernel.
struct EpollOpPair {
    u32 op;
    int linuxOp;
};

constexpr EpollOpPair kEpollOps[] = {
    {XEL_SCH_EPOLL_ADD, EPOLL_CTL_ADD},
    {XEL_SCH_EPOLL_MOD, EPOLL_CTL_MOD},
    {XEL_SCH_EPOLL_DEL, EPOLL_CTL_DEL},
};

constexpr int kRefusedOp = -1; // the kernel answers EINVAL

constexpr i32 kNoFd = -1;

// For calls and log lines; a null handle was refused before, and its line still prints a number.
i32 EpFdOf(const SchCtrl* sch)
{
    return sch == nullptr ? -1 : sch->epFd.load(std::memory_order_relaxed);
}

// XEL_TaskAdd. With events, the descriptor is about to be registered here for them.
u32 Bind(SchCtrl* sch, SchTaskCtrl* task, u32 events)
{
    void* policy = nullptr;
    if (SchGetPolicyHandleBySchHandle(sch, &policy) != XEL_OK) {
        return XEL_EINVAL;
    }
    SchDbgTaskInfo record;
    ClearRecord(&record);
    record.epFd = SchGetEpollFdBySchHandle(sch);
    record.fd = kNoFd; // stays while no hooks are registered
    if (SchTaskGetDbgInfoByTaskHandle(task, &record) != XEL_OK) {
        return XEL_EINVAL;
    }
    const u32 watchEvents = events != 0 && SchMaySetAside(sch) ? events : 0;
    const u32 ret = TaskBind(task, policy, TaskPlace{EpFdOf(sch), watchEvents});
    if (ret == XEL_OK && record.fd != kNoFd) {
        SchDbgInsertTaskInfo(&record);
    }
    return ret;
}

// XEL_TaskDel but for the end of the registration; deletion as TaskUnbind says.
u32 Unbind(SchCtrl* sch, SchTaskCtrl* task, TaskDeletion* deletion)
{
    void* policy = nullptr;
    if (SchGetPolicyHandleBySchHandle(sch, &policy) != XEL_OK) {
        return XEL_EINVAL;
    }
    if (SchTaskGetFdBySchHandle(task) == XEL_FAIL) {
        return XEL_EINVAL;
    }
    TaskUnbind(task, policy, deletion);
    if (deletion == nullptr || !deletion->isOther) {
        SchDbgDelTask(sch, task);
    }
    return XEL_OK;
}

} // namespace

uint32_t XEL_TaskAdd(SchCtrl* sch, SchTaskCtrl* task)
{
    return Bind(sch, task, 0);
}

uint32_t XEL_TaskDel(SchCtrl* sch, SchTaskCtrl* task)
{
    const u32 ret = Unbind(sch, task, nullptr);
    if (ret == XEL_OK) {
        TaskWatchEnd(task);
    }
    return ret;
}

void SchDbgDelTask(SchCtrl* /*sch*/, SchTaskCtrl* task)
{
    if (SchDbgIsInit()) {
        SchDbgDelTaskInfo(SchTaskGetFdBySchHandle(task));
    }
}

uint32_t SCH_EpollCtrl(SchCtrl* sch, uint32_t op, int32_t fd, SchEpollCtlReq* req)
{
    if (req == nullptr && op != XEL_SCH_EPOLL_DEL) {
        XEL_LOG_FAIL(kSchLog, "Sch epoll ctl unsuccessfully, param is null.");
        return XEL_FAIL;
    }
    u32 ret = XEL_FAIL;
    switch (op) {
    case XEL_SCH_EPOLL_ADD:
        ret = SchCreateTask(sch, fd, req);
        break;
    case XEL_SCH_EPOLL_MOD:
        ret = SchModifyTask(sch, static_cast<u32>(fd), req);
        break;
    case XEL_SCH_EPOLL_DEL:
        ret = SchDestroyTask(sch, fd);
        break;
    default:
        break;
    }
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kSchLog, "Sch operation unsuccessfully. (fd = %d, op = %d, ret = %#x)", fd, op,
                     ret);
        return XEL_FAIL;
    }
    return XEL_OK;
}

u32 SchCreateTask(SchCtrl* sch, i32 fd, SchEpollCtlReq* req)
{
    SchTaskCtrl* task = XEL_TaskCreate(fd, req->attr);
    if (task == nullptr) {
        XEL_LOG_FAIL(kSchLog, "Sch task handle create unsuccessfully. (fd = %d)", fd);
        return XEL_FAIL;
    }
    struct epoll_event event = {};
    event.events = req->events | EPOLLIN;
    event.data.ptr = task;
    const u32 ret = Bind(sch, task, event.events);
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kSchLog, "Sch task add unsuccessfully. (epollFd = %d, fd = %d, ret = %#x)",
                     EpFdOf(sch), fd, ret);
        XEL_TaskDestroy(task);
        return XEL_FAIL;
    }
    if (sch->epollOps.ctl(EpFdOf(sch), XEL_SCH_EPOLL_ADD, fd, &event) < 0) {
        XEL_LOG_FAIL(kSchLog,
                     "Sch fd add to epoll unsuccessfully. (epollFd = %d, fd = %d, mistake = %d)",
                     EpFdOf(sch), fd, sch->epollOps.getErrNo());
        (void)XEL_TaskDel(sch, task);
        XEL_TaskDestroy(task);
        return XEL_FAIL;
    }
    return XEL_OK;
}

// Changes the attributes only: the registration on epoll stays as it was added.
u32 SchModifyTask(SchCtrl* /*sch*/, u32 fd, SchEpollCtlReq* req)
{
    SchTaskCtrl* task = SchTaskGetHandleByAppFd(static_cast<i32>(fd));
    if (task == nullptr) {
        XEL_LOG_FAIL(kSchLog, "Sch operation mod unsuccessfully, fd handle is null.");
        return XEL_FAIL;
    }
    const auto taskFd = static_cast<i32>(fd);
    if (TaskModifyAttr(task, &taskFd, req->attr) != XEL_OK) {
        XEL_LOG_FAIL(kSchLog, "Sch fd modify unsuccessfully.");
        return XEL_FAIL;
    }
    return XEL_OK;
}

// A descriptor that this epoll instance does not know (ENOENT) keeps its task, unbound: it may be
// registered elsewhere.
u32 SchDestroyTask(SchCtrl* sch, i32 fd)
{
    SchTaskCtrl* task = SchTaskGetHandleByAppFd(fd);
    if (task == nullptr) {
        XEL_LOG_FAIL(kSchLog, "Sch delete fd unsuccessfully, invalid task handle.");
        return XEL_FAIL;
    }
    TaskDeletion deletion = {fd, {0, -1}, false};
    const u32 ret = Unbind(sch, task, &deletion);
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kSchLog, "Sch delete task unsuccessfully. (ret = %#x)", ret);
        return ret;
    }
    if (deletion.isOther) {
        XEL_LOG_FAIL(kSchLog, "Sch delete fd unsuccessfully, invalid task handle.");
        return XEL_FAIL;
    }
    if (sch->epollOps.ctl(EpFdOf(sch), XEL_SCH_EPOLL_DEL, fd, nullptr) == 0) {
        TaskDestroy(task, &fd);
        return XEL_OK;
    }
    const int error = errno;
    XEL_LOG_FAIL(kSchLog, "Sch epoll del fd unsuccessfully. (epFd = %d, fd = %d, errno = %d)",
                 EpFdOf(sch), fd, sch->epollOps.getErrNo());
    TaskWatchUndoForget(task, fd, deletion.watch);
    if (error != ENOENT) {
        TaskDestroy(task, &fd);
    }
    return XEL_FAIL;
}

int SchLinuxEpollCtlAdapt(int epFd, u32 op, int fd, struct epoll_event* event)
{
    for (const EpollOpPair& pair : kEpollOps) {
        if (pair.op == op) {
            return epoll_ctl(epFd, pair.linuxOp, fd, event);
        }
    }
    return epoll_ctl(epFd, kRefusedOp, fd, event);
}

int SchLinuxEpollGetErrNoAdapt(void)
{
    return errno;
}
