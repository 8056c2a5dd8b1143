// Descriptors, tasks, and schedulers that the fuzzing thread dispatches itself. Their waits never
// block: the time-out of each scheduler is 0.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "scheduler/xel_sch_task_inner.h"
#include "scheduler/xel_scheduler_inner.h"
#include "world.h"

namespace xelfuzz
{

namespace
{

constexpr u64 kDataMark = 0xC0DE0000;
constexpr u32 kMaxThreadRuns = 16;
constexpr u32 kCacheRoom = 8;

// What the next call into the scheduler's own epoll operations answers instead; used up by it.
int g_waitFault = 0;
int g_ctlFault = 0;

int FaultyWait(int epFd, struct epoll_event* events, int maxEvents, int)
{
    if (g_waitFault != 0) {
        errno = g_waitFault;
        g_waitFault = 0;
        return -1;
    }
    return epoll_wait(epFd, events, maxEvents, 0);
}

int FaultyCtl(int epFd, u32 op, int fd, struct epoll_event* event)
{
    if (g_ctlFault != 0) {
        errno = g_ctlFault;
        g_ctlFault = 0;
        return -1;
    }
    return SchLinuxEpollCtlAdapt(epFd, op, fd, event);
}

const SchEpollOps kFaultyOps = {FaultyWait, FaultyCtl, SchLinuxEpollGetErrNoAdapt, nullptr};

u32 SlotOfFd(int fd)
{
    for (u32 i = 0; i < kFds; ++i) {
        if (g_world.fds[i].fd == fd && g_world.fds[i].kind != FdKind::None) {
            return i;
        }
    }
    return kFds;
}

void Drain(const FdSlot& slot)
{
    char bytes[64];
    if (slot.kind != FdKind::None && slot.kind != FdKind::PipeWrite) {
        (void)!read(slot.fd, bytes, sizeof(bytes));
    }
}

void Signal(const FdSlot& slot)
{
    const u64 one = 1;
    switch (slot.kind) {
    case FdKind::Event:
    case FdKind::PipeWrite:
    case FdKind::Socket:
        (void)!write(slot.fd, &one, sizeof(one));
        break;
    case FdKind::Timer: {
        const itimerspec spec = {{0, 0}, {0, 1}};
        (void)timerfd_settime(slot.fd, 0, &spec, nullptr);
        break;
    }
    default:
        break;
    }
}

// Callback of every task of the fuzzing thread's own schedulers and of the scheduler threads.
u32 OnTask(struct epoll_event* event, u64 data)
{
    const Hold hold(g_world.lock);
    FUZZ_CHECK((data & ~u64{0xFF}) == kDataMark && (data & 0xFF) < kFds);
    FUZZ_CHECK(event->data.ptr != nullptr);
    const u32 self = static_cast<u32>(data & 0xFF);
    FdSlot& slot = g_world.fds[self];
    slot.runs += 1;
    const bool isThread = XEL_ThreadGetCtxHandle() != nullptr;
    if (!isThread) {
        g_world.taskRuns += 1; // the fuzzing thread reads it without the lock
    }
    if (isThread || (slot.script & 8) != 0) {
        Drain(slot);
    }
    if (isThread && slot.runs > kMaxThreadRuns) {
        DeleteFd(self); // a level that nobody takes away
    }
    if (slot.runs <= kMaxThreadRuns) {
        RunScript(slot.script, self);
    }
    return slot.script >= 0xF0 ? 5 : 0;
}

void Place(int fd, FdKind kind, u32 slot, u8 script)
{
    FUZZ_CHECK(fd >= 0);
    g_world.fds[slot] = {fd, kind, script, 0};
}

// Slots hold pairs: the first one of an even slot, the second of the odd one behind it.
void OpenFd(Input& input)
{
    const u32 slot = input.Below(kFds) & ~1U;
    const u32 kind = input.Below(4);
    const u8 script = input.Byte();
    if (g_world.fds[slot].kind != FdKind::None) {
        g_world.fds[slot].script = script;
        return;
    }
    int pair[2] = {-1, -1};
    if (kind == 0) {
        Place(eventfd(input.Below(3), EFD_NONBLOCK | EFD_CLOEXEC), FdKind::Event, slot, script);
    } else if (kind == 1) {
        Place(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), FdKind::Timer, slot,
              script);
    } else if (kind == 2) {
        FUZZ_CHECK(pipe2(pair, O_NONBLOCK | O_CLOEXEC) == 0);
        Place(pair[0], FdKind::PipeRead, slot, script);
        Place(pair[1], FdKind::PipeWrite, slot + 1, script);
    } else {
        FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) == 0);
        Place(pair[0], FdKind::Socket, slot, script);
        Place(pair[1], FdKind::Socket, slot + 1, input.Byte());
    }
}

