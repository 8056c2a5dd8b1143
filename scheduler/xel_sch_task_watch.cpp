// Changes of registrations on the epoll instance; see the header for the states. Called on the
// dispatching thread (reports, setting aside, putting back) and by whoever binds, unbinds, deletes
// or destroys. It owns no data: the state lies in the task's unit.
#include "scheduler/xel_sch_task_watch.h"

#include <cerrno>
#include <poll.h>
#include <sys/stat.h>

#include "common/xel_lock_guard.h"

namespace
{

// Masks made of these alone are plain; anything else (edge-triggered, one-shot, exclusive, a bit
// of a newer kernel) has its own rules about being reported again.
constexpr u32 kPlainEvents = EPOLLIN | EPOLLPRI | EPOLLOUT | EPOLLERR | EPOLLHUP | EPOLLRDNORM |
                             EPOLLRDBAND | EPOLLWRNORM | EPOLLWRBAND | EPOLLMSG | EPOLLRDHUP;
static_assert((kPlainEvents & ~kWatchMask) == 0);
static_assert(EPOLLIN == POLLIN && EPOLLOUT == POLLOUT && EPOLLPRI == POLLPRI);

// With no event named only an error or a hang-up is reported, once; then the descriptor is silent.
constexpr u32 kSilent = EPOLLONESHOT;

u32 WatchOf(const SchTaskCtrl* task)
{
    return task->watch.load(std::memory_order_relaxed);
}

void SetWatch(SchTaskCtrl* task, u32 watch)
{
    task->watch.store(watch, std::memory_order_relaxed);
}

int Control(SchTaskCtrl* task, i32 epFd, int op, i32 fd, u32 events)
{
    struct epoll_event event = {};
    event.events = events;
    event.data.ptr = task;
    return epoll_ctl(epFd, op, fd, &event);
}

// Modifies a registration, at the second try if need be. True as well when there is none any more:
// the descriptor was closed, or deleted by somebody else.
bool Modify(SchTaskCtrl* task, i32 epFd, i32 fd, u32 events)
{
    constexpr u32 kTries = 2;
    for (u32 i = 0; i < kTries; ++i) {
        if (Control(task, epFd, EPOLL_CTL_MOD, fd, events) == 0) {
            return true;
        }
    }
    return errno == ENOENT || errno == EBADF;
}

// Looked up once per registration.
u32 KindOf(i32 fd)
{
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return kWatchVarying;
    }
    const bool isAnonymous = (status.st_mode & S_IFMT) == 0; // eventfd, timerfd, signalfd ...
    return isAnonymous || S_ISFIFO(status.st_mode) ? kWatchSteady : kWatchVarying;
}

// Only what is ready tells by its report whether it is still registered.
bool IsAsRegistered(i32 fd, u32 watch, u32 events)
{
    constexpr u32 kBoth = EPOLLIN | EPOLLOUT;
    return (TaskReadiness(fd, kBoth) & kBoth) == kBoth && ((events ^ watch) & kBoth) == 0;
}

// Only a task that is bound once is queued where it is reported, and nowhere else.
bool CanBeSetAside(const SchTaskCtrl* task, u32 version)
{
    const u32 watch = WatchOf(task);
    return task->version == version && task->schCount == 1 && (watch & kWatchOn) != 0 &&
           (watch & (kWatchOnce | kWatchAside)) == 0 &&
           task->events.load(std::memory_order_relaxed) != 0;
}

// The caller holds the write side of the task's lock. After a failure the task is left alone: it
// comes back plainly and is never set aside again.
bool PutBackLocked(SchTaskCtrl* task, u32 watch, bool forOnce)
{
    const i32 epFd = TailOf(task)->epFd;
    const u32 events = watch & kWatchMask;
    const bool isOnce = forOnce && (watch & kWatchSteady) != 0;
    const u32 oneShot = isOnce ? u32{EPOLLONESHOT} : 0;
    if (Control(task, epFd, EPOLL_CTL_MOD, task->fd, events | oneShot) == 0) {
        SetWatch(task, (watch & ~kWatchAside) | (isOnce ? kWatchOnce : 0));
        return true;
    }
    if (!Modify(task, epFd, task->fd, events)) {
        return false;
    }
    SetWatch(task, 0);
    return true;
}

bool IsWatchedOn(SchTaskCtrl* task, i32 epFd)
{
    return WatchOf(task) != 0 && TailOf(task)->epFd == epFd;
}

// Hooks of a walk through the table; no record matches, so all are met.
bool EndOnEpFd(void* record, const void* key)
{
    auto* task = static_cast<SchTaskCtrl*>(record);
    if (WatchOf(task) != 0) {
        const ShortWriteGuard guard(task->lock);
        if (IsWatchedOn(task, *static_cast<const i32*>(key))) {
            TaskWatchEndLocked(task);
        }
    }
    return false;
}

// Matches the first record that still fails.
bool FailsToComeBack(void* record, const void* key)
{
    auto* task = static_cast<SchTaskCtrl*>(record);
    if (!TaskWatchIsAside(task)) {
        return false;
    }
    const ShortWriteGuard guard(task->lock);
    const u32 watch = WatchOf(task);
    return (watch & kWatchAside) != 0 && IsWatchedOn(task, *static_cast<const i32*>(key)) &&
           !PutBackLocked(task, watch, false);
}

