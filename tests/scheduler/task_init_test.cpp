// Initialisation and finalisation of the task table. Each test needs the process as it is at load,
// so its body runs in a fresh one.
#include <algorithm>
#include <array>
#include <cerrno>
#include <thread>
#include <vector>

#include "task_support.h"

using namespace xeltest;
using namespace tasktest;

namespace
{

constexpr const char* kTableFailed = "Task init unsuccessfully, create fd table unsuccessfully, "
                                     "unit = 128, number = 32.";
constexpr const char* kInitFailed = "scheduler create task unsuccessfully, task init "
                                    "unsuccessfully.";
constexpr u32 kFailed = 0xFFFFFFFFU;

bool IsInitialised()
{
    return g_xelTaskRunCtrl.init.load() == 1;
}

TEST(TaskInit, NothingExistsAtLoad)
{
    XELTEST_IN_FRESH_PROCESS([] {
        EXPECT_FALSE(IsInitialised());
        EXPECT_EQ(g_xelTaskRunCtrl.fdTbl, nullptr);
        EXPECT_EQ(Measure().pools, 0U);
        EXPECT_EQ(Measure().blocks, 0U);
        EXPECT_EQ(Measure().threads, 1U);
    });
}

TEST(TaskInit, FirstTaskCreatesTheTableAndHasVersionOne)
{
    XELTEST_IN_FRESH_PROCESS([] {
        const Task task(0);
        EXPECT_TRUE(IsInitialised());
        EXPECT_NE(g_xelTaskRunCtrl.fdTbl, nullptr);
        EXPECT_EQ(task->version, 1U);
        const std::vector<PoolRequest> expected = {{24, 32, 2}, {136, 32, 6}};
        EXPECT_EQ(TakePoolRequests(), expected);
        EXPECT_NO_LOG();
    });
}

TEST(TaskInit, SecondCallDoesNothing)
{
    XELTEST_IN_FRESH_PROCESS([] {
        EXPECT_EQ(TaskInit(), 0U);
        const Task task(0);
        FtCtrl* table = g_xelTaskRunCtrl.fdTbl;
        ResetFaults();
        EXPECT_EQ(TaskInit(), 0U);
        EXPECT_EQ(Calls(Call::FmmCtrlCreate), 0U);
        EXPECT_EQ(Calls(Call::XelMemAllocF), 0U);
        EXPECT_EQ(g_xelTaskRunCtrl.fdTbl, table);
        EXPECT_EQ(g_xelTaskRunCtrl.taskVer, 1U);
    });
}

struct Fault {
    Call call;
    u64 nth;
};

TEST(TaskInit, WithoutATableItFailsAloudAndCanBeRepeated)
{
    XELTEST_IN_FRESH_PROCESS([] {
        const Footprint before = Measure();
        for (const Fault& fault : {Fault{Call::XelMemAllocF, 1}, Fault{Call::FmmCtrlCreate, 1},
                                   Fault{Call::FmmCtrlCreate, 2}}) {
            FailNth(fault.call, fault.nth);
            EXPECT_EQ(TaskInit(), kFailed);
            EXPECT_LOG(kTaskSource, kTableFailed);
            EXPECT_FALSE(IsInitialised());
            EXPECT_EQ(Measure(), before);
            ResetFaults();
        }
        EXPECT_EQ(TaskInit(), 0U);
        EXPECT_NO_LOG();
    });
}

TEST(TaskInit, WithoutALockItFailsInSilence)
{
    XELTEST_IN_FRESH_PROCESS([] {
        const Footprint before = Measure();
        FailNth(Call::PthreadRwlockInit, 1, -1);
        EXPECT_EQ(TaskInit(), kFailed);
        EXPECT_NO_LOG();
        EXPECT_FALSE(IsInitialised());
        EXPECT_EQ(Measure(), before) << "the table is destroyed again";
        EXPECT_EQ(TaskInit(), 0U);
    });
}

TEST(TaskInit, PositiveResultOfTheLockPasses)
{
    XELTEST_IN_FRESH_PROCESS([] {
        FailNth(Call::PthreadRwlockInit, 1, ENOMEM);
        EXPECT_EQ(TaskInit(), 0U);
        EXPECT_TRUE(IsInitialised());
    });
}

TEST(TaskInit, CreationReportsAFailedInitialisation)
{
    XELTEST_IN_FRESH_PROCESS([] {
        const Attr attr;
        FailNth(Call::XelMemAllocF, 1);
        EXPECT_EQ(XEL_TaskCreate(0, attr.Get()), nullptr);
        EXPECT_LOG(kTaskSource, kTableFailed, kInitFailed);
        FailNth(Call::PthreadRwlockInit, 1, -1);
        EXPECT_EQ(XEL_TaskCreate(0, attr.Get()), nullptr);
        EXPECT_LOG(kTaskSource, kInitFailed);
    });
}

TEST(TaskInit, RefusedArgumentsDoNotInitialise)
{
    XELTEST_IN_FRESH_PROCESS([] {
        const Attr attr;
        EXPECT_EQ(XEL_TaskCreate(-1, attr.Get()), nullptr);
        EXPECT_EQ(XEL_TaskCreate(1, nullptr), nullptr);
        EXPECT_FALSE(IsInitialised());
        DropLog();
    });
}

TEST(TaskInit, CreationWithoutATableIsRefusedUnderTheLock)
{
    XELTEST_IN_FRESH_PROCESS([] {
        const Attr attr;
        EXPECT_EQ(SchTaskCreate(0, attr.Get()), nullptr);
        EXPECT_LOG(kTaskSource, "Task manage handle null.");
        EXPECT_EQ(pthread_rwlock_trywrlock(&g_xelTaskRunCtrl.rwlock), 0);
        EXPECT_EQ(pthread_rwlock_unlock(&g_xelTaskRunCtrl.rwlock), 0);
    });
}

TEST(TaskFinal, WithoutATableItDoesNothing)
{
    XELTEST_IN_FRESH_PROCESS([] {
        TaskFinal();
        EXPECT_FALSE(IsInitialised());
        EXPECT_EQ(Measure().pools, 0U);
        EXPECT_NO_LOG();
    });
}

TEST(TaskFinal, DestroysTheTableAndLeavesThePointer)
{
    XELTEST_IN_FRESH_PROCESS([] {
        const Footprint before = Measure();
        EXPECT_EQ(TaskInit(), 0U);
        FtCtrl* table = g_xelTaskRunCtrl.fdTbl;
        TaskFinal();
        EXPECT_FALSE(IsInitialised());
        EXPECT_EQ(g_xelTaskRunCtrl.fdTbl, table);
        EXPECT_EQ(Measure(), before);
        TaskFinal();
        EXPECT_EQ(Measure(), before) << "the table is destroyed once only";
        EXPECT_NO_LOG();
    });
}

TEST(TaskFinal, TakesLiveTasksWithIt)
{
    XELTEST_IN_FRESH_PROCESS([] {
        const Footprint before = Measure();
        const Attr attr;
        SchTaskCtrl* task = XEL_TaskCreate(0, attr.Get());
        SchTaskCtrl* other = XEL_TaskCreate(1, attr.Get());
        EXPECT_EQ(SchTaskAddScheduler(task, Handle(1)), 0U);
        TaskFinal();
        EXPECT_EQ(Measure().units, before.units);
        EXPECT_EQ(Measure().pools, before.pools);
        EXPECT_EQ(Measure().blocks, before.blocks + 1) << "only the attribute is left";
        for (SchTaskCtrl* stale : {task, other}) {
            XEL_TaskDestroy(stale);
            EXPECT_LOG(kTaskSource, "Task destroy unsuccessfully, magic is damaged, magic = 0.");
        }
    });
}

TEST(TaskFinal, NextTaskStartsANewTableAtVersionOne)
{
    XELTEST_IN_FRESH_PROCESS([] {
        const Attr attr;
        for (const i32 fd : {0, 1, 2}) {
            EXPECT_NE(XEL_TaskCreate(fd, attr.Get()), nullptr);
        }
        EXPECT_EQ(g_xelTaskRunCtrl.taskVer, 3U);
        TaskFinal();
        const Task task(1);
        ASSERT_NE(task.Get(), nullptr) << "the old task of the descriptor is forgotten";
        EXPECT_EQ(task->version, 1U);
        EXPECT_EQ(SchTaskGetHandleByAppFd(0), nullptr);
        EXPECT_EQ(SchTaskGetHandleByAppFd(1), task.Get());
        EXPECT_NO_LOG();
    });
}

// Releases all threads at the same moment.
class Gate
{
public:
    void Pass(u32 threads)
    {
        here_.fetch_add(1);
        while (here_.load() < threads) {
            std::this_thread::yield();
        }
    }

private:
    std::atomic<u32> here_{0};
};

TEST(TaskInit, SeveralThreadsMakeOneTable)
{
    XELTEST_IN_FRESH_PROCESS([] {
        constexpr u32 kThreads = 4;
        for (int round = 0; round < 30; ++round) {
            Gate gate;
            ResetFaults();
            std::array<std::atomic<u32>, kThreads> results{};
            std::vector<std::thread> threads;
            for (u32 i = 0; i < kThreads; ++i) {
                threads.emplace_back([&gate, &results, i] {
                    gate.Pass(kThreads);
                    results[i].store(TaskInit());
                });
            }
            for (std::thread& thread : threads) {
                thread.join();
            }
            for (const std::atomic<u32>& result : results) {
                EXPECT_EQ(result.load(), 0U);
            }
            EXPECT_EQ(Calls(Call::FmmCtrlCreate), 2U);
            EXPECT_EQ(Measure().pools, 2U);
            TaskFinal();
        }
        EXPECT_NO_LOG();
    });
}

TEST(TaskInit, FirstTasksOfSeveralThreadsAllLive)
{
    XELTEST_IN_FRESH_PROCESS([] {
        constexpr u32 kThreads = 4;
        Gate gate;
        const Attr attr;
        std::array<SchTaskCtrl*, kThreads> tasks{};
        std::vector<std::thread> threads;
        for (u32 i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                gate.Pass(kThreads);
                tasks[i] = XEL_TaskCreate(static_cast<i32>(i), attr.Get());
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        std::vector<u32> versions;
        for (u32 i = 0; i < kThreads; ++i) {
            ASSERT_NE(tasks[i], nullptr);
            EXPECT_EQ(SchTaskGetHandleByAppFd(static_cast<i32>(i)), tasks[i]);
            versions.push_back(tasks[i]->version);
        }
        std::sort(versions.begin(), versions.end());
        EXPECT_EQ(versions, (std::vector<u32>{1, 2, 3, 4}));
        EXPECT_NO_LOG();
    });
}

} // namespace
