// The task table: creation with its checks in order, and lookup.
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "task_support.h"

using namespace xeltest;
using namespace tasktest;

namespace
{

constexpr const char* kParamInvalid = "scheduler create task unsuccessfully, scheduler check param "
                                      "unsuccessfully, param invalid.";

// Puts attributes out of range that no setter would take.
class RawAttr : public Attr
{
public:
    RawAttr() : Attr(TaskSpec{}) {}
    ~RawAttr() { Get()->magic = 0x6EFAB123; }
    XelTaskAttr* operator->() const { return Get(); }
};

TEST_F(TaskTest, RecordHasItsFieldsInOrder)
{
    EXPECT_EQ(offsetof(SchTaskCtrl, magic), 0U);
    EXPECT_EQ(offsetof(SchTaskCtrl, lock), 4U);
    EXPECT_EQ(offsetof(SchTaskCtrl, schList), 16U);
    EXPECT_EQ(offsetof(SchTaskCtrl, version), 32U);
    EXPECT_EQ(offsetof(SchTaskCtrl, fd), 36U);
    EXPECT_EQ(offsetof(SchTaskCtrl, insertTime), 40U);
    EXPECT_EQ(offsetof(SchTaskCtrl, lastInsertTime), 48U);
    EXPECT_EQ(offsetof(SchTaskCtrl, events), 56U);
    EXPECT_EQ(offsetof(SchTaskCtrl, name), 60U);
    EXPECT_EQ(offsetof(SchTaskCtrl, init), 76U);
    EXPECT_EQ(offsetof(SchTaskCtrl, proc), 80U);
    EXPECT_EQ(offsetof(SchTaskCtrl, data), 88U);
    EXPECT_EQ(offsetof(SchTaskCtrl, type), 96U);
    EXPECT_EQ(offsetof(SchTaskCtrl, prio), 100U);
    EXPECT_EQ(offsetof(SchTaskCtrl, fdType), 104U);
    EXPECT_EQ(offsetof(SchTaskCtrl, schCount), 108U);
    EXPECT_LE(sizeof(SchTaskCtrl), 128U);
}

TEST_F(TaskTest, ControlBlockHasItsFieldsInOrder)
{
    EXPECT_EQ(offsetof(TaskRunCtrl, rwlock), 0U);
    EXPECT_EQ(offsetof(TaskRunCtrl, fdTbl), sizeof(pthread_rwlock_t));
    EXPECT_EQ(offsetof(TaskRunCtrl, taskVer), sizeof(pthread_rwlock_t) + 8);
    EXPECT_EQ(offsetof(TaskRunCtrl, init), sizeof(pthread_rwlock_t) + 12);
}

TEST_F(TaskTest, CreationFillsTheRecord)
{
    const Fd fd = Fd::Event();
    const u32 version = g_xelTaskRunCtrl.taskVer;
    const Task task(fd.Get(), {NopProc, 0xABCDEF0123456789U, 3, 31, "fifteen letters", 1});
    ASSERT_NE(task.Get(), nullptr);
    EXPECT_EQ(task->magic.load(), 0x3DFFE844U);
    EXPECT_TRUE(LockIsFree(task.Get()));
    EXPECT_EQ(task->schList.next, &task->schList);
    EXPECT_EQ(task->schList.data, &task->schCount);
    EXPECT_EQ(task->schCount, 0U);
    EXPECT_EQ(task->version, version + 1);
    EXPECT_EQ(g_xelTaskRunCtrl.taskVer, version + 1);
    EXPECT_EQ(task->fd, fd.Get());
    EXPECT_EQ(task->events.load(), 0U);
    EXPECT_STREQ(task->name, "fifteen letters");
    EXPECT_EQ(task->init, 1U);
    EXPECT_EQ(task->proc, NopProc);
    EXPECT_EQ(task->data, 0xABCDEF0123456789U);
    EXPECT_EQ(task->type, 3U);
    EXPECT_EQ(task->prio, 31U);
    EXPECT_EQ(task->fdType.load(), 1U);
    EXPECT_NO_LOG();
}

TEST_F(TaskTest, RecordOfAUsedUnitIsBuiltAnewButKeepsItsTimes)
{
    const Fd fd = Fd::Event();
    Task first(fd.Get(), {NopProc, 7, 3, 31, "first", 1});
    SchTaskCtrl* unit = first.Get();
    SchTaskInsertInfo info{};
    struct epoll_event event {
        EPOLLIN, {}
    };
    SetMicroSec(4711);
    EXPECT_EQ(SchTaskGetInfoInsert(nullptr, unit, &event, &info), 0U);
    EXPECT_EQ(SchTaskAddScheduler(unit, Handle(1)), 0U);
    first.Destroy();
    const Task second(fd.Get(), {NopProc, 8, 1, 2, "2nd", 0});
    ASSERT_EQ(second.Get(), unit);
    EXPECT_EQ(second->events.load(), 0U);
    EXPECT_EQ(second->schCount, 0U);
    EXPECT_EQ(second->schList.next, &second->schList);
    EXPECT_STREQ(second->name, "2nd");
    EXPECT_EQ(second->init, 1U);
    EXPECT_EQ(second->fdType.load(), 0U);
    EXPECT_TRUE(LockIsFree(unit));
    EXPECT_EQ(second->insertTime, 4711U) << "not reset before the first insertion";
    EXPECT_EQ(second->lastInsertTime, 4711U);
}

TEST_F(TaskTest, VersionsCountUpAndAreNotGivenBack)
{
    const Fd fd = Fd::Event();
    u32 last = g_xelTaskRunCtrl.taskVer;
    for (int i = 0; i < 5; ++i) {
        const Task task(fd.Get());
        EXPECT_EQ(task->version, ++last);
    }
    EXPECT_EQ(g_xelTaskRunCtrl.taskVer, last);
}

TEST_F(TaskTest, NullAttributeIsRefusedFirst)
{
    EXPECT_EQ(XEL_TaskCreate(-1, nullptr), nullptr);
    EXPECT_LOG(kTaskSource, "scheduler create task unsuccessfully, param is null.");
}

TEST_F(TaskTest, InvalidAttributeIsRefusedBeforeTheDescriptor)
{
    const RawAttr attr;
    attr->proc = nullptr;
    EXPECT_EQ(XEL_TaskCreate(-1, attr.Get()), nullptr);
    EXPECT_LOG(kTaskSource, "scheduler task param proc null.", kParamInvalid);
}

// Each line is the first of several faults: the faults are healed one by one.
TEST_F(TaskTest, AttributeIsCheckedInOrder)
{
    const RawAttr attr;
    attr->magic = 0x12AB;
    attr->proc = nullptr;
    attr->type = 4;
    attr->fdType = 2;
    attr->prio = 32;
    EXPECT_FALSE(SchIsTaskParamValid(attr.Get()));
    EXPECT_LOG(kTaskSource,
               "scheduler create task unsuccessfully, magic is damaged, magic = 0x12ab.");
    attr->magic = 0x6EFAB123;
    EXPECT_FALSE(SchIsTaskParamValid(attr.Get()));
    EXPECT_LOG(kTaskSource, "scheduler task param proc null.");
    attr->proc = NopProc;
    EXPECT_FALSE(SchIsTaskParamValid(attr.Get()));
    EXPECT_LOG(kTaskSource, "scheduler task param type invalid.");
    attr->type = 3;
    EXPECT_FALSE(SchIsTaskParamValid(attr.Get()));
    EXPECT_LOG(kTaskSource, "scheduler task param fdType invalid.");
    attr->fdType = 1;
    EXPECT_FALSE(SchIsTaskParamValid(attr.Get()));
    EXPECT_LOG(kTaskSource, "scheduler task param priority invalid.");
    attr->prio = 31;
    EXPECT_TRUE(SchIsTaskParamValid(attr.Get()));
    EXPECT_NO_LOG();
}

TEST_F(TaskTest, AttributeRangesAreUnsigned)
{
    const RawAttr attr;
    attr->type = 0xFFFFFFFF;
    EXPECT_FALSE(SchIsTaskParamValid(attr.Get()));
    EXPECT_LOG(kTaskSource, "scheduler task param type invalid.");
    attr->type = 0;
    attr->fdType = 0xFFFFFFFF;
    EXPECT_FALSE(SchIsTaskParamValid(attr.Get()));
    EXPECT_LOG(kTaskSource, "scheduler task param fdType invalid.");
    attr->fdType = 0;
    attr->prio = 0xFFFFFFFF;
    EXPECT_FALSE(SchIsTaskParamValid(attr.Get()));
    EXPECT_LOG(kTaskSource, "scheduler task param priority invalid.");
}

TEST_F(TaskTest, DescriptorZeroIsValidAndNegativeOnesAreNot)
{
    const Attr attr;
    SchTaskCtrl* task = XEL_TaskCreate(0, attr.Get());
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->fd, 0);
    XEL_TaskDestroy(task);
    EXPECT_NO_LOG();
    EXPECT_EQ(XEL_TaskCreate(-1, attr.Get()), nullptr);
    EXPECT_LOG(kTaskSource, "scheduler create task unsuccessfully, task fd :-1 invalid.");
    EXPECT_EQ(XEL_TaskCreate(INT32_MIN, attr.Get()), nullptr);
    EXPECT_LOG(kTaskSource, "scheduler create task unsuccessfully, task fd :-2147483648 invalid.");
    SchTaskCtrl* high = XEL_TaskCreate(INT32_MAX, attr.Get());
    ASSERT_NE(high, nullptr) << "the descriptor need not be open";
    XEL_TaskDestroy(high);
}

