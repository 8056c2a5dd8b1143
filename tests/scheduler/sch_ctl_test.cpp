// Epoll control: results, log lines, and the undo of each failure.
#include <cerrno>
#include <sys/mman.h>

#include <gtest/gtest.h>

#include "sch_dispatch_support.h"

namespace
{

using namespace schtest;
using xeltest::Call;

class SchCtl : public SchTest
{
protected:
    static Line OperationFailed(int fd, u32 op, u32 ret = 0xFFFFFFFF)
    {
        return SchLine(Text("Sch operation unsuccessfully. (fd = %d, op = %d, ret = %#x)", fd,
                            static_cast<int>(op), ret));
    }

    // What the kernel reports for a registered descriptor, as "mask data".
    static std::string Reported(const TestSch& sch)
    {
        struct epoll_event event = {};
        if (epoll_wait(sch.EpFd(), &event, 1, 0) != 1) {
            return "nothing";
        }
        return Text("%#x %p", event.events, event.data.ptr);
    }
};

const Line kInvalidHandle = SchLine("Sch get epoll fd unsuccessfully, schHandle invalid.");

TEST_F(SchCtl, RequestIsNeededExceptForDelete)
{
    TestSch sch;
    const Fd fd = Fd::Event();
    for (const u32 op : {0U, 1U, 3U, 0xFFFFFFFFU}) {
        EXPECT_EQ(SCH_EpollCtrl(sch.Get(), op, fd.Get(), nullptr), 0xFFFFFFFFU);
        EXPECT_LINES(SchLine("Sch epoll ctl unsuccessfully, param is null."));
    }
    ASSERT_EQ(AddFd(sch.Get(), fd.Get(), {}), 0U);
    EXPECT_EQ(SCH_EpollCtrl(sch.Get(), 2, fd.Get(), nullptr), 0U);
    EXPECT_LINES();
}

TEST_F(SchCtl, UnknownOperationFails)
{
    TestSch sch;
    const Fd fd = Fd::Event();
    const Attr attr;
    SchEpollCtlReq request{EPOLLIN, attr.Get()};
    for (const u32 op : {3U, 4U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(SCH_EpollCtrl(sch.Get(), op, fd.Get(), &request), 0xFFFFFFFFU);
        EXPECT_LINES(OperationFailed(fd.Get(), op));
    }
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), nullptr);
}

TEST_F(SchCtl, AddCreatesBindsAndRegisters)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), &g_schBfsPolicyOps);
    HookRecorder hooks;
    const Fd fd = Fd::Event();
    EXPECT_EQ(AddFd(sch.Get(), fd.Get(), {NopProc, 5, 1, 3, "added"}, EPOLLOUT | EPOLLET), 0U);
    SchTaskCtrl* task = SchTaskGetHandleByAppFd(fd.Get());
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->schList.next->data, sch->policy);
    const auto ctls = probe.TakeCtls();
    ASSERT_EQ(ctls.size(), 1U);
    EXPECT_EQ(ctls[0].epFd, sch.EpFd());
    EXPECT_EQ(ctls[0].op, 0U);
    EXPECT_EQ(ctls[0].fd, fd.Get());
    EXPECT_EQ(ctls[0].events, EPOLLOUT | EPOLLET | EPOLLIN);
    EXPECT_EQ(ctls[0].data, reinterpret_cast<u64>(task));
    EXPECT_EQ(HookRecorder::Take(), Notes{Text("insert %d %d", sch.EpFd(), fd.Get())});
    EXPECT_EQ(DelFd(sch.Get(), fd.Get()), 0U);
    const auto removal = probe.TakeCtls();
    ASSERT_EQ(removal.size(), 1U);
    EXPECT_EQ(removal[0].op, 2U);
    EXPECT_EQ(removal[0].fd, fd.Get());
    EXPECT_FALSE(removal[0].hasEvent);
    EXPECT_EQ(HookRecorder::Take(), Notes{Text("del %d", fd.Get())});
    EXPECT_EQ(task->magic.load(), 0U);
    EXPECT_LINES();
}

TEST_F(SchCtl, AddWithoutMaskRegistersForInput)
{
    TestSch sch;
    const ReadyTask task(sch.Get(), {}, 1, 0);
    EXPECT_EQ(Reported(sch), Text("0x1 %p", static_cast<void*>(task.Task())));
}

