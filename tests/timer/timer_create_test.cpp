// Creation of a timer: its record, its descriptor and its task, and every step failing in turn with
// nothing left behind.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/timerfd.h>
#include <unistd.h>

#include "timer_support.h"

namespace
{

using namespace timertest;

constexpr char kNoTask[] =
    "Timer create node unsuccessfully, create scheduler task unsuccessfully.";
constexpr char kNoNode[] = "Timer node create unsuccessfully.";

std::string NotSet(u32 ret, u32 cmd)
{
    return Text("eventFd task attr set param unsuccessfully(ret = %u, cmd = %u).", ret, cmd);
}

TEST(TimerCtrl, StartsEmpty)
{
    XELTEST_IN_FRESH_PROCESS([] {
        EXPECT_EQ(g_xelTimerCtrl.timerCount, 0U);
        EXPECT_EQ(g_xelTimerCtrl.timerList.next, &g_xelTimerCtrl.timerList);
        EXPECT_EQ(g_xelTimerCtrl.timerList.prev, &g_xelTimerCtrl.timerList);
        EXPECT_EQ(g_xelTimerCtrl.groupCount, 0U);
        EXPECT_EQ(g_xelTimerCtrl.groupList.next, &g_xelTimerCtrl.groupList);
        EXPECT_EQ(g_xelTimerCtrl.groupList.prev, &g_xelTimerCtrl.groupList);
        const pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
        const pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        EXPECT_EQ(memcmp(&g_xelTimerCtrl.timerLock, &lock, sizeof(lock)), 0);
        EXPECT_EQ(memcmp(&g_xelTimerCtrl.groupMutex, &mutex, sizeof(mutex)), 0);
    });
}

TEST(TimerCtrl, FieldsStandAtTheirOffsets)
{
    EXPECT_EQ(offsetof(XelTimerCtrl, timerCount), 0U);
    EXPECT_EQ(offsetof(XelTimerCtrl, timerList), 8U);
    EXPECT_EQ(offsetof(XelTimerCtrl, timerLock), 24U);
    constexpr size_t kGroups = 24 + sizeof(pthread_rwlock_t);
    EXPECT_EQ(offsetof(XelTimerCtrl, groupCount), kGroups);
    EXPECT_EQ(offsetof(XelTimerCtrl, groupList), kGroups + 8);
    EXPECT_EQ(offsetof(XelTimerCtrl, groupMutex), kGroups + 24);
    EXPECT_EQ(sizeof(XelTimerCtrl), kGroups + 24 + sizeof(pthread_mutex_t));
}

TEST(TimerFresh, DescriptorZeroIsOneLikeAnyOther)
{
    XELTEST_IN_FRESH_PROCESS([] {
        Worker worker;
        worker.Run([] {});
        Probe probe;
        close(0);
        {
            const Timer timer(worker, probe);
            EXPECT_EQ(timer->fd, 0);
            timer.Start();
        }
        EXPECT_EQ(probe.released.load(), 1);
        EXPECT_FALSE(IsOpen(0));
        EXPECT_NO_LOG();
    });
}

class TimerCreate : public TimerThreadTest
{
protected:
    // A refused creation: null, the lines, and everything as before.
    void ExpectRefused(const std::vector<ExpectedLine>& lines)
    {
        const Footprint before = Measure();
        const u64 closed = Calls(Call::Close);
        EXPECT_EQ(XEL_TimerCreate(worker_->Get(), attr_.Get()), nullptr);
        EXPECT_TRUE(LogIs(kTimerSource, lines));
        EXPECT_LE(Calls(Call::Close), closed + 1); // a second one may hit a new descriptor
        EXPECT_EQ(Measure(), before);
        EXPECT_EQ(LiveCount(), 0U);
    }