// Another file under the same number: its registrations are gone, its task is not.
void ReplaceFd(FdSlot& slot)
{
    if (slot.kind == FdKind::None) {
        return;
    }
    const int fresh = eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC);
    FUZZ_CHECK(dup3(fresh, slot.fd, O_CLOEXEC) == slot.fd);
    close(fresh);
    slot.kind = FdKind::Event;
}

// A task attribute that may be refused here or at creation.
XelTaskAttr* MakeAttr(Input& input, u32 fdSlot)
{
    XelTaskAttr* attr = XEL_TaskCreateAttr();
    FUZZ_CHECK(attr != nullptr);
    const u8 odd = input.Byte();
    const XelTaskUsrCb callback = {OnTask, kDataMark | fdSlot};
    if (odd < 0xF8) {
        (void)XEL_TaskSetAttr(attr, XEL_TASK_ATTR_USR_CB, &callback, sizeof(callback));
    }
    const u32 type = input.Below(odd < 0xF0 ? 4 : 6);
    (void)XEL_TaskSetAttr(attr, XEL_TASK_ATTR_TYPE, &type, sizeof(type));
    const u32 prio = input.Below(odd < 0xF0 ? 32 : 40);
    (void)XEL_TaskSetAttr(attr, XEL_TASK_ATTR_PRIO, &prio, sizeof(prio));
    char name[2 * XEL_NAME_SIZE] = {};
    input.Fill(name, input.Below(4));
    (void)XEL_TaskSetAttr(attr, XEL_TASK_ATTR_NAME, name, odd & 7);
    const u32 fdType = odd < 0xF0 ? 0 : input.Below(3);
    (void)XEL_TaskSetAttr(attr, XEL_TASK_ATTR_FD_TYPE, &fdType, sizeof(fdType));
    return attr;
}

// A handle that another object's task has taken over is no stale handle any more but a stranger's.
bool MayUse(SchTaskCtrl* task)
{
    if (task == nullptr) {
        return true;
    }
    const u32 fd = SchTaskGetFdBySchHandle(task);
    return fd == XEL_FAIL || SlotOfFd(static_cast<int>(fd)) < kFds;
}

// foreignMagic: of a block that is no task. Binding looks at the magic alone.
SchTaskCtrl* PickTask(Input& input, u32 foreignMagic)
{
    const u8 which = input.Byte();
    if (which >= 0xF0) {
        return which >= 0xF8 ? nullptr : static_cast<SchTaskCtrl*>(Foreign(foreignMagic));
    }
    SchTaskCtrl* task = g_world.tasks[which % kTasks];
    return MayUse(task) ? task : nullptr;
}

// A unit may serve again: then a stale handle is a good one.
bool IsLive(const SchCtrl* sch)
{
    for (const SchedSlot& slot : g_world.scheds) {
        if (slot.isLive && slot.sch == sch) {
            return true;
        }
    }
    return false;
}

// A stale handle whose unit serves a scheduler thread now is a stranger's, and forgotten.
SchedSlot& PickSched(Input& input)
{
    SchedSlot& slot = g_world.scheds[input.Below(kScheds)];
    if (slot.sch != nullptr && slot.sch->magic.load() != 0 && !IsLive(slot.sch)) {
        slot.sch = nullptr;
    }
    return slot;
}

void CreateTask(Input& input)
{
    const u32 fdSlot = input.Below(kFds);
    const int fd = g_world.fds[fdSlot].fd;
    XelTaskAttr* attr = MakeAttr(input, fdSlot);
    const bool hadTask = fd >= 0 && SchTaskGetHandleByAppFd(fd) != nullptr;
    SchTaskCtrl* task = XEL_TaskCreate(fd, attr);
    XEL_TaskDestroyAttr(attr);
    FUZZ_CHECK(task == nullptr || (fd >= 0 && !hadTask && SchTaskGetHandleByAppFd(fd) == task));
    if (task != nullptr) {
        g_world.tasks[input.Below(kTasks)] = task;
    }
}

// A registration made by hand, with the task as its data.
void RegisterByHand(Input& input)
{
    const SchedSlot& sched = PickSched(input);
    SchTaskCtrl* task = PickTask(input, 1);
    const u32 fd = task == nullptr ? XEL_FAIL : SchTaskGetFdBySchHandle(task);
    if (!sched.isLive || fd == XEL_FAIL) {
        return;
    }
    struct epoll_event event = {};
    event.events = EPOLLIN | (input.Flag() ? static_cast<u32>(EPOLLET) : 0U) |
                   (input.Flag() ? static_cast<u32>(EPOLLOUT) : 0U);
    event.data.ptr = task;
    (void)epoll_ctl(sched.epFd, input.Flag() ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, static_cast<int>(fd),
                    &event);
}

