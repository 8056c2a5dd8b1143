// A crowded policy sets registrations of queued tasks aside: urgent work is seen after one callback
// however many descriptors are ready, and nothing else can be told from the plain way.
#include <algorithm>
#include <fstream>
#include <map>
#include <poll.h>
#include <random>
#include <set>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

#include "sch_dispatch_support.h"
#include "xel_clock.h"

namespace
{

using namespace schtest;
using xeltest::Call;

constexpr int kMany = 200;
constexpr int kFew = 5;

std::vector<u64> g_ran; // data of each callback

u32 CountRun(struct epoll_event*, u64 data)
{
    g_ran.push_back(data);
    return 0;
}

class SchAside : public SchTest
{
protected:
    SchAside() { g_ran.clear(); }

    // Ready descriptors with tasks that leave them ready.
    void AddBulk(SchCtrl* sch, int count, u32 type = XEL_TASK_TYPE_DELAY, u32 events = EPOLLIN)
    {
        for (int i = 0; i < count; ++i) {
            fds_.push_back(Fd::Event(1));
            ASSERT_EQ(AddFd(sch, fds_.back().Get(),
                            {CountRun, static_cast<u64>(fds_.back().Get()), type, 4, "bulk"},
                            events),
                      0U);
        }
    }

    void RemoveBulk(SchCtrl* sch)
    {
        for (const Fd& fd : fds_) {
            EXPECT_EQ(DelFd(sch, fd.Get()), 0U);
        }
        fds_.clear();
    }

    static void Dispatch(SchCtrl* sch, int cycles)
    {
        for (int i = 0; i < cycles; ++i) {
            XEL_SchDispatch(sch);
        }
    }

    std::vector<Fd> fds_;
};

// What the kernel holds of an epoll instance: events by descriptor.
std::map<int, u32> Registrations(int epFd)
{
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(epFd));
    std::map<int, u32> found;
    std::string line;
    while (std::getline(info, line)) {
        int fd = -1;
        u32 events = 0;
        if (sscanf(line.c_str(), "tfd: %d events: %x", &fd, &events) == 2) {
            found[fd] = events & ~u32{EPOLLERR | EPOLLHUP};
        }
    }
    return found;
}

// How many descriptors a wait of our own would report now.
int ReportedNow(int epFd)
{
    std::vector<struct epoll_event> events(4 * kMany);
    return epoll_wait(epFd, events.data(), static_cast<int>(events.size()), 0);
}

TEST_F(SchAside, QueuedDescriptorsLeaveTheReadyList)
{
    TestSch sch(Policy::Bfs, 32);
    AddBulk(sch.Get(), kMany);
    Dispatch(sch.Get(), kMany);
    EXPECT_EQ(sch->policyOps.getEventLeft(sch->policy), static_cast<u32>(kMany) - 1);
    EXPECT_LT(ReportedNow(sch.EpFd()), 40) << "of " << kMany << " ready ones";
    RemoveBulk(sch.Get());
}

TEST_F(SchAside, UrgentWorkIsSeenAfterOneCallbackHoweverManyAreReady)
{
    TestSch sch(Policy::Bfs, 32);
    AddBulk(sch.Get(), 5 * kMany);
    const Fd urgent = Fd::Event(0);
    ASSERT_EQ(AddFd(sch.Get(), urgent.Get(), {DrainProc, urgent.U32(), 0, 0, "urgent"}), 0U);
    Dispatch(sch.Get(), 10 * kMany);
    for (int round = 0; round < 50; ++round) {
        Dispatch(sch.Get(), round);
        g_ran.clear();
        Signal(urgent.Get());
        Dispatch(sch.Get(), 1);
        EXPECT_TRUE(g_ran.empty()) << "round " << round << ": a bulk callback ran first";
    }
    EXPECT_EQ(DelFd(sch.Get(), urgent.Get()), 0U);
    RemoveBulk(sch.Get());
}

