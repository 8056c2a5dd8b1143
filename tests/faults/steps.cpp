// Steps of the fault scenarios.
#include "steps.h"

#include <cerrno>
#include <sys/eventfd.h>
#include <unistd.h>

namespace faulttest
{

namespace
{

// Reads the descriptor empty and counts. The read comes from the test, so it does not fail.
u32 CountTask(struct epoll_event* event, u64 data)
{
    const auto* task = static_cast<const SchTaskCtrl*>(event->data.ptr);
    u64 value = 0;
    while (::read(task->fd, &value, sizeof(value)) > 0) {
    }
    reinterpret_cast<Counted*>(data)->runs.fetch_add(1);
    return 0;
}

} // namespace

Counted::Counted() : attr(XEL_TaskCreateAttr())
{
    const XelTaskUsrCb callback = {CountTask, reinterpret_cast<u64>(this)};
    EXPECT_EQ(XEL_TaskSetAttr(attr, XEL_TASK_ATTR_USR_CB, &callback, sizeof(callback)), 0U);
    EXPECT_EQ(XEL_TaskSetAttr(attr, XEL_TASK_ATTR_NAME, "counted", 7), 0U);
}

Counted::~Counted()
{
    XEL_TaskDestroyAttr(attr);
}

void EndTask(Trial& run, SchTaskCtrl* task)
{
    run.End("XEL_TaskDestroy", {TaskTable()}, [task] {
        XEL_TaskDestroy(task);
        return task->magic.load() != kTaskMagic;
    });
}

// The inner event takes an eventfd, a task and a registration; its removal cannot be refused, but
// may leave the task.
void EndScheduler(Trial& run, SchCtrl* sch)
{
    run.End("XEL_SchDestroy",
            {Call::Eventfd, Call::FmmUnitAlloc, Fatal(Call::EpollCtl, 1), Call::EventfdWrite,
             TaskTable(1), Registry()},
            [sch] {
                XEL_SchDestroy(sch);
                return sch->magic.load() != kSchMagic;
            });
    run.MayLeaveTasks({TaskTable()});
}

bool TakeLine(const std::string& begin)
{
    const std::vector<std::string> lines = TakeTexts();
    return std::any_of(lines.begin(), lines.end(),
                       [&begin](const std::string& line) { return line.starts_with(begin); });
}

void EndLeftTask(Trial& run, const Fd& fd)
{
    SchTaskCtrl* task = Hits() == 0 ? nullptr : SchTaskGetHandleByAppFd(fd.Get());
    if (task == nullptr) {
        return;
    }
    run.MayLeaveTasks({TaskTable(), TaskLookUp()});
    if (run.IsFault(Call::EpollCtl, ENOENT)) {
        run.MayLeaveTasks({Call::EpollCtl});
    }
    EXPECT_TRUE(run.MayLeave()) << "a delete left its task";
    EndTask(run, task);
}

void UseThread(Trial& run, XelThreadCtrl* thread, Counted& counted)
{
    const Fd fd = Fd::Event(1);
    const u32 runs = counted.runs.load();
    const bool isBound =
        run.Do("XEL_ThreadCtrl add",
               {Call::FmmUnitAlloc, Call::XelMemAllocF, Call::EpollCtl, TaskTable(),
                OperationLookUp(thread, 2)},
               [&] {
                   SchEpollCtlReq request = {EPOLLIN, counted.attr};
                   return XEL_ThreadCtrl(thread, XEL_THREAD_CTRL_ADD, fd.Get(), &request) == 0;
               });
    if (!isBound) {
        return;
    }
    run.Expect("the task runs", [&] { return counted.runs.load() > runs; });
    (void)run.Do("XEL_ThreadCtrl modify", {TaskLookUp()}, [&] {
        SchEpollCtlReq request = {EPOLLIN, counted.attr};
        return XEL_ThreadCtrl(thread, XEL_THREAD_CTRL_MOD, fd.Get(), &request) == 0;
    });
    (void)run.Do("XEL_ThreadCtrl delete", {TaskLookUp(), Call::EpollCtl}, [&] {
        return XEL_ThreadCtrl(thread, XEL_THREAD_CTRL_DEL, fd.Get(), nullptr) == 0;
    });
    EndLeftTask(run, fd);
}

void EndThread(Trial& run, XelThreadCtrl* thread)
{
    SchCtrl* sch = thread->sch;
    run.End("SchEventThreadDestory",
            {Fatal(Call::Eventfd, 1), Call::XelMemAllocF, Fatal(Call::StrcpyS, 1),
             Fatal(Call::FmmUnitAlloc, 2), Fatal(Call::EpollCtl, 1), Fatal(Call::EventfdWrite, 1),
             TaskTable(1), OperationLookUp(thread, 3)},
            [thread] { return SchEventThreadDestory(thread) == 0; });
    run.MayLeaveTasks({TaskTable(), TaskLookUp()});
    if (run.IsFault(Call::EpollCtl, ENOENT)) {
        run.MayLeaveTasks({Call::EpollCtl});
    }
    EXPECT_NE(sch->magic.load(), kSchMagic) << "the scheduler outlived its thread";
}

} // namespace faulttest
