// What the task tests share: a look at a record's lock, threads that wait for it, table resets.
#ifndef XEL_TESTS_TASK_SUPPORT_H
#define XEL_TESTS_TASK_SUPPORT_H

#include <atomic>
#include <cstring>
#include <functional>
#include <sys/epoll.h>

#include <gtest/gtest.h>

#include "scheduler/xel_sch_task_inner.h"
#include "support/xel_test.h"
#include "xel_lock.h"

namespace tasktest
{

using xeltest::kTaskSource;

constexpr u32 kDead = 0xBAD;

class TaskTest : public xeltest::CleanProcess
{
};

// The record of a run, each field with a value of its own.
inline SchTaskTraceInfo TraceOf(XelTaskProc proc)
{
    SchTaskTraceInfo trace{};
    trace.procFunc = proc;
    trace.fd = 12;
    trace.events = EPOLLIN;
    strcpy(trace.name, "tracedtask");
    trace.type = 1;
    trace.prio = 2;
    trace.eventLeft = 3;
    trace.insertTime = 4;
    trace.startTime = 5;
    trace.endTime = 6;
    trace.procTime = 7;
    trace.timestamp.tv_sec = 8;
    trace.timestamp.tv_usec = 9;
    return trace;
}

inline void ForceMagic(SchTaskCtrl* task, u32 magic)
{
    task->magic.store(magic);
}

inline u32 LockCount(SchTaskCtrl* task)
{
    return std::atomic_ref<u32>(task->lock.count).load();
}

inline u32 LockGate(SchTaskCtrl* task)
{
    return std::atomic_ref<u32>(task->lock.gate).load();
}

inline bool LockIsFree(SchTaskCtrl* task)
{
    return LockCount(task) == 0 && LockGate(task) == 0xFFFFFFFFU;
}

// Runs action on a thread that needs the write side of the task's lock, and change once it waits
// for it: what is checked again under the lock is then different from what was checked before.
inline void ChangeWhileItWaits(SchTaskCtrl* task, const std::function<void()>& action,
                               const std::function<void()>& change)
{
    XelRwlockReadLock(&task->lock);
    xeltest::Runner runner(action);
    EXPECT_TRUE(xeltest::AwaitTrue([task] { return LockGate(task) == 0; }));
    change();
    XelRwlockReadUnLock(&task->lock);
    runner.Join();
}

// The same for an action that needs the read side: it shows that it waits by yielding.
inline void ChangeWhileItReads(SchTaskCtrl* task, const std::function<void()>& action,
                               const std::function<void()>& change)
{
    XelRwlockWriteLock(&task->lock);
    const u64 yields = xeltest::Calls(xeltest::Call::SchedYield);
    xeltest::Runner runner(action);
    EXPECT_TRUE(xeltest::AwaitTrue(
        [yields] { return xeltest::Calls(xeltest::Call::SchedYield) > yields; }));
    change();
    XelRwlockWriteUnLock(&task->lock);
    runner.Join();
}

// A record outside every pool that claims to be a live task.
struct ForeignTask {
    ForeignTask()
    {
        XelRwlockInit(&record.lock);
        record.init = 1;
        ForceMagic(&record, 0x3DFFE844);
    }
    SchTaskCtrl* Get() { return &record; }

    u64 front[4] = {}; // where an entry has the address of its node
    SchTaskCtrl record = {};
};

// The place in front of a record where its entry keeps the address of its list node.
inline void SwapNode(SchTaskCtrl* task, void** node)
{
    auto* place = reinterpret_cast<std::atomic<void*>*>(task) - 1;
    *node = place->exchange(*node);
}

// A handle to bind a task to; never followed.
inline void* Handle(int number)
{
    static char handles[16];
    return &handles[number];
}

inline u32 SchedulersOf(SchTaskCtrl* task)
{
    u32 count = 0;
    for (const XelSll* node = task->schList.next; node != &task->schList; node = node->next) {
        ++count;
    }
    EXPECT_EQ(count, task->schCount);
    return count;
}

} // namespace tasktest

#endif // XEL_TESTS_TASK_SUPPORT_H