TEST_F(SchAside, EveryDescriptorThatStaysReadyRunsAgainAndAgain)
{
    TestSch sch(Policy::Bfs, 32);
    AddBulk(sch.Get(), kMany);
    Dispatch(sch.Get(), 10 * kMany);
    std::map<u64, int> runs;
    for (const u64 fd : g_ran) {
        runs[fd] += 1;
    }
    EXPECT_EQ(runs.size(), static_cast<size_t>(kMany));
    for (const auto& [fd, count] : runs) {
        EXPECT_GE(count, 5) << "descriptor " << fd;
    }
    RemoveBulk(sch.Get());
}

TEST_F(SchAside, WithFewReadyNothingIsChanged)
{
    TestSch sch(Policy::Bfs, 32);
    AddBulk(sch.Get(), kFew);
    const u64 before = xeltest::Calls(Call::EpollCtl);
    Dispatch(sch.Get(), 10 * kFew);
    EXPECT_EQ(g_ran.size(), 10U * kFew);
    EXPECT_EQ(xeltest::Calls(Call::EpollCtl), before);
    RemoveBulk(sch.Get());
}

// Counts the modifies of one descriptor that need a crowd around it.
TEST_F(SchAside, OtherMasksAndForeignRegistrationsAreLeftAlone)
{
    TestSch sch(Policy::Bfs, 32);
    const u32 masks[] = {EPOLLIN | EPOLLET, EPOLLIN | EPOLLONESHOT, EPOLLIN | EPOLLEXCLUSIVE,
                         EPOLLIN | EPOLLWAKEUP};
    for (const u32 mask : masks) {
        AddBulk(sch.Get(), 40, XEL_TASK_TYPE_DELAY, mask);
    }
    for (int i = 0; i < 40; ++i) {
        fds_.push_back(Fd::Event(1));
        const int fd = fds_.back().Get();
        SchTaskCtrl* task = MakeTask(fd, {CountRun, static_cast<u64>(fd), 2, 4, "own"});
        ASSERT_EQ(XEL_TaskAdd(sch.Get(), task), 0U);
        struct epoll_event event = {};
        event.events = EPOLLIN;
        event.data.ptr = task;
        ASSERT_EQ(epoll_ctl(sch.EpFd(), EPOLL_CTL_ADD, fd, &event), 0);
    }
    const u64 before = xeltest::Calls(Call::EpollCtl);
    Dispatch(sch.Get(), 3 * kMany);
    EXPECT_GT(sch->policyOps.getEventLeft(sch->policy), 30U) << "there was a crowd";
    EXPECT_EQ(xeltest::Calls(Call::EpollCtl), before);
    RemoveBulk(sch.Get());
}

SchCtrl* g_second;

// Somebody binds the task to another scheduler before its descriptor is registered.
TEST_F(SchAside, TaskThatIsBoundTwiceBeforeItsRegistrationIsLeftAlone)
{
    TestSch sch;
    TestSch second;
    g_second = second.Get();
    const SchDbgHookTable table{[](const SchDbgTaskInfo* info) {
                                    SchCtrl* to = std::exchange(g_second, nullptr);
                                    SchTaskCtrl* task = SchTaskGetHandleByAppFd(info->fd);
                                    EXPECT_TRUE(to == nullptr || XEL_TaskAdd(to, task) == 0U);
                                },
                                nullptr, nullptr, nullptr, nullptr};
    SCH_RegisterDbgHookTable(&table);
    AddBulk(sch.Get(), 1);
    SCH_DeregisterDbgHookTable();
    const SchTaskCtrl* twice = SchTaskGetHandleByAppFd(fds_[0].Get());
    EXPECT_EQ(twice->schCount, 2U);
    EXPECT_EQ(twice->watch.load(), 0U);
    AddBulk(sch.Get(), 1);
    EXPECT_NE(SchTaskGetHandleByAppFd(fds_[1].Get())->watch.load(), 0U);
    RemoveBulk(sch.Get());
}

