// Destruction of tasks: what it leaves, what it refuses, what it frees all the same.
#include "task_support.h"
#include "xel_list.h"
#include "xel_pool.h"

using namespace xeltest;
using namespace tasktest;

namespace
{

using TaskDestroy = TaskTest;

TEST_F(TaskDestroy, DestructionEmptiesTheRecord)
{
    const Fd fd = Fd::Event();
    const Footprint before = Measure();
    Task task(fd.Get(), {NopProc, 7, 3, 31, "name", 1});
    SchTaskCtrl* unit = task.Get();
    for (const int number : {1, 2, 2, 3}) {
        EXPECT_EQ(SchTaskAddScheduler(unit, Handle(number)), 0U);
    }
    unit->events.store(EPOLLIN);
    task.Destroy();
    EXPECT_EQ(unit->magic.load(), 0U);
    EXPECT_EQ(unit->init, 0U);
    EXPECT_EQ(unit->version, 0U);
    EXPECT_EQ(unit->fd, -1);
    EXPECT_EQ(unit->events.load(), 0U);
    EXPECT_EQ(unit->proc, nullptr);
    EXPECT_EQ(unit->data, 0U);
    EXPECT_EQ(unit->type, 4U);
    EXPECT_EQ(unit->prio, 0U);
    EXPECT_EQ(unit->fdType.load(), 0U);
    EXPECT_STREQ(unit->name, "");
    EXPECT_EQ(unit->schCount, 0U);
    EXPECT_TRUE(LockIsFree(unit));
    EXPECT_FALSE(FtEntryIsValid(unit, false));
    EXPECT_EQ(Measure(), before) << "the scheduler nodes are freed, the entry is given back";
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), nullptr);
    EXPECT_NO_LOG();
}

TEST_F(TaskDestroy, DestructionOfNullIsLogged)
{
    XEL_TaskDestroy(nullptr);
    EXPECT_LOG(kTaskSource, "Task destroy, task handle is null.");
}

TEST_F(TaskDestroy, DestroyTwiceIsRefused)
{
    const Fd fd = Fd::Event();
    Task task(fd.Get());
    SchTaskCtrl* unit = task.Get();
    task.Destroy();
    const Footprint before = Measure();
    XEL_TaskDestroy(unit);
    EXPECT_LOG(kTaskSource, "Task destroy unsuccessfully, magic is damaged, magic = 0.");
    EXPECT_EQ(Measure(), before);
}

TEST_F(TaskDestroy, DamagedMagicIsRefusedBeforeTheLock)
{
    const Fd fd = Fd::Event();
    const Task task(fd.Get());
    ForceMagic(task.Get(), kDead);
    ResetFaults();
    XEL_TaskDestroy(task.Get());
    EXPECT_LOG(kTaskSource, "Task destroy unsuccessfully, magic is damaged, magic = 0xbad.");
    EXPECT_EQ(Calls(Call::PthreadRwlockWrlock), 0U);
    EXPECT_TRUE(FtEntryIsValid(task.Get(), true));
    ForceMagic(task.Get(), 0x3DFFE844);
}

TEST_F(TaskDestroy, DestructionThatCannotLockLeavesTheTaskAlive)
{
    const Fd fd = Fd::Event();
    const Task task(fd.Get());
    FailNth(Call::PthreadRwlockWrlock, 1, -35);
    XEL_TaskDestroy(task.Get());
    EXPECT_LOG(kTaskSource, "Task destroy unsuccessfully, write lock unsuccessfully, ret = -35.");
    EXPECT_EQ(task->magic.load(), 0x3DFFE844U);
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), task.Get());
}

TEST_F(TaskDestroy, FailedUnlockOfDestructionIsLogged)
{
    const Fd fd = Fd::Event();
    Task task(fd.Get());
    SchTaskCtrl* unit = task.Release();
    FailNth(Call::PthreadRwlockUnlock, 1, -1);
    XEL_TaskDestroy(unit);
    EXPECT_LOG(kTaskSource, "Task destroy, write unlock unsuccessfully, ret = -1.");
    EXPECT_EQ(unit->magic.load(), 0U);
    EXPECT_EQ(pthread_rwlock_unlock(&g_xelTaskRunCtrl.rwlock), 0) << "it is still held";
}

