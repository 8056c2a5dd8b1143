// Scheduler threads: creation, the thread body, and the destroy handshake. A thread record owns an
// epoll descriptor, a scheduler and, once it is being destroyed, a private eventfd; the destroyer
// frees them after the thread has said that its loop ended. The thread itself frees nothing.
#include "thread/xel_sch_thread_inner.h"

#include <cerrno>
#include <cstring>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "common/xel_memory.h"
#include "scheduler/xel_scheduler_inner.h"
#include "thread/xel_sch_task_settings.h"

namespace
{

constinit thread_local const XelThreadCtrl* t_own = nullptr; // of a scheduler thread

constexpr u32 kNoMonitor = 0xFFFFFFFFU;
constexpr u64 kExitRequested = 1; // what a semaphore-mode eventfd reads after one write
constexpr useconds_t kExitPollUs = 10000;
constexpr u32 kPollsPerReminder = 50; // half a second
constexpr u32 kSchDestroyTries = 3;
constexpr u32 kDestroyType = XEL_TASK_TYPE_PRIO;
constexpr u32 kDestroyPrio = 0;
// Edge-triggered: one wake-up is all that is needed.
constexpr u32 kDestroyMask = EPOLLIN | static_cast<u32>(EPOLLET);

using PolicyInit = u32 (*)(SchPolicyOps* ops);

// By policy; an empty row leaves the operations empty.
constexpr PolicyInit kPolicyInits[kPolicyCount] = {nullptr, SchThreadInitBfsPolicy};

bool HasThreadMagic(const XelThreadCtrl* ctrl)
{
    if (ctrl->magic != kThreadMagic) {
        XEL_LOG_FAIL(kThreadLog, "Thread magic damaged.magic = 0x%x.", ctrl->magic);
        return false;
    }
    return true;
}

// Creates the scheduler on an epoll descriptor that exists.
SchCtrl* CreateScheduler(u32 epSize, i32 epFd, const SchEpollOps& epollOps, u32 policy)
{
    SchPolicyOps policyOps = {};
    if (policy != XEL_SCH_POLICY_NONE) {
        const u32 ret = SchThreadInitPolicy(policy, &policyOps);
        if (ret != XEL_OK) {
            XEL_LOG_FAIL(kThreadLog, "Thread create ctrl, policy init unsuccessfully. (ret = %#x)",
                         ret);
            return nullptr;
        }
    }
    SchCtrl* sch = SCH_CreateSch(epFd, static_cast<i32>(epSize), &epollOps,
                                 policy != XEL_SCH_POLICY_NONE ? &policyOps : nullptr);
    if (sch == nullptr) {
        XEL_LOG_FAIL(kThreadLog, "Thread create ctrl, create scheduler unsuccessfully.");
    }
    return sch;
}

u32 StartThread(XelThreadCtrl* ctrl)
{
    pthread_t tid = 0;
    const int ret = pthread_create(&tid, nullptr, SchThread, ctrl);
    if (ret != 0) {
        XEL_LOG_FAIL(kThreadLog, "Thread create, create thread unsuccessfully. (errno = %d).", ret);
        return XEL_FAIL;
    }
    ctrl->tid.store(tid, std::memory_order_relaxed);
    (void)pthread_detach(tid);
    ThreadAddCtrlNode(ctrl);
    return XEL_OK;
}

// Registers the calling thread with the dead-loop monitor.
u32 StartMonitor(const XelThreadCtrl* ctrl, u32* monitorId)
{
    if (XelDeadloopMonReg(&ctrl->deadloop, monitorId) != XEL_OK) {
        XEL_LOG_FAIL(kThreadLog, "Thread proc, set deadloop to monitor unsuccessfully.");
        return XEL_FAIL;
    }
    if (XelDeadloopMonProcSet(*monitorId) != XEL_OK) {
        XEL_LOG_FAIL(kThreadLog, "Thread proc, set deadloop action unsuccessfully.");
        (void)XelDeadloopMonUnreg(*monitorId);
        return XEL_FAIL;
    }
    return XEL_OK;
}

// A destroy that failed at its write left its task behind with the descriptor closed. When the
// number comes back with the next attempt, that task is removed; any other task is left alone.
void RemoveLeftoverTask(XelThreadCtrl* ctrl, i32 fd)
{
    SchTaskCtrl* task = SchTaskGetHandleByAppFd(fd);
    XelTaskProc proc = nullptr;
    u64 data = 0;
    if (task == nullptr || SchTaskGetInfoProcess(task, &proc, &data) != XEL_OK ||
        proc != ThreadEventFdProc || data != reinterpret_cast<u64>(ctrl)) {
        return;
    }
    (void)XEL_TaskDel(ctrl->sch, task);
    XEL_TaskDestroy(task);
}

// A destruction that cannot make its wake-up leaves the scheduler as it is. Left behind for good it
// would claim the number of the epoll descriptor, closed next, against every later scheduler, so it
// is tried again. While the descriptor is open no other scheduler can have it.
void DestroyScheduler(SchCtrl* sch, i32 epFd)
{
    XEL_SchDestroy(sch);
    for (u32 tries = 1; tries < kSchDestroyTries; ++tries) {
        if (sch->magic.load(std::memory_order_acquire) != kSchMagic ||
            sch->epFd.load(std::memory_order_relaxed) != epFd) {
            return;
        }
        XEL_SchDestroy(sch);
    }
}

// Undoes the descriptor of a destroy that cannot go on.
u32 DropDestroyFd(XelThreadCtrl* ctrl, i32 fd)
{
    close(fd);
    ctrl->destroyFd.store(-1, std::memory_order_relaxed);
    return XEL_FAIL;
}

} // namespace