TEST_F(SchAside, OtherEpollOperationsAreLeftAlone)
{
    EpollProbe probe;
    const SchPolicyOps bfs = g_schBfsPolicyOps;
    TestSch sch(probe.Ops(), &bfs, 32);
    AddBulk(sch.Get(), 100);
    (void)probe.TakeCtls();
    const u64 before = xeltest::Calls(Call::EpollCtl);
    Dispatch(sch.Get(), 300);
    EXPECT_EQ(g_ran.size(), 300U);
    EXPECT_TRUE(probe.TakeCtls().empty());
    EXPECT_EQ(xeltest::Calls(Call::EpollCtl), before);
    RemoveBulk(sch.Get());
}

// Readiness of several kinds that comes while the registration is aside.
class SchAsideMask : public SchAside
{
protected:
    static u32 NoteMask(struct epoll_event* event, u64 /*data*/)
    {
        masks_.push_back(event->events);
        return 0;
    }

    // Urgent bulk keeps the task of fd queued, and reported again, for ever.
    void Queue(int fd, u32 events)
    {
        AddBulk(sch_.Get(), 30, XEL_TASK_TYPE_PRIO);
        ASSERT_EQ(AddFd(sch_.Get(), fd, {NoteMask, 0, XEL_TASK_TYPE_DELAY, 4, "mask"}, events), 0U);
        queued_ = fd;
        Dispatch(sch_.Get(), 300);
        ASSERT_TRUE(masks_.empty());
    }
    u32 Registered() { return Registrations(sch_.EpFd())[queued_]; }

    u32 MaskOfItsRun()
    {
        for (const Fd& fd : fds_) {
            Drain(fd.Get());
        }
        for (int i = 0; i < 300 && masks_.empty(); ++i) {
            XEL_SchDispatch(sch_.Get());
        }
        return masks_.empty() ? 0 : masks_.front();
    }

    void SetUp() override { masks_.clear(); }
    void TearDown() override
    {
        EXPECT_EQ(DelFd(sch_.Get(), queued_), 0U);
        RemoveBulk(sch_.Get());
        sch_.Destroy();
    }

    static inline std::vector<u32> masks_;
    TestSch sch_{Policy::Bfs, 32};
    Fd own_; // outlives its task
    int queued_ = -1;
};

// An eventfd just below its limit is readable and not writable.
constexpr u64 kFullCounter = 0xFFFFFFFFFFFFFFFE;

TEST_F(SchAsideMask, ReadinessThatCameMeanwhileIsInTheMask)
{
    own_ = Fd::Event(0);
    Signal(own_.Get(), kFullCounter);
    Queue(own_.Get(), EPOLLIN | EPOLLOUT);
    EXPECT_EQ(Registered(), u32{EPOLLONESHOT});
    Drain(own_.Get());
    EXPECT_EQ(MaskOfItsRun(), u32{EPOLLIN | EPOLLOUT});
}

TEST_F(SchAsideMask, ReadinessThatIsGoneStaysInTheMask)
{
    own_ = Fd::Event(1);
    Queue(own_.Get(), EPOLLIN | EPOLLOUT);
    EXPECT_EQ(Registered(), u32{EPOLLONESHOT});
    Drain(own_.Get());
    EXPECT_EQ(MaskOfItsRun(), u32{EPOLLIN | EPOLLOUT});
}

TEST_F(SchAsideMask, HangUpThatCameMeanwhileIsInTheMask)
{
    xeltest::Pipe pipe;
    ASSERT_EQ(write(pipe.writeEnd.Get(), "x", 1), 1);
    own_ = Fd(pipe.readEnd.Release());
    Queue(own_.Get(), EPOLLIN);
    EXPECT_EQ(Registered(), u32{EPOLLONESHOT});
    pipe.writeEnd.Reset();
    EXPECT_EQ(MaskOfItsRun(), u32{EPOLLIN | EPOLLHUP});
}

