// Destruction of an event: refusals, what is given back, and destruction beside running callbacks.
#include <cerrno>
#include <utility>

#include "event_support.h"

namespace
{

using namespace eventtest;

constexpr char kInvalid[] = "Event destroy eventHandle is invalid.";

class EventDestroy : public EventTest
{
protected:
    void SetUp() override
    {
        EventTest::SetUp();
        worker_ = std::make_unique<Worker>();
    }
    void TearDown() override
    {
        worker_.reset();
        EventTest::TearDown();
    }

    std::unique_ptr<Worker> worker_;
    std::atomic<u32> runs_{0};
};

TEST_F(EventDestroy, NullIsRefused)
{
    XEL_EventDestroy(nullptr);
    EXPECT_LOG(kEventSource, "Event destroy eventHandle NULL.");
}

TEST_F(EventDestroy, EverythingIsGivenBack)
{
    worker_->Run([] {});
    const Footprint before = Measure();
    Event event(*worker_, runs_);
    const int fd = event->fd;
    event.Destroy();
    EXPECT_NO_LOG();
    EXPECT_EQ(Measure(), before);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd), nullptr);
    EXPECT_EQ(Registration((*worker_)->epFd, fd), "");
    EXPECT_EQ(g_xelEventList.count, 0U);
}

// The handle is looked up by its address: its memory is not read.
TEST_F(EventDestroy, SecondDestroyIsRefused)
{
    Event event(*worker_, runs_);
    XelEventNode* stale = event.Get();
    event.Destroy();
    for (int i = 0; i < 2; ++i) {
        XEL_EventDestroy(stale);
        EXPECT_LOG(kEventSource, "event node del eventHandle invalid.", kInvalid);
    }
    // The line comes when the list is free: a log service may use events itself.
    xeltest::RunAtNextLine([this] { Event(*worker_, runs_).Destroy(); });
    XEL_EventDestroy(stale);
    EXPECT_LOG(kEventSource, "event node del eventHandle invalid.", kInvalid);
    EXPECT_EQ(g_xelEventList.count, 0U);
}

TEST_F(EventDestroy, WrongMagicIsRefused)
{
    const Event event(*worker_, runs_);
    event->magic.store(0x4321);
    XEL_EventDestroy(event.Get());
    EXPECT_LOG(kEventSource, "Event delete eventHandle magic error. (magic = 0x4321)", kInvalid);
    EXPECT_EQ(EventListDelNode(event.Get()), kFail);
    EXPECT_LOG(kEventSource, "Event delete eventHandle magic error. (magic = 0x4321)");
    EXPECT_EQ(g_xelEventList.count, 1U);
    EXPECT_TRUE(IsOpen(event->fd));
    event->magic.store(0x45687BED);
    event.Notify();
    EXPECT_TRUE(AwaitTrue([this] { return runs_.load() == 1; }));
}

// Everything stays as it was, and a later destroy works.
TEST_F(EventDestroy, FailedListLockIsRefused)
{
    worker_->Run([] {});
    const Event event(*worker_, runs_);
    for (const i64 answer : {-1, 16}) {
        FailNth(Call::PthreadRwlockWrlock, 1, answer, EPERM);
        XEL_EventDestroy(event.Get());
        EXPECT_LOG(kEventSource, "event list lock unsuccessfully, errno = 1.", kInvalid);
        EXPECT_EQ(g_xelEventList.count, 1U);
    }
    event.Notify();
    EXPECT_TRUE(AwaitTrue([this] { return runs_.load() == 1; }));
}

TEST_F(EventDestroy, NodeIsNotFreedWithoutTheLock)
{
    const EventAttr attr;
    XelEventNode* node = EventCreateEventNode(worker_->Get(), 3, attr.Get());
    const u64 frees = Calls(Call::XelMemFreeF);
    FailNth(Call::PthreadRwlockWrlock, 1, EINVAL, EPERM);
    EventDestroyEventNode(node);
    EXPECT_LOG(kEventSource, "Event list lock unsuccessfully. (errno = 1)");
    EXPECT_EQ(Calls(Call::XelMemFreeF), frees);
    EXPECT_EQ(node->magic.load(), 0x45687BEDU);
    u32 magic = 1;
    Held held = Held::Not;
    RunAtNth(Call::XelMemFreeF, 1, [&] {
        magic = node->magic.load();
        held = HoldOf(g_xelEventList.lock);
    });
    EventDestroyEventNode(node);
    EXPECT_EQ(magic, 0U);
    EXPECT_EQ(held, Held::ForWriting);
    EXPECT_EQ(Calls(Call::XelMemFreeF), frees + 1);
}

// A descriptor that the thread does not know any more: the destruction goes on.
TEST_F(EventDestroy, FailedDeleteIsLoggedAndTheRestIsGivenBack)
{
    Event event(*worker_, runs_);
    const int fd = event->fd;
    ASSERT_EQ(DelFd(worker_->Get(), fd), 0U);
    event.Destroy();
    EXPECT_LOG(kEventSource, From(kSchSource, "Sch delete fd unsuccessfully, invalid task handle."),
               From(kSchSource,
                    Text("Sch operation unsuccessfully. (fd = %d, op = 2, ret = 0xffffffff)", fd)),
               "Event delete from epoll unsuccessfully. (ret = 0xffffffff)");
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(g_xelEventList.count, 0U);
}

