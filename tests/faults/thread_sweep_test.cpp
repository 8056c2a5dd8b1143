// Faults in scheduler threads, on both epoll implementations.
#include <cerrno>
#include <set>

#include "mox_support.h"
#include "scheduler/xel_sch_dbg_inner.h"
#include "steps.h"
#include "thread/xel_adapt_mox.h"
#include "xel_mem.h"

namespace
{

using namespace faulttest;

constexpr u32 kStackSize = 1U << 20;

XelThreadAttr* MakeAttr(Trial& run, u32 policy, u32 epollType)
{
    XelThreadAttr* attr = nullptr;
    (void)run.Do(
        "XEL_ThreadCreateAttr", {Call::XelMemAllocF},
        [&] { return (attr = XEL_ThreadCreateAttr()) != nullptr; }, Lines::Silent);
    if (attr == nullptr) {
        return nullptr;
    }
    run.End("set name", {Call::StrcpyS},
            [&] { return XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_NAME, "sweep", 5) == 0; });
    (void)run.Do("set stack size, policy and epoll type", {}, [&] {
        return XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_STACK_SIZE, &kStackSize, 4) == 0 &&
               XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_SCHEDULE_POLICY, &policy, 4) == 0 &&
               XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_EPOLL_TYPE, &epollType, 4) == 0;
    });
    return attr;
}

// A record that cannot be had is no line.
XelThreadCtrl* CreateThread(Trial& run, const XelThreadAttr* attr)
{
    XelThreadCtrl* thread = nullptr;
    (void)run.Do(
        "XEL_ThreadCreate",
        {Call::XelMemAllocF, Call::StrncpyS, Call::EpollCreate, Call::FmmUnitAlloc,
         Call::FmmCtrlCreate, Call::XelQueCreate, Call::PthreadCreate, Registry()},
        [&] { return (thread = XEL_ThreadCreate(attr)) != nullptr; },
        run.IsFault(Call::XelMemAllocF) ? Lines::Silent : Lines::Logged);
    return thread;
}

// Whether the body of the thread ended before its first cycle, as it must when its stack size
// cannot be validated or the monitor refuses it: it says so, and is taken for ended by hand.
bool HasFailedToStart(const Trial& run, XelThreadCtrl* thread)
{
    const bool mayFail =
        run.IsFault(Call::PthreadAttrInit) || run.IsFault(Call::PthreadAttrSetstacksize) ||
        run.IsFault(Call::XelDeadloopMonReg) || run.IsFault(Call::XelDeadloopMonProcSet);
    if (!mayFail || Hits() == 0) {
        return false;
    }
    EXPECT_TRUE(AwaitTrue([] { return LogCount() > 0; }));
    EXPECT_TRUE(AwaitTrue([] { return threadtest::ThreadsNamed("sweep") == 0; }));
    thread->exited.store(1);
    return true;
}

void AskThread(Trial& run, XelThreadCtrl* thread)
{
    u64 tid = 0;
    (void)run.Do("queries", {}, [&] {
        XelSchDeployInfo info[4];
        u32 count = 4;
        return XEL_ThreadGetInfo(thread, XEL_THREAD_INFO_TID, &tid, sizeof(tid)) == 0 &&
               THREAD_GetSchDeployInfo(-1, info, &count) == 0 && count >= 1 &&
               XEL_ThreadGetCtxHandle() == nullptr;
    });
}

void ThreadLife(Trial& run, Counted& counted, u32 policy, u32 epollType)
{
    XelThreadAttr* attr = MakeAttr(run, policy, epollType);
    if (attr == nullptr) {
        return;
    }
    XelThreadCtrl* thread = CreateThread(run, attr);
    XEL_ThreadDestroyAttr(attr);
    if (thread == nullptr) {
        return;
    }
    run.Expect("the thread begins or says why not",
               [&] { return Calls(Call::XelDeadloopMonProcSet) > 0 || Hits() != 0; });
    if (!HasFailedToStart(run, thread)) {
        UseThread(run, thread, counted);
    }
    AskThread(run, thread);
    EndThread(run, thread);
    run.Expect("the thread is gone", [] { return threadtest::ThreadsNamed("sweep") == 0; });
}