TEST_F(SchAsideMask, CachedEventStillTellsWhenItWasSeenLast)
{
    own_ = Fd::Event(1);
    Queue(own_.Get(), EPOLLIN);
    EXPECT_EQ(Registered(), u32{EPOLLONESHOT});
    SchEventCacheInfo records[64];
    u32 count = 64;
    ASSERT_EQ(SCH_GetTasksEventCache(static_cast<u32>(sch_.EpFd()), records, &count), 0U);
    u64 now = 0;
    (void)SystimeGetMicroSec(&now);
    bool found = false;
    for (u32 i = 0; i < count; ++i) {
        if (records[i].fd == queued_) {
            found = true;
            EXPECT_LE(now - records[i].lastInsertTime, 1000000U);
            EXPECT_LT(records[i].insertTime, records[i].lastInsertTime);
        }
    }
    EXPECT_TRUE(found);
}

// Sockets, whose owners change what they wait for.
class SchAsideSocket : public SchAsideMask
{
protected:
    void SetUp() override
    {
        SchAsideMask::SetUp();
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
        near_ = Fd(pair[0]);
        far_ = Fd(pair[1]);
    }
    // As an application does that has something to send, or nothing any more.
    void ChangeBehindTheLibrary(u32 events)
    {
        struct epoll_event event = {};
        event.events = events;
        event.data.ptr = SchTaskGetHandleByAppFd(near_.Get());
        ASSERT_EQ(epoll_ctl(sch_.EpFd(), EPOLL_CTL_MOD, near_.Get(), &event), 0);
    }
    void FillUp()
    {
        char fill[4096] = {};
        while (write(near_.Get(), fill, sizeof(fill)) > 0) {
        }
    }
    void ReceiveOne() { ASSERT_EQ(write(far_.Get(), "x", 1), 1); }

    Fd near_;
    Fd far_;
};

TEST_F(SchAsideSocket, SocketWithInputIsSetAsideAndComesBackPlainly)
{
    ReceiveOne();
    Queue(near_.Get(), EPOLLIN | EPOLLRDHUP);
    EXPECT_EQ(Registered(), u32{EPOLLONESHOT});
    far_.Reset();
    EXPECT_EQ(MaskOfItsRun(), u32{EPOLLIN | EPOLLRDHUP | EPOLLHUP});
    EXPECT_EQ(Registered(), u32{EPOLLIN | EPOLLRDHUP});
}

TEST_F(SchAsideSocket, WishToSendThatTheApplicationAddedIsKept)
{
    ReceiveOne();
    FillUp();
    AddBulk(sch_.Get(), 30, XEL_TASK_TYPE_PRIO);
    ASSERT_EQ(AddFd(sch_.Get(), near_.Get(), {NoteMask, 0, 2, 4, "mask"}), 0U);
    queued_ = near_.Get();
    ChangeBehindTheLibrary(EPOLLIN | EPOLLOUT);
    Dispatch(sch_.Get(), 300);
    EXPECT_EQ(Registered(), u32{EPOLLIN | EPOLLOUT});
    EXPECT_EQ(MaskOfItsRun(), u32{EPOLLIN});
}

TEST_F(SchAsideSocket, WishToSendThatTheApplicationDroppedStaysDropped)
{
    ReceiveOne();
    AddBulk(sch_.Get(), 30, XEL_TASK_TYPE_PRIO);
    ASSERT_EQ(AddFd(sch_.Get(), near_.Get(), {NoteMask, 0, 2, 4, "mask"}, EPOLLIN | EPOLLOUT), 0U);
    queued_ = near_.Get();
    ChangeBehindTheLibrary(EPOLLIN);
    Dispatch(sch_.Get(), 300);
    EXPECT_EQ(Registered(), u32{EPOLLIN});
    EXPECT_EQ(MaskOfItsRun(), u32{EPOLLIN});
}

// The registrations as the application asked for them.
void ExpectAsMade(int epFd, const std::vector<Fd>& fds)
{
    const std::map<int, u32> found = Registrations(epFd);
    for (const Fd& fd : fds) {
        const auto entry = found.find(fd.Get());
        ASSERT_NE(entry, found.end());
        EXPECT_EQ(entry->second, u32{EPOLLIN});
    }
}

