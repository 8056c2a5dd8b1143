// What the scheduler runs for an event: the checks of the node, the read, the callback's result and
// the report of a slow callback.
#include <cerrno>
#include <cstdlib>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <utility>

#include "event_support.h"
#include "xel_clock.h"

// Has a symbol that can be found; the others below have none.
extern "C" __attribute__((visibility("default"))) uint32_t xel_slow(uint64_t data);
uint32_t xel_slow(uint64_t data)
{
    return static_cast<uint32_t>(data);
}

namespace
{

using namespace eventtest;

// What lies below the caller's frame holds no 0 afterwards, so that the frame of its next call does
// not begin cleared by luck.
__attribute__((noinline)) void DirtyStack()
{
    volatile char bytes[4096];
    for (volatile char& byte : bytes) {
        byte = 'x';
    }
}

// What backtrace_symbols() gives for an address outside every module; its caller frees it.
char** SymbolsOfNowhere()
{
    constexpr char kText[] = "[0x7f00]";
    auto** symbols = static_cast<char**>(malloc(sizeof(char*) + sizeof(kText)));
    EXPECT_NE(symbols, nullptr);
    symbols[0] = reinterpret_cast<char*>(symbols + 1);
    memcpy(symbols[0], kText, sizeof(kText));
    return symbols;
}

std::string Slow(const XelEventNode* event, const char* func, u64 start, u64 elapsed)
{
    return Text("Eventfd proc timeout.(name = %s, eventfd = %d, startTime = %lu,timeout = %lu,"
                "func = %s)",
                event->name, event->fd, static_cast<unsigned long>(start),
                static_cast<unsigned long>(elapsed), func);
}

std::string Unsuccessful(const XelEventNode* event, u32 ret)
{
    return Text("Eventfd user callback unsuccessfully: name = %s, ret = %u, fd = %d.", event->name,
                ret, event->fd);
}

// The callback is called by the test itself; the event's thread is held meanwhile.
class EventProc : public EventTest
{
protected:
    void SetUp() override
    {
        EventTest::SetUp();
        worker_ = std::make_unique<Worker>();
        held_ = std::make_unique<HeldWorker>(*worker_);
    }
    void TearDown() override
    {
        held_.reset();
        worker_.reset();
        EventTest::TearDown();
    }
    static u32 Proc(const XelEventNode* node, u32 mask = EPOLLIN)
    {
        struct epoll_event events = {};
        events.events = mask;
        return SchEventProc(&events, reinterpret_cast<u64>(node));
    }
    static u64 Pending(const XelEventNode* node)
    {
        u64 count = 0;
        eventfd_t value = 0;
        while (eventfd_read(node->fd, &value) == 0) {
            ++count;
        }
        return count;
    }

