// The task table: one record per watched descriptor, for the whole process. It owns the table, its
// lock, the version counter and the descriptor index. Creation and destruction hold the table lock
// for writing, lookup by descriptor for reading; every other operation takes the task's own lock
// only. All functions may run on any thread, also inside a dispatch cycle.
#include "scheduler/xel_sch_task_inner.h"

#include "common/xel_barrier.h"
#include "common/xel_lock_guard.h"
#include "common/xel_lock_wait.h"
#include "common/xel_memory.h"
#include "scheduler/xel_sch_task_bind.h"
#include "scheduler/xel_sch_task_index.h"
#include "scheduler/xel_sch_task_watch.h"

constinit TaskRunCtrl g_xelTaskRunCtrl = {};

namespace
{

constexpr u32 kTaskUnits = 32;
constexpr u32 kDeadType = kTaskTypeCount; // no live task has it

// Orders first-time initialisation and finalisation; taken before the table lock.
pthread_mutex_t g_initMutex = PTHREAD_MUTEX_INITIALIZER;

// Only a negative result of a lock call counts as failure.
bool IsLockFailure(int result)
{
    return result < 0;
}

// The table can be used: created, and not finalised since.
bool HasTable()
{
    return g_xelTaskRunCtrl.init.load(std::memory_order_acquire) == 1 &&
           g_xelTaskRunCtrl.fdTbl != nullptr;
}

// Makes a record out of a unit. The unit may have served another task whose users still look at
// it, so its lock is taken, not overwritten, and everything changes under it.
void BuildTask(SchTaskCtrl* task, i32 fd, const XelTaskAttr* attr)
{
    task->magic.store(0, std::memory_order_relaxed);
    RwlockOpenFresh(&task->lock);
    const ShortWriteGuard guard(task->lock);
    FullBarrierAfterRmw(); // nothing below is seen beside an older magic
    XelSllInit(&task->schList, &task->schCount);
    task->version = g_xelTaskRunCtrl.taskVer.load(std::memory_order_relaxed);
    task->fd = fd;
    task->init = 1;
    SchTaskCtrlSetData(task, attr);
    task->events.store(0, std::memory_order_relaxed);
    task->watch.store(0, std::memory_order_relaxed);
    FullBarrier();
    task->magic.store(kTaskMagic, std::memory_order_release);
}

// Checks of destruction once both locks are held.
bool IsDestroyable(const SchTaskCtrl* task)
{
    const u32 magic = TaskMagicOf(task);
    if (magic != kTaskMagic) {
        XEL_LOG_FAIL(kTaskLog, "Task destroy unsuccessfully, magic is damaged, magic = %#x.",
                     magic);
        return false;
    }
    if (!FtEntryIsValid(task, true)) {
        XEL_LOG_FAIL(kTaskLog, "Task destroy unsuccessfully, fd handle is invalid.");
        return false;
    }
    if (task->init == 0) {
        XEL_LOG_FAIL(kTaskLog, "Task destroy, task handle had been destroyed already, init = %u.",
                     static_cast<u32>(task->init));
        return false;
    }
    return true;
}

// Turns a live record into a dead one; the caller holds both locks.
void RetireTask(SchTaskCtrl* task)
{
    XelTaskAttr empty;
    ClearRecord(&empty);
    empty.type = kDeadType;
    TaskWatchEndLocked(task);
    TaskReleaseBindings(task);
    task->init = 0;
    task->version = 0;
    task->fd = -1;
    task->events.store(0, std::memory_order_relaxed);
    SchTaskCtrlSetData(task, &empty);
    FullBarrier();
    task->magic.store(0, std::memory_order_release);
}

u32 CreateTable()
{
    FtCtrl* table = FtCtrlCreate(kTaskUnitSize, kTaskUnits);
    if (table == nullptr) {
        XEL_LOG_FAIL(kTaskLog,
                     "Task init unsuccessfully, create fd table unsuccessfully, unit = %zu, "
                     "number = %d.",
                     kTaskUnitSize, kTaskUnits);
        return XEL_FAIL;
    }
    if (IsLockFailure(pthread_rwlock_init(&g_xelTaskRunCtrl.rwlock, nullptr))) {
        (void)FtCtrlDestroy(table);
        return XEL_FAIL;
    }
    g_xelTaskRunCtrl.fdTbl = table;
    g_xelTaskRunCtrl.taskVer.store(0, std::memory_order_relaxed);
    g_xelTaskRunCtrl.init.store(1, std::memory_order_release);
    return XEL_OK;
}

bool ReleaseBindingsOf(void* record, const void* /*key*/)
{
    TaskReleaseBindings(static_cast<SchTaskCtrl*>(record));
    return false;
}

} // namespace