class FaultsInThreadsSlow : public CleanProcess
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
    void SweepBoth(const char* name, u32 policy, u32 epollType)
    {
        const Scenario scenario = [=, this](Trial& run) {
            ThreadLife(run, *counted_, policy, epollType);
        };
        Sweep("threads", name, Extent::Calls, scenario);
        Sweep("threads", name, Extent::Locks, scenario);
    }

    std::unique_ptr<Counted> counted_;
};

TEST_F(FaultsInThreadsSlow, WithThePolicyLeaveNothing)
{
    SweepBoth("with the policy", XEL_SCH_POLICY_BFS, XEL_EPOLL_TYPE_LINUX);
}

TEST_F(FaultsInThreadsSlow, WithoutPolicyLeaveNothing)
{
    SweepBoth("without policy", XEL_SCH_POLICY_NONE, XEL_EPOLL_TYPE_LINUX);
}

// The functions of the alternative implementation, each of which may fail at its nth call. Written
// by the test between runs, read by the threads.
struct Mox {
    std::atomic<u32> failing{kMoxFuncCount}; // the row; none
    std::atomic<u64> at{0};
    std::atomic<u64> calls[kMoxFuncCount];
    void* real[kMoxFuncCount];
    std::mutex mutex; // guards buffers
    std::set<XelMoxEventsInfo*> buffers;
};
Mox& TheMox()
{
    static auto* mox = new Mox;
    return *mox;
}

bool Fails(u32 row)
{
    Mox& mox = TheMox();
    const u64 n = mox.calls[row].fetch_add(1) + 1;
    return mox.failing.load() == row && mox.at.load() == n;
}

template <typename... Args>
int Forward(u32 row, Args... args)
{
    if (Fails(row)) {
        errno = EIO;
        return -1;
    }
    return reinterpret_cast<int (*)(Args...)>(TheMox().real[row])(args...);
}

int MoxCreate()
{
    return Forward(0);
}

int MoxCtl(int epFd, int op, int fd, XelMoxEpollEvent* event)
{
    return Forward(1, epFd, op, fd, event);
}

void KeepBuffer()
{
    const std::lock_guard<std::mutex> guard(TheMox().mutex);
    if (g_xelMoxEventsInfo != nullptr) {
        TheMox().buffers.insert(g_xelMoxEventsInfo);
    }
}

int MoxWait(int epFd, XelMoxEpollEvent* events, int room, int timeoutMs)
{
    KeepBuffer();
    return Forward(2, epFd, events, room, timeoutMs);
}

// The number is asked for after a failure only, and not swept.
int MoxErrorNo()
{
    return EIO;
}

int MoxClose(int fd)
{
    if (Fails(4)) {
        ::close(fd); // as any close that fails
        return -1;
    }
    return reinterpret_cast<int (*)(int)>(TheMox().real[4])(fd);
}

// A thread whose buffer could not grow refuses every wait of that size for ever: it is helped by
// forgetting the size, in its pause. A destroyer waits for it meanwhile.
void HelpBuffer(u32 /*seconds*/)
{
    KeepBuffer();
    if (g_xelMoxEventsInfo != nullptr && g_xelMoxEventsInfo->buffer == nullptr) {
        g_xelMoxEventsInfo->capacity = 0;
    }
}

