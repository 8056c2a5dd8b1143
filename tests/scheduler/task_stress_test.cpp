// Tasks under threads: stale handles, units that are reused while others still hold them, creators
// and destroyers side by side. Nothing may hang: every loop ends by count, and a thread that does
// not end within its time ends the program.
#include <array>
#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "task_support.h"
#include "xel_scheduler.h"

using namespace xeltest;
using namespace tasktest;

namespace
{

constexpr u32 kRounds = IsSanitized() ? 1500 : 4000;
constexpr u32 kFds = 3;

class TaskStress : public TaskTest
{
};

// What every user of a handle does, valid or not.
void UseEverything(SchTaskCtrl* task)
{
    SchTaskInsertInfo info{};
    struct epoll_event event {
        EPOLLIN, {}
    };
    (void)SchTaskGetInfoInsert(nullptr, task, &event, &info);
    (void)SchTaskGetEvent(task, info.version, &event);
    XelTaskProc proc = nullptr;
    u64 data = 0;
    if (SchTaskGetInfoProcess(task, &proc, &data) == 0) {
        // A record that dies between the checks may show the empty image, never half of one.
        EXPECT_TRUE(proc == NopProc || (proc == nullptr && data == 0));
    }
    SchEventCacheInfo cached{};
    (void)SchTaskGetDbgInfo(task, info.version, &cached);
    SchDbgTaskInfo dbg{};
    (void)SchTaskGetDbgInfoByTaskHandle(task, &dbg);
    SchTaskTraceInfo trace{};
    (void)SchTaskGetSimpleDbgByHandle(task, &trace);
    (void)SchTaskGetFdBySchHandle(task);
    (void)SchTaskGetFdType(task);
    (void)SchTaskCtrlIsValid(task);
}

// Threads that run body over and over until stop, and count what they did.
class Users
{
public:
    Users(u32 count, const std::function<void()>& body)
    {
        for (u32 i = 0; i < count; ++i) {
            threads_.push_back(std::make_unique<Runner>([this, body] {
                while (!stop_.load()) {
                    body();
                    done_.fetch_add(1);
                }
            }));
        }
    }
    ~Users() { Stop(); }
    u64 Done() const { return done_.load(); }
    bool AwaitProgress(u64 more)
    {
        const u64 before = Done();
        return AwaitTrue([this, before, more] { return Done() - before >= more; });
    }
    void Stop()
    {
        stop_.store(true);
        threads_.clear();
    }

private:
    std::atomic<bool> stop_{false};
    std::atomic<u64> done_{0};
    std::vector<std::unique_ptr<Runner>> threads_;
};

TEST_F(TaskStress, StaleHandlesNeverHangWhileTheirUnitsAreReused)
{
    const Attr attr;
    std::array<std::atomic<SchTaskCtrl*>, kFds> handles{};
    for (u32 i = 0; i < kFds; ++i) {
        handles[i].store(XEL_TaskCreate(static_cast<i32>(500 + i), attr.Get()));
    }
    std::atomic<u32> turn{0};
    Users users(3, [&] { UseEverything(handles[turn.fetch_add(1) % kFds].load()); });
    for (u32 round = 0; round < kRounds; ++round) {
        const u32 i = round % kFds;
        XEL_TaskDestroy(handles[i].load()); // the users go on with it
        SchTaskCtrl* task = XEL_TaskCreate(static_cast<i32>(500 + i), attr.Get());
        ASSERT_NE(task, nullptr) << "round " << round;
        handles[i].store(task);
        if (round % 100 == 0) {
            DropLog();
            EXPECT_TRUE(users.AwaitProgress(1)) << "round " << round;
        }
    }
    users.Stop();
    for (std::atomic<SchTaskCtrl*>& handle : handles) {
        EXPECT_TRUE(LockIsFree(handle.load()));
        XEL_TaskDestroy(handle.load());
    }
    DropLog();
}

// The same with changers: binding, unbinding and modification need the write side.
TEST_F(TaskStress, ChangersNeverHangWhileTheirUnitsAreReused)
{
    const Attr attr;
    std::atomic<SchTaskCtrl*> handle{XEL_TaskCreate(500, attr.Get())};
    Users users(3, [&] {
        SchTaskCtrl* task = handle.load();
        (void)SchTaskAddScheduler(task, Handle(1));
        (void)SchFdModify(task, attr.Get());
        SchTaskRmScheduler(task, Handle(1));
    });
    for (u32 round = 0; round < kRounds; ++round) {
        XEL_TaskDestroy(handle.load());
        handle.store(XEL_TaskCreate(500, attr.Get()));
        ASSERT_NE(handle.load(), nullptr) << "round " << round;
        if (round % 100 == 0) {
            DropLog();
            EXPECT_TRUE(users.AwaitProgress(1)) << "round " << round;
        }
    }
    users.Stop();
    XEL_TaskDestroy(handle.load());
    DropLog();
}

// The holder of the old task's lock is inside when the unit is taken again.
TEST_F(TaskStress, LockThatIsHeldAcrossReuseStaysWhole)
{
    const Attr attr;
    SchTaskCtrl* unit = XEL_TaskCreate(500, attr.Get());
    XEL_TaskDestroy(unit);
    for (u32 round = 0; round < 50; ++round) {
        XelRwlockReadLock(&unit->lock);
        std::atomic<SchTaskCtrl*> made{nullptr};
        Runner creator([&] { made.store(XEL_TaskCreate(500, attr.Get())); });
        EXPECT_TRUE(AwaitTrue([&] { return LockGate(unit) == 0; }))
            << "it must wait for the reader";
        EXPECT_EQ(LockCount(unit), 1U);
        XelRwlockReadUnLock(&unit->lock);
        creator.Join();
        ASSERT_EQ(made.load(), unit);
        EXPECT_TRUE(LockIsFree(unit));
        XEL_TaskDestroy(unit);
    }
    EXPECT_NO_LOG();
}

TEST_F(TaskStress, OneOfTwoDestroyersWins)
{
    const Attr attr;
    for (u32 round = 0; round < 300; ++round) {
        SchTaskCtrl* task = XEL_TaskCreate(500, attr.Get());
        ASSERT_NE(task, nullptr);
        EXPECT_EQ(SchTaskAddScheduler(task, Handle(1)), 0U);
        std::atomic<u32> ready{0};
        const auto destroy = [&] {
            ready.fetch_add(1);
            while (ready.load() < 2) {
                std::this_thread::yield();
            }
            XEL_TaskDestroy(task);
        };
        {
            const Runner first(destroy);
            const Runner second(destroy);
        }
        EXPECT_LOG(kTaskSource, "Task destroy unsuccessfully, magic is damaged, magic = 0.");
        EXPECT_EQ(SchTaskGetHandleByAppFd(500), nullptr);
    }
}

TEST_F(TaskStress, CreatorsOfDifferentDescriptorsDoNotDisturbEachOther)
{
    const Attr attr;
    constexpr u32 kThreads = 4;
    std::vector<std::unique_ptr<Runner>> threads;
    for (u32 index = 0; index < kThreads; ++index) {
        threads.push_back(std::make_unique<Runner>([&attr, index] {
            for (u32 round = 0; round < kRounds / 4; ++round) {
                const auto fd = static_cast<i32>(600 + index * 100 + round % 7);
                SchTaskCtrl* task = XEL_TaskCreate(fd, attr.Get());
                ASSERT_NE(task, nullptr);
                EXPECT_EQ(SchTaskGetHandleByAppFd(fd), task);
                EXPECT_EQ(SchTaskGetFdBySchHandle(task), static_cast<u32>(fd));
                XEL_TaskDestroy(task);
            }
        }));
    }
    threads.clear();
    EXPECT_NO_LOG();
}

TEST_F(TaskStress, VersionsOfConcurrentCreatorsAreUnique)
{
    const Attr attr;
    constexpr u32 kThreads = 4;
    constexpr u32 kTasks = 100;
    const u32 before = g_xelTaskRunCtrl.taskVer;
    std::array<std::vector<SchTaskCtrl*>, kThreads> tasks;
    std::vector<std::unique_ptr<Runner>> threads;
    for (u32 index = 0; index < kThreads; ++index) {
        threads.push_back(std::make_unique<Runner>([&, index] {
            for (u32 i = 0; i < kTasks; ++i) {
                tasks[index].push_back(
                    XEL_TaskCreate(static_cast<i32>(1000 + index * kTasks + i), attr.Get()));
            }
        }));
    }
    threads.clear();
    std::set<u32> versions;
    for (const std::vector<SchTaskCtrl*>& list : tasks) {
        for (SchTaskCtrl* task : list) {
            ASSERT_NE(task, nullptr);
            versions.insert(task->version);
            XEL_TaskDestroy(task);
        }
    }
    EXPECT_EQ(versions.size(), kThreads * kTasks);
    EXPECT_EQ(*versions.begin(), before + 1);
    EXPECT_EQ(*versions.rbegin(), before + kThreads * kTasks);
}

// Each insertion that finds nothing pending is taken exactly once, by whichever taker comes first.
TEST_F(TaskStress, NoInsertionIsLostOrTakenTwice)
{
    const Task task(500);
    std::atomic<u64> taken{0};
    const u32 version = task->version;
    Users takers(2, [&] {
        struct epoll_event event {
        };
        EXPECT_EQ(SchTaskGetEvent(task.Get(), version, &event), 0U);
        taken.fetch_add(event.events != 0 ? 1 : 0);
    });
    u64 firsts = 0;
    for (u32 round = 0; round < 2 * kRounds; ++round) {
        SchTaskInsertInfo info{};
        struct epoll_event event {
            EPOLLIN, {}
        };
        ASSERT_EQ(SchTaskGetInfoInsert(nullptr, task.Get(), &event, &info), 0U);
        firsts += info.isFirst;
    }
    takers.Stop();
    const u64 pending = task->events.load() != 0 ? 1 : 0;
    EXPECT_EQ(taken.load() + pending, firsts);
    EXPECT_GE(firsts, 1U);
}

} // namespace