    std::unique_ptr<Worker> worker_;
    std::unique_ptr<HeldWorker> held_;
    std::atomic<u32> runs_{0};
};

TEST_F(EventProc, OneRunTakesOneNotification)
{
    const Event event(*worker_, runs_);
    for (int i = 0; i < 5; ++i) {
        event.Notify();
    }
    EXPECT_EQ(Proc(event.Get()), 0U);
    EXPECT_EQ(Proc(event.Get(), EPOLLIN | EPOLLHUP), 0U);
    EXPECT_EQ(runs_.load(), 2U);
    EXPECT_EQ(Pending(event.Get()), 3U);
    EXPECT_NO_LOG();
}

TEST_F(EventProc, MaskWithoutReadinessIsRefusedSilently)
{
    const Event event(*worker_, runs_);
    event.Notify();
    for (const u32 mask : {0U, static_cast<u32>(EPOLLOUT), static_cast<u32>(EPOLLHUP | EPOLLERR)}) {
        EXPECT_EQ(Proc(event.Get(), mask), kFail);
    }
    EXPECT_EQ(runs_.load(), 0U);
    EXPECT_EQ(Pending(event.Get()), 1U);
    EXPECT_EQ(Calls(Call::EventfdRead), 0U);
    EXPECT_NO_LOG();
}

// Each node has every later fault as well.
TEST_F(EventProc, NodeIsCheckedInItsOrder)
{
    const Event event(*worker_, runs_);
    event.Notify();
    XelEventNode unlisted = {};
    unlisted.fd = -1;
    EXPECT_EQ(Proc(&unlisted), kFail);
    EXPECT_LOG(kEventSource, "Eventfd node invalid.");
    EXPECT_EQ(Proc(nullptr), kFail);
    EXPECT_LOG(kEventSource, "Eventfd node invalid.");
    XelEventNode* node = event.Get();
    const i32 fd = node->fd;
    node->magic.store(0x99);
    node->fd = -5;
    node->proc = nullptr;
    EXPECT_EQ(Proc(node), kFail);
    EXPECT_LOG(kEventSource, "Eventfd node magic invalid. (magic = 0x99)");
    node->magic.store(0x45687BED);
    EXPECT_EQ(Proc(node), kFail);
    EXPECT_LOG(kEventSource, "Eventfd node fd invalid. (fd=-5)");
    node->fd = fd;
    EXPECT_EQ(Proc(node), kFail);
    EXPECT_LOG(kEventSource, "Eventfd node proc invalid. (proc null)");
    node->proc = CountRun;
    EXPECT_EQ(Proc(node), 0U);
    EXPECT_EQ(runs_.load(), 1U);
}

TEST_F(EventProc, CopyHoldsTheWholeNode)
{
    const Event event(*worker_, CountRun, DataOf(runs_), "copied");
    EventCopy copy = {};
    EXPECT_EQ(SchEventGetUserInfo(event.Get(), &copy), 0U);
    EXPECT_EQ(copy.magic, 0x45687BEDU);
    EXPECT_EQ(copy.link.next, event->link.next);
    EXPECT_EQ(copy.link.prev, event->link.prev);
    EXPECT_EQ(memcmp(copy.name, event->name, sizeof(copy.name)), 0);
    EXPECT_STREQ(copy.name, "copied");
    EXPECT_EQ(copy.thread, worker_->Get());
    EXPECT_EQ(copy.fd, event->fd);
    EXPECT_EQ(copy.proc, CountRun);
    EXPECT_EQ(copy.data, DataOf(runs_));
    XelEventNode unlisted = {};
    EXPECT_EQ(SchEventGetUserInfo(&unlisted, &copy), kFail);
    EXPECT_LOG(kEventSource, "Eventfd node invalid.");
}

TEST_F(EventProc, DescriptorZeroIsRead)
{
    const Event event(*worker_, runs_);
    XelEventNode* node = event.Get();
    const i32 fd = std::exchange(node->fd, 0);
    FailNth(Call::EventfdRead, 1, 0);
    EXPECT_EQ(Proc(node), 0U);
    node->fd = fd;
    EXPECT_EQ(runs_.load(), 1U);
    EXPECT_NO_LOG();
}

// So callbacks of several threads get their copies at once.
TEST_F(EventProc, CopyHoldsTheListForReading)
{
    const Event event(*worker_, runs_);
    event.Notify();
    const Held byProc =
        HeldAtUnlock(g_xelEventList.lock, [&] { EXPECT_EQ(Proc(event.Get()), 0U); });
    EXPECT_EQ(byProc, Held::ForReading);
    EventCopy copy = {};
    const Held byCopy = HeldAtUnlock(
        g_xelEventList.lock, [&] { EXPECT_EQ(SchEventGetUserInfo(event.Get(), &copy), 0U); });
    EXPECT_EQ(byCopy, Held::ForReading);
}

// Nobody closes the descriptor between the look at the node and the read.
TEST_F(EventProc, ReadHoldsTheListToo)
{
    const Event event(*worker_, runs_);
    event.Notify();
    Held held = Held::Not;
    RunAtNth(Call::EventfdRead, 1, [&held] { held = HoldOf(g_xelEventList.lock); });
    EXPECT_EQ(Proc(event.Get()), 0U);
    EXPECT_EQ(held, Held::ForReading);
}

TEST_F(EventProc, FailedReadIsLogged)
{
    const Event event(*worker_, CountRun, DataOf(runs_), "unread");
    EXPECT_EQ(Proc(event.Get()), kFail);
    EXPECT_LOG(kEventSource,
               Text("Eventfd %d read unsuccessfully, name = unread, errno = 11.", event->fd));
    FailNth(Call::EventfdRead, 1, -1, EIO);
    event.Notify();
    EXPECT_EQ(Proc(event.Get()), kFail);
    EXPECT_LOG(kEventSource,
               Text("Eventfd %d read unsuccessfully, name = unread, errno = 5.", event->fd));
    EXPECT_EQ(runs_.load(), 0U);
    EXPECT_EQ(Calls(Call::SystimeGetMilliSec), 0U);
}

TEST_F(EventProc, ResultOfTheCallbackIsPassedOnAndLogged)
{
    for (const u32 ret : {1U, 22U, 0xFFFFFFFFU}) {
        const Event event(*worker_, xel_slow, ret, "result");
        event.Notify();
        EXPECT_EQ(Proc(event.Get()), ret);
        EXPECT_LOG(kEventSource, Unsuccessful(event.Get(), ret));
    }
    const Event event(*worker_, xel_slow, 0, "result");
    event.Notify();
    EXPECT_EQ(Proc(event.Get()), 0U);
    EXPECT_NO_LOG();
}

// The stored name is altered: each second character is raised by one.
TEST_F(EventProc, CallbackOf400MillisecondsIsReported)
{
    const Event event(*worker_, xel_slow, 0, "slow");
    for (const u64 elapsed : {u64{400}, u64{401}, u64{100000}}) {
        event.Notify();
        ScriptMilliSec({7000, 7000 + elapsed});
        EXPECT_EQ(Proc(event.Get()), 0U);
        EXPECT_LOG(kEventSource, Warning(Slow(event.Get(), "xfl`smox", 7000, elapsed)));
    }
    EXPECT_EQ(Calls(Call::SystimeGetMilliSec), 6U);
}

TEST_F(EventProc, CallbackOf399MillisecondsIsNot)
{
    const Event event(*worker_, xel_slow, 0, "quick");
    for (const u64 elapsed : {u64{0}, u64{1}, u64{398}, u64{399}}) {
        event.Notify();
        ScriptMilliSec({7000, 7000 + elapsed});
        EXPECT_EQ(Proc(event.Get()), 0U);
    }
    EXPECT_NO_LOG();
}

// The time is taken around the callback alone.
TEST_F(EventProc, TimeRunsWhileTheCallbackRuns)
{
    ScriptMilliSec({5000});
    u64 begin = 0;
    const Reaction reaction = [&begin] {
        EXPECT_EQ(SystimeGetMilliSec(&begin), 0U);
        ScriptMilliSec({5400});
        return 0U;
    };
    const Event event(*worker_, reaction);
    event.Notify();
    EXPECT_EQ(Proc(event.Get()), 0U);
    EXPECT_EQ(begin, 5000U);
    const std::vector<LogLine> lines = TakeLog();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].level, 80U);
    EXPECT_NE(lines[0].text.find("startTime = 5000,timeout = 400,func = "), std::string::npos)
        << lines[0].text;
}

