// What the tests of the BFS policy share: an instance with its inside laid open, and tasks in it.
#ifndef XEL_TESTS_BFS_SUPPORT_H
#define XEL_TESTS_BFS_SUPPORT_H

#include <vector>

#include "bfs_model.h"
#include "sch_support.h"
#include "scheduler/xel_sch_policy_bfs.h"

namespace schtest
{

// A policy instance, destroyed at the end.
class TestBfs
{
public:
    explicit TestBfs(u32 size = 64) { Create(size); }
    struct Later {
    };
    explicit TestBfs(Later /*tag*/) {}
    TestBfs(const TestBfs&) = delete;
    ~TestBfs() { Destroy(); }
    SchBfsCtrl* Get() const { return policy_; }
    SchBfsCtrl* operator->() const { return policy_; }
    void Create(u32 size)
    {
        policy_ = static_cast<SchBfsCtrl*>(SCH_BfsCreatePolicy(size));
        EXPECT_NE(policy_, nullptr);
    }
    // The policy of a scheduler, which destroys it.
    void Borrow(void* policy)
    {
        policy_ = static_cast<SchBfsCtrl*>(policy);
        isBorrowed_ = true;
    }
    void Destroy()
    {
        if (!isBorrowed_) {
            SCH_BfsDestroyPolicy(policy_);
        }
        policy_ = nullptr;
    }
    u32 Prepare() { return SCH_BfsResPrepare(policy_); }
    u32 Insert(const std::vector<bfsmodel::Event>& events);
    u32 Insert(SchTaskCtrl* task, u32 mask = EPOLLIN)
    {
        return Insert({{reinterpret_cast<u64>(task), mask}});
    }
    // The selected events, each with its task handle and its mask.
    std::vector<bfsmodel::Event> Select();
    // The tasks of one select.
    std::vector<SchTaskCtrl*> SelectTasks();
    std::vector<bfsmodel::Cached> ListCache(u32 capacity);

private:
    SchBfsCtrl* policy_ = nullptr;
    bool isBorrowed_ = false;
};

// A task bound to a policy. Its descriptor number stands for no open file: the policy never asks.
class BoundTask
{
public:
    BoundTask(const TestBfs& bfs, i32 fd, u32 type, u32 prio, const char* name = "bound");
    BoundTask(BoundTask&& other) noexcept : task_(std::exchange(other.task_, nullptr)) {}
    BoundTask& operator=(BoundTask&& other) noexcept
    {
        std::swap(task_, other.task_);
        return *this;
    }
    ~BoundTask() { Destroy(); }
    SchTaskCtrl* Get() const { return task_; }
    SchTaskCtrl* operator->() const { return task_; }
    void Destroy();

private:
    SchTaskCtrl* task_;
};

// Gives a task a type and a priority that no attribute setter lets through.
void ForceTypePrio(SchTaskCtrl* task, u32 type, u32 prio);

// A list as the model keeps it.
std::vector<bfsmodel::Item> WalkList(const XelDll& head);

} // namespace schtest

#endif // XEL_TESTS_BFS_SUPPORT_H