void BindTask(Input& input, bool isAdd)
{
    SchCtrl* sch = PickSched(input).sch;
    SchTaskCtrl* task = PickTask(input, 1);
    const u32 result = isAdd ? XEL_TaskAdd(sch, task) : XEL_TaskDel(sch, task);
    FUZZ_CHECK(result == XEL_OK || result == XEL_EINVAL);
    FUZZ_CHECK(result != XEL_OK || (IsLive(sch) && SchTaskGetFdBySchHandle(task) != XEL_FAIL));
}

void DestroyTask(Input& input)
{
    SchTaskCtrl* task = PickTask(input, kTaskMagic);
    XEL_TaskDestroy(task);
    FUZZ_CHECK(task == nullptr || SchTaskGetFdBySchHandle(task) == XEL_FAIL ||
               task == Foreign(kTaskMagic));
}

// One call of the epoll control of a scheduler or of a scheduler thread.
void ControlFd(Input& input)
{
    const u32 fdSlot = input.Below(kFds);
    FdSlot& slot = g_world.fds[fdSlot];
    const u32 op = input.Below(16) == 15 ? input.Number() : input.Below(3);
    XelTaskAttr* attr = op == 2 ? nullptr : MakeAttr(input, fdSlot);
    SchEpollCtlReq req = {input.Word() & (EPOLLIN | EPOLLOUT | EPOLLET | EPOLLPRI | EPOLLRDHUP),
                          attr};
    SchEpollCtlReq* given = op == 2 || input.Below(32) == 31 ? nullptr : &req;
    const SchedSlot& sched = PickSched(input);
    const bool isThread = input.Flag();
    u32 result = XEL_FAIL;
    if (isThread) {
        result = XEL_ThreadCtrl(g_world.threads[PickThread(input)].thread, op, slot.fd, given);
    } else if (sched.sch != nullptr) {
        result = SCH_EpollCtrl(sched.sch, op, slot.fd, given);
    }
    const bool hasTask = slot.fd >= 0 && SchTaskGetHandleByAppFd(slot.fd) != nullptr;
    FUZZ_CHECK(result == XEL_OK || result == XEL_FAIL);
    FUZZ_CHECK(result != XEL_OK || hasTask == (op != 2) || isThread);
    XEL_TaskDestroyAttr(attr);
}

void CreateSched(Input& input)
{
    SchedSlot& slot = PickSched(input);
    if (slot.isLive) {
        FUZZ_CHECK(XEL_SchCreate(static_cast<u32>(slot.epFd), 8) == nullptr);
        return;
    }
    const u32 kind = input.Below(3);
    const i32 size = static_cast<i32>(1 + input.Below(40));
    const int epFd = epoll_create(1);
    FUZZ_CHECK(epFd >= 0);
    SchCtrl* sch = kind == 0 ? XEL_SchCreate(static_cast<u32>(epFd), static_cast<u32>(size))
                             : SCH_CreateSch(epFd, size, &kFaultyOps,
                                             kind == 1 ? &g_schBfsPolicyOps : nullptr);
    FUZZ_CHECK(sch != nullptr);
    sch->waitTimeout.store(0);
    slot = {sch, epFd, true, kind != 2};
}

void DestroySched(SchedSlot& slot)
{
    SchCtrl* sch = slot.sch;
    const bool wasLive = slot.isLive;
    bool isOther = false;
    for (const SchedSlot& other : g_world.scheds) {
        isOther = isOther || (&other != &slot && other.isLive && other.sch == sch);
    }
    if (isOther) {
        return; // the unit serves another scheduler now
    }
    XEL_SchDestroy(sch);
    if (!wasLive) {
        return;
    }
    slot.isLive = sch->magic.load() != 0; // refused when the inner event cannot be registered
    if (!slot.isLive) {
        close(slot.epFd);
        slot.epFd = -1;
    }
}

void Dispatch(Input& input)
{
    const SchedSlot slot = PickSched(input);
    const u32 rounds = 1 + input.Below(4);
    for (u32 i = 0; i < rounds; ++i) {
        const u64 before = g_world.taskRuns;
        XEL_SchDispatch(slot.sch);
        FUZZ_CHECK(g_world.taskRuns - before <= (slot.isLive && slot.hasPolicy ? 2U : 64U));
    }
}