u32 TaskInit(void)
{
    if (g_xelTaskRunCtrl.init.load(std::memory_order_acquire) == 1) {
        return XEL_OK;
    }
    const MutexGuard guard(g_initMutex);
    if (g_xelTaskRunCtrl.init.load(std::memory_order_relaxed) == 1) {
        return XEL_OK;
    }
    return CreateTable();
}

// The table pointer is left as it is: init alone tells that the table is gone.
void TaskFinal(void)
{
    const MutexGuard guard(g_initMutex);
    if (g_xelTaskRunCtrl.init.load(std::memory_order_relaxed) == 0) {
        return;
    }
    (void)pthread_rwlock_wrlock(&g_xelTaskRunCtrl.rwlock);
    g_xelTaskRunCtrl.init.store(0, std::memory_order_release);
    TaskIndexReset();
    (void)FtGetEntryByHook(g_xelTaskRunCtrl.fdTbl, nullptr, ReleaseBindingsOf);
    (void)FtCtrlDestroy(g_xelTaskRunCtrl.fdTbl);
    (void)pthread_rwlock_unlock(&g_xelTaskRunCtrl.rwlock);
}

SchTaskCtrl* XEL_TaskCreate(int32_t fd, const XelTaskAttr* attr)
{
    if (attr == nullptr) {
        XEL_LOG_FAIL(kTaskLog, "scheduler create task unsuccessfully, param is null.");
        return nullptr;
    }
    if (!SchIsTaskParamValid(attr)) {
        XEL_LOG_FAIL(kTaskLog, "scheduler create task unsuccessfully, scheduler check param "
                               "unsuccessfully, param invalid.");
        return nullptr;
    }
    if (fd < 0) {
        XEL_LOG_FAIL(kTaskLog, "scheduler create task unsuccessfully, task fd :%d invalid.", fd);
        return nullptr;
    }
    if (TaskInit() != XEL_OK) {
        XEL_LOG_FAIL(kTaskLog, "scheduler create task unsuccessfully, task init unsuccessfully.");
        return nullptr;
    }
    if (SchTaskGetHandleByAppFd(fd) != nullptr) {
        XEL_LOG_FAIL(kTaskLog, "Task fd has already create task. (fd = %d)", fd);
        return nullptr;
    }
    SchTaskCtrl* task = SchTaskCreate(fd, attr);
    if (task == nullptr) {
        XEL_LOG_FAIL(kTaskLog,
                     "scheduler create task unsuccessfully, create task handle unsuccessfully, "
                     "task = %d.",
                     fd);
    }
    return task;
}

void XEL_TaskDestroy(SchTaskCtrl* task)
{
    if (task == nullptr) {
        XEL_LOG_FAIL(kTaskLog, "Task destroy, task handle is null.");
        return;
    }
    SchTaskDestroy(task);
}