TEST_F(EventDestroy, NegativeDescriptorIsNotClosed)
{
    Event event(*worker_, runs_);
    const int fd = event->fd;
    ASSERT_EQ(DelFd(worker_->Get(), fd), 0U);
    event->fd = -1;
    const u64 closed = Calls(Call::Close);
    event.Destroy();
    EXPECT_EQ(Calls(Call::Close), closed);
    EXPECT_EQ(LogCount("Event delete from epoll unsuccessfully. (ret = 0xffffffff)"), 1U);
    DropLog();
    EXPECT_TRUE(IsOpen(fd));
    const Fd toClose(fd);
}

TEST_F(EventDestroy, DescriptorZeroIsClosed)
{
    Event event(*worker_, runs_);
    const Fd real(std::exchange(event->fd, 0));
    ASSERT_EQ(DelFd(worker_->Get(), real.Get()), 0U);
    const u64 closed = Calls(Call::Close);
    FailNth(Call::Close, 1, 0); // the process keeps its own
    event.Destroy();
    EXPECT_EQ(Calls(Call::Close), closed + 1);
    EXPECT_EQ(LogCount("Event delete from epoll unsuccessfully. (ret = 0xffffffff)"), 1U);
    DropLog();
}

// A second destroyer, or a callback just beginning, is refused from then on.
TEST_F(EventDestroy, HandleIsInvalidBeforeItsThreadForgetsIt)
{
    Event event(*worker_, runs_);
    u32 listed = 1;
    RunAtNth(Call::EpollCtl, 1, [&listed] { listed = g_xelEventList.count; });
    event.Destroy();
    EXPECT_EQ(listed, 0U);
}

// Notifications that did not run yet are dropped with the event.
TEST_F(EventDestroy, PendingNotificationsAreDropped)
{
    {
        HeldWorker held(*worker_);
        Event event(*worker_, runs_);
        event.Notify();
        event.Notify();
        event.Destroy();
    }
    worker_->Run([] {});
    EXPECT_EQ(runs_.load(), 0U);
    DropLog(); // the thread may have taken the readiness already
}

TEST_F(EventDestroy, CallbackMayDestroyItsOwnEvent)
{
    XelEventNode* own = nullptr;
    const Reaction reaction = [&] {
        XEL_EventDestroy(own);
        runs_.fetch_add(1);
        return 0U;
    };
    Event event(*worker_, reaction);
    own = event.Release();
    {
        HeldWorker held(*worker_);
        EXPECT_EQ(XEL_EventNotify(own), 0U);
        EXPECT_EQ(XEL_EventNotify(own), 0U);
    }
    EXPECT_TRUE(AwaitTrue([this] { return runs_.load() == 1; }));
    worker_->Run([] {});
    EXPECT_EQ(runs_.load(), 1U);
    EXPECT_EQ(g_xelEventList.count, 0U);
    EXPECT_NO_LOG();
}

TEST_F(EventDestroy, CallbackMayDestroyAnEventOfAnotherThread)
{
    const Worker other("other");
    Event victim(other, runs_);
    XelEventNode* handle = victim.Release();
    std::atomic<bool> done{false};
    const Reaction reaction = [&] {
        XEL_EventDestroy(handle);
        done.store(true);
        return 0U;
    };
    const Event killer(*worker_, reaction);
    killer.Notify();
    EXPECT_TRUE(AwaitTrue([&done] { return done.load(); }));
    EXPECT_EQ(g_xelEventList.count, 1U);
}

// Destruction does not wait for the callback, which works with its copy.
TEST_F(EventDestroy, DestroyWhileTheCallbackRuns)
{
    Gate gate;
    const Reaction reaction = [&] {
        gate.Pass();
        runs_.fetch_add(1);
        return 4U;
    };
    Event event(*worker_, React, DataOf(reaction), "running");
    event.Notify();
    ASSERT_TRUE(gate.AwaitArrival());
    const int fd = event->fd;
    const auto node = reinterpret_cast<unsigned long>(event.Get());
    event.Destroy();
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(g_xelEventList.count, 0U);
    EXPECT_EQ(runs_.load(), 0U);
    gate.Open();
    worker_->Run([] {});
    EXPECT_EQ(runs_.load(), 1U);
    EXPECT_LOG(kEventSource,
               Text("Eventfd user callback unsuccessfully: name = running, ret = 4, fd = %d.", fd),
               From(kSchSource, Text("User proc result, param = :%lu. (ret = 0x4).", node), 80));
}

// Two threads destroy the same event: one does it, the other is refused.
TEST_F(EventDestroy, TwoDestroyersOfOneEvent)
{
    for (int round = 0; round < 20; ++round) {
        Event event(*worker_, runs_);
        XelEventNode* handle = event.Release();
        std::atomic<u32> ready{0};
        const auto destroy = [&] {
            ready.fetch_add(1);
            EXPECT_TRUE(AwaitTrue([&ready] { return ready.load() == 2; }));
            XEL_EventDestroy(handle);
        };
        Runner first(destroy);
        Runner second(destroy);
        first.Join();
        second.Join();
        EXPECT_LOG(kEventSource, "event node del eventHandle invalid.", kInvalid);
    }
}

} // namespace