TEST_F(SchAside, DestroyedSchedulerLeavesTheRegistrationsAsTheyWereMade)
{
    TestSch sch(Policy::Bfs, 32);
    AddBulk(sch.Get(), kMany);
    Dispatch(sch.Get(), 2 * kMany);
    sch.Destroy();
    ExpectAsMade(sch.EpFd(), fds_);
    EXPECT_EQ(ReportedNow(sch.EpFd()), kMany);
    for (const Fd& fd : fds_) {
        XEL_TaskDestroy(SchTaskGetHandleByAppFd(fd.Get()));
    }
    fds_.clear();
}

TEST_F(SchAside, UnboundAndDestroyedTasksLeaveTheRegistrationAsItWasMade)
{
    TestSch sch(Policy::Bfs, 32);
    AddBulk(sch.Get(), kMany);
    Dispatch(sch.Get(), kMany);
    for (size_t i = 0; i < fds_.size(); ++i) {
        SchTaskCtrl* task = SchTaskGetHandleByAppFd(fds_[i].Get());
        if (i % 2 == 0) {
            EXPECT_EQ(XEL_TaskDel(sch.Get(), task), 0U);
        } else {
            XEL_TaskDestroy(task);
        }
    }
    ExpectAsMade(sch.EpFd(), fds_);
    sch.Destroy();
    for (size_t i = 0; i < fds_.size(); i += 2) {
        XEL_TaskDestroy(SchTaskGetHandleByAppFd(fds_[i].Get()));
    }
    fds_.clear();
}

TEST_F(SchAside, DeletedDescriptorsAreGoneAndTheirNumbersServeAgain)
{
    TestSch sch(Policy::Bfs, 32);
    AddBulk(sch.Get(), kMany);
    Dispatch(sch.Get(), kMany);
    RemoveBulk(sch.Get());
    EXPECT_TRUE(Registrations(sch.EpFd()).empty());
    g_ran.clear();
    AddBulk(sch.Get(), kFew);
    Dispatch(sch.Get(), 2 * kMany);
    EXPECT_GE(g_ran.size(), static_cast<size_t>(kFew));
    EXPECT_EQ(std::set<u64>(g_ran.begin(), g_ran.end()).size(), static_cast<size_t>(kFew));
    (void)TakeLines(); // the dead events of the first crowd
    RemoveBulk(sch.Get());
}

TEST_F(SchAside, FailedDeleteLeavesTheRegistrationAsItWasMade)
{
    TestSch sch(Policy::Bfs, 32);
    AddBulk(sch.Get(), kMany);
    Dispatch(sch.Get(), kMany);
    xeltest::FailNth(Call::EpollCtl, 1, -1, ENOENT);
    EXPECT_EQ(DelFd(sch.Get(), fds_.back().Get()), XEL_FAIL);
    (void)TakeLines();
    EXPECT_EQ(Registrations(sch.EpFd())[fds_.back().Get()], u32{EPOLLIN});
    XEL_TaskDestroy(SchTaskGetHandleByAppFd(fds_.back().Get()));
    fds_.pop_back();
    RemoveBulk(sch.Get());
    (void)TakeLines();
}

// Every modify in turn fails, some of them twice; all of them for a while.
TEST_F(SchAside, FailingModifyFallsBackToThePlainWay)
{
    for (u64 nth = 1; nth <= 120; nth += 7) {
        for (const u64 length : {1U, 2U, 5U}) {
            g_ran.clear();
            TestSch sch(Policy::Bfs, 32);
            AddBulk(sch.Get(), 60);
            for (u64 i = 0; i < length; ++i) {
                xeltest::FailNth(Call::EpollCtl, nth + i, -1, i % 2 == 0 ? EIO : ENOMEM);
            }
            Dispatch(sch.Get(), 600);
            EXPECT_EQ(g_ran.size(), 600U);
            std::map<u64, int> runs;
            for (const u64 fd : g_ran) {
                runs[fd] += 1;
            }
            EXPECT_EQ(runs.size(), 60U);
            for (const auto& [fd, count] : runs) {
                EXPECT_GE(count, 4) << "fault " << nth << " of " << length << ", fd " << fd;
            }
            xeltest::ResetFaults();
            RemoveBulk(sch.Get());
        }
    }
}

