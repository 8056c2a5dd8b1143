// Faults in tasks, schedulers and hooks.
#include "scheduler/xel_sch_dbg_inner.h"
#include "steps.h"

namespace
{

using namespace faulttest;

// Attributes, and a task made with them.
void TaskLife(Trial& run)
{
    const Fd fd = Fd::Event();
    XelTaskAttr* attr = nullptr;
    (void)run.Do(
        "XEL_TaskCreateAttr", {Call::XelMemAllocF},
        [&] { return (attr = XEL_TaskCreateAttr()) != nullptr; }, Lines::Silent);
    if (attr == nullptr) {
        return;
    }
    const XelTaskUsrCb callback = {NopProc, 1};
    const u32 one = 1;
    (void)run.Do("set callback, type, priority and descriptor type", {}, [&] {
        return XEL_TaskSetAttr(attr, XEL_TASK_ATTR_USR_CB, &callback, sizeof(callback)) == 0 &&
               XEL_TaskSetAttr(attr, XEL_TASK_ATTR_TYPE, &one, sizeof(one)) == 0 &&
               XEL_TaskSetAttr(attr, XEL_TASK_ATTR_PRIO, &one, sizeof(one)) == 0 &&
               XEL_TaskSetAttr(attr, XEL_TASK_ATTR_FD_TYPE, &one, sizeof(one)) == 0;
    });
    (void)run.Do("set name", {Call::StrcpyS},
                 [&] { return XEL_TaskSetAttr(attr, XEL_TASK_ATTR_NAME, "task", 4) == 0; });
    SchTaskCtrl* task = nullptr;
    (void)run.Do("XEL_TaskCreate", {Call::FmmUnitAlloc, TaskTable()},
                 [&] { return (task = XEL_TaskCreate(fd.Get(), attr)) != nullptr; });
    if (task != nullptr) {
        EndTask(run, task);
    }
    (void)run.Do("XEL_TaskDestroyAttr", {}, [&] {
        XEL_TaskDestroyAttr(attr);
        return true;
    });
}

SchEpollOps LinuxOps()
{
    return {epoll_wait, SchLinuxEpollCtlAdapt, SchLinuxEpollGetErrNoAdapt, nullptr};
}

SchCtrl* CreateScheduler(Trial& run, const Fd& epoll, bool hasPolicy)
{
    SchCtrl* sch = nullptr;
    (void)run.Do("SCH_CreateSch",
                 {Call::XelMemAllocF, Call::FmmUnitAlloc, Call::FmmCtrlCreate, Call::XelQueCreate,
                  Registry()},
                 [&] {
                     const SchEpollOps ops = LinuxOps();
                     sch = hasPolicy ? XEL_SchCreate(epoll.U32(), 16)
                                     : SCH_CreateSch(epoll.Get(), 16, &ops, nullptr);
                     return sch != nullptr;
                 });
    return sch;
}

// One failure costs one cycle at most; the descriptor stays ready until its task has run.
void Dispatch(Trial& run, SchCtrl* sch, const Counted& counted)
{
    const u32 runs = counted.runs.load();
    (void)run.Do("XEL_SchDispatch", {}, [&] {
        for (int cycle = 0; cycle < 4 && counted.runs.load() == runs; ++cycle) {
            XEL_SchDispatch(sch);
        }
        return counted.runs.load() == runs + 1;
    });
}

// Binding without and with the registration, dispatch, queries.
void UseScheduler(Trial& run, const Fd& epoll, SchCtrl* sch, Counted& counted)
{
    const Fd fd = Fd::Event(1);
    SchEpollCtlReq request = {EPOLLIN, counted.attr};
    const bool isBound =
        run.Do("SCH_EpollCtrl add",
               {Call::FmmUnitAlloc, Call::XelMemAllocF, Call::EpollCtl, TaskTable(),
                Fatal(Call::StrcpyS, 2 * (SchDbgIsInit() ? 1U : 0U), 2)},
               [&] { return SCH_EpollCtrl(sch, XEL_SCH_EPOLL_ADD, fd.Get(), &request) == 0; });
    if (!isBound) {
        return;
    }
    Dispatch(run, sch, counted);
    SchEventCacheInfo records[4];
    (void)run.Do("SCH_GetTasksEventCache", {RegistryLookUp()}, [&] {
        u32 count = 4;
        return SCH_GetTasksEventCache(epoll.U32(), records, &count) == 0;
    });
    (void)run.Do("SCH_EpollCtrl modify", {TaskLookUp()},
                 [&] { return SCH_EpollCtrl(sch, XEL_SCH_EPOLL_MOD, fd.Get(), &request) == 0; });
    (void)run.Do("SCH_EpollCtrl delete", {TaskLookUp(), Call::EpollCtl},
                 [&] { return SCH_EpollCtrl(sch, XEL_SCH_EPOLL_DEL, fd.Get(), nullptr) == 0; });
    EndLeftTask(run, fd);
}

void BindByHand(Trial& run, SchCtrl* sch, Counted& counted)
{
    const Fd fd = Fd::Event();
    SchTaskCtrl* task = nullptr;
    (void)run.Do("XEL_TaskCreate", {Call::FmmUnitAlloc, TaskTable()},
                 [&] { return (task = XEL_TaskCreate(fd.Get(), counted.attr)) != nullptr; });
    if (task == nullptr) {
        return;
    }
    const bool isHooked = SchDbgIsInit();
    (void)run.Do(
        "XEL_TaskAdd", {Call::XelMemAllocF, Fatal(Call::StrcpyS, isHooked ? 1 : 0)},
        [&] { return XEL_TaskAdd(sch, task) == 0; },
        run.IsFault(Call::StrcpyS) ? Lines::Silent : Lines::Logged);
    (void)run.Do("XEL_TaskDel", {}, [&] { return XEL_TaskDel(sch, task) == 0; });
    EndTask(run, task);
}

void SchedulerLife(Trial& run, Counted& counted, bool hasPolicy)
{
    const Fd epoll = Fd::Epoll();
    SchCtrl* sch = CreateScheduler(run, epoll, hasPolicy);
    if (sch == nullptr) {
        return;
    }
    UseScheduler(run, epoll, sch, counted);
    BindByHand(run, sch, counted);
    EndScheduler(run, sch);
}

// A crowd of ready descriptors, so that registrations are changed while their tasks are queued.
void CrowdLife(Trial& run, Counted& counted)
{
    constexpr u32 kCrowd = 12;
    const Fd epoll = Fd::Epoll();
    SchCtrl* sch = CreateScheduler(run, epoll, true);
    if (sch == nullptr) {
        return;
    }
    std::vector<Fd> fds;
    for (u32 i = 0; i < kCrowd; ++i) {
        fds.push_back(Fd::Event(1));
        SchEpollCtlReq request = {EPOLLIN, counted.attr};
        (void)run.Do(
            "SCH_EpollCtrl add",
            {Call::FmmUnitAlloc, Call::XelMemAllocF, Call::EpollCtl, TaskTable()},
            [&] { return SCH_EpollCtrl(sch, XEL_SCH_EPOLL_ADD, fds.back().Get(), &request) == 0; });
    }
    const bool allBound = Hits() == 0;
    const u32 runs = counted.runs.load();
    for (u32 cycle = 0; allBound && cycle < 3 * kCrowd && counted.runs.load() < runs + kCrowd;
         ++cycle) {
        XEL_SchDispatch(sch);
    }
    EXPECT_TRUE(!allBound || counted.runs.load() == runs + kCrowd);
    EndScheduler(run, sch);
    for (const Fd& fd : fds) {
        SchTaskCtrl* task = SchTaskGetHandleByAppFd(fd.Get());
        if (task != nullptr) {
            EndTask(run, task);
        }
    }
    run.MayLeaveTasks({TaskTable(), TaskLookUp()});
}

// The tables of the process are made anew in each run; a creation that failed is made again.
void FirstInitialisation(Trial& run)
{
    const Fd epoll = Fd::Epoll();
    EXPECT_EQ(SchFinal(), 0U);
    SchCtrl* sch = nullptr;
    const auto create = [&] { return (sch = XEL_SchCreate(epoll.U32(), 16)) != nullptr; };
    run.End("the first XEL_SchCreate",
            {Call::XelMemAllocF, Call::FmmUnitAlloc, Call::FmmCtrlCreate, Call::XelQueCreate,
             Fatal(Call::PthreadRwlockInit), Registry()},
            create);
    EndScheduler(run, sch);
}

void CountInsert(const SchDbgTaskInfo* /*info*/) {}
void CountDel(u32 /*fd*/) {}
void CountStatistic(u32 /*fd*/, u32 /*procTimeUs*/) {}
void CountError(u32 /*epFd*/, u32 /*code*/) {}
void CountTrace(u32 /*epFd*/, const SchDbgTaskTrace* /*trace*/) {}

void HookedLife(Trial& run, Counted& counted)
{
    const SchDbgHookTable table = {CountInsert, CountDel, CountStatistic, CountError, CountTrace};
    (void)run.Do("SCH_RegisterDbgHookTable", {},
                 [&] { return SCH_RegisterDbgHookTable(&table) == 0; });
    SchedulerLife(run, counted, true);
    (void)run.Do("SCH_DeregisterDbgHookTable", {}, [] {
        SCH_DeregisterDbgHookTable();
        return !SchDbgIsInit();
    });
}

class Core : public CleanProcess
{
protected:
    void SetUp() override
    {
        counted_ = std::make_unique<Counted>();
        CleanProcess::SetUp();
    }
    void TearDown() override
    {
        CleanProcess::TearDown();
        counted_.reset();
    }
    void SweepBoth(const char* family, const char* name, const Scenario& scenario)
    {
        Sweep(family, name, Extent::Calls, scenario);
        Sweep(family, name, Extent::Locks, scenario);
    }