TEST_F(SchCtl, AddThatFailsToCreateTheTaskIsLogged)
{
    TestSch sch;
    const Footprint before = Measure();
    EXPECT_EQ(AddFd(sch.Get(), -1, {}), 0xFFFFFFFFU);
    EXPECT_LINES(TaskLine("scheduler create task unsuccessfully, task fd :-1 invalid."),
                 SchLine("Sch task handle create unsuccessfully. (fd = -1)"),
                 OperationFailed(-1, 0));
    SchEpollCtlReq request{EPOLLIN, nullptr};
    EXPECT_EQ(SCH_EpollCtrl(sch.Get(), 0, 3, &request), 0xFFFFFFFFU);
    EXPECT_LINES(TaskLine("scheduler create task unsuccessfully, param is null."),
                 SchLine("Sch task handle create unsuccessfully. (fd = 3)"), OperationFailed(3, 0));
    EXPECT_EQ(Measure(), before);
}

TEST_F(SchCtl, AddOfADescriptorThatHasATaskLeavesThatTaskAlone)
{
    TestSch sch;
    const ReadyTask task(sch.Get(), {});
    SchTaskCtrl* handle = task.Task();
    EXPECT_EQ(AddFd(sch.Get(), task.Fd(), {}), 0xFFFFFFFFU);
    EXPECT_LINES(TaskLine(Text("Task fd has already create task. (fd = %d)", task.Fd())),
                 SchLine(Text("Sch task handle create unsuccessfully. (fd = %d)", task.Fd())),
                 OperationFailed(task.Fd(), 0));
    EXPECT_EQ(task.Task(), handle);
    EXPECT_EQ(Reported(sch), Text("0x1 %p", static_cast<void*>(handle)));
}

TEST_F(SchCtl, AddThatFailsToBindIsUndone)
{
    TestSch sch;
    HookRecorder hooks;
    const Fd fd = Fd::Event(1);
    const Attr attr;
    SchEpollCtlReq request{EPOLLIN, attr.Get()};
    const Footprint before = Measure();
    xeltest::FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(SCH_EpollCtrl(sch.Get(), 0, fd.Get(), &request), 0xFFFFFFFFU);
    EXPECT_LINES(TaskLine("task add scheduler unsuccessfully, alloc sll unsuccessfully."),
                 SchLine(Text("Sch task add unsuccessfully. (epollFd = %d, fd = %d, ret = 0xc)",
                              sch.EpFd(), fd.Get())),
                 OperationFailed(fd.Get(), 0));
    EXPECT_EQ(Measure(), before);
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), nullptr);
    EXPECT_EQ(Reported(sch), "nothing");
    EXPECT_EQ(HookRecorder::Take(), Notes{});
}

TEST_F(SchCtl, AddToADamagedSchedulerIsUndone)
{
    TestSch sch;
    const Fd fd = Fd::Event(1);
    const Footprint before = Measure();
    sch->magic.store(6);
    EXPECT_EQ(AddFd(sch.Get(), fd.Get(), {}), 0xFFFFFFFFU);
    EXPECT_LINES(SchLine("sch handle magic destroy, magic = 0x6."), kInvalidHandle,
                 SchLine(Text("Sch task add unsuccessfully. (epollFd = %d, fd = %d, ret = 0x16)",
                              sch.EpFd(), fd.Get())),
                 OperationFailed(fd.Get(), 0));
    sch->magic.store(0xFBADBEEF);
    EXPECT_EQ(Measure(), before);
}

TEST_F(SchCtl, AddThatFailsToRegisterIsUndone)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), &g_schBfsPolicyOps);
    HookRecorder hooks;
    const Fd fd = Fd::Event(1);
    const Footprint before = Measure();
    probe.onCtl = [](const EpollProbe::Ctl&) { return -1; };
    probe.errNo.store(28);
    EXPECT_EQ(AddFd(sch.Get(), fd.Get(), {}), 0xFFFFFFFFU);
    EXPECT_LINES(
        SchLine(Text("Sch fd add to epoll unsuccessfully. (epollFd = %d, fd = %d, mistake = 28)",
                     sch.EpFd(), fd.Get())),
        OperationFailed(fd.Get(), 0));
    EXPECT_EQ(Measure(), before);
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), nullptr);
    EXPECT_EQ(HookRecorder::Take(),
              (Notes{Text("insert %d %d", sch.EpFd(), fd.Get()), Text("del %d", fd.Get())}));
    probe.onCtl = nullptr;
}