TEST_F(TaskTest, SecondTaskOfADescriptorIsRefused)
{
    const Fd fd = Fd::Event();
    const Attr attr;
    Task task(fd.Get());
    const u32 version = g_xelTaskRunCtrl.taskVer;
    EXPECT_EQ(XEL_TaskCreate(fd.Get(), attr.Get()), nullptr);
    EXPECT_LOG(kTaskSource, Text("Task fd has already create task. (fd = %d)", fd.Get()));
    EXPECT_EQ(g_xelTaskRunCtrl.taskVer, version);
    task.Destroy();
    const Task again(fd.Get());
    EXPECT_NE(again.Get(), nullptr);
}

// The operation behind the public one does not look for an older task.
TEST_F(TaskTest, TwoTasksOfOneDescriptorAreFoundOldestFirst)
{
    const Fd fd = Fd::Event();
    const Attr attr;
    SchTaskCtrl* first = SchTaskCreate(fd.Get(), attr.Get());
    SchTaskCtrl* second = SchTaskCreate(fd.Get(), attr.Get());
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), first);
    SchTaskDestroy(first);
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), second);
    SchTaskDestroy(second);
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), nullptr);
    EXPECT_NO_LOG();
}

// The operation behind the public one does not look at the descriptor either.
TEST_F(TaskTest, TaskOfANegativeDescriptorLeavesTheTable)
{
    const Attr attr;
    for (int round = 0; round < 3; ++round) {
        SchTaskCtrl* task = SchTaskCreate(-1, attr.Get());
        ASSERT_NE(task, nullptr);
        EXPECT_EQ(SchTaskGetHandleByAppFd(-1), task);
        SchTaskDestroy(task);
        EXPECT_EQ(SchTaskGetHandleByAppFd(-1), nullptr);
        EXPECT_EQ(SchTaskGetHandleByAppFd(65535), nullptr);
    }
    EXPECT_NO_LOG();
}

