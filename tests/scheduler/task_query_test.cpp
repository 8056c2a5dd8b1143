// Copies of task data: at the run, for the event cache, the hooks and the trace.
#include <cerrno>
#include <sys/time.h>

#include "scheduler/xel_sch_dbg_inner.h"
#include "task_query_support.h"
#include "xel_scheduler.h"

using namespace xeltest;
using namespace tasktest;

namespace
{

// Hooks that do nothing: registered for what their presence changes.
class SilentHooks
{
public:
    SilentHooks()
    {
        const SchDbgHookTable table{};
        EXPECT_EQ(SCH_RegisterDbgHookTable(&table), 0U);
    }
    SilentHooks(const SilentHooks&) = delete;
    SilentHooks& operator=(const SilentHooks&) = delete;
    ~SilentHooks() { SCH_DeregisterDbgHookTable(); }
};

TEST_F(TaskQuery, RunGetsCallbackAndData)
{
    XelTaskProc proc = nullptr;
    u64 data = 0;
    EXPECT_EQ(SchTaskGetInfoProcess(task_, &proc, &data), 0U);
    EXPECT_EQ(proc, NopProc);
    EXPECT_EQ(data, 7U);
    EXPECT_NO_LOG();
}

TEST_F(TaskQuery, RunRefusesInvalidAndDeadTasks)
{
    XelTaskProc proc = nullptr;
    u64 data = 99;
    task_->init = 0;
    EXPECT_EQ(SchTaskGetInfoProcess(task_, &proc, &data), kFailed);
    EXPECT_LOG(kTaskSource,
               "Task get info process unsuccessfully, handle has been destroyed. (init "
               "= 0)");
    ForceMagic(task_, kDead);
    EXPECT_EQ(SchTaskGetInfoProcess(task_, &proc, &data), kFailed);
    EXPECT_LOG(kTaskSource, "Task has damaged. (magic = 0xbad)",
               "Task get info process unsuccessfully, task is invalid.");
    ForeignTask foreign;
    EXPECT_EQ(SchTaskGetInfoProcess(foreign.Get(), &proc, &data), kFailed);
    EXPECT_LOG(kTaskSource, "Task get info process unsuccessfully, task is invalid.");
    EXPECT_EQ(proc, nullptr);
    EXPECT_EQ(data, 99U);
}

TEST_F(TaskQuery, RunSeesADeathUnderTheLock)
{
    XelTaskProc proc = nullptr;
    u64 data = 99;
    u32 result = 0;
    ChangeWhileItReads(
        task_, [&] { result = SchTaskGetInfoProcess(task_, &proc, &data); },
        [this] { task_->init = 0; });
    EXPECT_EQ(result, kFailed);
    EXPECT_LOG(kTaskSource,
               "Task get info process unsuccessfully, handle has been destroyed. (init "
               "= 0)");
    EXPECT_EQ(proc, nullptr);
}

TEST_F(TaskQuery, CacheRecordGetsTheIdentityOnly)
{
    SchEventCacheInfo out;
    Fill(&out);
    EXPECT_EQ(SchTaskGetDbgInfo(task_, task_->version, &out), 0U);
    EXPECT_STREQ(out.name, "the task");
    EXPECT_EQ(out.type, 3U);
    EXPECT_EQ(out.fd, fd_.Get());
    EXPECT_EQ(out.insertTime, 11U);
    EXPECT_EQ(out.lastInsertTime, 22U);
    EXPECT_EQ(out.events, 0x5A5A5A5AU) << "the policy's";
    EXPECT_EQ(out.reserved, 0x5A5A5A5AU);
}

TEST_F(TaskQuery, CacheRecordIsRefusedInOrder)
{
    SchEventCacheInfo out;
    Fill(&out);
    task_->version = 100;
    FailAll(Call::StrcpyS);
    EXPECT_EQ(SchTaskGetDbgInfo(task_, 90, &out), kFailed);
    EXPECT_LOG(kTaskSource, "Task get debug info unsuccessfully, task handle had been aged, "
                            "difference = 10.");
    EXPECT_EQ(SchTaskGetDbgInfo(task_, 103, &out), kFailed);
    EXPECT_LOG(kTaskSource, "Task get debug info unsuccessfully, task handle had been aged, "
                            "difference = -3.");
    task_->init = 0;
    EXPECT_EQ(SchTaskGetDbgInfo(task_, 90, &out), kFailed);
    EXPECT_LOG(kTaskSource,
               "Task get debug info unsuccessfully, handle had been destroyed already, "
               "init = 0.");
    ForceMagic(task_, kDead);
    EXPECT_EQ(SchTaskGetDbgInfo(task_, 90, &out), kFailed);
    EXPECT_LOG(kTaskSource, "Task get debug info unsuccessfully, magic is damaged, magic = 0xbad.");
    ForeignTask foreign;
    foreign.record.init = 0;
    EXPECT_EQ(SchTaskGetDbgInfo(foreign.Get(), 90, &out), kFailed);
    EXPECT_LOG(kTaskSource, "Task get debug info unsuccessfully, input is not valid.");
    EXPECT_TRUE(IsUntouched(out));
}

TEST_F(TaskQuery, CacheRecordFailsWhenTheNameCannotBeCopied)
{
    SchEventCacheInfo out;
    Fill(&out);
    FailNth(Call::StrcpyS, 1);
    EXPECT_EQ(SchTaskGetDbgInfo(task_, task_->version, &out), kFailed);
    EXPECT_LOG(kTaskSource, "Task get debug info unsuccessfully, copy task name unsuccessfully. "
                            "(name = the task)");
    EXPECT_EQ(out.fd, 0x5A5A5A5A);
}

TEST_F(TaskQuery, CacheRecordIsFilledBesideAReader)
{
    SchEventCacheInfo out{};
    XelRwlockReadLock(&task_->lock);
    EXPECT_EQ(SchTaskGetDbgInfo(task_, task_->version, &out), 0U);
    XelRwlockReadUnLock(&task_->lock);
}

TEST_F(TaskQuery, CacheRecordSeesADeathUnderTheLock)
{
    SchEventCacheInfo out;
    Fill(&out);
    u32 result = 0;
    const u32 version = task_->version;
    ChangeWhileItReads(
        task_, [&] { result = SchTaskGetDbgInfo(task_, version, &out); },
        [this] { task_->init = 0; });
    EXPECT_EQ(result, kFailed);
    EXPECT_LOG(kTaskSource,
               "Task get debug info unsuccessfully, handle had been destroyed already, "
               "init = 0.");
    EXPECT_TRUE(IsUntouched(out));
}

TEST_F(TaskQuery, HookRecordIsFilledWhileHooksAreRegistered)
{
    SchDbgTaskInfo out;
    Fill(&out);
    EXPECT_EQ(SchTaskGetDbgInfoByTaskHandle(task_, &out), 0U);
    EXPECT_TRUE(IsUntouched(out)) << "no hooks, no copy, and yet a success";
    {
        const SilentHooks hooks;
        EXPECT_EQ(SchTaskGetDbgInfoByTaskHandle(task_, &out), 0U);
        EXPECT_STREQ(out.name, "the task");
        EXPECT_EQ(out.fd, fd_.Get());
        EXPECT_EQ(out.type, 3U);
        EXPECT_EQ(out.prio, 5U);
        EXPECT_EQ(out.procFunc, NopProc);
        EXPECT_EQ(out.epFd, 0x5A5A5A5AU) << "the caller's";
    }
    Fill(&out);
    EXPECT_EQ(SchTaskGetDbgInfoByTaskHandle(task_, &out), 0U);
    EXPECT_TRUE(IsUntouched(out));
    EXPECT_NO_LOG();
}

TEST_F(TaskQuery, HookRecordIsRefusedForABadHandle)
{
    const SilentHooks hooks;
    SchDbgTaskInfo out;
    Fill(&out);
    EXPECT_EQ(SchTaskGetDbgInfoByTaskHandle(nullptr, &out), kFailed);
    EXPECT_LOG(kTaskSource, "task handle null.");
    ForceMagic(task_, kDead);
    EXPECT_EQ(SchTaskGetDbgInfoByTaskHandle(task_, &out), kFailed);
    EXPECT_LOG(kTaskSource, "task handle magic destroy, magic = 0xbad.");
    EXPECT_TRUE(IsUntouched(out));
}

TEST_F(TaskQuery, HookRecordIsRefusedInSilenceForANegativeDescriptor)
{
    SchDbgTaskInfo out;
    Fill(&out);
    task_->fd = -1;
    EXPECT_EQ(SchTaskGetDbgInfoByTaskHandle(task_, &out), kFailed) << "even without hooks";
    const SilentHooks hooks;
    EXPECT_EQ(SchTaskGetDbgInfoByTaskHandle(task_, &out), kFailed);
    EXPECT_TRUE(IsUntouched(out));
    EXPECT_NO_LOG();
    task_->fd = fd_.Get();
}

TEST_F(TaskQuery, HookRecordFailsInSilenceWhenTheNameCannotBeCopied)
{
    const SilentHooks hooks;
    SchDbgTaskInfo out;
    Fill(&out);
    FailNth(Call::StrcpyS, 1);
    EXPECT_EQ(SchTaskGetDbgInfoByTaskHandle(task_, &out), kFailed);
    EXPECT_NO_LOG();
    EXPECT_EQ(out.fd, 0x5A5A5A5A);
}

TEST_F(TaskQuery, HookRecordIsNotCheckedForTheMagicAgain)
{
    const SilentHooks hooks;
    SchDbgTaskInfo out{};
    u32 result = 1;
    ChangeWhileItReads(
        task_, [&] { result = SchTaskGetDbgInfoByTaskHandle(task_, &out); },
        [this] { ForceMagic(task_, kDead); });
    EXPECT_EQ(result, 0U);
    EXPECT_EQ(out.fd, fd_.Get());
    EXPECT_NO_LOG();
}

TEST_F(TaskQuery, TraceIsFilledWithTheTasksPart)
{
    task_->events.store(EPOLLOUT);
    SchTaskTraceInfo trace;
    Fill(&trace);
    struct timeval before {
    };
    struct timeval after {
    };
    gettimeofday(&before, nullptr);
    EXPECT_EQ(SchTaskGetSimpleDbgByHandle(task_, &trace), 0U);
    gettimeofday(&after, nullptr);
    EXPECT_EQ(trace.procFunc, NopProc);
    EXPECT_EQ(trace.fd, fd_.Get());
    EXPECT_EQ(trace.events, u32{EPOLLOUT});
    EXPECT_STREQ(trace.name, "the task");
    EXPECT_EQ(trace.type, 3U);
    EXPECT_EQ(trace.prio, 5U);
    EXPECT_EQ(trace.insertTime, 11U);
    EXPECT_FALSE(timercmp(&trace.timestamp, &before, <));
    EXPECT_FALSE(timercmp(&trace.timestamp, &after, >));
    constexpr u64 kUntouched = 0x5A5A5A5A5A5A5A5AU;
    EXPECT_EQ(trace.eventLeft, 0x5A5A5A5AU);
    EXPECT_EQ(trace.startTime, kUntouched);
    EXPECT_EQ(trace.endTime, kUntouched);
    EXPECT_EQ(trace.procTime, kUntouched);
    EXPECT_EQ(task_->events.load(), u32{EPOLLOUT}) << "the events are not taken";
}

TEST_F(TaskQuery, TraceIsRefusedForABadHandle)
{
    SchTaskTraceInfo trace;
    Fill(&trace);
    EXPECT_EQ(SchTaskGetSimpleDbgByHandle(nullptr, &trace), kFailed);
    EXPECT_LOG(kTaskSource, "task handle null.",
               "Sch get task name unsuccessfully, schTaskHandle null.");
    ForceMagic(task_, kDead);
    EXPECT_EQ(SchTaskGetSimpleDbgByHandle(task_, &trace), kFailed);
    EXPECT_LOG(kTaskSource, "task handle magic destroy, magic = 0xbad.",
               "Sch get task name unsuccessfully, schTaskHandle null.");
    EXPECT_TRUE(IsUntouched(trace));
}

TEST_F(TaskQuery, TraceChecksTheMagicAgainUnderTheLock)
{
    SchTaskTraceInfo trace;
    Fill(&trace);
    u32 result = 0;
    ChangeWhileItReads(
        task_, [&] { result = SchTaskGetSimpleDbgByHandle(task_, &trace); },
        [this] { ForceMagic(task_, kDead); });
    EXPECT_EQ(result, kFailed);
    EXPECT_LOG(kTaskSource,
               "Sch get task info unsuccessfully, task magic is damaged, magic = 0xbad.");
    EXPECT_TRUE(IsUntouched(trace));
}

TEST_F(TaskQuery, TraceTakesNoLockAndAnswersWithTheClocksResult)
{
    SchTaskTraceInfo trace{};
    XelRwlockWriteLock(&task_->lock);
    EXPECT_EQ(SchGetTraceDbgInfo(task_, &trace), 0);
    XelRwlockWriteUnLock(&task_->lock);
    FailNth(Call::Gettimeofday, 1, -1, EFAULT);
    EXPECT_EQ(SchGetTraceDbgInfo(task_, &trace), -1);
    FailNth(Call::Gettimeofday, 1, -1, EFAULT);
    EXPECT_EQ(SchTaskGetSimpleDbgByHandle(task_, &trace), 0U) << "which is not looked at there";
    EXPECT_NO_LOG();
}

// No setter leaves such a name behind.
TEST_F(TaskQuery, TraceOfANameWithoutEndHasOneWithAnEnd)
{
    SchTaskTraceInfo trace;
    Fill(&trace);
    memset(task_->name, 'x', sizeof(task_->name));
    EXPECT_EQ(SchGetTraceDbgInfo(task_, &trace), 0);
    EXPECT_LT(strnlen(trace.name, sizeof(trace.name)), sizeof(trace.name));
    EXPECT_EQ(trace.fd, fd_.Get());
    EXPECT_EQ(trace.procFunc, NopProc);
    EXPECT_NO_LOG();
}

TEST_F(TaskQuery, ReadersAnswerBesideAReader)
{
    XelRwlockReadLock(&task_->lock);
    Runner readers([this] {
        XelTaskProc proc = nullptr;
        u64 data = 0;
        SchTaskTraceInfo trace;
        SchDbgTaskInfo info;
        EXPECT_EQ(SchTaskGetInfoProcess(task_, &proc, &data), 0U);
        EXPECT_EQ(SchTaskGetFdBySchHandle(task_), fd_.U32());
        EXPECT_EQ(SchTaskGetSimpleDbgByHandle(task_, &trace), 0U);
        EXPECT_EQ(SchTaskGetDbgInfoByTaskHandle(task_, &info), 0U);
        EXPECT_EQ(SchTaskGetHandleByAppFd(fd_.Get()), task_);
    });
    EXPECT_TRUE(readers.AwaitEnd());
    XelRwlockReadUnLock(&task_->lock);
}

} // namespace