TEST_F(SchAside, ModifyThatFailsForEverLosesNobody)
{
    TestSch sch(Policy::Bfs, 32);
    AddBulk(sch.Get(), 60);
    Dispatch(sch.Get(), 200);
    xeltest::FailAll(Call::EpollCtl, -1, EIO);
    Dispatch(sch.Get(), 200);
    xeltest::ResetFaults();
    g_ran.clear();
    Dispatch(sch.Get(), 600);
    EXPECT_EQ(std::set<u64>(g_ran.begin(), g_ran.end()).size(), 60U);
    RemoveBulk(sch.Get());
}

// A spent quota makes select answer nothing while ready descriptors are aside: the plain wait would
// have come back at once.
TEST_F(SchAside, SpentQuotaNeverMakesTheWaitBlockForReadyOnes)
{
    TestSch sch(Policy::Bfs, 32);
    AddBulk(sch.Get(), 60, XEL_TASK_TYPE_GROUP);
    {
        Runner dispatcher([&sch] { Dispatch(sch.Get(), 2000); });
        EXPECT_TRUE(dispatcher.AwaitEnd());
    }
    EXPECT_GT(g_ran.size(), 2000U);
    RemoveBulk(sch.Get());
}

// Nothing is ready any more, but stale events of type 3 are queued: the wait blocks as it does in
// the plain way, and any of the descriptors wakes it.
TEST_F(SchAside, WaitBlocksWhenNoneOfThoseAsideIsReady)
{
    TestSch sch(Policy::Bfs, 32);
    AddBulk(sch.Get(), 60, XEL_TASK_TYPE_GROUP);
    Dispatch(sch.Get(), 200);
    while ((sch->state.load() & 2U) == 0) {
        XEL_SchDispatch(sch.Get());
    }
    ASSERT_GT(sch->policyOps.getEventLeft(sch->policy), 0U);
    for (const Fd& fd : fds_) {
        Drain(fd.Get());
    }
    g_ran.clear();
    {
        Runner dispatcher([&sch] { XEL_SchDispatch(sch.Get()); });
        ASSERT_TRUE(AwaitTrue([&] {
            std::map<int, u32> found = Registrations(sch.EpFd());
            return std::all_of(fds_.begin(), fds_.end(),
                               [&](const Fd& fd) { return found[fd.Get()] == EPOLLIN; });
        }));
        EXPECT_FALSE(dispatcher.HasEnded());
        Signal(fds_[7].Get());
        EXPECT_TRUE(dispatcher.AwaitEnd());
    }
    EXPECT_FALSE(g_ran.empty());
    RemoveBulk(sch.Get());
}

// Somebody changes a registration behind the library's back: from then on it is theirs.
TEST_F(SchAside, RegistrationThatTheApplicationWidenedIsLeftToIt)
{
    TestSch sch(Policy::Bfs, 32);
    AddBulk(sch.Get(), 60);
    const int fd = fds_.front().Get();
    struct epoll_event event = {};
    event.events = EPOLLIN | EPOLLOUT;
    event.data.ptr = SchTaskGetHandleByAppFd(fd);
    ASSERT_EQ(epoll_ctl(sch.EpFd(), EPOLL_CTL_MOD, fd, &event), 0);
    Dispatch(sch.Get(), 600);
    EXPECT_EQ(Registrations(sch.EpFd())[fd], u32{EPOLLIN | EPOLLOUT});
    RemoveBulk(sch.Get());
}

// ---- Random histories, the same on both ways.