TEST_F(TaskTest, FailedStepsOfCreationLeaveNothingBehind)
{
    const Attr attr;
    const std::string handleFailed = "scheduler create task unsuccessfully, create task handle "
                                     "unsuccessfully, task = 5.";
    const Footprint before = Measure();
    const u32 version = g_xelTaskRunCtrl.taskVer;
    for (const u64 nth : {1U, 2U}) {
        FailNth(Call::FmmUnitAlloc, nth);
        EXPECT_EQ(XEL_TaskCreate(5, attr.Get()), nullptr);
        EXPECT_LOG(kTaskSource, "Task create unsuccessfully, alloc task-ctrl unsuccessfully!",
                   handleFailed);
        ResetFaults();
        EXPECT_EQ(Measure(), before);
    }
    FailNth(Call::PthreadRwlockWrlock, 1, -22);
    EXPECT_EQ(XEL_TaskCreate(5, attr.Get()), nullptr);
    EXPECT_LOG(kTaskSource, "Task create unsuccessfully, write lock unsuccessfully, ret = -22.",
               handleFailed);
    EXPECT_EQ(Calls(Call::FmmUnitAlloc), 0U);
    EXPECT_EQ(g_xelTaskRunCtrl.taskVer, version)
        << "only a task that comes to life takes a version";
    EXPECT_EQ(SchTaskGetHandleByAppFd(5), nullptr);
    EXPECT_EQ(Measure(), before);
}

