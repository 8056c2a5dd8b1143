// Inside of the BFS policy: its instance and records.
//
// One dispatch cycle at a time prepares, inserts and selects (the scheduler's dispatch lock). The
// event cache may be listed beside it by other threads: what they read is atomic, and the memory
// of nodes and records stays mapped.
#ifndef XEL_SCHEDULER_SCH_POLICY_BFS_H
#define XEL_SCHEDULER_SCH_POLICY_BFS_H

#include <atomic>
#include <cstddef>
#include <sys/epoll.h>

#include "common/xel_int.h"
#include "scheduler/xel_sch_task_inner.h"
#include "xel_list.h"
#include "xel_scheduler.h"

constexpr u32 kBfsGroupCount = 4;
constexpr u32 kBfsSelectMax = 2; // events of one selection

struct SchBfsTaskInfo {
    u32 version;  // the task's version at insertion
    u32 reserved; // 0
    u64 key;      // type 2: the selection number from which the event is overdue; else 0
};

// One queued event: a copy of the epoll event and the task information. A reader beside the cycle
// must never take halves of two handles together, so the words that it reads are atomics behind a
// sequence word, which lies in the padding that the record has anyway.
struct SchBfsEvent {
#if defined(__x86_64__)
    std::atomic<u32> mask;
    std::atomic<u32> handle[2]; // the task handle, packed behind the mask as the kernel packs it
    std::atomic<u32> sequence;  // odd while the record is being written
#else
    std::atomic<u32> mask;
    std::atomic<u32> sequence;
    std::atomic<u32> handle[2];
#endif
    std::atomic<u32> version;
    u32 reserved;
    u64 key;
};
static_assert(sizeof(SchBfsEvent) == 32);
static_assert(offsetof(SchBfsEvent, handle) == offsetof(struct epoll_event, data));
static_assert(offsetof(SchBfsEvent, version) == 16);

// A list node and a record that travel together: free in slotQueue, or linked into one list.
struct SchBfsSlot {
    XelDll* node;
    SchBfsEvent* event;
};

struct SchBfsCtrl {
    u32 maxEvents;
    u32 batch;     // events to ask epoll for in the next cycle
    u32 lastCount; // events handed to the last insert
    i32 asideFd;   // in padding: the epoll instance whose registrations may change, or -1
    void* slotQueue;
    void* nodePool;
    void* eventPool;
    u8 prioBitmap[4]; // bit p: prioList[p] has an event
    u32 isOwed;       // in padding: 1 while some registration could not be put back
    XelDll prioList[kTaskPrioCount];
    u64 fifoServed;
    XelDll fifoList;
    u64 delayServed;
    XelDll delayList;
    u32 groupQuota[kBfsGroupCount];
    XelDll groupList[kBfsGroupCount];
    u64 selectSeq;
    std::atomic<u32> eventLeft; // read by other threads
    struct epoll_event outEvents[kBfsSelectMax];
    SchBfsTaskInfo outInfo[kBfsSelectMax];
    alignas(8) u32 listAnchor; // counter of all lists together: events queued now
};
static_assert(offsetof(SchBfsCtrl, slotQueue) == 16 && offsetof(SchBfsCtrl, prioList) == 48);
static_assert(offsetof(SchBfsCtrl, prioBitmap) == 40 && sizeof(SchBfsCtrl) % 8 == 0);

XEL_EXTERN_C_BEGIN

XEL_API u32 SchBfsCtrlInit(SchBfsCtrl* ctrl, u32 size, void* slotQueue, void* nodePool,
                           void* eventPool);
XEL_API void SchBfsMaxEventAdapt(SchBfsCtrl* ctrl);

XEL_EXTERN_C_END

// From now on registrations of queued tasks on this Linux epoll instance may be set aside.
void BfsAllowAside(void* policy, i32 epFd);
// Inserts what a wait has reported, and selects.
void BfsPassEvents(void* policy, const struct epoll_event* events, const SchBatch& batch,
                   SchRunList* run);
// False when a blocking wait would miss the readiness of a queued task whose registration is aside.
bool BfsMayBlock(void* policy);

#endif // XEL_SCHEDULER_SCH_POLICY_BFS_H