// Only a negative answer of the registration is a failure.
TEST_F(SchCtl, PositiveAnswerOfTheRegistrationPasses)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), nullptr);
    probe.onCtl = [](const EpollProbe::Ctl&) { return 1; };
    const Fd fd = Fd::Event();
    EXPECT_EQ(AddFd(sch.Get(), fd.Get(), {}), 0U);
    EXPECT_LINES();
    probe.onCtl = [](const EpollProbe::Ctl&) { return 0; };
    EXPECT_EQ(DelFd(sch.Get(), fd.Get()), 0U);
}

TEST_F(SchCtl, AddOfARegularFileFailsInTheKernel)
{
    TestSch sch;
    const Fd file(memfd_create("regular", MFD_CLOEXEC));
    const Footprint before = Measure();
    EXPECT_EQ(AddFd(sch.Get(), file.Get(), {}), 0xFFFFFFFFU);
    EXPECT_LINES(
        SchLine(Text("Sch fd add to epoll unsuccessfully. (epollFd = %d, fd = %d, mistake = 1)",
                     sch.EpFd(), file.Get())),
        OperationFailed(file.Get(), 0));
    EXPECT_EQ(Measure(), before);
}

TEST_F(SchCtl, ModifyChangesTheTaskAndLeavesTheRegistration)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), &g_schBfsPolicyOps);
    ReadyTask task(sch.Get(), {NopProc, 1, 0, 0, "before"});
    SchTaskCtrl* handle = task.Task();
    const u32 version = handle->version;
    (void)probe.TakeCtls();
    EXPECT_EQ(ModFd(sch.Get(), task.Fd(), {DrainProc, 2, 3, 31, "after"}, EPOLLOUT), 0U);
    EXPECT_TRUE(probe.TakeCtls().empty());
    EXPECT_EQ(task.Task(), handle);
    EXPECT_EQ(handle->version, version);
    EXPECT_EQ(handle->proc, DrainProc);
    EXPECT_EQ(handle->data, 2U);
    EXPECT_EQ(handle->type, 3U);
    EXPECT_EQ(handle->prio, 31U);
    EXPECT_STREQ(handle->name, "after");
    EXPECT_EQ(Reported(sch), Text("0x1 %p", static_cast<void*>(handle)));
    EXPECT_LINES();
}

TEST_F(SchCtl, ModifyLooksAtTheTaskOnly)
{
    TestSch sch;
    TestSch other;
    const ReadyTask task(sch.Get(), {NopProc, 1});
    sch->magic.store(6);
    EXPECT_EQ(ModFd(sch.Get(), task.Fd(), {NopProc, 2}), 0U) << "a damaged scheduler";
    EXPECT_EQ(task.Task()->data, 2U);
    sch->magic.store(0xFBADBEEF);
    EXPECT_EQ(ModFd(other.Get(), task.Fd(), {NopProc, 3}), 0U) << "one it is not bound to";
    EXPECT_EQ(task.Task()->data, 3U);
    EXPECT_LINES();
}

// Another thread deletes the descriptor once its task has been looked up, and the task of another
// one gets the unit: that one is not touched.
class SchCtlTurnover : public SchCtl
{
protected:
    void SetUp() override
    {
        SchCtl::SetUp();
        ASSERT_EQ(AddFd(sch_.Get(), gone_.Get(), {NopProc, 1}), 0U);
        xeltest::RunAfterNth(xeltest::Call::PthreadRwlockUnlock, 1, [this] {
            const SchTaskCtrl* before = SchTaskGetHandleByAppFd(gone_.Get());
            EXPECT_EQ(DelFd(sch_.Get(), gone_.Get()), 0U);
            EXPECT_EQ(AddFd(sch_.Get(), other_.Get(), {NopProc, 2}), 0U);
            EXPECT_EQ(SchTaskGetHandleByAppFd(other_.Get()), before) << "taken first";
        });
    }
    // The other one is bound and registered as it was made.
    void ExpectOtherUntouched()
    {
        const SchTaskCtrl* task = SchTaskGetHandleByAppFd(other_.Get());
        ASSERT_NE(task, nullptr);
        EXPECT_EQ(task->data, 2U);
        EXPECT_EQ(task->schCount, 1U);
        EXPECT_EQ(Reported(sch_), Text("0x1 %p", static_cast<const void*>(task)));
        EXPECT_EQ(DelFd(sch_.Get(), other_.Get()), 0U);
    }