TEST_F(TaskTest, LockIsReleasedAfterEveryFailure)
{
    const Attr attr;
    FailNth(Call::FmmUnitAlloc, 1);
    EXPECT_EQ(SchTaskCreate(5, attr.Get()), nullptr);
    DropLog();
    EXPECT_EQ(pthread_rwlock_trywrlock(&g_xelTaskRunCtrl.rwlock), 0);
    EXPECT_EQ(pthread_rwlock_unlock(&g_xelTaskRunCtrl.rwlock), 0);
}

// A positive error number of a lock call passes as success.
TEST_F(TaskTest, PositiveLockResultsPassAsSuccess)
{
    const Fd fd = Fd::Event();
    const Attr attr;
    FailNth(Call::PthreadRwlockRdlock, 1, EAGAIN);
    FailNth(Call::PthreadRwlockWrlock, 1, EDEADLK);
    FailNth(Call::PthreadRwlockUnlock, 1, EPERM);
    FailNth(Call::PthreadRwlockUnlock, 2, EPERM);
    SchTaskCtrl* task = XEL_TaskCreate(fd.Get(), attr.Get());
    ASSERT_NE(task, nullptr);
    EXPECT_NO_LOG();
    ResetFaults();
    FailNth(Call::PthreadRwlockWrlock, 1, EDEADLK);
    FailNth(Call::PthreadRwlockUnlock, 1, EPERM);
    XEL_TaskDestroy(task);
    EXPECT_NO_LOG();
    EXPECT_EQ(task->magic.load(), 0U);
}

TEST_F(TaskTest, LookupThatCannotLockIsLoggedAndCreationGoesOn)
{
    const Fd fd = Fd::Event();
    const Attr attr;
    FailNth(Call::PthreadRwlockRdlock, 1, -11);
    SchTaskCtrl* task = XEL_TaskCreate(fd.Get(), attr.Get());
    EXPECT_NE(task, nullptr);
    EXPECT_LOG(kTaskSource, "Get task handle unsuccessfully, read lock unsuccessfully, ret = -11.");
    FailNth(Call::PthreadRwlockRdlock, 1, -11);
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), nullptr);
    EXPECT_LOG(kTaskSource, "Get task handle unsuccessfully, read lock unsuccessfully, ret = -11.");
    XEL_TaskDestroy(task);
}

TEST_F(TaskTest, NameThatCannotBeCopiedIsLoggedAndTheTaskLives)
{
    const Fd fd = Fd::Event();
    const Attr attr({NopProc, 9, 1, 3, "name", 1});
    FailNth(Call::StrcpyS, 1);
    SchTaskCtrl* task = XEL_TaskCreate(fd.Get(), attr.Get());
    ASSERT_NE(task, nullptr);
    EXPECT_LOG(kTaskSource, "Task set name unsuccessfully.");
    EXPECT_EQ(task->data, 9U);
    EXPECT_EQ(task->type, 1U);
    EXPECT_EQ(task->prio, 3U);
    EXPECT_EQ(task->fdType.load(), 1U);
    XEL_TaskDestroy(task);
}