// Hands every task to the hook, under the table's lock; false when the hook matched one before all
// were met.
bool WalkTasks(i32 epFd, FtMatchHook hook)
{
    if (pthread_rwlock_rdlock(&g_xelTaskRunCtrl.rwlock) < 0) {
        return false;
    }
    const bool isMatched = g_xelTaskRunCtrl.init.load(std::memory_order_acquire) == 1 &&
                           FtGetEntryByHook(g_xelTaskRunCtrl.fdTbl, &epFd, hook) != nullptr;
    (void)pthread_rwlock_unlock(&g_xelTaskRunCtrl.rwlock);
    return !isMatched;
}

} // namespace

u32 TaskReadiness(i32 fd, u32 events)
{
    const u32 wanted = events & kWatchMask;
    struct pollfd look = {fd, static_cast<short>(wanted), 0};
    if (poll(&look, 1, 0) != 1) {
        return 0;
    }
    return static_cast<u32>(look.revents) & (wanted | kAlwaysReported);
}

u32 TaskWatchOwn(const SchTaskCtrl* task, u32 events)
{
    const u32 watch = WatchOf(task);
    if ((watch & kWatchOn) == 0) {
        return events;
    }
    return events & TaskReadiness(task->fd, events & watch & kWatchMask);
}

void TaskWatchBeginLocked(SchTaskCtrl* task, u32 events)
{
    if ((events & ~kPlainEvents) == 0) {
        SetWatch(task, events | kWatchOn);
    }
}

void TaskWatchEndLocked(SchTaskCtrl* task)
{
    const u32 watch = WatchOf(task);
    SetWatch(task, 0);
    if ((watch & (kWatchOnce | kWatchAside)) != 0) {
        (void)Modify(task, TailOf(task)->epFd, task->fd, watch & kWatchMask);
    }
}

void TaskWatchEnd(SchTaskCtrl* task)
{
    if (WatchOf(task) != 0) {
        const ShortWriteGuard guard(task->lock);
        TaskWatchEndLocked(task);
    }
}

void TaskWatchEndAll(i32 epFd)
{
    (void)WalkTasks(epFd, EndOnEpFd);
}

TaskWatch TaskWatchForgetLocked(SchTaskCtrl* task)
{
    const TaskWatch watch = {WatchOf(task), TailOf(task)->epFd};
    SetWatch(task, 0);
    return watch;
}

void TaskWatchUndoForget(SchTaskCtrl* task, i32 fd, TaskWatch watch)
{
    if ((watch.word & (kWatchOnce | kWatchAside)) != 0) {
        (void)Modify(task, watch.epFd, fd, watch.word & kWatchMask);
    }
}

// A report of what was not asked for, or of what is aside, comes from a registration that somebody
// else has changed: it is theirs from now on.
void TaskWatchChangeByReport(SchTaskCtrl* task, u32 watch, u32 events)
{
    const u32 expected = (watch & kWatchAside) != 0 ? kAlwaysReported : watch | kAlwaysReported;
    if ((events & ~expected) != 0) {
        SetWatch(task, 0);
    } else {
        SetWatch(task, (watch & ~kWatchOnce) | kWatchAside);
    }
}

void TaskWatchSetAside(SchTaskCtrl* task, u32 version, i32 epFd, u32 events)
{
    const ShortWriteGuard guard(task->lock);
    if (!CanBeSetAside(task, version) || TailOf(task)->epFd != epFd) {
        return;
    }
    u32 watch = WatchOf(task);
    if ((watch & kWatchKind) == 0) {
        watch |= KindOf(task->fd);
        SetWatch(task, watch);
    }
    if ((watch & kWatchSteady) == 0 && !IsAsRegistered(task->fd, watch, events)) {
        return;
    }
    const bool isAside = Control(task, epFd, EPOLL_CTL_MOD, task->fd, kSilent) == 0;
    SetWatch(task, isAside ? watch | kWatchAside : 0);
}

bool TaskWatchPutBack(SchTaskCtrl* task, u32 version, bool forOnce, u32* events)
{
    const ShortWriteGuard guard(task->lock);
    const u32 watch = WatchOf(task);
    if (task->version != version || (watch & kWatchAside) == 0) {
        return true;
    }
    *events |= TaskReadiness(task->fd, watch);
    return PutBackLocked(task, watch, forOnce);
}

bool TaskWatchPutBackAll(i32 epFd)
{
    return WalkTasks(epFd, FailsToComeBack);
}

bool TaskWatchIsReady(SchTaskCtrl* task)
{
    const u32 watch = WatchOf(task);
    return (watch & kWatchAside) != 0 && TaskReadiness(task->fd, watch) != 0;
}

bool TaskWatchWouldReport(SchTaskCtrl* task, u32 version)
{
    const ReadGuard guard(task->lock);
    return task->version == version && TaskWatchIsReady(task);
}
