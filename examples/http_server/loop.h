// The caller-owned loop: an epoll instance of our own, a scheduler on it, and the way our
// descriptors become tasks. Everything runs on the one thread that calls Run.
//
// All descriptors are level-triggered. A scheduler runs one callback and then polls again, and a
// callback may stop with work left (it has a bound); what is still readable or writable is then
// simply reported again. Edge-triggering would need a list of unfinished work beside the scheduler.
//
// How the tasks are ordered:
//
//   name      type  priority                why
//   signals   0     0                       a stop request overtakes everything
//   listener  0     1                       new clients are let in even under load
//   admin     0     2                       /admin/... and /stats answer while others wait
//   sweep     0     3                       slow clients are found in time
//   http      1     -                       first come, first served
//   bulk      2     1 per started 32 KiB,   aged: a large body waits for small answers, but not
//                   at most 31              for ever
//
// Type 3 is left out on purpose: it runs only when nothing of types 0 to 2 waits, and a busy server
// would starve it.
#ifndef HTTP_SERVER_LOOP_H
#define HTTP_SERVER_LOOP_H

#include "common/xel_int.h"
#include "examples/common/unique_fd.h"
#include "xel_scheduler.h"

enum class TaskClass : u8 { Signals, Listener, Admin, Sweep, Http, Bulk };

// Where a task stands in the order above. The priority counts for Bulk only, the other classes have
// a fixed one.
struct TaskPlace {
    TaskClass taskClass;
    u32 bulkPriority = 0;

    bool operator==(const TaskPlace&) const = default;
};

// The place of a body of that many bytes.
TaskPlace BulkPlace(u32 bodySize);

class Loop
{
public:
    // Throws std::runtime_error when the epoll instance or the scheduler cannot be made.
    Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;
    // All tasks must have been removed.
    ~Loop();

    // Watches fd for input. The library keeps copies only; fd stays the caller's.
    bool Add(int fd, TaskPlace place, XelTaskProc proc, void* data);
    // Moves a task to another place; an event that is queued already keeps its old one.
    bool Move(int fd, TaskPlace place, XelTaskProc proc, void* data);
    // Must come before fd is closed.
    void Remove(int fd);

    // Changes what fd is watched for. The scheduler's own modify leaves the registration alone, so
    // the epoll instance, which is ours, is told directly; task is the handle that the callback
    // found in its event.
    bool Watch(int fd, u32 events, void* task) const;

    // Dispatches until Stop is called from a callback.
    void Run();
    void Stop() { stopped_ = true; }

private:
    bool Describe(TaskPlace place, XelTaskProc proc, void* data);

    UniqueFd epoll_;
    SchCtrl* sch_ = nullptr;
    XelTaskAttr* attr_ = nullptr; // reused for every Add and Move: the library copies it
    bool stopped_ = false;
};

#endif // HTTP_SERVER_LOOP_H
