// Binding of tasks to a scheduler's policy without epoll: results, log lines, debug hooks.
#include <gtest/gtest.h>

#include "sch_dispatch_support.h"

namespace
{

using namespace schtest;
using xeltest::Call;

class SchBind : public SchTest
{
};

const Line kInvalidHandle = SchLine("Sch get epoll fd unsuccessfully, schHandle invalid.");

TEST_F(SchBind, AddBindsTheTaskToThePolicyAndTellsTheHooks)
{
    TestSch sch;
    HookRecorder hooks;
    const Fd fd = Fd::Event(1);
    SchTaskCtrl* task = MakeTask(fd.Get());
    EXPECT_EQ(XEL_TaskAdd(sch.Get(), task), 0U);
    EXPECT_EQ(task->schCount, 1U);
    EXPECT_EQ(task->schList.next->data, sch->policy);
    EXPECT_EQ(HookRecorder::Take(), Notes{Text("insert %d %d", sch.EpFd(), fd.Get())});
    struct epoll_event reported = {};
    EXPECT_EQ(epoll_wait(sch.EpFd(), &reported, 1, 0), 0) << "epoll is not touched";
    EXPECT_EQ(XEL_TaskAdd(sch.Get(), task), 0U);
    EXPECT_EQ(task->schCount, 2U) << "bound twice";
    EXPECT_EQ(XEL_TaskDel(sch.Get(), task), 0U);
    EXPECT_EQ(task->schCount, 0U) << "all bindings go";
    EXPECT_EQ(HookRecorder::Take(),
              (Notes{Text("insert %d %d", sch.EpFd(), fd.Get()), Text("del %d", fd.Get())}));
    XEL_TaskDestroy(task);
    EXPECT_LINES();
}

SchDbgTaskInfo g_info;

TEST_F(SchBind, HookGetsTheWholeTask)
{
    TestSch sch;
    const SchDbgHookTable table{[](const SchDbgTaskInfo* info) { g_info = *info; }, nullptr,
                                nullptr, nullptr, nullptr};
    SCH_RegisterDbgHookTable(&table);
    SchTaskCtrl* task = MakeTask(600000, {DrainProc, 1, 3, 30, "whole"});
    EXPECT_EQ(XEL_TaskAdd(sch.Get(), task), 0U);
    EXPECT_EQ(g_info.epFd, static_cast<u32>(sch.EpFd()));
    EXPECT_EQ(g_info.fd, 600000);
    EXPECT_EQ(g_info.type, 3U);
    EXPECT_EQ(g_info.prio, 30U);
    EXPECT_STREQ(g_info.name, "whole");
    EXPECT_EQ(g_info.procFunc, DrainProc);
    SCH_DeregisterDbgHookTable();
    XEL_TaskDestroy(task);
}

SchTaskCtrl* g_told;

TEST_F(SchBind, HooksAreToldWhatHasHappened)
{
    TestSch sch;
    const SchDbgHookTable table{
        [](const SchDbgTaskInfo* /*info*/) {
            HookRecorder::Note(Text("insert, bound %u", g_told->schCount));
        },
        [](u32 /*fd*/) { HookRecorder::Note(Text("del, bound %u", g_told->schCount)); }, nullptr,
        nullptr, nullptr};
    SCH_RegisterDbgHookTable(&table);
    g_told = MakeTask(600000);
    (void)HookRecorder::Take();
    EXPECT_EQ(XEL_TaskAdd(sch.Get(), g_told), 0U);
    EXPECT_EQ(XEL_TaskDel(sch.Get(), g_told), 0U);
    SCH_DeregisterDbgHookTable();
    EXPECT_EQ(HookRecorder::Take(), (Notes{"insert, bound 1", "del, bound 0"}));
    XEL_TaskDestroy(g_told);
}

TEST_F(SchBind, WithoutPolicyTheBindingIsToNull)
{
    TestSch sch(Policy::None);
    SchTaskCtrl* task = MakeTask(600000);
    EXPECT_EQ(XEL_TaskAdd(sch.Get(), task), 0U);
    EXPECT_EQ(task->schCount, 1U);
    EXPECT_EQ(task->schList.next->data, nullptr);
    EXPECT_EQ(XEL_TaskDel(sch.Get(), task), 0U);
    EXPECT_EQ(task->schCount, 0U);
    XEL_TaskDestroy(task);
}

TEST_F(SchBind, AddAndDelRefuseABadScheduler)
{
    SchTaskCtrl* task = MakeTask(600000);
    EXPECT_EQ(XEL_TaskAdd(nullptr, task), 22U);
    EXPECT_LINES(SchLine("sch handle null."), kInvalidHandle);
    EXPECT_EQ(XEL_TaskDel(nullptr, task), 22U);
    EXPECT_LINES(SchLine("sch handle null."), kInvalidHandle);
    TestSch sch;
    SchCtrl* stale = sch.Get();
    sch.Destroy();
    EXPECT_EQ(XEL_TaskAdd(stale, task), 22U);
    EXPECT_LINES(SchLine("sch handle magic destroy, magic = 0."), kInvalidHandle);
    EXPECT_EQ(XEL_TaskDel(stale, task), 22U);
    EXPECT_LINES(SchLine("sch handle magic destroy, magic = 0."), kInvalidHandle);
    EXPECT_EQ(XEL_TaskAdd(nullptr, nullptr), 22U);
    EXPECT_LINES(SchLine("sch handle null."), kInvalidHandle);
    EXPECT_EQ(XEL_TaskDel(nullptr, nullptr), 22U);
    EXPECT_LINES(SchLine("sch handle null."), kInvalidHandle);
    EXPECT_EQ(task->schCount, 0U);
    XEL_TaskDestroy(task);
}

TEST_F(SchBind, AddAndDelRefuseABadTask)
{
    TestSch sch;
    HookRecorder hooks;
    EXPECT_EQ(XEL_TaskAdd(sch.Get(), nullptr), 22U);
    EXPECT_LINES(TaskLine("task handle null."));
    EXPECT_EQ(XEL_TaskDel(sch.Get(), nullptr), 22U);
    EXPECT_LINES(TaskLine("task handle null."), TaskLine("Sch get fd, schTaskHandle invalid."));
    SchTaskCtrl* dead = MakeTask(600000);
    XEL_TaskDestroy(dead);
    EXPECT_EQ(XEL_TaskAdd(sch.Get(), dead), 22U);
    EXPECT_LINES(TaskLine("task handle magic destroy, magic = 0."));
    EXPECT_EQ(XEL_TaskDel(sch.Get(), dead), 22U);
    EXPECT_LINES(TaskLine("task handle magic destroy, magic = 0."),
                 TaskLine("Sch get fd, schTaskHandle invalid."));
    EXPECT_EQ(HookRecorder::Take(), Notes{});
}

TEST_F(SchBind, AddWithoutMemoryAnswersTwelve)
{
    TestSch sch;
    HookRecorder hooks;
    SchTaskCtrl* task = MakeTask(600000);
    xeltest::FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(XEL_TaskAdd(sch.Get(), task), 12U);
    EXPECT_LINES(TaskLine("task add scheduler unsuccessfully, alloc sll unsuccessfully."));
    EXPECT_EQ(HookRecorder::Take(), Notes{}) << "only a bound task is told";
    EXPECT_EQ(task->schCount, 0U);
    XEL_TaskDestroy(task);
}

TEST_F(SchBind, DelOfAnUnboundTaskSucceeds)
{
    TestSch sch;
    HookRecorder hooks;
    SchTaskCtrl* task = MakeTask(600000);
    EXPECT_EQ(XEL_TaskDel(sch.Get(), task), 0U);
    EXPECT_EQ(HookRecorder::Take(), Notes{"del 600000"});
    XEL_TaskDestroy(task);
    EXPECT_LINES();
}

// The task is damaged between the copy for the hooks and the binding.
TEST_F(SchBind, AddOfATaskDamagedMeanwhileFails)
{
    TestSch sch;
    HookRecorder hooks;
    SchTaskCtrl* task = MakeTask(600000);
    xeltest::RunAtNth(Call::StrcpyS, 1, [task] { task->magic.store(9); });
    EXPECT_EQ(XEL_TaskAdd(sch.Get(), task), 0xFFFFFFFFU);
    task->magic.store(0x3DFFE844);
    EXPECT_LINES(TaskLine("task handle magic destroy, magic = 0x9."));
    EXPECT_EQ(task->schCount, 0U);
    EXPECT_EQ(HookRecorder::Take(), Notes{});
    XEL_TaskDestroy(task);
}

TEST_F(SchBind, AddThatCannotCopyTheNameForTheHooksFailsSilently)
{
    TestSch sch;
    HookRecorder hooks;
    SchTaskCtrl* task = MakeTask(600000);
    xeltest::FailNth(Call::StrcpyS, 1);
    EXPECT_EQ(XEL_TaskAdd(sch.Get(), task), 22U);
    EXPECT_LINES();
    EXPECT_EQ(task->schCount, 0U);
    XEL_TaskDestroy(task);
}

// An application that registers its descriptor itself: bound, then run.
TEST_F(SchBind, TaskRegisteredByItsOwnerRuns)
{
    TestSch sch;
    const Fd fd = Fd::Event(1);
    SchTaskCtrl* task = MakeTask(fd.Get(), {NoteProc, 3});
    struct epoll_event event = {EPOLLIN | EPOLLET, {task}};
    ASSERT_EQ(epoll_ctl(sch.EpFd(), EPOLL_CTL_ADD, fd.Get(), &event), 0);
    ASSERT_EQ(XEL_TaskAdd(sch.Get(), task), 0U);
    (void)HookRecorder::Take();
    XEL_SchDispatch(sch.Get());
    EXPECT_EQ(HookRecorder::Take(), Notes{"run 3"});
    fd.Signal();
    EXPECT_EQ(XEL_TaskDel(sch.Get(), task), 0U);
    XEL_SchDispatch(sch.Get());
    EXPECT_EQ(HookRecorder::Take(), Notes{}) << "unbound: refused by the policy";
    EXPECT_LINES(
        TaskLine("Task get info unsuccessfully, task is not bind scheduler. (taskName = )"),
        BfsLine("Event insert, invalid task-ctrl."));
    XEL_TaskDestroy(task);
}

} // namespace