constinit XelThreadCtrlMng g_xelThreadCtrlMng = {
    PTHREAD_RWLOCK_INITIALIZER, 0, {&g_xelThreadCtrlMng.head, &g_xelThreadCtrlMng.head}};

// A created thread belongs to the caller; every failure ends in the one undo.
XelThreadCtrl* XEL_ThreadCreate(const XelThreadAttr* attr)
{
    if (attr == nullptr) {
        XEL_LOG_FAIL(kThreadLog, "Thread create, thread param invalid.");
        return nullptr;
    }
    auto* ctrl = XEL_ALLOC_RECORD(XelThreadCtrl, kThreadLog);
    if (ctrl == nullptr) {
        return nullptr;
    }
    u32 ret = ThreadCtrlInit(ctrl, attr);
    if (ret == XEL_OK) {
        ret = SchThreadCtrlCreate(ctrl->epSize, ctrl);
        if (ret != XEL_OK) {
            XEL_LOG_FAIL(kThreadLog, "Thread create, alloc memory for thread arg unsuccessfully.");
        }
    }
    if (ret == XEL_OK) {
        ret = StartThread(ctrl);
    }
    if (ret != XEL_OK) {
        SchThreadCtrlFree(ctrl);
        return nullptr;
    }
    return ctrl;
}

u32 ThreadCtrlInit(XelThreadCtrl* ctrl, const XelThreadAttr* attr)
{
    ctrl->magic = kThreadMagic;
    ctrl->exitValue.store(0, std::memory_order_relaxed);
    ctrl->stackSize = attr->stackSize;
    ctrl->deadloop = attr->deadloop;
    ctrl->epSize = attr->epSize;
    ctrl->epFd = -1;
    ctrl->destroyFd.store(-1, std::memory_order_relaxed);
    LinkInit(&ctrl->link);
    ctrl->epollType = attr->epollType;
    ctrl->policy = attr->policy;
    if (attr->name[0] == '\0') {
        XEL_LOG_FAIL(kThreadLog, "Thread ctrl init, thread name is empty.");
        return XEL_FAIL;
    }
    const int ret = strncpy_s(ctrl->name, sizeof(ctrl->name), attr->name, XEL_NAME_SIZE - 1);
    if (ret != 0) {
        XEL_LOG_FAIL(kThreadLog, "Thread ctrl init, set thread name unsuccessfully. (errNo = %d)",
                     ret);
        return XEL_FAIL;
    }
    return XEL_OK;
}

u32 SchThreadCtrlCreate(u32 epSize, XelThreadCtrl* ctrl)
{
    i32 epFd = -1;
    SchEpollOps epollOps = {};
    const u32 ret = THREAD_EpollInit(ctrl->epollType, epSize, &epFd, &epollOps);
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kThreadLog, "Thread create ctrl, epoll create unsuccessfully. (ret = %#x)",
                     ret);
        return XEL_FAIL;
    }
    SchCtrl* sch = CreateScheduler(epSize, epFd, epollOps, ctrl->policy);
    if (sch == nullptr) {
        (void)THREAD_EpollCloseFd(ctrl->epollType, epFd);
        return XEL_FAIL;
    }
    ctrl->epFd = epFd;
    ctrl->sch = sch;
    return XEL_OK;
}

u32 SchThreadInitPolicy(u32 policy, SchPolicyOps* ops)
{
    if (policy >= kPolicyCount) {
        return XEL_FAIL;
    }
    return kPolicyInits[policy] == nullptr ? XEL_OK : kPolicyInits[policy](ops);
}