SchTaskCtrl* SchTaskCreate(i32 fd, const XelTaskAttr* attr)
{
    const int ret = pthread_rwlock_wrlock(&g_xelTaskRunCtrl.rwlock);
    if (IsLockFailure(ret)) {
        XEL_LOG_FAIL(kTaskLog, "Task create unsuccessfully, write lock unsuccessfully, ret = %d.",
                     ret);
        return nullptr;
    }
    SchTaskCtrl* task = nullptr;
    if (!HasTable()) {
        XEL_LOG_FAIL(kTaskLog, "Task manage handle null.");
    } else {
        task = static_cast<SchTaskCtrl*>(FtEntryAlloc(g_xelTaskRunCtrl.fdTbl));
        if (task == nullptr) {
            XEL_LOG_FAIL(kTaskLog, "Task create unsuccessfully, alloc task-ctrl unsuccessfully!");
        } else {
            g_xelTaskRunCtrl.taskVer.store(SchNewestTask() + 1, std::memory_order_relaxed);
            BuildTask(task, fd, attr);
            TaskIndexAdd(task);
        }
    }
    (void)pthread_rwlock_unlock(&g_xelTaskRunCtrl.rwlock);
    return task;
}

// Once the locks are held the entry goes back to the table even when a check fails; the table does
// nothing for an entry that is free already.
void SchTaskDestroy(SchTaskCtrl* task)
{
    TaskDestroy(task, nullptr);
}

void TaskDestroy(SchTaskCtrl* task, const i32* fd)
{
    const u32 magic = TaskMagicOf(task);
    if (magic != kTaskMagic) {
        XEL_LOG_FAIL(kTaskLog, "Task destroy unsuccessfully, magic is damaged, magic = %#x.",
                     magic);
        return;
    }
    int ret = pthread_rwlock_wrlock(&g_xelTaskRunCtrl.rwlock);
    if (IsLockFailure(ret)) {
        XEL_LOG_FAIL(kTaskLog, "Task destroy unsuccessfully, write lock unsuccessfully, ret = %d.",
                     ret);
        return;
    }
    bool isOf = true;
    if (FtEntryIsValid(task, false)) {
        const ShortWriteGuard guard(task->lock);
        isOf = TaskIsOf(task, fd);
        if (isOf && IsDestroyable(task)) {
            RetireTask(task);
        }
        if (isOf) {
            TaskIndexRemove(task);
        }
    } else {
        (void)IsDestroyable(task); // says why; the lock words of a foreign record are not touched
    }
    if (isOf) {
        (void)FtEntryFree(task);
    }
    ret = pthread_rwlock_unlock(&g_xelTaskRunCtrl.rwlock);
    if (IsLockFailure(ret)) {
        XEL_LOG_FAIL(kTaskLog, "Task destroy, write unlock unsuccessfully, ret = %d.", ret);
    }
}

SchTaskCtrl* SchTaskGetHandleByAppFd(i32 fd)
{
    const int ret = pthread_rwlock_rdlock(&g_xelTaskRunCtrl.rwlock);
    if (IsLockFailure(ret)) {
        XEL_LOG_FAIL(kTaskLog,
                     "Get task handle unsuccessfully, read lock unsuccessfully, ret = %d.", ret);
        return nullptr;
    }
    SchTaskCtrl* task = TaskIndexFind(fd);
    (void)pthread_rwlock_unlock(&g_xelTaskRunCtrl.rwlock);
    return task;
}

bool SchMatchTaskHandleWithAppFd(void* record, const void* key)
{
    auto* task = static_cast<SchTaskCtrl*>(record);
    if (TaskMagicOf(task) != kTaskMagic) {
        XEL_LOG_FAIL(kTaskLog, "Get task handle unsuccessfully, taskCtrl magic error.");
        return false;
    }
    const ShortReadGuard guard(task->lock);
    return task->fd == *static_cast<const i32*>(key);
}

bool SchTaskHandleIsValid(const SchTaskCtrl* task)
{
    if (task == nullptr) {
        XEL_LOG_FAIL(kTaskLog, "task handle null.");
        return false;
    }
    const u32 magic = TaskMagicOf(task);
    if (magic != kTaskMagic) {
        XEL_LOG_FAIL(kTaskLog, "task handle magic destroy, magic = %#x.", magic);
        return false;
    }
    return true;
}