void LookAtCache(Input& input)
{
    const SchedSlot& slot = PickSched(input);
    SchEventCacheInfo records[kCacheRoom] = {};
    u32 count = input.Below(kCacheRoom + 1);
    const u32 room = count;
    const u32 result = SCH_GetTasksEventCache(static_cast<u32>(slot.epFd), records, &count);
    FUZZ_CHECK((result == XEL_OK) == slot.isLive);
    FUZZ_CHECK(count <= room);
    for (u32 i = 0; i < (result == XEL_OK ? count : 0); ++i) {
        FUZZ_CHECK(records[i].type < 4 && memchr(records[i].name, 0, XEL_NAME_SIZE) != nullptr);
    }
}

void CountTask(const SchDbgTaskInfo* info)
{
    FUZZ_CHECK(memchr(info->name, 0, XEL_NAME_SIZE) != nullptr);
}

void CountTrace(u32, const SchDbgTaskTrace* trace)
{
    FUZZ_CHECK(memchr(trace->name, 0, XEL_NAME_SIZE) != nullptr);
}

void SwitchHooks(bool isOn)
{
    const SchDbgHookTable table = {CountTask, nullptr, nullptr, nullptr, CountTrace};
    if (isOn) {
        FUZZ_CHECK(SCH_RegisterDbgHookTable(&table) == XEL_OK);
    } else {
        SCH_DeregisterDbgHookTable();
    }
}

} // namespace

void CallTasks(Input& input)
{
    const Hold hold(g_world.lock);
    FdSlot& slot = g_world.fds[input.Below(kFds)];
    switch (input.Below(10)) {
    case 0:
        OpenFd(input);
        break;
    case 1:
        Signal(slot);
        break;
    case 2:
        Drain(slot);
        break;
    case 3:
        ReplaceFd(slot);
        break;
    case 4:
        CreateTask(input);
        break;
    case 5:
        BindTask(input, input.Flag());
        break;
    case 6:
        RegisterByHand(input);
        break;
    case 7:
        DestroyTask(input);
        break;
    default:
        ControlFd(input);
        break;
    }
}

// Without the lock where callbacks of other threads may be needed to go on; dispatch takes it in
// its callbacks.
void CallScheds(Input& input)
{
    switch (input.Below(9)) {
    case 0:
    case 1:
        CreateSched(input);
        break;
    case 2: {
        const Hold hold(g_world.lock);
        DestroySched(PickSched(input));
        break;
    }
    case 3: {
        const Hold hold(g_world.lock);
        LookAtCache(input);
        break;
    }
    case 4:
        g_waitFault = input.Flag() ? EINTR : EBADF;
        break;
    case 5:
        g_ctlFault = input.Flag() ? ENOENT : EPERM;
        break;
    case 6:
        SwitchHooks(input.Flag());
        break;
    default:
        Dispatch(input);
        break;
    }
}

// By whatever scheduler or thread: only one of them knows it.
void DeleteFd(u32 slot)
{
    const int fd = g_world.fds[slot].fd;
    if (g_world.fds[slot].kind == FdKind::None || SchTaskGetHandleByAppFd(fd) == nullptr) {
        return;
    }
    XelThreadCtrl* self = XEL_ThreadGetCtxHandle();
    if (self != nullptr) {
        (void)XEL_ThreadCtrl(self, XEL_THREAD_CTRL_DEL, fd, nullptr);
        return;
    }
    for (const SchedSlot& sched : g_world.scheds) {
        if (sched.isLive && SchTaskGetHandleByAppFd(fd) != nullptr) {
            (void)SCH_EpollCtrl(sched.sch, XEL_SCH_EPOLL_DEL, fd, nullptr);
        }
    }
}

void EndTasks()
{
    g_waitFault = 0;
    g_ctlFault = 0;
    const Hold hold(g_world.lock);
    SCH_DeregisterDbgHookTable();
    for (const FdSlot& slot : g_world.fds) {
        if (slot.kind != FdKind::None) {
            SchTaskCtrl* task = SchTaskGetHandleByAppFd(slot.fd);
            if (task != nullptr) {
                XEL_TaskDestroy(task);
            }
        }
    }
    for (SchedSlot& slot : g_world.scheds) {
        if (slot.isLive) {
            DestroySched(slot);
            FUZZ_CHECK(!slot.isLive);
        }
    }
    for (FdSlot& slot : g_world.fds) {
        if (slot.kind != FdKind::None) {
            close(slot.fd);
            slot.kind = FdKind::None;
        }
    }
}

} // namespace xelfuzz