u32 SchThreadInitBfsPolicy(SchPolicyOps* ops)
{
    *ops = g_schBfsPolicyOps;
    return XEL_OK;
}

void ThreadAddCtrlNode(XelThreadCtrl* ctrl)
{
    (void)pthread_rwlock_wrlock(&g_xelThreadCtrlMng.lock);
    LinkAddFront(&g_xelThreadCtrlMng.head, &ctrl->link);
    g_xelThreadCtrlMng.count += 1;
    (void)pthread_rwlock_unlock(&g_xelThreadCtrlMng.lock);
}

void ThreadRmCtrlNode(XelThreadCtrl* ctrl)
{
    (void)pthread_rwlock_wrlock(&g_xelThreadCtrlMng.lock);
    LinkRemove(&ctrl->link);
    g_xelThreadCtrlMng.count -= 1;
    (void)pthread_rwlock_unlock(&g_xelThreadCtrlMng.lock);
}

// The record must not be touched any more once exited is set: the destroyer frees it.
void* SchThread(void* arg)
{
    auto* ctrl = static_cast<XelThreadCtrl*>(arg);
    (void)prctl(PR_SET_NAME, ctrl->name);
    if (ThreadSetStackSize(ctrl->stackSize) != XEL_OK) {
        XEL_LOG_FAIL(kThreadLog, "Thread proc, set stack size unsuccessfully.");
        return nullptr;
    }
    u32 monitorId = kNoMonitor;
    if (StartMonitor(ctrl, &monitorId) != XEL_OK) {
        return nullptr;
    }
    t_own = ctrl;
    do {
        SCH_DispatchWithDeadloop(ctrl->sch, monitorId, SchThreadDeadloopMon);
    } while (ctrl->exitValue.load(std::memory_order_relaxed) != kExitRequested);
    ctrl->exited.store(1, std::memory_order_release);
    (void)XelDeadloopMonUnreg(monitorId);
    return nullptr;
}

bool ThreadMayRunHere(const XelThreadCtrl* thread)
{
    return t_own == nullptr || t_own == thread;
}

// The thread runs on its stack already: the size is only validated.
u32 ThreadSetStackSize(u32 stackSize)
{
    if (stackSize == 0) {
        return XEL_OK;
    }
    pthread_attr_t attr;
    int ret = pthread_attr_init(&attr);
    if (ret != 0) {
        XEL_LOG_FAIL(kThreadLog,
                     "Thread set stack size, thread attribute init unsuccessfully. (ret = %d)",
                     ret);
        return XEL_FAIL;
    }
    ret = pthread_attr_setstacksize(&attr, stackSize);
    if (ret != 0) {
        XEL_LOG_FAIL(kThreadLog, "Thread set stack size unsuccessfully. (ret = %d)", ret);
        return XEL_FAIL;
    }
    size_t readBack = 0;
    ret = pthread_attr_getstacksize(&attr, &readBack);
    if (ret != 0) {
        XEL_LOG_FAIL(kThreadLog, "Thread get stack size unsuccessfully. (ret = %d)", ret);
        return XEL_FAIL;
    }
    return XEL_OK;
}

void SchThreadDeadloopMon(u64 monitorId, u32 phase)
{
    const auto handle = static_cast<u32>(monitorId);
    if (phase == 0) {
        (void)XelDeadloopMonBegin(0, &handle);
    } else {
        (void)XelDeadloopMonEnd(handle, phase);
    }
}

// The destroy event's callback, on the thread itself: after it the loop ends.
u32 ThreadEventFdProc(struct epoll_event* events, u64 data)
{
    auto* ctrl = reinterpret_cast<XelThreadCtrl*>(data);
    if ((events->events & EPOLLIN) == 0) {
        return XEL_OK;
    }
    const i32 fd = ctrl->destroyFd.load(std::memory_order_acquire);
    u64 value = 0;
    const ssize_t length = read(fd, &value, sizeof(value));
    if (length != static_cast<ssize_t>(sizeof(value))) {
        const auto error = static_cast<ssize_t>(errno);
        XEL_LOG_FAIL(kThreadLog, "Thread proc, eventfd %d read unsuccessfully %zd, errno:%zd.", fd,
                     length, error);
        return XEL_FAIL;
    }
    ctrl->exitValue.store(value, std::memory_order_relaxed);
    return XEL_OK;
}