TEST_F(EventProc, TimeOfTheReadIsNotTheCallbacks)
{
    const Event event(*worker_, xel_slow, 0, "quick");
    event.Notify();
    ScriptMilliSec({5000});
    RunAtNth(Call::EventfdRead, 1, [] { ScriptMilliSec({5400}); });
    EXPECT_EQ(Proc(event.Get()), 0U);
    EXPECT_NO_LOG();
}

TEST_F(EventProc, TimeOfTheFailuresLineIsTheCallbacks)
{
    const Event event(*worker_, xel_slow, 9, "both");
    event.Notify();
    ScriptMilliSec({1});
    xeltest::RunAtNextLine([] { ScriptMilliSec({401}); });
    EXPECT_EQ(Proc(event.Get()), 9U);
    EXPECT_LOG(kEventSource, Unsuccessful(event.Get(), 9),
               Warning(Slow(event.Get(), "xfl`smox", 1, 400)));
}

TEST_F(EventProc, SlowAndFailingCallbackHasBothLines)
{
    const Event event(*worker_, xel_slow, 9, "both");
    event.Notify();
    ScriptMilliSec({1, 401});
    EXPECT_EQ(Proc(event.Get()), 9U);
    EXPECT_LOG(kEventSource, Unsuccessful(event.Get(), 9),
               Warning(Slow(event.Get(), "xfl`smox", 1, 400)));
}

