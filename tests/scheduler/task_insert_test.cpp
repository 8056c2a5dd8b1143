// Insertion of readiness into a task and its taking: merging, bindings, versions.
#include <cstddef>

#include "task_query_support.h"
#include "xel_scheduler.h"

using namespace xeltest;
using namespace tasktest;

namespace
{

TEST_F(TaskQuery, RecordsHaveTheirFieldsInOrder)
{
    EXPECT_EQ(offsetof(SchTaskInsertInfo, version), 0U);
    EXPECT_EQ(offsetof(SchTaskInsertInfo, type), 4U);
    EXPECT_EQ(offsetof(SchTaskInsertInfo, prio), 8U);
    EXPECT_EQ(offsetof(SchTaskInsertInfo, isFirst), 12U);
    EXPECT_EQ(sizeof(SchTaskInsertInfo), 16U);
    EXPECT_EQ(offsetof(SchTaskTraceInfo, procFunc), 0U);
    EXPECT_EQ(offsetof(SchTaskTraceInfo, fd), 8U);
    EXPECT_EQ(offsetof(SchTaskTraceInfo, events), 12U);
    EXPECT_EQ(offsetof(SchTaskTraceInfo, name), 16U);
    EXPECT_EQ(offsetof(SchTaskTraceInfo, type), 32U);
    EXPECT_EQ(offsetof(SchTaskTraceInfo, prio), 36U);
    EXPECT_EQ(offsetof(SchTaskTraceInfo, eventLeft), 40U);
    EXPECT_EQ(offsetof(SchTaskTraceInfo, insertTime), 48U);
    EXPECT_EQ(offsetof(SchTaskTraceInfo, startTime), 56U);
    EXPECT_EQ(offsetof(SchTaskTraceInfo, endTime), 64U);
    EXPECT_EQ(offsetof(SchTaskTraceInfo, procTime), 72U);
    EXPECT_EQ(offsetof(SchTaskTraceInfo, timestamp), 80U);
    EXPECT_EQ(sizeof(SchTaskTraceInfo), 96U);
    EXPECT_EQ(offsetof(SchDbgTaskInfo, epFd), 0U);
    EXPECT_EQ(offsetof(SchDbgTaskInfo, fd), 4U);
    EXPECT_EQ(offsetof(SchDbgTaskInfo, type), 8U);
    EXPECT_EQ(offsetof(SchDbgTaskInfo, prio), 12U);
    EXPECT_EQ(offsetof(SchDbgTaskInfo, name), 16U);
    EXPECT_EQ(offsetof(SchDbgTaskInfo, procFunc), 32U);
    EXPECT_EQ(sizeof(SchDbgTaskInfo), 40U);
    EXPECT_EQ(offsetof(SchEventCacheInfo, name), 0U);
    EXPECT_EQ(offsetof(SchEventCacheInfo, type), 16U);
    EXPECT_EQ(offsetof(SchEventCacheInfo, fd), 20U);
    EXPECT_EQ(offsetof(SchEventCacheInfo, insertTime), 24U);
    EXPECT_EQ(offsetof(SchEventCacheInfo, lastInsertTime), 32U);
    EXPECT_EQ(offsetof(SchEventCacheInfo, events), 40U);
    EXPECT_EQ(sizeof(SchEventCacheInfo), 48U);
}

TEST_F(TaskQuery, InsertionsAreMergedUntilTheEventsAreTaken)
{
    SetMicroSec(1000);
    EXPECT_EQ(Insert(EPOLLIN), 0U);
    EXPECT_EQ(info_.version, task_->version);
    EXPECT_EQ(info_.type, 3U);
    EXPECT_EQ(info_.prio, 5U);
    EXPECT_EQ(info_.isFirst, 1U);
    EXPECT_EQ(task_->insertTime, 1000U);
    EXPECT_EQ(task_->lastInsertTime, 1000U);
    EXPECT_EQ(task_->events.load(), u32{EPOLLIN});
    SetMicroSec(2000);
    EXPECT_EQ(Insert(EPOLLOUT), 0U);
    EXPECT_EQ(info_.isFirst, 0U);
    EXPECT_EQ(task_->insertTime, 1000U);
    EXPECT_EQ(task_->lastInsertTime, 2000U);
    EXPECT_EQ(task_->events.load(), u32{EPOLLIN | EPOLLOUT});
    EXPECT_EQ(GetEvent(task_->version), 0U);
    EXPECT_EQ(event_.events, u32{EPOLLIN | EPOLLOUT});
    EXPECT_EQ(task_->events.load(), 0U);
    SetMicroSec(3000);
    EXPECT_EQ(Insert(EPOLLIN), 0U);
    EXPECT_EQ(info_.isFirst, 1U);
    EXPECT_EQ(task_->insertTime, 3000U);
    EXPECT_EQ(task_->lastInsertTime, 3000U);
}

TEST_F(TaskQuery, InsertionReadsTheClockOnce)
{
    ScriptMicroSec({500, 600});
    ResetFaults();
    EXPECT_EQ(Insert(EPOLLIN), 0U);
    EXPECT_EQ(Calls(Call::SystimeGetMicroSec), 1U);
    EXPECT_EQ(task_->insertTime, 500U);
    EXPECT_EQ(task_->lastInsertTime, 500U);
}

TEST_F(TaskQuery, InsertionRefusesADamagedMagic)
{
    ForceMagic(task_, kDead);
    EXPECT_EQ(Insert(EPOLLIN), kFailed);
    EXPECT_LOG(kTaskSource, "Task get info unsuccessfully, task magic is damaged, magic = 0xbad.");
    EXPECT_TRUE(IsUntouched(info_));
    EXPECT_EQ(task_->events.load(), 0U);
}

TEST_F(TaskQuery, InsertionAsksThePoolBeforeTheRecord)
{
    ForeignTask foreign;
    foreign.record.init = 0;
    struct epoll_event event {
        EPOLLIN, {}
    };
    EXPECT_EQ(SchTaskGetInfoInsert(Handle(1), foreign.Get(), &event, &info_), kFailed);
    EXPECT_LOG(kTaskSource, "Task get info unsuccessfully, input is not valid.");
    EXPECT_TRUE(IsUntouched(info_));
    void* node = nullptr;
    SwapNode(task_, &node);
    EXPECT_EQ(Insert(EPOLLIN), 0U) << "the list node is not asked";
    SwapNode(task_, &node);
}

TEST_F(TaskQuery, InsertionRefusesADeadTaskBeforeItsBinding)
{
    task_->init = 0;
    EXPECT_EQ(Insert(EPOLLIN, Handle(1)), kFailed);
    EXPECT_LOG(kTaskSource, "Task get info unsuccessfully, task handle had been destroyed already, "
                            "init = 0.");
    EXPECT_EQ(task_->events.load(), 0U);
}

TEST_F(TaskQuery, InsertionNeedsTheBindingUnlessNoneIsNamed)
{
    EXPECT_EQ(Insert(EPOLLIN, Handle(1)), kFailed);
    EXPECT_LOG(kTaskSource, "Task get info unsuccessfully, task is not bind scheduler. (taskName = "
                            "the task)");
    EXPECT_EQ(task_->events.load(), 0U);
    EXPECT_EQ(task_->insertTime, 11U);
    EXPECT_EQ(task_->lastInsertTime, 22U);
    EXPECT_TRUE(IsUntouched(info_));
    for (const int number : {2, 1, 3}) {
        EXPECT_EQ(SchTaskAddScheduler(task_, Handle(number)), 0U);
    }
    for (const int number : {1, 2, 3}) {
        EXPECT_EQ(Insert(EPOLLIN, Handle(number)), 0U);
    }
    SchTaskRmScheduler(task_, Handle(2));
    EXPECT_EQ(Insert(EPOLLIN, Handle(2)), kFailed);
    EXPECT_LOG(kTaskSource, "Task get info unsuccessfully, task is not bind scheduler. (taskName = "
                            "the task)");
    EXPECT_EQ(Insert(EPOLLIN, nullptr), 0U);
}

TEST_F(TaskQuery, InsertionTakesTheWriteSide)
{
    u32 result = 0;
    ChangeWhileItWaits(
        task_, [&] { result = Insert(EPOLLIN); }, [this] { task_->init = 0; });
    EXPECT_EQ(result, kFailed);
    EXPECT_LOG(kTaskSource, "Task get info unsuccessfully, task handle had been destroyed already, "
                            "init = 0.");
}

TEST_F(TaskQuery, EventsAreRefusedForAnInvalidTask)
{
    ForceMagic(task_, kDead);
    EXPECT_EQ(GetEvent(task_->version), kFailed);
    EXPECT_LOG(kTaskSource, "Task has damaged. (magic = 0xbad)",
               "Task get event unsuccessfully, task is invalid.");
    EXPECT_TRUE(IsUntouched(event_));
    ForeignTask foreign;
    foreign.record.init = 0;
    EXPECT_EQ(SchTaskGetEvent(foreign.Get(), 1, &event_), kFailed);
    EXPECT_LOG(kTaskSource, "Task get event unsuccessfully, task is invalid.");
}

TEST_F(TaskQuery, EventsAreRefusedForADeadTaskBeforeTheVersionCounts)
{
    task_->init = 0;
    task_->events.store(EPOLLIN);
    EXPECT_EQ(GetEvent(task_->version + 1), kFailed);
    EXPECT_LOG(kTaskSource, "Task get event unsuccessfully, handle has been destroyed.");
    EXPECT_EQ(task_->events.load(), u32{EPOLLIN});
}

TEST_F(TaskQuery, EventsOfAnotherVersionAreRefused)
{
    task_->version = 100;
    task_->events.store(EPOLLIN);
    EXPECT_EQ(GetEvent(99), kFailed);
    EXPECT_LOG(kTaskSource,
               "Task get event unsuccessfully, task has been aged. (old ver = 99, new ver = 100)");
    EXPECT_EQ(GetEvent(101), kFailed);
    EXPECT_LOG(kTaskSource,
               "Task get event unsuccessfully, task has been aged. (old ver = 101, new ver = 100)");
    EXPECT_EQ(task_->events.load(), u32{EPOLLIN});
    EXPECT_TRUE(IsUntouched(event_));
}

TEST_F(TaskQuery, EventsAreTakenBesideAReader)
{
    task_->events.store(EPOLLIN);
    XelRwlockReadLock(&task_->lock);
    EXPECT_EQ(GetEvent(task_->version), 0U);
    XelRwlockReadUnLock(&task_->lock);
    EXPECT_EQ(event_.events, u32{EPOLLIN});
    EXPECT_EQ(GetEvent(task_->version), 0U) << "taking nothing is a success";
    EXPECT_EQ(event_.events, 0U);
}

TEST_F(TaskQuery, TakingSeesADeathUnderTheLock)
{
    task_->events.store(EPOLLIN);
    u32 result = 0;
    const u32 version = task_->version;
    ChangeWhileItReads(
        task_, [&] { result = GetEvent(version); }, [this] { task_->init = 0; });
    EXPECT_EQ(result, kFailed);
    EXPECT_LOG(kTaskSource, "Task get event unsuccessfully, handle has been destroyed.");
    EXPECT_EQ(task_->events.load(), u32{EPOLLIN});
}

TEST_F(TaskQuery, TaskInAReusedUnitRefusesOldVersions)
{
    const u32 version = task_->version;
    SchTaskCtrl* unit = task_;
    XEL_TaskDestroy(task_);
    EXPECT_EQ(GetEvent(version), kFailed);
    EXPECT_LOG(kTaskSource, "Task has damaged. (magic = 0)",
               "Task get event unsuccessfully, task is invalid.");
    task_ = XEL_TaskCreate(fd_.Get(), Attr().Get());
    ASSERT_EQ(task_, unit);
    EXPECT_EQ(GetEvent(version), kFailed);
    EXPECT_LOG(kTaskSource, Text("Task get event unsuccessfully, task has been aged. (old ver = "
                                 "%u, new ver = %u)",
                                 version, version + 1));
    SchEventCacheInfo out{};
    EXPECT_EQ(SchTaskGetDbgInfo(task_, version, &out), kFailed);
    EXPECT_LOG(kTaskSource, "Task get debug info unsuccessfully, task handle had been aged, "
                            "difference = 1.");
}

} // namespace