    std::unique_ptr<Counted> counted_;
};
using FaultsInTasks = Core;
using FaultsInSchedulers = Core;
using FaultsInHooks = Core;

TEST_F(FaultsInTasks, LeaveNothing)
{
    SweepBoth("tasks", "attributes and a task", TaskLife);
}

TEST_F(FaultsInSchedulers, WithThePolicyLeaveNothing)
{
    SweepBoth("schedulers", "with the policy",
              [this](Trial& run) { SchedulerLife(run, *counted_, true); });
}

TEST_F(FaultsInSchedulers, WithoutPolicyLeaveNothing)
{
    SweepBoth("schedulers", "without policy",
              [this](Trial& run) { SchedulerLife(run, *counted_, false); });
}

TEST_F(FaultsInSchedulers, WithACrowdLoseNobody)
{
    SweepBoth("schedulers", "a crowd", [this](Trial& run) { CrowdLife(run, *counted_); });
}

TEST_F(FaultsInSchedulers, OfTheFirstInitialisationCanBeRepeated)
{
    SweepBoth("schedulers", "first initialisation", FirstInitialisation);
}

TEST_F(FaultsInHooks, LeaveNothing)
{
    SweepBoth("hooks", "a traced scheduler", [this](Trial& run) { HookedLife(run, *counted_); });
}

} // namespace