TEST_F(TaskDestroy, MagicThatChangesBeforeTheLockIsSeenUnderIt)
{
    const Fd fd = Fd::Event();
    Task task(fd.Get());
    SchTaskCtrl* unit = task.Release();
    RunAtNth(Call::PthreadRwlockWrlock, 1, [unit] { ForceMagic(unit, kDead); });
    XEL_TaskDestroy(unit);
    EXPECT_LOG(kTaskSource, "Task destroy unsuccessfully, magic is damaged, magic = 0xbad.");
    EXPECT_EQ(unit->init, 1U) << "the record is left as it is";
    EXPECT_FALSE(FtEntryIsValid(unit, false)) << "and its entry goes back all the same";
    EXPECT_TRUE(LockIsFree(unit));
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), nullptr);
    EXPECT_NO_LOG();
}

TEST_F(TaskDestroy, TaskThatIsDeadAlreadyIsFreedAgainInVain)
{
    const Fd fd = Fd::Event();
    Task task(fd.Get());
    SchTaskCtrl* unit = task.Release();
    unit->init = 0;
    XEL_TaskDestroy(unit);
    EXPECT_LOG(kTaskSource, "Task destroy, task handle had been destroyed already, init = 0.");
    EXPECT_FALSE(FtEntryIsValid(unit, false)) << "the entry goes back all the same";
    EXPECT_EQ(unit->magic.load(), 0x3DFFE844U);
    EXPECT_TRUE(LockIsFree(unit));
    ForceMagic(unit, 0);
}

TEST_F(TaskDestroy, HandleThatIsNoEntryIsRefusedUnderTheLock)
{
    ForeignTask foreign;
    foreign.record.init = 0; // the entry is checked before this
    const Footprint before = Measure();
    XEL_TaskDestroy(foreign.Get());
    EXPECT_LOG(kTaskSource, "Task destroy unsuccessfully, fd handle is invalid.");
    EXPECT_EQ(Measure(), before);
    EXPECT_TRUE(LockIsFree(foreign.Get()));
    EXPECT_EQ(pthread_rwlock_trywrlock(&g_xelTaskRunCtrl.rwlock), 0);
    EXPECT_EQ(pthread_rwlock_unlock(&g_xelTaskRunCtrl.rwlock), 0);
}

TEST_F(TaskDestroy, EntryWithoutItsNodeIsRefusedAndFreed)
{
    const Fd fd = Fd::Event();
    SchTaskCtrl* unit = Task(fd.Get()).Release();
    void* node = nullptr;
    SwapNode(unit, &node);
    unit->init = 0; // the entry is checked before this
    XEL_TaskDestroy(unit);
    EXPECT_LOG(kTaskSource, "Task destroy unsuccessfully, fd handle is invalid.");
    EXPECT_FALSE(FtEntryIsValid(unit, false));
    EXPECT_EQ(unit->magic.load(), 0x3DFFE844U) << "the record is left as it is";
    EXPECT_TRUE(LockIsFree(unit));
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), nullptr);
    EXPECT_NO_LOG();
    XelDllDel(static_cast<XelDll*>(node));
    FmmUnitFree(node);
    ForceMagic(unit, 0);
}

TEST_F(TaskDestroy, DestructionWaitsForAReaderOfTheTask)
{
    const Fd fd = Fd::Event();
    Task task(fd.Get());
    SchTaskCtrl* unit = task.Release();
    XelRwlockReadLock(&unit->lock);
    Runner runner([unit] { XEL_TaskDestroy(unit); });
    EXPECT_TRUE(AwaitTrue([unit] { return LockGate(unit) == 0; }));
    EXPECT_FALSE(runner.HasEnded());
    EXPECT_EQ(unit->magic.load(), 0x3DFFE844U);
    XelRwlockReadUnLock(&unit->lock);
    runner.Join();
    EXPECT_EQ(unit->magic.load(), 0U);
}

} // namespace