bool SchTaskCtrlIsValid(const SchTaskCtrl* task)
{
    const u32 magic = TaskMagicOf(task);
    if (magic != kTaskMagic) {
        XEL_LOG_FAIL(kTaskLog, "Task has damaged. (magic = %#x)", magic);
        return false;
    }
    return FtEntryIsValid(task, false);
}

u32 SchTaskGetFdBySchHandle(SchTaskCtrl* task)
{
    if (!SchTaskHandleIsValid(task)) {
        XEL_LOG_FAIL(kTaskLog, "Sch get fd, schTaskHandle invalid.");
        return XEL_FAIL;
    }
    const ShortReadGuard guard(task->lock);
    const u32 magic = TaskMagicOf(task);
    if (magic != kTaskMagic) {
        XEL_LOG_FAIL(kTaskLog, "Sch get fd, task magic is damaged, magic = %#x.", magic);
        return XEL_FAIL;
    }
    return static_cast<u32>(task->fd);
}

u32 SchTaskGetFdType(const SchTaskCtrl* task)
{
    return task == nullptr ? kTaskFdTypeCount : task->fdType.load(std::memory_order_relaxed);
}

void SchTaskCtrlSetData(SchTaskCtrl* task, const XelTaskAttr* attr)
{
    task->proc = attr->proc;
    task->data = attr->data;
    task->type = attr->type;
    task->prio = attr->prio;
    task->fdType.store(attr->fdType, std::memory_order_relaxed);
    if (strcpy_s(task->name, sizeof(task->name), attr->name) != 0) {
        XEL_LOG_FAIL(kTaskLog, "Task set name unsuccessfully.");
    }
}

u32 SchFdModify(SchTaskCtrl* task, const XelTaskAttr* attr)
{
    return TaskModify(task, nullptr, attr);
}

u32 TaskModify(SchTaskCtrl* task, const i32* fd, const XelTaskAttr* attr)
{
    u32 magic = TaskMagicOf(task);
    if (magic != kTaskMagic) {
        XEL_LOG_FAIL(kTaskLog, "Task modify unsuccessfully, task magic is damaged, magic = %#x.",
                     magic);
        return XEL_FAIL;
    }
    const ShortWriteGuard guard(task->lock);
    magic = TaskMagicOf(task);
    if (magic != kTaskMagic) {
        XEL_LOG_FAIL(kTaskLog, "Task modify unsuccessfully, task magic is damaged, magic = %#x.",
                     magic);
        return XEL_FAIL;
    }
    if (!FtEntryIsValid(task, true)) {
        XEL_LOG_FAIL(kTaskLog, "Task modify unsuccessfully, fd handle is not valid.");
        return XEL_FAIL;
    }
    if (task->init == 0 || !TaskIsOf(task, fd)) {
        XEL_LOG_FAIL(kTaskLog,
                     "Task modify unsuccessfully, fd handle had been destroyed already, init = %u.",
                     0U);
        return XEL_FAIL;
    }
    SchTaskCtrlSetData(task, attr);
    return XEL_OK;
}

u32 SchFdModAttr(SchTaskCtrl* task, const XelTaskAttr* attr)
{
    return TaskModifyAttr(task, nullptr, attr);
}

u32 TaskModifyAttr(SchTaskCtrl* task, const i32* fd, const XelTaskAttr* attr)
{
    if (task == nullptr || attr == nullptr) {
        XEL_LOG_FAIL(kTaskLog, "Sch modify attribute unsuccessfully, param is null.");
        return XEL_EARG;
    }
    if (!SchIsTaskParamValid(attr)) {
        XEL_LOG_FAIL(kTaskLog, "Sch modify attribute unsuccessfully, param invalid.");
        return XEL_EARG;
    }
    const u32 ret = TaskModify(task, fd, attr);
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kTaskLog, "Sch modify attribute unsuccessfully, ret = %d.", ret);
    }
    return ret;
}
