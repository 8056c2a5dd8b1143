// Binding descriptors to a scheduler thread, and questions about threads. Runs on any thread; the
// list of threads is read under its lock, everything else goes through the scheduler's functions.
#include "thread/xel_sch_thread_inner.h"

#include <cstring>

#include "common/xel_memory.h"
#include "thread/xel_sch_task_settings.h"

namespace
{

constexpr u32 kOpCount = 3;

// Common tail of the descriptor bindings: the attribute lives for the call only.
u32 AddCommonTask(XelSchCommonTask* common, XelTaskAttr* attr, XelTaskProc proc, const char* name)
{
    const XelTaskUsrCb callback = {proc, reinterpret_cast<u64>(common)};
    const size_t length = name == nullptr ? 0 : strlen(name); // refused in its turn
    const TaskSettings settings = {callback, common->type, common->prio, name, length};
    const TaskSettingResult result = ApplyTaskSettings(attr, settings);
    if (result.ret != XEL_OK) {
        return result.ret;
    }
    SchEpollCtlReq request = {EPOLLIN, attr};
    return XEL_ThreadCtrl(common->thread, XEL_THREAD_CTRL_ADD, static_cast<i32>(common->fd),
                          &request);
}

void FillDeployInfo(const XelThreadCtrl* ctrl, XelSchDeployInfo* info)
{
    info->name = ctrl->name;
    info->tid = ctrl->tid.load(std::memory_order_relaxed);
    info->stackSize = ctrl->stackSize;
    info->epFd = ctrl->epFd;
    info->deadTicks = ctrl->deadloop.deadTicks;
    info->epSize = ctrl->epSize;
}

XelThreadCtrl* ThreadOf(XelLink* link)
{
    return reinterpret_cast<XelThreadCtrl*>(reinterpret_cast<uintptr_t>(link) -
                                            offsetof(XelThreadCtrl, link));
}

} // namespace

TaskSettingResult ApplyTaskSettings(XelTaskAttr* attr, const TaskSettings& settings)
{
    const struct {
        u32 cmd;
        const void* value;
        size_t size;
    } rows[] = {
        {XEL_TASK_ATTR_USR_CB, &settings.callback, sizeof(settings.callback)},
        {XEL_TASK_ATTR_TYPE, &settings.type, sizeof(settings.type)},
        {XEL_TASK_ATTR_PRIO, &settings.prio, sizeof(settings.prio)},
        {XEL_TASK_ATTR_NAME, settings.name, settings.nameSize},
    };
    for (const auto& row : rows) {
        const u32 ret = XEL_TaskSetAttr(attr, row.cmd, row.value, row.size);
        if (ret != XEL_OK) {
            return {row.cmd, ret};
        }
    }
    return {0, XEL_OK};
}

uint32_t XEL_ThreadCtrl(XelThreadCtrl* thread, uint32_t op, int32_t fd, SchEpollCtlReq* request)
{
    if (thread == nullptr) {
        XEL_LOG_FAIL(kThreadLog, "Param invalid handel, epoll ctl opreation(%u).", op);
        return XEL_FAIL;
    }
    if (thread->magic != kThreadMagic) {
        XEL_LOG_FAIL(kThreadLog, "Thread magic is damaged, magic = 0x%x.", thread->magic);
        return XEL_FAIL;
    }
    SchCtrl* sch = SchGetHandle(thread);
    if (sch == nullptr) {
        XEL_LOG_FAIL(kThreadLog, "Get scheduler handle unsuccessfully.");
        return XEL_FAIL;
    }
    if (op >= kOpCount) {
        XEL_LOG_FAIL(kThreadLog, "operation mode is invalid , task = %d, op = %d", fd, op);
        return XEL_FAIL;
    }
    return SCH_EpollCtrl(sch, op, fd, request);
}

// Any operation but delete adds, modify included: callers rely on it.
uint32_t SchCommonOperationTask(XelSchCommonTask* common, XelTaskProc proc, const char* name,
                                uint32_t op)
{
    if (common == nullptr) {
        return XEL_EINVAL;
    }
    if (op == XEL_THREAD_CTRL_DEL) {
        return XEL_ThreadCtrl(common->thread, XEL_THREAD_CTRL_DEL, static_cast<i32>(common->fd),
                              nullptr);
    }
    XelTaskAttr* attr = XEL_TaskCreateAttr();
    if (attr == nullptr) {
        return XEL_ENOMEM;
    }
    const u32 ret = AddCommonTask(common, attr, proc, name);
    XEL_TaskDestroyAttr(attr);
    return ret;
}