// A scheduler with eventfds whose callbacks take one count each. Counts what was taken.
class History
{
public:
    History(bool isPlain, u32 seed)
        : random_(seed),
          plain_(std::make_unique<EpollProbe>()),
          sch_(isPlain ? std::make_unique<TestSch>(plain_->Ops(), &g_schBfsPolicyOps, 32)
                       : std::make_unique<TestSch>(Policy::Bfs, 32)),
          slots_(120)
    {
    }

    void Step()
    {
        Slot& slot = slots_[random_() % slots_.size()];
        switch (random_() % 12) {
        case 0:
            Remove(slot);
            break;
        case 1:
            Modify(slot);
            break;
        case 2:
        case 3:
        case 4:
            Dispatch(random_() % 20);
            break;
        default:
            Add(slot);
            Signal(slot.fd.Get(), 1 + random_() % 3);
        }
    }

    // Everything written has been taken, apart from what was removed with its descriptor.
    void Finish()
    {
        for (Slot& slot : slots_) {
            for (int i = 0; i < 100000 && IsReady(slot.fd.Get()); ++i) {
                Dispatch(1);
            }
            EXPECT_FALSE(IsReady(slot.fd.Get()));
            Remove(slot);
        }
        EXPECT_TRUE(Registrations(sch_->EpFd()).empty());
        sch_->Destroy();
    }

    static inline u64 taken = 0;

private:
    struct Slot {
        Fd fd;
    };

    // The mask holds everything that the descriptor is ready for at its run.
    static u32 Take(struct epoll_event* event, u64 data)
    {
        const auto fd = static_cast<int>(data);
        struct pollfd look = {fd, POLLIN | POLLOUT, 0};
        (void)poll(&look, 1, 0);
        EXPECT_EQ(static_cast<u32>(look.revents) & ~event->events & u32{EPOLLIN}, 0U);
        EXPECT_EQ(event->events & ~u32{EPOLLIN}, 0U);
        eventfd_t one = 0;
        if (eventfd_read(fd, &one) == 0) {
            taken += one;
        }
        return 0;
    }

    static bool IsReady(int fd)
    {
        struct pollfd look = {fd, POLLIN, 0};
        return fd >= 0 && poll(&look, 1, 0) == 1;
    }

    TaskSpec Spec(int fd)
    {
        return {Take, static_cast<u64>(fd), static_cast<u32>(random_() % 4),
                static_cast<u32>(random_() % 32), "history"};
    }

    void Add(Slot& slot)
    {
        const u32 draws[2] = {static_cast<u32>(random_()), static_cast<u32>(random_())};
        if (slot.fd.Get() >= 0) {
            return;
        }
        slot.fd = Fd(eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC));
        const TaskSpec spec = {Take, static_cast<u64>(slot.fd.Get()), draws[0] % 4, draws[1] % 32,
                               "history"};
        ASSERT_EQ(AddFd(sch_->Get(), slot.fd.Get(), spec), 0U);
    }

    void Modify(Slot& slot)
    {
        const TaskSpec spec = Spec(slot.fd.Get());
        if (slot.fd.Get() >= 0) {
            ASSERT_EQ(ModFd(sch_->Get(), slot.fd.Get(), spec), 0U);
        }
    }

    // Runs dry first, so that both ways lose nothing with the descriptor.
    void Remove(Slot& slot)
    {
        if (slot.fd.Get() < 0) {
            return;
        }
        for (int i = 0; i < 100000 && IsReady(slot.fd.Get()); ++i) {
            Dispatch(1);
        }
        ASSERT_EQ(DelFd(sch_->Get(), slot.fd.Get()), 0U);
        slot.fd.Reset();
    }

    // Never blocks: an empty scheduler is not dispatched.
    void Dispatch(u64 cycles)
    {
        sch_->Get()->waitTimeout.store(0);
        for (u64 i = 0; i < cycles; ++i) {
            XEL_SchDispatch(sch_->Get());
        }
    }

    std::mt19937 random_;
    std::unique_ptr<EpollProbe> plain_;
    std::unique_ptr<TestSch> sch_;
    std::vector<Slot> slots_;
};

