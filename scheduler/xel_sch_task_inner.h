// Inside of the task module: attribute and task records, the task table, and the operations that
// the scheduler core, the policy and the epoll adaptation call.
//
// Locks: g_xelTaskRunCtrl.rwlock guards the table and the descriptor index; a task's own lock
// guards its fields. Order: table lock, then task lock.
#ifndef XEL_SCHEDULER_SCH_TASK_INNER_H
#define XEL_SCHEDULER_SCH_TASK_INNER_H

#include <atomic>
#include <cstddef>
#include <pthread.h>
#include <sys/time.h>

#include "common/xel_attr.h"
#include "common/xel_int.h"
#include "common/xel_log_site.h"
#include "scheduler/xel_fmm_tbl.h"
#include "xel_list.h"
#include "xel_lock.h"
#include "xel_sch_dbg.h"
#include "xel_sch_task.h"
#include "xel_scheduler.h"

inline constexpr LogSite kTaskLog{"scheduler/xel_sch_task", 80};

constexpr u32 kTaskAttrMagic = 0x6EFAB123U;
constexpr u32 kTaskMagic = 0x3DFFE844U;
constexpr u32 kTaskTypeCount = 4;
constexpr u32 kTaskPrioCount = 32;
constexpr u32 kTaskFdTypeCount = 2;

struct XelTaskAttr {
    u32 magic;
    XelTaskProc proc;
    u64 data;
    u32 type;
    u32 prio;
    char name[XEL_NAME_SIZE];
    u32 fdType;
};

struct SchTaskCtrl {
    std::atomic<u32>
        magic; // written last on creation (release), first read by every user (acquire)
    XelRwlock lock;
    std::atomic<u32> watch; // the registration, as far as the library may change it (task_watch)
    XelSll schList;         // handles that the task is bound to
    u32 version; // counter value at creation: tells this task from a later one in the same unit
    i32 fd;
    u64 insertTime;
    u64 lastInsertTime;
    std::atomic<u32> events; // pending readiness; taken under the read hold, so two may meet here
    char name[XEL_NAME_SIZE];
    u8 init;
    XelTaskProc proc;
    u64 data;
    u32 type;
    u32 prio;
    std::atomic<u32> fdType; // read without the lock by the epoll adaptation
    u32 schCount;            // length of schList
};
static_assert(sizeof(SchTaskCtrl) <= 128, "a task record fits its unit");
static_assert(offsetof(SchTaskCtrl, schList) == 16, "the watch word lies in the padding");

// The magic found in a handle; null counts as a destroyed one. Pairs with the release of creation
// and destruction.
inline u32 TaskMagicOf(const SchTaskCtrl* task)
{
    return task == nullptr ? 0 : task->magic.load(std::memory_order_acquire);
}

// Size of a task's unit in the table: the record, and behind it the tail.
constexpr size_t kTaskUnitSize = 128;

constexpr i32 kSeveralEpFds = -1; // or one that is not known

// Behind the record in its unit: what the library keeps beside the record's own fields.
struct SchTaskTail {
    SchTaskCtrl* next; // in its bucket of the descriptor index; under the table lock
    u32 key;           // descriptor + 1 while in the index, else 0; under the table lock
    i32 epFd;          // of the scheduler it was bound to or wakes up, or kSeveralEpFds; under
                       // the task's lock
};
static_assert(sizeof(SchTaskCtrl) + sizeof(SchTaskTail) <= kTaskUnitSize);
static_assert(sizeof(SchTaskCtrl) % alignof(SchTaskTail) == 0);

inline SchTaskTail* TailOf(SchTaskCtrl* task)
{
    return reinterpret_cast<SchTaskTail*>(task + 1);
}

struct TaskRunCtrl {
    pthread_rwlock_t rwlock;
    FtCtrl* fdTbl;
    std::atomic<u32> taskVer; // written under the lock
    std::atomic<u8> init;     // set last by TaskInit (release), read first (acquire)
};

