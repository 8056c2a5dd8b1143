// Our own descriptors as tasks of a scheduler thread, and the order in which they run.
//
//   thread   name       type  priority  why
//   front    admin      0     0         administration is answered while others wait
//   front    (timers)   0     0         the library's place for them: time-outs come in time
//   front    answers    0     1         the library's place for events: what is done leaves first
//   front    listener   0     2         new clients are let in even under load
//   front    http       1     -         first come, first served
//   session  desk       0     0         administration overtakes every queued message
//   session  session    0     1         one message each, in the order of arrival
//   back     billing, audit, metrics: as session
#ifndef SERVICE_PLATFORM_TASKS_H
#define SERVICE_PLATFORM_TASKS_H

#include "common/xel_int.h"
#include "examples/common/worker.h"

enum class TaskPlace : u8 { Admin, Listener, Http, Desk };

// The tasks of one owner on one scheduler thread. Built by the main thread; used by it until the
// first task exists, then by that scheduler thread.
class Tasks
{
public:
    // Throws std::runtime_error.
    explicit Tasks(const Worker& worker);
    Tasks(const Tasks&) = delete;
    Tasks& operator=(const Tasks&) = delete;
    // All tasks must have been removed.
    ~Tasks();

    // Watches fd for input. fd stays the caller's.
    bool Add(int fd, TaskPlace place, XelTaskProc proc, void* data);
    // Moves a task to another place.
    bool Move(int fd, TaskPlace place, XelTaskProc proc, void* data);
    // Must come before fd is closed; in the task's own run, or when fd cannot be ready any more: an
    // event of it that is queued would be dropped with a log line.
    void Remove(int fd);
    // Changes what fd is watched for; a modify of the library leaves that alone. task: the handle
    // that the callback found in its event.
    bool Watch(int fd, u32 events, void* task) const;

private:
    bool Describe(TaskPlace place, XelTaskProc proc, void* data);

    XelThreadCtrl* thread_;
    int epoll_;
    XelTaskAttr* attr_; // reused: the library copies it
};

#endif // SERVICE_PLATFORM_TASKS_H
