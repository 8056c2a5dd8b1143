// The steps that several scenarios share, each with the calls whose failure makes it fail.
#ifndef XEL_TESTS_FAULTS_STEPS_H
#define XEL_TESTS_FAULTS_STEPS_H

#include <memory>

#include "event/xel_event_inner.h"
#include "sweep.h"
#include "thread_support.h"

namespace faulttest
{

using namespace xeltest;
using threadtest::ThreadAttr;
using threadtest::Worker;

// The write sides of the locks whose failure is taken for one. The number counts all write locks
// that a step takes.
inline Fatal TaskTable(u64 upTo = std::numeric_limits<u64>::max())
{
    return {Call::PthreadRwlockWrlock, &g_xelTaskRunCtrl.rwlock, upTo};
}
inline Fatal TaskLookUp()
{
    return {Call::PthreadRwlockRdlock, &g_xelTaskRunCtrl.rwlock};
}
inline Fatal Registry(u64 upTo = std::numeric_limits<u64>::max())
{
    return {Call::PthreadRwlockWrlock, &g_xelSchRunCtrl.lock, upTo};
}
// The alternative epoll looks the task up for each of its operations: the nth look of the step.
inline Fatal OperationLookUp(const XelThreadCtrl* thread, u64 nth)
{
    Fatal fatal = TaskLookUp();
    fatal.from = nth;
    fatal.upTo = thread->epollType == XEL_EPOLL_TYPE_MOX ? nth : 0;
    return fatal;
}
inline Fatal RegistryLookUp()
{
    return {Call::PthreadRwlockRdlock, &g_xelSchRunCtrl.lock, 1};
}
inline Fatal EventList(u64 upTo = 1)
{
    return {Call::PthreadRwlockWrlock, &g_xelEventList.lock, upTo};
}

// A descriptor whose task runs on a scheduler, with attributes that were made before the run.
struct Counted {
    Counted();
    ~Counted();
    Counted(const Counted&) = delete;
    std::atomic<u32> runs{0};
    XelTaskAttr* attr;
};

// Destroys a task; at the second try when the table could not be locked.
void EndTask(Trial& run, SchTaskCtrl* task);
// Destroys a scheduler; at the second try when the first could not wake the dispatcher.
void EndScheduler(Trial& run, SchCtrl* sch);
// Whether a line begins so; takes all lines.
bool TakeLine(const std::string& begin);
// Binds a descriptor to a thread, makes it ready, sees it run and unbinds it.
void UseThread(Trial& run, XelThreadCtrl* thread, Counted& counted);
// Ends a thread; at the second try when it could not be told to end.
void EndThread(Trial& run, XelThreadCtrl* thread);
// A delete that failed may have left the task of its descriptor, alive: when the table could not be
// locked, or the epoll instance did not know the descriptor. It is ended here.
void EndLeftTask(Trial& run, const Fd& fd);

} // namespace faulttest

#endif // XEL_TESTS_FAULTS_STEPS_H