namespace
{

// Polls for the end of the thread. Its destroy event is edge-triggered, so a wake-up whose read
// failed, or that found no slot in a full policy, would be the last one: it is repeated now and
// then. The thread reads one count, whatever has gathered.
void AwaitExit(const XelThreadCtrl* thread)
{
    for (u32 polls = 1;; ++polls) {
        const u32 exited = thread->exited.load(std::memory_order_acquire);
        usleep(kExitPollUs);
        if (exited != 0) {
            return;
        }
        if (polls % kPollsPerReminder == 0) {
            (void)eventfd_write(thread->destroyFd.load(std::memory_order_relaxed), 1);
        }
    }
}

} // namespace

u32 SchEventThreadDestory(XelThreadCtrl* thread)
{
    if (thread == nullptr) {
        XEL_LOG_FAIL(kThreadLog, "Thread handle is null handle.");
        return XEL_FAIL;
    }
    if (!HasThreadMagic(thread)) {
        return XEL_FAIL;
    }
    if (SchThreadTriggerDestroyEvent(thread) != XEL_OK) {
        XEL_LOG_FAIL(kThreadLog, "Thread discard to trigger destroy event.");
        return XEL_FAIL;
    }
    AwaitExit(thread);
    SchThreadCtrlFree(thread);
    return XEL_OK;
}

u32 SchThreadTriggerDestroyEvent(XelThreadCtrl* ctrl)
{
    const i32 fd = eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) {
        XEL_LOG_FAIL(kThreadLog, "Destroy event create unsuccessful.");
        return XEL_FAIL;
    }
    ctrl->destroyFd.store(fd, std::memory_order_release);
    if (SchThreadAddDestroyEventInSch(ctrl, fd) != XEL_OK) {
        return DropDestroyFd(ctrl, fd);
    }
    int ret = 0;
    do { // bounded by the signals that arrive
        ret = eventfd_write(fd, 1);
    } while (ret != 0 && errno == EINTR);
    if (ret != 0) {
        (void)DropDestroyFd(ctrl, fd);
        XEL_LOG_FAIL(kThreadLog, "Destroy eventfd write unsuccessfully. (ret = %d)", ret);
        return XEL_FAIL;
    }
    return XEL_OK;
}

u32 SchThreadAddDestroyEventInSch(XelThreadCtrl* ctrl, i32 fd)
{
    XelTaskAttr* taskAttr = XEL_TaskCreateAttr();
    if (taskAttr == nullptr) {
        XEL_LOG_FAIL(kThreadLog, "Destroy event attr create unsuccess.");
        return XEL_FAIL;
    }
    u32 ret = SchThreadSetTaskAttr(taskAttr, ctrl);
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kThreadLog, "Destroy event attr set unsuccess. (ret = %#x)", ret);
    } else {
        RemoveLeftoverTask(ctrl, fd);
        SchEpollCtlReq request = {kDestroyMask, taskAttr};
        ret = SCH_EpollCtrl(ctrl->sch, XEL_SCH_EPOLL_ADD, fd, &request);
        if (ret != XEL_OK) {
            XEL_LOG_FAIL(kThreadLog, "Destroy event add to epoll unsuccess. (ret = %#x)", ret);
        }
    }
    XEL_TaskDestroyAttr(taskAttr);
    return ret;
}

u32 SchThreadSetTaskAttr(XelTaskAttr* taskAttr, XelThreadCtrl* ctrl)
{
    const XelTaskUsrCb callback = {ThreadEventFdProc, reinterpret_cast<u64>(ctrl)};
    const TaskSettings settings = {callback, kDestroyType, kDestroyPrio, ctrl->name,
                                   strlen(ctrl->name)};
    const TaskSettingResult result = ApplyTaskSettings(taskAttr, settings);
    if (result.ret != XEL_OK) {
        XEL_LOG_FAIL(kThreadLog, "Thread set task attr unsuccess. (cmd = %d, ret = %u)", result.cmd,
                     result.ret);
    }
    return result.ret;
}

void SchThreadCtrlFree(XelThreadCtrl* ctrl)
{
    if (ctrl == nullptr || !HasThreadMagic(ctrl)) {
        return;
    }
    const i32 destroyFd = ctrl->destroyFd.load(std::memory_order_relaxed);
    if (destroyFd >= 0) {
        (void)SCH_EpollCtrl(ctrl->sch, XEL_SCH_EPOLL_DEL, destroyFd, nullptr);
        close(destroyFd);
    }
    if (ctrl->sch != nullptr) {
        DestroyScheduler(ctrl->sch, ctrl->epFd);
    }
    ThreadRmCtrlNode(ctrl);
    const u32 epollType = ctrl->epollType;
    const i32 epFd = ctrl->epFd;
    XEL_FREE(kThreadLog, ctrl);
    if (epFd >= 0) {
        (void)THREAD_EpollCloseFd(epollType, epFd);
    }
}
