// The registrations that SCH_EpollCtrl made on Linux epoll, as far as the library may change them.
//
// The kernel reports a level-triggered descriptor again in every wait, also while its task is
// queued, and rotates its ready list: among many of them an urgent one is seen late. So a crowded
// policy sets the registration of a queued task aside when it is reported again, and puts it back
// when the task is selected: plainly, or for one report only as long as it stays crowded.
//
//     plain --(reported again while queued)--> aside --(selected)--> plain
//                                                ^  \--(selected, still crowded)--> once
//                                                \------------(reported)-----------/
//
// Owners of sockets change what they wait for, by epoll_ctl(2) as the library offers no way. So a
// socket is set aside only when its report shows the registration as it was made, and it always
// comes back plainly, before its callback runs.
//
// The word `watch` of a task holds the registered mask and the state; 0: not the library's to
// change. It changes under the write side of the task's lock, the kernel's registration with it, so
// that no modify meets a descriptor that was deleted meanwhile.
#ifndef XEL_SCHEDULER_SCH_TASK_WATCH_H
#define XEL_SCHEDULER_SCH_TASK_WATCH_H

#include <sys/epoll.h>

#include "scheduler/xel_sch_task_inner.h"

constexpr u32 kWatchMask = 0xFFFF;    // the events as registered
constexpr u32 kWatchOn = 1U << 16;    // registered by the library
constexpr u32 kWatchOnce = 1U << 17;  // registered for one report
constexpr u32 kWatchAside = 1U << 18; // out of the ready list
// What the descriptor is, once somebody has looked.
constexpr u32 kWatchSteady = 1U << 19;  // nobody changes its registration: a counter, timer, pipe
constexpr u32 kWatchVarying = 1U << 20; // its owner may
constexpr u32 kWatchKind = kWatchSteady | kWatchVarying;
constexpr u32 kAlwaysReported = EPOLLERR | EPOLLHUP;

// What a deletion needs to undo itself.
struct TaskWatch {
    u32 word;
    i32 epFd;
};

// What a descriptor is ready for now, of these events; an error or a hang-up in any case.
u32 TaskReadiness(i32 fd, u32 events);

// The part of reported events that is the task's own, and not that of another task which had its
// unit before. Known for plain level-triggered registrations, whose readiness is reported again;
// others keep what was reported. The caller holds a side of the task's lock.
u32 TaskWatchOwn(const SchTaskCtrl* task, u32 events);

// Before the descriptor is registered with these events, on the epoll instance of the scheduler
// that the task is just bound to, and to no other. Other than plain level-triggered masks are left
// alone. Locked: the caller holds the write side of the task's lock.
void TaskWatchBeginLocked(SchTaskCtrl* task, u32 events);

// The registration becomes as it was made and is left alone from now on.
void TaskWatchEnd(SchTaskCtrl* task);
void TaskWatchEndLocked(SchTaskCtrl* task);
// The same for every task that is registered on epFd.
void TaskWatchEndAll(i32 epFd);

// Before a registration is deleted, and when that failed.
TaskWatch TaskWatchForgetLocked(SchTaskCtrl* task);
void TaskWatchUndoForget(SchTaskCtrl* task, i32 fd, TaskWatch watch);

// A report of the task that its state needs to know of; see TaskWatchReported.
void TaskWatchChangeByReport(SchTaskCtrl* task, u32 watch, u32 events);

// A queued task of that version was reported again, with these events, by epFd to a crowded policy.
void TaskWatchSetAside(SchTaskCtrl* task, u32 version, i32 epFd, u32 events);

// A task of that version was selected: adds to *events what its descriptor is ready for by now, and
// puts the registration back. False when that failed and has to be tried again.
bool TaskWatchPutBack(SchTaskCtrl* task, u32 version, bool forOnce, u32* events);
// Tries again for every task that is aside on epFd. False when one still fails.
bool TaskWatchPutBackAll(i32 epFd);

// True when a registration that is aside would be reported by a wait now. The first one is called
// under the task's lock, the second one takes it and looks at a task of that version only.
bool TaskWatchIsReady(SchTaskCtrl* task);
bool TaskWatchWouldReport(SchTaskCtrl* task, u32 version);

inline bool TaskWatchIsAside(const SchTaskCtrl* task)
{
    return (task->watch.load(std::memory_order_relaxed) & kWatchAside) != 0;
}

// At each report of a task; the caller holds the write side of its lock.
inline void TaskWatchReported(SchTaskCtrl* task, u32 events)
{
    const u32 watch = task->watch.load(std::memory_order_relaxed);
    if (watch != 0 &&
        ((watch & (kWatchOnce | kWatchAside)) != 0 || (events & ~(watch | kAlwaysReported)) != 0)) {
        TaskWatchChangeByReport(task, watch, events);
    }
}

#endif // XEL_SCHEDULER_SCH_TASK_WATCH_H