class FaultsInTheAlternativeEpollSlow : public FaultsInThreadsSlow
{
protected:
    void SetUp() override
    {
        FaultsInThreadsSlow::SetUp();
        moxtest::LetLoaderFind(moxtest::Found::Whole);
        ASSERT_EQ(THREAD_HookMoxEpollFunc(), 0U);
        void* const wrappers[kMoxFuncCount] = {
            reinterpret_cast<void*>(MoxCreate), reinterpret_cast<void*>(MoxCtl),
            reinterpret_cast<void*>(MoxWait), reinterpret_cast<void*>(MoxErrorNo),
            reinterpret_cast<void*>(MoxClose)};
        for (u32 row = 0; row < kMoxFuncCount; ++row) {
            TheMox().real[row] = std::exchange(g_xelMoxEpollFuncMap[row].function, wrappers[row]);
        }
        SetSleepHook(HelpBuffer);
        before_ = Measure();
    }
    void TearDown() override
    {
        moxtest::ForgetLoad();
        FaultsInThreadsSlow::TearDown();
    }
    // The buffers of a thread live as long as the process; here they end with their thread.
    static void FreeBuffers()
    {
        const std::lock_guard<std::mutex> guard(TheMox().mutex);
        for (XelMoxEventsInfo* info : TheMox().buffers) {
            XEL_MemFreeF(info->buffer, "sweep", 1, 0);
            XEL_MemFreeF(info, "sweep", 1, 0);
        }
        TheMox().buffers.clear();
    }
    void Life(Trial& run)
    {
        ThreadLife(run, *counted_, XEL_SCH_POLICY_BFS, XEL_EPOLL_TYPE_MOX);
        FreeBuffers();
    }
};

TEST_F(FaultsInTheAlternativeEpollSlow, AroundItLeaveNothing)
{
    const Scenario scenario = [this](Trial& run) { Life(run); };
    Sweep("alternative epoll", "around it", Extent::Calls, scenario);
    Sweep("alternative epoll", "around it", Extent::Locks, scenario);
}

// What the implementation itself refuses: creation fails without it, everything else is told and
// can be repeated.
void RefusedLife(Counted& counted, u32 row)
{
    const ThreadAttr attr("sweep");
    const u32 type = XEL_EPOLL_TYPE_MOX;
    ASSERT_EQ(XEL_ThreadSetAttr(attr.Get(), XEL_THREAD_ATTR_EPOLL_TYPE, &type, 4), 0U);
    XelThreadCtrl* thread = XEL_ThreadCreate(attr.Get());
    EXPECT_EQ(thread == nullptr, row == 0 && TheMox().at.load() == 1);
    if (thread == nullptr) {
        thread = XEL_ThreadCreate(attr.Get());
    }
    ASSERT_NE(thread, nullptr);
    const Fd fd = Fd::Event(1);
    SchEpollCtlReq request = {EPOLLIN, counted.attr};
    const u32 runs = counted.runs.load();
    if (XEL_ThreadCtrl(thread, XEL_THREAD_CTRL_ADD, fd.Get(), &request) != 0) {
        ASSERT_EQ(XEL_ThreadCtrl(thread, XEL_THREAD_CTRL_ADD, fd.Get(), &request), 0U);
    }
    EXPECT_TRUE(AwaitTrue([&] { return counted.runs.load() > runs; }));
    (void)XEL_ThreadCtrl(thread, XEL_THREAD_CTRL_DEL, fd.Get(), nullptr);
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), nullptr);
    SchCtrl* sch = thread->sch;
    if (SchEventThreadDestory(thread) != 0) {
        EXPECT_EQ(SchEventThreadDestory(thread), 0U);
    }
    EXPECT_NE(sch->magic.load(), kSchMagic) << "the scheduler outlived its thread";
}

TEST_F(FaultsInTheAlternativeEpollSlow, OfItsOwnLeaveNothing)
{
    Mox& mox = TheMox();
    u64 visited = 0;
    for (const u32 row : {0U, 1U, 2U, 4U}) {
        for (u64 nth = 1, made = 1; nth <= made && nth < 100; ++nth, ++visited) {
            SCOPED_TRACE("row " + std::to_string(row) + " call " + std::to_string(nth));
            for (auto& calls : mox.calls) {
                calls.store(0);
            }
            mox.failing.store(row);
            mox.at.store(nth);
            RefusedLife(*counted_, row);
            made = mox.calls[row].load();
            mox.failing.store(kMoxFuncCount);
            EXPECT_TRUE(AwaitTrue([] { return threadtest::ThreadsNamed("sweep") == 0; }));
            FreeBuffers();
            EXPECT_EQ(Measure(), before_);
            DropLog();
        }
    }
    EXPECT_GT(visited, 8U);
    printf("alternative epoll: of its own: %lu calls failed in turn\n",
           static_cast<unsigned long>(visited));
}

} // namespace