TEST_F(TaskTest, TableHoldsManyMoreThanThirtyTwoTasks)
{
    const Attr attr;
    std::vector<SchTaskCtrl*> tasks;
    for (i32 fd = 1000; fd < 2000; ++fd) {
        tasks.push_back(XEL_TaskCreate(fd, attr.Get()));
        ASSERT_NE(tasks.back(), nullptr);
    }
    for (i32 fd = 1000; fd < 2000; ++fd) {
        EXPECT_EQ(SchTaskGetHandleByAppFd(fd), tasks[static_cast<size_t>(fd - 1000)]);
    }
    EXPECT_EQ(SchTaskGetHandleByAppFd(999), nullptr);
    EXPECT_EQ(SchTaskGetHandleByAppFd(2000), nullptr);
    for (SchTaskCtrl* task : tasks) {
        XEL_TaskDestroy(task);
    }
    EXPECT_NO_LOG();
}

TEST_F(TaskTest, DescriptorsThatDifferInHighBitsOnlyAreToldApart)
{
    const Attr attr;
    std::vector<SchTaskCtrl*> tasks;
    const std::vector<i32> fds = {5, 5 + (1 << 10), 5 + (1 << 16), 5 + (1 << 20), 5 + (1 << 30)};
    for (const i32 fd : fds) {
        tasks.push_back(XEL_TaskCreate(fd, attr.Get()));
    }
    for (size_t i = 0; i < fds.size(); ++i) {
        EXPECT_EQ(SchTaskGetHandleByAppFd(fds[i]), tasks[i]);
        XEL_TaskDestroy(tasks[i]);
        EXPECT_EQ(SchTaskGetHandleByAppFd(fds[i]), nullptr);
    }
}

TEST_F(TaskTest, MatcherComparesTheDescriptor)
{
    const Fd fd = Fd::Event();
    const Task task(fd.Get());
    const i32 same = fd.Get();
    const i32 other = same + 1;
    EXPECT_TRUE(SchMatchTaskHandleWithAppFd(task.Get(), &same));
    EXPECT_FALSE(SchMatchTaskHandleWithAppFd(task.Get(), &other));
    EXPECT_TRUE(LockIsFree(task.Get()));
    EXPECT_NO_LOG();
}

TEST_F(TaskTest, MatcherComparesUnderTheLock)
{
    const Fd fd = Fd::Event();
    const Task task(fd.Get());
    const i32 same = fd.Get();
    bool isMatch = true;
    ChangeWhileItReads(
        task.Get(), [&] { isMatch = SchMatchTaskHandleWithAppFd(task.Get(), &same); },
        [&task] { task->fd = -1; });
    EXPECT_FALSE(isMatch);
    task->fd = same;
}

TEST_F(TaskTest, MatcherRefusesADamagedRecordAloud)
{
    const Fd fd = Fd::Event();
    const Task task(fd.Get());
    const i32 same = fd.Get();
    ForceMagic(task.Get(), kDead);
    EXPECT_FALSE(SchMatchTaskHandleWithAppFd(task.Get(), &same));
    EXPECT_LOG(kTaskSource, "Get task handle unsuccessfully, taskCtrl magic error.");
    EXPECT_EQ(SchTaskGetHandleByAppFd(same), nullptr);
    EXPECT_LOG(kTaskSource, "Get task handle unsuccessfully, taskCtrl magic error.");
    ForceMagic(task.Get(), 0x3DFFE844);
}

TEST_F(TaskTest, LookupPassesOverADamagedRecordOfTheDescriptorAloud)
{
    const Fd fd = Fd::Event();
    const Attr attr;
    SchTaskCtrl* first = SchTaskCreate(fd.Get(), attr.Get());
    SchTaskCtrl* second = SchTaskCreate(fd.Get(), attr.Get());
    ForceMagic(first, kDead);
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), second);
    EXPECT_LOG(kTaskSource, "Get task handle unsuccessfully, taskCtrl magic error.");
    ForceMagic(first, 0x3DFFE844);
    ForceMagic(second, kDead);
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), first);
    EXPECT_NO_LOG() << "the search ends at the first match";
    ForceMagic(second, 0x3DFFE844);
    SchTaskDestroy(first);
    SchTaskDestroy(second);
}

} // namespace