    TestSch sch_;
    Fd gone_ = Fd::Event(1);
    Fd other_ = Fd::Event(1);
};

TEST_F(SchCtlTurnover, ModifyLeavesTheOtherAlone)
{
    EXPECT_EQ(ModFd(sch_.Get(), gone_.Get(), {NopProc, 3}), 0xFFFFFFFFU);
    EXPECT_LINES(TaskLine("Task modify unsuccessfully, fd handle had been destroyed already, "
                          "init = 0."),
                 TaskLine("Sch modify attribute unsuccessfully, ret = -1."),
                 SchLine("Sch fd modify unsuccessfully."), OperationFailed(gone_.Get(), 1));
    ExpectOtherUntouched();
}

TEST_F(SchCtlTurnover, DeleteLeavesTheOtherAlone)
{
    EXPECT_EQ(DelFd(sch_.Get(), gone_.Get()), 0xFFFFFFFFU);
    EXPECT_LINES(SchLine("Sch delete fd unsuccessfully, invalid task handle."),
                 OperationFailed(gone_.Get(), 2));
    ExpectOtherUntouched();
}

// The descriptor was closed meanwhile, so its registration is no longer known.
TEST_F(SchCtlTurnover, FailedDeleteDoesNotDestroyTheOther)
{
    xeltest::ResetFaults();
    xeltest::FailNth(xeltest::Call::EpollCtl, 1, -1, EBADF);
    xeltest::RunAtNth(xeltest::Call::EpollCtl, 1, [this] {
        XEL_TaskDestroy(SchTaskGetHandleByAppFd(gone_.Get()));
        EXPECT_EQ(AddFd(sch_.Get(), other_.Get(), {NopProc, 2}), 0U);
    });
    EXPECT_EQ(DelFd(sch_.Get(), gone_.Get()), 0xFFFFFFFFU);
    EXPECT_LINES(SchLine(Text("Sch epoll del fd unsuccessfully. (epFd = %d, fd = %d, errno = %d)",
                              sch_.EpFd(), gone_.Get(), EBADF)),
                 OperationFailed(gone_.Get(), 2));
    EXPECT_EQ(epoll_ctl(sch_.EpFd(), EPOLL_CTL_DEL, gone_.Get(), nullptr), 0);
    ExpectOtherUntouched();
}

TEST_F(SchCtl, ModifyOfADescriptorWithoutTaskFails)
{
    TestSch sch;
    const Fd fd = Fd::Event();
    EXPECT_EQ(ModFd(sch.Get(), fd.Get(), {}), 0xFFFFFFFFU);
    EXPECT_LINES(SchLine("Sch operation mod unsuccessfully, fd handle is null."),
                 OperationFailed(fd.Get(), 1));
}

TEST_F(SchCtl, ModifyWithABadAttributeFailsAndChangesNothing)
{
    TestSch sch;
    ReadyTask task(sch.Get(), {NopProc, 1, 0, 0, "before"});
    SchEpollCtlReq request{EPOLLIN, nullptr};
    EXPECT_EQ(SCH_EpollCtrl(sch.Get(), 1, task.Fd(), &request), 0xFFFFFFFFU);
    EXPECT_LINES(TaskLine("Sch modify attribute unsuccessfully, param is null."),
                 SchLine("Sch fd modify unsuccessfully."), OperationFailed(task.Fd(), 1));
    const Attr attr;
    attr.Get()->prio = 32;
    request.attr = attr.Get();
    EXPECT_EQ(SCH_EpollCtrl(sch.Get(), 1, task.Fd(), &request), 0xFFFFFFFFU);
    EXPECT_LINES(TaskLine("scheduler task param priority invalid."),
                 TaskLine("Sch modify attribute unsuccessfully, param invalid."),
                 SchLine("Sch fd modify unsuccessfully."), OperationFailed(task.Fd(), 1));
    EXPECT_STREQ(task.Task()->name, "before");
}

TEST_F(SchCtl, DeleteOfADescriptorWithoutTaskFails)
{
    TestSch sch;
    const Fd fd = Fd::Event();
    EXPECT_EQ(DelFd(sch.Get(), fd.Get()), 0xFFFFFFFFU);
    EXPECT_LINES(SchLine("Sch delete fd unsuccessfully, invalid task handle."),
                 OperationFailed(fd.Get(), 2));
}