// What the policy needs of a task when readiness is inserted.
struct SchTaskInsertInfo {
    u32 version;
    u32 type;
    u32 prio;
    u8 isFirst; // 1: nothing was pending, the task must be queued
};

// The record of one run.
struct SchTaskTraceInfo {
    XelTaskProc procFunc;
    i32 fd;
    u32 events;
    char name[XEL_NAME_SIZE];
    u32 type;
    u32 prio;
    u32 eventLeft;
    u64 insertTime;
    u64 startTime;
    u64 endTime;
    u64 procTime;
    struct timeval timestamp;
};

XEL_EXTERN_C_BEGIN

XEL_API extern TaskRunCtrl g_xelTaskRunCtrl;
XEL_API extern const AttrRow<XelTaskAttr> g_xelSchTaskAttrSetMap[5];

// Attributes. Each setter returns a result code and changes nothing when it fails.
XEL_API u32 SchCheckTaskAttrParam(const XelTaskAttr* attr, u32 cmd, const void* value);
XEL_API u32 SchTaskAttrSetUsrCb(XelTaskAttr* attr, const void* value, size_t size);
XEL_API u32 SchTaskAttrSetType(XelTaskAttr* attr, const void* value, size_t size);
XEL_API u32 SchTaskAttrSetPrio(XelTaskAttr* attr, const void* value, size_t size);
XEL_API u32 SchTaskAttrSetName(XelTaskAttr* attr, const void* value, size_t size);
XEL_API u32 SchTaskAttrSetFdType(XelTaskAttr* attr, const void* value, size_t size);
XEL_API bool SchIsTaskParamValid(const XelTaskAttr* attr);

// The table. TaskInit is idempotent and safe from several threads.
XEL_API u32 TaskInit(void);
XEL_API void TaskFinal(void);
XEL_API SchTaskCtrl* SchTaskCreate(i32 fd, const XelTaskAttr* attr);
XEL_API void SchTaskDestroy(SchTaskCtrl* task);
XEL_API SchTaskCtrl* SchTaskGetHandleByAppFd(i32 fd);
XEL_API bool SchMatchTaskHandleWithAppFd(void* record, const void* key);

// Handle checks: magic only, without a lock; or magic and pool membership (not for null).
XEL_API bool SchTaskHandleIsValid(const SchTaskCtrl* task);
XEL_API bool SchTaskCtrlIsValid(const SchTaskCtrl* task);

// Single fields and changes.
XEL_API u32 SchTaskGetFdBySchHandle(SchTaskCtrl* task);
XEL_API u32 SchTaskGetFdType(const SchTaskCtrl* task);
XEL_API void SchTaskCtrlSetData(SchTaskCtrl* task, const XelTaskAttr* attr);
XEL_API u32 SchFdModify(SchTaskCtrl* task, const XelTaskAttr* attr);
XEL_API u32 SchFdModAttr(SchTaskCtrl* task, const XelTaskAttr* attr);
XEL_API u32 SchTaskAddScheduler(SchTaskCtrl* task, void* sch);
XEL_API void SchTaskRmScheduler(SchTaskCtrl* task, void* sch);

// Copies out of a task at insertion, selection, run and trace.
XEL_API u32 SchTaskGetInfoInsert(void* sch, SchTaskCtrl* task, const struct epoll_event* event,
                                 SchTaskInsertInfo* info);
XEL_API u32 SchTaskGetEvent(SchTaskCtrl* task, u32 version, struct epoll_event* event);
XEL_API u32 SchTaskGetInfoProcess(SchTaskCtrl* task, XelTaskProc* proc, u64* data);
XEL_API u32 SchTaskGetDbgInfo(SchTaskCtrl* task, u32 version, SchEventCacheInfo* out);
XEL_API u32 SchTaskGetDbgInfoByTaskHandle(SchTaskCtrl* task, SchDbgTaskInfo* out);
XEL_API u32 SchTaskGetSimpleDbgByHandle(SchTaskCtrl* task, SchTaskTraceInfo* trace);
XEL_API i32 SchGetTraceDbgInfo(SchTaskCtrl* task, SchTaskTraceInfo* trace);