SchCtrl* SchGetHandle(XelThreadCtrl* thread)
{
    if (thread == nullptr) {
        XEL_LOG_FAIL(kThreadLog,
                     "Param invalid param null, get schHandle by thread handle unsuccessfully.");
        return nullptr;
    }
    if (thread->magic != kThreadMagic) {
        XEL_LOG_FAIL(kThreadLog, "Thread magic is damaged, magic = 0x%x.", thread->magic);
        return nullptr;
    }
    return thread->sch;
}

uint32_t XEL_ThreadGetInfo(XelThreadCtrl* thread, uint32_t cmd, void* value, size_t size)
{
    if (thread == nullptr) {
        XEL_LOG_FAIL(kThreadLog, "Thread get info unsuccessfully, thread handle null.");
        return XEL_EINVAL;
    }
    if (cmd != XEL_THREAD_INFO_TID) {
        XEL_LOG_FAIL(kThreadLog, "Thread get info unsuccessfully, cmd is invalid.");
        return XEL_EINVAL;
    }
    if (value == nullptr) {
        XEL_LOG_FAIL(kThreadLog, "Thread get info unsuccessfully, val is null.");
        return XEL_EINVAL;
    }
    if (thread->magic != kThreadMagic) {
        XEL_LOG_FAIL(kThreadLog, "Thread get info unsuccessfully, invalid handle. (magic = %#x)",
                     thread->magic);
        return XEL_EINVAL;
    }
    const u32 ret = ThreadInfoGetTid(thread, value, size);
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kThreadLog, "Thread get info unsuccessfully. (cmd = %d)", cmd);
    }
    return ret;
}

u32 ThreadInfoGetTid(XelThreadCtrl* thread, void* value, size_t size)
{
    if (size != sizeof(u64)) {
        return XEL_FAIL;
    }
    const u64 tid = thread->tid.load(std::memory_order_relaxed);
    memcpy(value, &tid, sizeof(tid));
    return XEL_OK;
}

uint32_t THREAD_GetSchTid(XelThreadCtrl* thread, uint64_t* tid)
{
    if (thread->magic != kThreadMagic) {
        XEL_LOG_FAIL(kThreadLog, "Thread get tid unsuccessfully, invalid handle. (magic = %#x)",
                     thread->magic);
        return XEL_FAIL;
    }
    *tid = thread->tid.load(std::memory_order_relaxed);
    return XEL_OK;
}

// A thread that has ended stays listed until it is freed, and its id may be another thread's by
// then.
XelThreadCtrl* XEL_ThreadGetCtxHandle(void)
{
    const u64 self = pthread_self();
    XelThreadCtrl* found = nullptr;
    (void)pthread_rwlock_rdlock(&g_xelThreadCtrlMng.lock);
    for (XelLink* link = g_xelThreadCtrlMng.head.next; link != &g_xelThreadCtrlMng.head;
         link = link->next) {
        XelThreadCtrl* thread = ThreadOf(link);
        if (thread->tid.load(std::memory_order_relaxed) == self &&
            thread->exited.load(std::memory_order_acquire) == 0) {
            found = thread;
            break;
        }
    }
    (void)pthread_rwlock_unlock(&g_xelThreadCtrlMng.lock);
    return found;
}

// The room is compared after a record was filled: even a room of 0 receives one.
uint32_t THREAD_GetSchDeployInfo(int32_t epFdFilter, XelSchDeployInfo* array, uint32_t* count)
{
    const u32 room = *count;
    u32 filled = 0;
    (void)pthread_rwlock_rdlock(&g_xelThreadCtrlMng.lock);
    for (XelLink* link = g_xelThreadCtrlMng.head.next; link != &g_xelThreadCtrlMng.head;
         link = link->next) {
        const XelThreadCtrl* ctrl = ThreadOf(link);
        if (epFdFilter >= 0 && ctrl->epFd != epFdFilter) {
            continue;
        }
        FillDeployInfo(ctrl, &array[filled]);
        ++filled;
        if (epFdFilter >= 0 || filled >= room) {
            break;
        }
    }
    (void)pthread_rwlock_unlock(&g_xelThreadCtrlMng.lock);
    *count = filled;
    return XEL_OK;
}
