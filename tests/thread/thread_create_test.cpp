// Creation of a scheduler thread: what the new thread looks like, and every step failing in turn
// with nothing left behind.
#include <cerrno>
#include <climits>
#include <sys/epoll.h>

#include "thread_support.h"

namespace
{

using namespace threadtest;
using namespace xeltest;

constexpr char kNoScheduler[] = "Thread create, alloc memory for thread arg unsuccessfully.";

class ThreadCreate : public ThreadTest
{
protected:
    // A refused creation: null, the lines, and one count less for the record that was never listed.
    void ExpectRefused(const XelThreadAttr* attr, const std::vector<ExpectedLine>& lines)
    {
        const Footprint before = Measure();
        EXPECT_EQ(XEL_ThreadCreate(attr), nullptr);
        EXPECT_TRUE(LogIs(kThreadSource, lines));
        EXPECT_EQ(Measure(), before);
        EXPECT_EQ(g_xelThreadCtrlMng.count, listed_ - 1);
        g_xelThreadCtrlMng.count = listed_;
        EXPECT_EQ(g_xelThreadCtrlMng.head.next, &g_xelThreadCtrlMng.head);
        EXPECT_EQ(g_xelThreadCtrlMng.head.prev, &g_xelThreadCtrlMng.head);
        ResetFaults();
    }
};

TEST_F(ThreadCreate, NullAttributeIsRefused)
{
    EXPECT_EQ(XEL_ThreadCreate(nullptr), nullptr);
    EXPECT_LOG(kThreadSource, "Thread create, thread param invalid.");
}

TEST_F(ThreadCreate, NoMemoryForTheRecordIsSilent)
{
    const ThreadAttr attr;
    const u64 before = Calls(Call::XelMemAllocF);
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(XEL_ThreadCreate(attr.Get()), nullptr);
    EXPECT_NO_LOG();
    EXPECT_EQ(Calls(Call::XelMemAllocF), before + 1);
    EXPECT_EQ(Calls(Call::EpollCreate), 0U);
}

TEST_F(ThreadCreate, NameIsMandatory)
{
    const ThreadAttr attr(nullptr);
    ExpectRefused(attr.Get(), {"Thread ctrl init, thread name is empty."});
}

TEST_F(ThreadCreate, FailedNameCopyIsRefused)
{
    const ThreadAttr attr;
    FailNth(Call::StrncpyS, 1, ERANGE);
    ExpectRefused(attr.Get(), {"Thread ctrl init, set thread name unsuccessfully. (errNo = 34)"});
}

TEST_F(ThreadCreate, NoEpollDescriptorIsRefused)
{
    const ThreadAttr attr;
    FailNth(Call::EpollCreate, 1, -1, EMFILE);
    ExpectRefused(
        attr.Get(),
        {From(kThreadEpollSource, "Thread create ctrl, epoll create unsuccessfully. (errno = 24)"),
         "Thread create ctrl, epoll create unsuccessfully. (ret = 0xffffffff)", kNoScheduler});
}

// The kernel refuses a size of 0, so it must have been told.
TEST_F(ThreadCreate, EpollSizeIsHandedToEpoll)
{
    const ThreadAttr attr;
    attr->epSize = 0;
    ExpectRefused(
        attr.Get(),
        {From(kThreadEpollSource, "Thread create ctrl, epoll create unsuccessfully. (errno = 22)"),
         "Thread create ctrl, epoll create unsuccessfully. (ret = 0xffffffff)", kNoScheduler});
}

TEST_F(ThreadCreate, MeshTypeIsRefused)
{
    const ThreadAttr attr;
    attr->epollType = 1;
    ExpectRefused(attr.Get(),
                  {From(kThreadEpollSource, "Thread epoll init, mesh type is not support."),
                   "Thread create ctrl, epoll create unsuccessfully. (ret = 0x16)", kNoScheduler});
    EXPECT_EQ(Calls(Call::EpollCreate), 0U);
}

TEST_F(ThreadCreate, UnknownPolicyIsRefused)
{
    const ThreadAttr attr;
    attr->policy = 7;
    ExpectRefused(attr.Get(), {"Thread create ctrl, policy init unsuccessfully. (ret = 0xffffffff)",
                               kNoScheduler});
}

// Each attribute has every later fault as well.
TEST_F(ThreadCreate, StepsRunInTheirOrder)
{
    const ThreadAttr attr(nullptr);
    attr->epollType = 1;
    attr->policy = 7;
    attr->epSize = 5000;
    ExpectRefused(attr.Get(), {"Thread ctrl init, thread name is empty."});
    attr->name[0] = 'n';
    ExpectRefused(attr.Get(),
                  {From(kThreadEpollSource, "Thread epoll init, mesh type is not support."),
                   "Thread create ctrl, epoll create unsuccessfully. (ret = 0x16)", kNoScheduler});
    attr->epollType = 0;
    ExpectRefused(attr.Get(), {"Thread create ctrl, policy init unsuccessfully. (ret = 0xffffffff)",
                               kNoScheduler});
}

// Whatever the step itself answered, the whole has one code.
TEST_F(ThreadCreate, FailedSchedulerLeavesTheRecord)
{
    XelThreadCtrl record = {};
    record.epFd = -1;
    record.epollType = 1;
    EXPECT_EQ(SchThreadCtrlCreate(8, &record), kFail);
    EXPECT_LOG(kThreadSource,
               From(kThreadEpollSource, "Thread epoll init, mesh type is not support."),
               "Thread create ctrl, epoll create unsuccessfully. (ret = 0x16)");
    record.epollType = 0;
    EXPECT_EQ(SchThreadCtrlCreate(5000, &record), kFail);
    EXPECT_LOG(
        kThreadSource,
        From(kSchSource, "Sch create unsuccessfully, epoll size is too large. (epoll size = 5000)"),
        "Thread create ctrl, create scheduler unsuccessfully.");
    EXPECT_EQ(record.epFd, -1);
    EXPECT_EQ(record.sch, nullptr);
}

TEST_F(ThreadCreate, EpollSizeAbove4096IsRefused)
{
    for (const i32 size : {4097, INT_MAX}) {
        ThreadAttr attr;
        attr.Set(XEL_THREAD_ATTR_EP_SIZE, static_cast<u32>(size));
        ExpectRefused(
            attr.Get(),
            {From(kSchSource,
                  Text("Sch create unsuccessfully, epoll size is too large. (epoll size = %d)",
                       size)),
             "Thread create ctrl, create scheduler unsuccessfully.", kNoScheduler});
    }
}

TEST_F(ThreadCreate, EpollSize4096IsAccepted)
{
    ThreadAttr attr;
    attr.Set(XEL_THREAD_ATTR_EP_SIZE, 4096);
    const Worker worker(attr);
    EXPECT_EQ(worker->epSize, 4096U);
    EXPECT_EQ(worker->sch->epSize, 4096U);
}

TEST_F(ThreadCreate, NoEventBufferIsRefused)
{
    const ThreadAttr attr;
    FailNth(Call::XelMemAllocF, 2);
    ExpectRefused(attr.Get(),
                  {From(kSchSource, Text("Sch param init, malloc event buffer unsuccessfully. "
                                         "(size = %zu)",
                                         32 * sizeof(struct epoll_event))),
                   From(kSchSource, "Sch create unsuccessfully, create ts handle unsuccessfully, "
                                    "epFd = " +
                                        std::to_string(NextFd()) + ", epSize = 32."),
                   "Thread create ctrl, create scheduler unsuccessfully.", kNoScheduler});
}

TEST_F(ThreadCreate, NoThreadIsRefused)
{
    const ThreadAttr attr;
    FailNth(Call::PthreadCreate, 1, EAGAIN);
    ExpectRefused(attr.Get(), {"Thread create, create thread unsuccessfully. (errno = 11)."});
    EXPECT_EQ(ThreadsNamed("worker"), 0U);
}

// Every allocation, pool, unit, queue and lock that the creation asks for, failing in turn.
TEST_F(ThreadCreate, EveryFailingServiceIsUndone)
{
    const ThreadAttr attr;
    for (const Call call : {Call::XelMemAllocF, Call::FmmCtrlCreate, Call::XelQueCreate,
                            Call::EpollCreate, Call::PthreadCreate}) {
        u64 nth = 1;
        for (;; ++nth) {
            const Footprint before = Measure();
            ResetFaults();
            FailNth(call, nth);
            XelThreadCtrl* thread = XEL_ThreadCreate(attr.Get());
            if (thread != nullptr) {
                ResetFaults();
                EXPECT_EQ(SchEventThreadDestory(thread), 0U);
                break;
            }
            DropLog();
            EXPECT_EQ(Measure(), before) << static_cast<u32>(call) << ' ' << nth;
        }
        EXPECT_GE(nth, 2U) << static_cast<u32>(call);
        DropLog();
    }
    g_xelThreadCtrlMng.count = listed_;
}

// The registry's entry and its lock; only a negative answer of the lock is a failure there.
TEST_F(ThreadCreate, FailingRegistryIsUndone)
{
    const ThreadAttr attr;
    const std::string created = "Sch create unsuccessfully, create ts handle unsuccessfully, "
                                "epFd = " +
                                std::to_string(NextFd()) + ", epSize = 32.";
    const std::vector<ExpectedLine> tail = {From(kSchSource, created),
                                            "Thread create ctrl, create scheduler unsuccessfully.",
                                            kNoScheduler};
    std::vector<ExpectedLine> lines = tail;
    lines.insert(lines.begin(),
                 From(kSchSource, "Sch ctrl create, malloc control unsuccessfully."));
    FailNth(Call::FmmUnitAlloc, 1);
    ExpectRefused(attr.Get(), lines);
    lines = tail;
    lines.insert(lines.begin(),
                 From(kSchSource, "Sch ctrl create, write lock unsuccessfully. (ret = -3)"));
    FailNth(Call::PthreadRwlockWrlock, 1, -3);
    ExpectRefused(attr.Get(), lines);
}

TEST_F(ThreadCreate, RecordHoldsTheAttributes)
{
    ThreadAttr attr("fifteen-letters");
    const XelDeadloopThreshold threshold{50, 60, 70, 80};
    attr.Set(XEL_THREAD_ATTR_EP_SIZE, 77).Set(XEL_THREAD_ATTR_STACK_SIZE, 1U << 20);
    ASSERT_EQ(XEL_ThreadSetAttr(attr.Get(), XEL_THREAD_ATTR_DEADLOOP_PARAM, &threshold, 16), 0U);
    const Worker worker(attr);
    const XelThreadCtrl* thread = worker.Get();
    EXPECT_EQ(At<u32>(thread, 0), 0xFBADBFFFU);
    EXPECT_EQ(At<u32>(thread, 4), 77U);
    EXPECT_STREQ(reinterpret_cast<const char*>(thread) + 8, "fifteen-letters");
    EXPECT_EQ(At<XelLink*>(thread, 24), &g_xelThreadCtrlMng.head);
    EXPECT_EQ(At<XelLink*>(thread, 32), &g_xelThreadCtrlMng.head);
    EXPECT_NE(At<u64>(thread, 40), 0U);
    EXPECT_EQ(At<u32>(thread, 48), 1U << 20);
    EXPECT_GE(At<i32>(thread, 52), 0);
    EXPECT_EQ(worker->exitValue.load(), 0U);
    EXPECT_EQ(worker->exited.load(), 0U);
    EXPECT_EQ(worker->destroyFd.load(), -1);
    EXPECT_EQ(At<SchCtrl*>(thread, 72), worker->sch);
    for (u32 i = 0; i < 4; ++i) {
        EXPECT_EQ(At<u32>(thread, 80 + 4 * i), 50 + 10 * i);
    }
    EXPECT_EQ(At<u32>(thread, 96), 0U);
    EXPECT_EQ(At<u32>(thread, 100), 1U);
}

TEST_F(ThreadCreate, FieldsStandAtTheirOffsets)
{
    EXPECT_EQ(offsetof(XelThreadCtrl, magic), 0U);
    EXPECT_EQ(offsetof(XelThreadCtrl, epSize), 4U);
    EXPECT_EQ(offsetof(XelThreadCtrl, name), 8U);
    EXPECT_EQ(offsetof(XelThreadCtrl, link), 24U);
    EXPECT_EQ(offsetof(XelThreadCtrl, tid), 40U);
    EXPECT_EQ(offsetof(XelThreadCtrl, stackSize), 48U);
    EXPECT_EQ(offsetof(XelThreadCtrl, epFd), 52U);
    EXPECT_EQ(offsetof(XelThreadCtrl, exitValue), 56U);
    EXPECT_EQ(offsetof(XelThreadCtrl, exited), 64U);
    EXPECT_EQ(offsetof(XelThreadCtrl, destroyFd), 68U);
    EXPECT_EQ(offsetof(XelThreadCtrl, sch), 72U);
    EXPECT_EQ(offsetof(XelThreadCtrl, deadloop), 80U);
    EXPECT_EQ(offsetof(XelThreadCtrl, epollType), 96U);
    EXPECT_EQ(offsetof(XelThreadCtrl, policy), 100U);
    EXPECT_EQ(sizeof(XelThreadCtrl), 104U);
}

TEST_F(ThreadCreate, InitFillsARecord)
{
    const ThreadAttr attr("made");
    XelThreadCtrl record = {};
    record.epFd = 5;
    record.exitValue.store(5);
    record.destroyFd.store(5);
    EXPECT_EQ(ThreadCtrlInit(&record, attr.Get()), 0U);
    EXPECT_EQ(record.magic, 0xFBADBFFFU);
    EXPECT_EQ(record.exitValue.load(), 0U);
    EXPECT_EQ(record.epFd, -1);
    EXPECT_EQ(record.destroyFd.load(), -1);
    EXPECT_EQ(record.link.next, &record.link);
    EXPECT_EQ(record.link.prev, &record.link);
    EXPECT_STREQ(record.name, "made");
    EXPECT_EQ(record.policy, 1U);
    EXPECT_EQ(record.epSize, 32U);
}

TEST_F(ThreadCreate, NameWithoutEndIsCutAtFifteenCharacters)
{
    const ThreadAttr attr;
    memset(attr->name, 'x', sizeof(attr->name));
    XelThreadCtrl record = {};
    EXPECT_EQ(ThreadCtrlInit(&record, attr.Get()), 0U);
    EXPECT_EQ(std::string(record.name), std::string(15, 'x'));
    EXPECT_NO_LOG();
}

TEST_F(ThreadCreate, SchedulerBelongsToTheThread)
{
    const Worker worker;
    EXPECT_EQ(worker->sch->magic.load(), 0xFBADBEEFU);
    EXPECT_EQ(worker->sch->epFd.load(), worker->epFd);
    EXPECT_EQ(worker->sch->epSize, 32U);
    EXPECT_EQ(SchGetSchHandleByEpFd(static_cast<u32>(worker->epFd)), worker->sch);
    EXPECT_EQ(worker->sch->epollOps.ctl, SchLinuxEpollCtlAdapt);
    EXPECT_EQ(worker->sch->epollOps.getErrNo, SchLinuxEpollGetErrNoAdapt);
    EXPECT_EQ(worker->sch->epollOps.reserved, nullptr);
}

TEST_F(ThreadCreate, PolicyIsBfsUnlessNoneIsAsked)
{
    const Worker bfs;
    EXPECT_NE(bfs->sch->policy, nullptr);
    EXPECT_EQ(memcmp(&bfs->sch->policyOps, &g_schBfsPolicyOps, sizeof(SchPolicyOps)), 0);
    ThreadAttr attr;
    attr.Set(XEL_THREAD_ATTR_SCHEDULE_POLICY, XEL_SCH_POLICY_NONE);
    const Worker none(attr);
    const SchPolicyOps empty = {};
    EXPECT_EQ(none->policy, 0U);
    EXPECT_EQ(none->sch->policy, nullptr);
    EXPECT_EQ(memcmp(&none->sch->policyOps, &empty, sizeof(SchPolicyOps)), 0);
}

TEST_F(ThreadCreate, PolicyTableHasAnEmptyAndABfsRow)
{
    SchPolicyOps ops = {};
    EXPECT_EQ(SchThreadInitPolicy(0, &ops), 0U);
    EXPECT_EQ(ops.create, nullptr);
    EXPECT_EQ(ops.getEventLeft, nullptr);
    for (const auto init : {+[](SchPolicyOps* out) { return SchThreadInitPolicy(1, out); },
                            +[](SchPolicyOps* out) { return SchThreadInitBfsPolicy(out); }}) {
        ops = {};
        EXPECT_EQ(init(&ops), 0U);
        EXPECT_EQ(ops.create, SCH_BfsCreatePolicy);
        EXPECT_EQ(ops.destroy, SCH_BfsDestroyPolicy);
        EXPECT_EQ(ops.prepare, SCH_BfsResPrepare);
        EXPECT_EQ(ops.insert, SCH_BfsInsertEvents);
        EXPECT_EQ(ops.select, SCH_BfsSelectEvents);
        EXPECT_EQ(ops.getEventCache, SCH_BfsGetEventCache);
        EXPECT_EQ(ops.getEventLeft, SCH_BfsGetEventLeft);
    }
    EXPECT_NO_LOG();
}

TEST_F(ThreadCreate, NewThreadsAreListedAtTheHead)
{
    const Worker first("first");
    EXPECT_EQ(g_xelThreadCtrlMng.count, listed_ + 1);
    const Worker second("second");
    EXPECT_EQ(g_xelThreadCtrlMng.count, listed_ + 2);
    EXPECT_EQ(g_xelThreadCtrlMng.head.next, &second->link);
    EXPECT_EQ(second->link.next, &first->link);
    EXPECT_EQ(first->link.next, &g_xelThreadCtrlMng.head);
    EXPECT_EQ(g_xelThreadCtrlMng.head.prev, &first->link);
}

// The magic of the attribute is not looked at.
TEST_F(ThreadCreate, DamagedAttributeIsTakenAsItIs)
{
    const ThreadAttr attr;
    attr->magic = 0;
    const Worker worker(attr);
    EXPECT_STREQ(worker->name, "worker");
    attr->magic = 0xFBADBFFE;
}

TEST_F(ThreadCreate, AttributeMayBeDestroyedAndReused)
{
    auto attr = std::make_unique<ThreadAttr>("twin");
    Worker first(*attr);
    Worker second(*attr);
    attr.reset();
    int runs = 0;
    first.Run([&runs] { ++runs; });
    second.Run([&runs] { ++runs; });
    EXPECT_EQ(runs, 2);
    EXPECT_STREQ(first->name, "twin");
    EXPECT_NE(first->epFd, second->epFd);
}

} // namespace