const std::set<std::string> kDeadEvents = {"Task get event unsuccessfully, task is invalid.",
                                           "Task has damaged. (magic = 0)"};

class SchAsideHistory : public SchAside, public ::testing::WithParamInterface<u32>
{
};

u64 TakenBy(bool isPlain, u32 seed)
{
    History::taken = 0;
    History history(isPlain, seed);
    for (int step = 0; step < (xeltest::IsSanitized() ? 1000 : 3000); ++step) {
        history.Step();
    }
    history.Finish();
    return History::taken;
}

TEST_P(SchAsideHistory, NothingIsLostAndNothingRunsTwice)
{
    const u64 plain = TakenBy(true, GetParam());
    const u64 aside = TakenBy(false, GetParam());
    EXPECT_GT(plain, 0U);
    EXPECT_EQ(aside, plain);
    for (const Line& line : TakeLines()) {
        const bool isKnown = kDeadEvents.count(line.text) == 1 ||
                             line.text.starts_with("Task get event unsuccessfully, task has been");
        EXPECT_TRUE(isKnown) << line.text;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, SchAsideHistory, ::testing::Range(1U, 9U));

// ---- A crowd beside threads that write, add, delete and unbind.

std::atomic<u64> g_taken{0};

u32 TakeOne(struct epoll_event*, u64 data)
{
    eventfd_t one = 0;
    if (eventfd_read(static_cast<int>(data), &one) == 0) {
        g_taken.fetch_add(one);
    }
    return 0;
}

class SchAsideSlow : public SchAside
{
};

TEST_F(SchAsideSlow, NothingIsLostBesideThreadsThatWriteAddDeleteAndUnbind)
{
    constexpr u64 kWrites = xeltest::IsSanitized() ? 20000 : 100000;
    g_taken.store(0);
    TestSch sch(Policy::Bfs, 32);
    std::vector<Fd> fds;
    for (u32 i = 0; i < 150; ++i) {
        fds.push_back(Fd(eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC)));
        const int fd = fds.back().Get();
        ASSERT_EQ(AddFd(sch.Get(), fd, {TakeOne, static_cast<u64>(fd), i % 4, i % 32, "sum"}), 0U);
    }
    SchCtrl* raw = sch.Get();
    Runner dispatcher([raw] {
        while (raw->magic.load() == 0xFBADBEEF) {
            XEL_SchDispatch(raw);
        }
    });
    std::atomic<bool> stop{false};
    {
        // Bulk that comes and goes, ready all the time, unbound before half of its deletions.
        Runner churn([raw, &stop] {
            std::mt19937 random(7);
            while (!stop.load()) {
                const Fd fd = Fd::Event(1);
                ASSERT_EQ(AddFd(raw, fd.Get(), {NopProc, 0, 2, 0, "churn"}), 0U);
                usleep(static_cast<u32>(random() % 200));
                if (random() % 2 == 0) {
                    EXPECT_EQ(XEL_TaskDel(raw, SchTaskGetHandleByAppFd(fd.Get())), 0U);
                }
                ASSERT_EQ(DelFd(raw, fd.Get()), 0U);
            }
        });
        Runner writer([&fds] {
            std::mt19937 random(11);
            for (u64 i = 0; i < kWrites; ++i) {
                Signal(fds[random() % fds.size()].Get());
            }
        });
        writer.Join();
        EXPECT_TRUE(AwaitTrue([] { return g_taken.load() == kWrites; })) << g_taken.load();
        stop.store(true);
    }
    for (const Fd& fd : fds) {
        EXPECT_EQ(DelFd(raw, fd.Get()), 0U);
    }
    sch.Destroy();
    EXPECT_TRUE(dispatcher.AwaitEnd());
    (void)TakeLines(); // of tasks unbound or destroyed while they were queued
    (void)xeltest::TakeSleeps();
}

} // namespace