TEST_F(SchCtl, DeleteThroughADamagedSchedulerPassesTheCodeOn)
{
    TestSch sch;
    ReadyTask task(sch.Get(), {});
    sch->magic.store(6);
    EXPECT_EQ(SchDestroyTask(sch.Get(), task.Fd()), 22U);
    EXPECT_LINES(SchLine("sch handle magic destroy, magic = 0x6."), kInvalidHandle,
                 SchLine("Sch delete task unsuccessfully. (ret = 0x16)"));
    EXPECT_EQ(DelFd(sch.Get(), task.Fd()), 0xFFFFFFFFU);
    EXPECT_LINES(SchLine("sch handle magic destroy, magic = 0x6."), kInvalidHandle,
                 SchLine("Sch delete task unsuccessfully. (ret = 0x16)"),
                 OperationFailed(task.Fd(), 2, 22));
    sch->magic.store(0xFBADBEEF);
    EXPECT_EQ(task.Task()->schCount, 1U) << "still bound";
}

// The kernel does not know the descriptor: its task is unbound, but lives on.
TEST_F(SchCtl, DeleteOfAnUnregisteredDescriptorKeepsTheTask)
{
    TestSch sch;
    HookRecorder hooks;
    const Fd fd = Fd::Event();
    SchTaskCtrl* task = MakeTask(fd.Get());
    ASSERT_EQ(XEL_TaskAdd(sch.Get(), task), 0U);
    (void)HookRecorder::Take();
    EXPECT_EQ(DelFd(sch.Get(), fd.Get()), 0xFFFFFFFFU);
    EXPECT_LINES(SchLine(Text("Sch epoll del fd unsuccessfully. (epFd = %d, fd = %d, errno = 2)",
                              sch.EpFd(), fd.Get())),
                 OperationFailed(fd.Get(), 2));
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), task);
    EXPECT_EQ(task->schCount, 0U);
    EXPECT_EQ(HookRecorder::Take(), Notes{Text("del %d", fd.Get())});
    XEL_TaskDestroy(task);
}

TEST_F(SchCtl, DeleteThatFailsOtherwiseDestroysTheTask)
{
    TestSch sch;
    Fd fd = Fd::Event();
    const int number = fd.Get();
    ASSERT_EQ(AddFd(sch.Get(), number, {}), 0U);
    fd.Reset(); // the kernel forgets a closed descriptor
    EXPECT_EQ(DelFd(sch.Get(), number), 0xFFFFFFFFU);
    EXPECT_LINES(SchLine(Text("Sch epoll del fd unsuccessfully. (epFd = %d, fd = %d, errno = 9)",
                              sch.EpFd(), number)),
                 OperationFailed(number, 2));
    EXPECT_EQ(SchTaskGetHandleByAppFd(number), nullptr);
}

// The line shows what the operations' own error query says; the thread's errno decides.
TEST_F(SchCtl, DeleteLooksAtErrnoForTheTaskAndAtTheOperationsForTheLine)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), nullptr);
    const auto failWith = [&](int threadErrno, int shown) {
        probe.onCtl = [threadErrno](const EpollProbe::Ctl& ctl) {
            errno = threadErrno;
            return ctl.op == 2 ? -1 : 0;
        };
        probe.errNo.store(shown);
    };
    const Fd fd = Fd::Event();
    failWith(ENOENT, 77);
    ASSERT_EQ(AddFd(sch.Get(), fd.Get(), {}), 0U);
    EXPECT_EQ(DelFd(sch.Get(), fd.Get()), 0xFFFFFFFFU);
    SchTaskCtrl* task = SchTaskGetHandleByAppFd(fd.Get());
    ASSERT_NE(task, nullptr);
    const Line line = SchLine(Text(
        "Sch epoll del fd unsuccessfully. (epFd = %d, fd = %d, errno = 77)", sch.EpFd(), fd.Get()));
    EXPECT_LINES(line, OperationFailed(fd.Get(), 2));
    failWith(EBADF, ENOENT);
    EXPECT_EQ(DelFd(sch.Get(), fd.Get()), 0xFFFFFFFFU);
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), nullptr);
    EXPECT_EQ(TakeLines().size(), 2U);
    probe.onCtl = [](const EpollProbe::Ctl&) { return 0; };
}