    Probe probe_;
    TimerAttr attr_{&probe_, XEL_TIMER_MODE_ONE_SHOT, 5, "made"};
};

TEST_F(TimerCreate, InvalidParametersAreRefusedBeforeAnythingElse)
{
    FailAll(Call::TimerfdCreate, -1, EMFILE);
    EXPECT_FALSE(TimerIsInParamLegal(nullptr, attr_.Get()));
    EXPECT_FALSE(TimerIsInParamLegal(worker_->Get(), nullptr));
    EXPECT_EQ(XEL_TimerCreate(nullptr, attr_.Get()), nullptr);
    EXPECT_LOG(kTimerSource, "Invalid parameters.");
    EXPECT_EQ(XEL_TimerCreate(worker_->Get(), nullptr), nullptr);
    EXPECT_LOG(kTimerSource, "Invalid parameters.");
    for (const u32 mode : {2U, 0xFFFFFFFFU}) {
        attr_->mode = mode;
        EXPECT_FALSE(TimerIsInParamLegal(worker_->Get(), attr_.Get()));
        ExpectRefused({"Invalid parameters."});
    }
    attr_->mode = 1;
    attr_->callback = nullptr;
    EXPECT_FALSE(TimerIsInParamLegal(worker_->Get(), attr_.Get()));
    ExpectRefused({"Invalid parameters."});
    EXPECT_EQ(Calls(Call::TimerfdCreate), 0U);
}

// Neither the attribute's magic nor its time-out matters.
TEST_F(TimerCreate, MagicAndTimeoutAreNotChecked)
{
    attr_->magic = 0;
    attr_->timeout = 0;
    EXPECT_TRUE(TimerIsInParamLegal(worker_->Get(), attr_.Get()));
    {
        const Timer timer(*worker_, attr_);
    }
    attr_->magic = 0xABCDEFAA;
    EXPECT_NO_LOG();
}

TEST_F(TimerCreate, NoDescriptorIsRefused)
{
    FailNth(Call::TimerfdCreate, 1, -1, EMFILE);
    ExpectRefused({kNoNode});
    FailNth(Call::TimerfdCreate, 1, -1, EMFILE);
    EXPECT_EQ(TimerCreateNode(worker_->Get(), attr_.Get()), nullptr);
    EXPECT_NO_LOG();
}

TEST_F(TimerCreate, NoNodeIsRefused)
{
    FailNth(Call::XelMemAllocF, 1);
    ExpectRefused({"Timer node memory malloc null.", kNoTask, kNoNode});
}

TEST_F(TimerCreate, NoTaskAttributeIsRefused)
{
    FailNth(Call::XelMemAllocF, 2);
    ExpectRefused({"Timer task attribute create unsuccessfully.", kNoTask, kNoNode});
}

TEST_F(TimerCreate, RefusedTaskAttributeIsRefused)
{
    FailNth(Call::StrcpyS, 1);
    ExpectRefused(
        {From(kTaskSource, "Scheduler set name unsuccessfully, copy name unsuccessfully."),
         NotSet(kFail, 3), "Timer task attribute set unsuccessfully.", kNoTask, kNoNode});
}

// Whoever brought the descriptor closes it, and closes it before telling.
TEST_F(TimerCreate, TaskThatCannotBeMadeLeavesTheDescriptorToTheCaller)
{
    const Fd fd(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    for (const u64 nth : {1U, 2U}) {
        FailNth(Call::XelMemAllocF, nth);
        EXPECT_EQ(TimerSchTaskCreate(worker_->Get(), attr_.Get(), fd.Get()), nullptr);
        EXPECT_TRUE(IsOpen(fd.Get()));
    }
    EXPECT_EQ(Calls(Call::Close), 0U);
    EXPECT_LOG(kTimerSource, "Timer node memory malloc null.",
               "Timer task attribute create unsuccessfully.");
    const int own = NextFd();
    std::vector<bool> openAtLine;
    FailNth(Call::XelMemAllocF, 1);
    RunAtNextLine([&] {
        openAtLine.push_back(IsOpen(own));
        RunAtNextLine([&] { openAtLine.push_back(IsOpen(own)); });
    });
    EXPECT_EQ(TimerCreateNode(worker_->Get(), attr_.Get()), nullptr);
    EXPECT_EQ(openAtLine, (std::vector<bool>{true, false}));
    EXPECT_LOG(kTimerSource, "Timer node memory malloc null.", kNoTask);
}

// The name is measured up to sixteen characters and no further.
TEST_F(TimerCreate, NameWithoutTerminatorIsRefusedByTheTask)
{
    memset(attr_->name, 'a', sizeof(attr_->name));
    ExpectRefused({From(kTaskSource, "Scheduler task set attribute unsuccessfully, invalid "
                                     "attrValSize, attrSize:16."),
                   NotSet(kFail, 3), "Timer task attribute set unsuccessfully.", kNoTask, kNoNode});
}

TEST_F(TimerCreate, RefusedRegistrationIsRefused)
{
    const int fd = NextFd();
    FailNth(Call::EpollCtl, 1, -1, ENOSPC);
    ExpectRefused({From(kSchSource, Text("Sch fd add to epoll unsuccessfully. (epollFd = %d, "
                                         "fd = %d, mistake = 28)",
                                         (*worker_)->epFd, fd)),
                   From(kSchSource, Text("Sch operation unsuccessfully. (fd = %d, op = 0, "
                                         "ret = 0xffffffff)",
                                         fd)),
                   "Timer task add to scheduler unsuccessfully.", kNoTask, kNoNode});
}

TEST_F(TimerCreate, DamagedThreadIsRefusedByTheRegistration)
{
    XelThreadCtrl record = {};
    record.magic = 0x5678;
    const Footprint before = Measure();
    EXPECT_EQ(XEL_TimerCreate(&record, attr_.Get()), nullptr);
    EXPECT_LOG(kTimerSource, From(kThreadSource, "Thread magic is damaged, magic = 0x5678."),
               "Timer task add to scheduler unsuccessfully.", kNoTask, kNoNode);
    EXPECT_EQ(Measure(), before);
}

TEST_F(TimerCreate, EveryFailingServiceIsUndone)
{
    for (const Call call :
         {Call::XelMemAllocF, Call::FmmUnitAlloc, Call::TimerfdCreate, Call::EpollCtl}) {
        u64 nth = 1;
        for (;; ++nth) {
            ResetFaults();
            const Footprint before = Measure();
            FailNth(call, nth, kUsualFailure, EIO);
            XelTimerNode* timer = XEL_TimerCreate(worker_->Get(), attr_.Get());
            if (timer != nullptr) {
                ResetFaults();
                XEL_TimerDestroy(timer);
                AwaitGone(*worker_, timer);
                break;
            }
            EXPECT_GT(LogCount(), 0U);
            DropLog();
            EXPECT_EQ(Measure(), before) << static_cast<u32>(call) << ' ' << nth;
            EXPECT_EQ(LiveCount(), 0U);
        }
        EXPECT_GE(nth, 2U) << static_cast<u32>(call);
        EXPECT_NO_LOG();
    }
    EXPECT_EQ(probe_.runs.load(), 0);
}

TEST_F(TimerCreate, TaskSettingsStopAtTheFirstFailure)
{
    XelTimerNode node = {};
    EXPECT_EQ(TimerSetTaskAttr(nullptr, &node, "name", 4), 22U);
    EXPECT_LOG(kTimerSource, From(kTaskSource, "param taskAttr is NULL"),
               From(kTaskSource, "scheduler set attribute unsuccessfully, param is invalid."),
               NotSet(22, 0));
    const xeltest::Attr task;
    EXPECT_EQ(TimerSetTaskAttr(task.Get(), &node, nullptr, 0), 22U);
    EXPECT_LOG(kTimerSource, From(kTaskSource, "param val is NULL"),
               From(kTaskSource, "scheduler set attribute unsuccessfully, param is invalid."),
               NotSet(22, 3));
    EXPECT_EQ(TimerSetTaskAttr(task.Get(), &node, "fifteen-letters", 15), 0U);
    EXPECT_EQ(TimerSetTaskAttr(task.Get(), &node, "", 0), 0U);
    EXPECT_NO_LOG();
}

TEST_F(TimerCreate, NodeHoldsTheAttributes)
{
    const Timer timer(*worker_, attr_);
    const XelTimerNode* node = timer.Get();
    EXPECT_EQ(At<u32>(node, 0), 0xABCDEFABU);
    EXPECT_EQ(At<XelLink*>(node, 8), &g_xelTimerCtrl.timerList);
    EXPECT_EQ(At<XelLink*>(node, 16), &g_xelTimerCtrl.timerList);
    EXPECT_EQ(At<XelTimerProc>(node, 24), RunProbe);
    EXPECT_EQ(At<void*>(node, 32), &probe_);
    EXPECT_GE(At<i32>(node, 40), 0);
    EXPECT_EQ(At<XelThreadCtrl*>(node, 48), worker_->Get());
    EXPECT_EQ(At<u32>(node, 56), 0U);
    EXPECT_EQ(At<u32>(node, 60), 5U);
    EXPECT_EQ(At<u32>(node, 64), 0U);
    EXPECT_EQ(At<u32>(node, 68), 0U);
    EXPECT_EQ(At<XelTimerDestructor>(node, 72), ReleaseProbe);
    EXPECT_EQ(At<u32>(node, 80), 0U);
    EXPECT_EQ(sizeof(XelTimerNode), 88U);
    const Timer periodic(*worker_, probe_, XEL_TIMER_MODE_PERIODIC, 123456);
    EXPECT_EQ(At<u32>(periodic.Get(), 56), 1U);
    EXPECT_EQ(At<u32>(periodic.Get(), 60), 123456U);
}

TEST_F(TimerCreate, FieldsStandAtTheirOffsets)
{
    EXPECT_EQ(offsetof(XelTimerNode, magic), 0U);
    EXPECT_EQ(offsetof(XelTimerNode, link), 8U);
    EXPECT_EQ(offsetof(XelTimerNode, callback), 24U);
    EXPECT_EQ(offsetof(XelTimerNode, userData), 32U);
    EXPECT_EQ(offsetof(XelTimerNode, fd), 40U);
    EXPECT_EQ(offsetof(XelTimerNode, thread), 48U);
    EXPECT_EQ(offsetof(XelTimerNode, mode), 56U);
    EXPECT_EQ(offsetof(XelTimerNode, timeout), 60U);
    EXPECT_EQ(offsetof(XelTimerNode, groupId), 64U);
    EXPECT_EQ(offsetof(XelTimerNode, typeId), 68U);
    EXPECT_EQ(offsetof(XelTimerNode, destructor), 72U);
    EXPECT_EQ(offsetof(XelTimerNode, destroyPending), 80U);
    EXPECT_EQ(offsetof(XelTimerOneShotParam, timeoutMs), 0U);
    EXPECT_EQ(offsetof(XelTimerOneShotParam, thread), 8U);
    EXPECT_EQ(offsetof(XelTimerOneShotParam, proc), 16U);
    EXPECT_EQ(offsetof(XelTimerOneShotParam, userData), 24U);
    EXPECT_EQ(sizeof(XelTimerOneShotParam), 32U);
}

TEST_F(TimerCreate, DescriptorIsMonotonicNonblockingAndClosedOnExec)
{
    const Timer timer(*worker_, attr_);
    EXPECT_EQ(fcntl(timer->fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(timer->fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(timer->fd));
    std::string line;
    bool isMonotonic = false;
    while (std::getline(info, line)) {
        isMonotonic |= line == Text("clockid: %d", CLOCK_MONOTONIC);
    }
    EXPECT_TRUE(isMonotonic);
    const struct itimerspec disarmed = SettingOf(timer->fd);
    EXPECT_EQ(MsOf(disarmed.it_value), 0U);
    EXPECT_EQ(disarmed.it_value.tv_nsec, 0);
}

TEST_F(TimerCreate, TaskBehindTheTimer)
{
    const Timer timer(*worker_, TimerAttr(&probe_, 1, kLongMs, "fifteen-letters"));
    const SchTaskCtrl* task = SchTaskGetHandleByAppFd(timer->fd);
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->proc, TimerFdEventProc);
    EXPECT_EQ(task->data, reinterpret_cast<u64>(timer.Get()));
    EXPECT_EQ(task->type, 0U);
    EXPECT_EQ(task->prio, 0U);
    EXPECT_EQ(task->fdType.load(), 0U);
    EXPECT_STREQ(task->name, "fifteen-letters");
    // Level-triggered reading; the kernel adds EPOLLERR and EPOLLHUP.
    EXPECT_EQ(Registration((*worker_)->epFd, timer->fd),
              Text("0x19 %#lx", reinterpret_cast<unsigned long>(task)));
    const Timer unnamed(*worker_, TimerAttr(&probe_, 1, kLongMs, ""));
    EXPECT_STREQ(SchTaskGetHandleByAppFd(unnamed->fd)->name, "");
}

TEST_F(TimerCreate, NewTimersAreListedAtTheFront)
{
    Timer first(*worker_, attr_);
    EXPECT_EQ(LiveCount(), 1U);
    const Timer second(*worker_, attr_);
    EXPECT_EQ(LiveCount(), 2U);
    EXPECT_EQ(g_xelTimerCtrl.timerList.next, &second->link);
    EXPECT_EQ(second->link.next, &first->link);
    EXPECT_EQ(g_xelTimerCtrl.timerList.prev, &first->link);
    first.Destroy();
    EXPECT_EQ(LiveCount(), 1U);
    EXPECT_EQ(second->link.next, &g_xelTimerCtrl.timerList);
}

TEST_F(TimerCreate, AttributeMayBeDestroyedAndReused)
{
    auto attr = std::make_unique<TimerAttr>(&probe_, XEL_TIMER_MODE_ONE_SHOT, 1);
    XelTimerNode* first = XEL_TimerCreate(worker_->Get(), attr->Get());
    XelTimerNode* second = XEL_TimerCreate(worker_->Get(), attr->Get());
    attr.reset();
    worker_->Run([] {});
    EXPECT_EQ(probe_.runs.load(), 0); // not armed
    // The probe says "released under its callback" of two timers: one after the other.
    EXPECT_EQ(XEL_TimerStart(first), 0U);
    EXPECT_TRUE(probe_.AwaitRuns(1));
    EXPECT_TRUE(probe_.AwaitReleased());
    AwaitGone(*worker_, first);
    probe_.released.store(0);
    EXPECT_EQ(XEL_TimerStart(second), 0U);
    EXPECT_TRUE(probe_.AwaitRuns(2));
    EXPECT_TRUE(probe_.AwaitReleased());
    AwaitGone(*worker_, second);
    EXPECT_NO_LOG();
}

TEST_F(TimerCreate, ListOperationsAlone)
{
    XelTimerNode* node = TimerCreateNode(worker_->Get(), attr_.Get());
    ASSERT_NE(node, nullptr);
    EXPECT_FALSE(IsListed(node));
    EXPECT_EQ(LiveCount(), 0U);
    EXPECT_EQ(TimerDelNode(node), 22U);
    EXPECT_LOG(kTimerSource, kInvalid);
    TimerAddNode(node);
    EXPECT_TRUE(IsListed(node));
    EXPECT_EQ(LiveCount(), 1U);
    EXPECT_EQ(TimerDelNode(node), 0U);
    EXPECT_FALSE(IsListed(node));
    EXPECT_EQ(LiveCount(), 0U);
    TimerAddNode(node);
    g_xelTimerCtrl.timerCount = 0;
    InnerTimerDestroy(node);
    EXPECT_EQ(LiveCount(), 0U); // not below 0
    EXPECT_EQ(probe_.released.load(), 1);
    EXPECT_EQ(TimerDelNode(nullptr), 22U);
    EXPECT_LOG(kTimerSource, kInvalid);
}

// A record that the caller made himself, with nothing of the library's behind it.
TEST_F(TimerCreate, NodeMadeElsewhereIsListedAndRunAsWell)
{
    struct {
        XelTimerNode node;
        u8 behind[64];
    } own = {};
    memset(own.behind, 0xEE, sizeof(own.behind));
    const Fd fd(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    own.node.magic.store(0xABCDEFAB);
    own.node.fd = fd.Get();
    own.node.mode = XEL_TIMER_MODE_PERIODIC;
    own.node.callback = RunProbe;
    own.node.userData = &probe_;
    EXPECT_FALSE(IsListed(&own.node));
    TimerAddNode(&own.node);
    EXPECT_TRUE(IsListed(&own.node));
    EXPECT_EQ(LiveCount(), 1U);
    EXPECT_EQ(XEL_TimerResize(&own.node, 1), 0U);
    Expire(&own.node);
    EXPECT_EQ(Proc(&own.node), 0U);
    EXPECT_EQ(probe_.runs.load(), 1);
    EXPECT_EQ(TimerDelNode(&own.node), 0U);
    EXPECT_FALSE(IsListed(&own.node));
    EXPECT_EQ(LiveCount(), 0U);
    EXPECT_TRUE(std::all_of(std::begin(own.behind), std::end(own.behind),
                            [](u8 byte) { return byte == 0xEE; }));
    EXPECT_NO_LOG();
}

} // namespace
