// What the dispatch tests share: callbacks that tell what ran, and a policy of the test's making.
#ifndef XEL_TESTS_SCH_DISPATCH_SUPPORT_H
#define XEL_TESTS_SCH_DISPATCH_SUPPORT_H

#include <vector>

#include "sch_support.h"

namespace schtest
{

using Notes = std::vector<std::string>;

// Notes "run <data>"; succeeds.
u32 NoteProc(struct epoll_event* event, u64 data);
// Notes "run <data>"; returns 5.
u32 FailingProc(struct epoll_event* event, u64 data);
// Notes "hook <context> <phase>".
void NoteHook(u64 context, u32 phase);

// A policy whose every answer the test sets. It notes each call ("create", "destroy", "prepare",
// "insert <count>", "select", "cache", "left"); select hands out what insert brought.
struct FakePolicy {
    static u32 prepareResult;
    static u32 insertResult;
    static u32 selectLimit; // events handed out per select
    static u32 left;
    static bool createFails;
    static bool noting;
    static std::vector<struct epoll_event> queue;
    static SchPolicyOps Ops();
    static void Reset();
};

// A ready eventfd with a task of the given kind on a scheduler; level triggered.
class ReadyTask
{
public:
    ReadyTask(SchCtrl* sch, const TaskSpec& spec, u32 count = 1, u32 events = EPOLLIN);
    ReadyTask(ReadyTask&&) = default;
    int Fd() const { return fd_.Get(); }
    u32 U32() const { return fd_.U32(); }
    SchTaskCtrl* Task() const { return SchTaskGetHandleByAppFd(fd_.Get()); }
    void Remove(); // from its scheduler
    ~ReadyTask();

private:
    xeltest::Fd fd_;
    SchCtrl* sch_;
};

} // namespace schtest

#endif // XEL_TESTS_SCH_DISPATCH_SUPPORT_H