// Neither the error query nor the log may change what decides.
TEST_F(SchCtl, DeleteRemembersTheErrnoOfTheFailedCall)
{
    EpollProbe probe;
    TestSch sch(probe.Ops(), nullptr);
    const Fd fd = Fd::Event();
    for (const auto& [failed, later] : {std::pair(EBADF, ENOENT), std::pair(ENOENT, EBADF)}) {
        probe.clobber.store(-1);
        ASSERT_EQ(AddFd(sch.Get(), fd.Get(), {}), 0U);
        probe.clobber.store(later);
        probe.onCtl = [failed = failed](const EpollProbe::Ctl&) {
            errno = failed;
            return -1;
        };
        EXPECT_EQ(DelFd(sch.Get(), fd.Get()), 0xFFFFFFFFU);
        const Lines lines = TakeLines();
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_TRUE(lines[0].text.ends_with(Text("errno = %d)", failed))) << lines[0].text;
        EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()) != nullptr, failed == ENOENT);
        probe.onCtl = nullptr;
        (void)SchLinuxEpollCtlAdapt(sch.EpFd(), 2, fd.Get(), nullptr);
    }
    XEL_TaskDestroy(SchTaskGetHandleByAppFd(fd.Get()));
}

TEST_F(SchCtl, StepsAnswerOneByOne)
{
    TestSch sch;
    const Fd fd = Fd::Event();
    const Attr attr;
    SchEpollCtlReq request{0, attr.Get()};
    EXPECT_EQ(SchCreateTask(sch.Get(), fd.Get(), &request), 0U);
    EXPECT_EQ(SchModifyTask(sch.Get(), fd.U32(), &request), 0U);
    HookRecorder hooks;
    SchDbgDelTask(sch.Get(), SchTaskGetHandleByAppFd(fd.Get()));
    EXPECT_EQ(HookRecorder::Take(), Notes{Text("del %d", fd.Get())});
    EXPECT_EQ(SchDestroyTask(sch.Get(), fd.Get()), 0U);
    EXPECT_EQ(SchModifyTask(sch.Get(), fd.U32(), &request), 0xFFFFFFFFU);
    EXPECT_EQ(SchDestroyTask(sch.Get(), fd.Get()), 0xFFFFFFFFU);
    EXPECT_LINES(SchLine("Sch operation mod unsuccessfully, fd handle is null."),
                 SchLine("Sch delete fd unsuccessfully, invalid task handle."));
}

TEST_F(SchCtl, LinuxOperationsAreMapped)
{
    const Fd epoll = Fd::Epoll();
    const Fd fd = Fd::Event(1);
    struct epoll_event event = {EPOLLIN, {nullptr}};
    struct epoll_event out = {};
    EXPECT_EQ(SchLinuxEpollCtlAdapt(epoll.Get(), 0, fd.Get(), &event), 0);
    EXPECT_EQ(epoll_wait(epoll.Get(), &out, 1, 0), 1);
    event.events = EPOLLOUT;
    EXPECT_EQ(SchLinuxEpollCtlAdapt(epoll.Get(), 1, fd.Get(), &event), 0);
    EXPECT_EQ(epoll_wait(epoll.Get(), &out, 1, 0), 1);
    EXPECT_EQ(u32{out.events}, u32{EPOLLOUT});
    EXPECT_EQ(SchLinuxEpollCtlAdapt(epoll.Get(), 2, fd.Get(), nullptr), 0);
    EXPECT_EQ(epoll_wait(epoll.Get(), &out, 1, 0), 0);
}

TEST_F(SchCtl, UnknownLinuxOperationIsRefusedByTheKernel)
{
    const Fd epoll = Fd::Epoll();
    const Fd fd = Fd::Event();
    struct epoll_event event = {EPOLLIN, {nullptr}};
    for (const u32 op : {3U, 4U, 0xFFFFFFFFU}) {
        errno = 0;
        EXPECT_EQ(SchLinuxEpollCtlAdapt(epoll.Get(), op, fd.Get(), &event), -1);
        EXPECT_EQ(SchLinuxEpollGetErrNoAdapt(), EINVAL);
    }
    EXPECT_EQ(SchLinuxEpollCtlAdapt(epoll.Get(), 2, fd.Get(), nullptr), -1);
    EXPECT_EQ(SchLinuxEpollGetErrNoAdapt(), ENOENT);
}

} // namespace