XEL_EXTERN_C_END

// A task that was looked up by its descriptor may have gone meanwhile, and its unit have become
// another descriptor's: false then. True without fd, and for a unit that is nobody's. The caller
// holds a side of the task's lock.
inline bool TaskIsOf(const SchTaskCtrl* task, const i32* fd)
{
    return fd == nullptr || task->fd < 0 || task->fd == *fd;
}

// SchFdModify, SchFdModAttr and SchTaskDestroy for a task that was looked up by fd, or with null.
u32 TaskModify(SchTaskCtrl* task, const i32* fd, const XelTaskAttr* attr);
u32 TaskModifyAttr(SchTaskCtrl* task, const i32* fd, const XelTaskAttr* attr);
void TaskDestroy(SchTaskCtrl* task, const i32* fd);

// SchTaskGetEvent for a policy that is crowded: a registration that was set aside comes back for
// one report only. *isOwed is set when it could not be put back and has to be tried again.
u32 SchTaskTakeEvent(SchTaskCtrl* task, u32 version, struct epoll_event* event, bool isCrowded,
                     bool* isOwed);

// What is known of the tasks of a batch of events before its first callback runs.
struct SchBatch {
    bool isChecked; // by the library's policy: the handles are units, and bound where they run
    i32 epFd;       // of the scheduler that runs them
    u32 oldest;     // version of the task created last before the wait for them
    u32 newest;     // and right after it
};

inline u32 SchNewestTask()
{
    return g_xelTaskRunCtrl.taskVer.load(std::memory_order_relaxed);
}

// What a run begins with: the callback with its data, and the task's share of the run's record but
// for the time of day.
struct SchRunStart {
    XelTaskUsrCb callback;
    SchTaskTraceInfo record;
};

// Takes what the run begins with, under one hold of the task's lock. 0, or 0xFFFFFFFF (logged).
//
// The task that was reported may have been destroyed since, and another one have taken its unit.
// One that is younger than the batch is refused. One that was created while the wait stood may be
// meant: it is refused if it is bound elsewhere or wakes up another scheduler, or is bound nowhere
// and not ready for these events.
u32 SchTaskBeginRun(SchTaskCtrl* task, const SchBatch& batch, u32 events, SchRunStart* start);

// The events that are to run now.
struct SchRunList {
    struct epoll_event* events;
    u32 count;
    bool isBegun; // the first run has: start is what it begins with
    SchRunStart start;
};

// What became of an event at its insertion.
enum class SchInserted {
    Refused, // logged
    Nobodys, // meant for the task that had this one's unit when the wait began
    Pending, // in the mask, as SchTaskGetInfoInsert does it
    Begun,   // neither pending nor to be queued: SchTaskBeginRun is done
};

// SchTaskGetInfoInsert for an event that a wait has just reported. Of a task that was created after
// the wait nothing is inserted, of one that was created during it only what it is ready for.
SchInserted SchTaskInsert(void* sch, SchTaskCtrl* task, const struct epoll_event* event,
                          const SchBatch& batch, SchTaskInsertInfo* info);

// The same for an event that would be selected at once if it was queued: when its task existed
// before the wait and nothing else speaks against it, its run begins under the same hold of the
// task's lock.
SchInserted SchTaskInsertOrBegin(void* sch, SchTaskCtrl* task, const struct epoll_event* event,
                                 const SchBatch& batch, SchTaskInsertInfo* info,
                                 SchRunStart* start);

// An event of the task is dropped unrun: clears the pending mask when the version is still the
// same, so that the task can be queued again. Silent.
void SchTaskDropEvent(SchTaskCtrl* task, u32 version);

#endif // XEL_SCHEDULER_SCH_TASK_INNER_H