TEST_F(EventProc, FailedNameLookupPrintsAnEmptyName)
{
    const Event event(*worker_, xel_slow, 0, "nameless");
    event.Notify();
    ScriptMilliSec({1, 401});
    FailNth(Call::BacktraceSymbols, 1);
    EXPECT_EQ(Proc(event.Get()), 0U);
    EXPECT_LOG(kEventSource, Warning(Slow(event.Get(), "", 1, 400)));
}

// Such a text leaves the buffer of the name as it is.
TEST_F(EventProc, SymbolWithoutANamePrintsAnEmptyName)
{
    const Event event(*worker_, xel_slow, 0, "nameless");
    event.Notify();
    ScriptMilliSec({1, 401});
    FailNth(Call::BacktraceSymbols, 1, reinterpret_cast<intptr_t>(SymbolsOfNowhere()));
    DirtyStack();
    EXPECT_EQ(Proc(event.Get()), 0U);
    EXPECT_LOG(kEventSource, Warning(Slow(event.Get(), "", 1, 400)));
}

// A callback that destroys its own event: what follows works with the copy.
TEST_F(EventProc, ReportsOutliveTheEvent)
{
    XelEventNode* own = nullptr;
    const Reaction reaction = [&own] {
        XEL_EventDestroy(own);
        return 3U;
    };
    Event event(*worker_, React, DataOf(reaction), "gone");
    own = event.Release();
    const int fd = own->fd;
    EXPECT_EQ(XEL_EventNotify(own), 0U);
    EXPECT_EQ(Proc(own), 3U);
    EXPECT_LOG(kEventSource,
               Text("Eventfd user callback unsuccessfully: name = gone, ret = 3, fd = %d.", fd));
    EXPECT_EQ(g_xelEventList.count, 0U);
}

// The result of the lock is not looked at here.
TEST_F(EventProc, FailedReadLockIsNotLookedAt)
{
    const Event event(*worker_, runs_);
    event.Notify();
    // The lock is really taken: only the answer is bad.
    RunAtNth(Call::PthreadRwlockRdlock, 1,
             [] { EXPECT_EQ(pthread_rwlock_rdlock(&g_xelEventList.lock), 0); });
    FailNth(Call::PthreadRwlockRdlock, 1, EAGAIN);
    EXPECT_EQ(Proc(event.Get()), 0U);
    EXPECT_EQ(Hits(), 1U);
    ResetFaults(); // a hook that did not run must not lock later
    EXPECT_EQ(runs_.load(), 1U);
    EXPECT_NO_LOG();
}

// A late run of a destroyed event may find an event of another thread at its address.
TEST_F(EventProc, AnotherSchedulerThreadNeitherRunsItNorTakesItsNotification)
{
    const Event event(*worker_, runs_);
    event.Notify();
    Worker other;
    other.Run([&event] { EXPECT_EQ(Proc(event.Get()), kFail); });
    EXPECT_LOG(kEventSource, "Eventfd node invalid.");
    EXPECT_EQ(runs_.load(), 0U);
    held_.reset();
    EXPECT_TRUE(AwaitTrue([this] { return runs_.load() == 1; }));
    EXPECT_NO_LOG();
}

// On its own thread: the dispatcher sees the callback's result too.
TEST_F(EventProc, DispatcherReportsTheResultAsWell)
{
    held_.reset();
    const Event event(*worker_, xel_slow, 6, "failing");
    event.Notify();
    EXPECT_TRUE(AwaitTrue([] { return LogCount() == 2; }));
    EXPECT_LOG(kEventSource, Unsuccessful(event.Get(), 6),
               From(kSchSource,
                    Text("User proc result, param = :%lu. (ret = 0x6).",
                         reinterpret_cast<unsigned long>(event.Get())),
                    80));
}

} // namespace
