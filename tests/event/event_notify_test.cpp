// Notification: refusals, repeats, what it costs, and one run for each.
#include <cerrno>
#include <set>
#include <sys/eventfd.h>

#include "event_support.h"

namespace
{

using namespace eventtest;

class EventNotify : public EventTest
{
};

// A node that is in no list: notification trusts the magic alone.
struct LooseNode {
    explicit LooseNode(int fd)
    {
        node.magic.store(0x45687BED);
        node.fd = fd;
    }
    XelEventNode node = {};
};

TEST_F(EventNotify, NullIsRefused)
{
    EXPECT_EQ(XEL_EventNotify(nullptr), 2U);
    EXPECT_LOG(kEventSource, "Eventfd write, eventHandle NULL.");
}

TEST_F(EventNotify, WrongMagicIsRefusedBeforeTheDescriptor)
{
    LooseNode loose(-1);
    for (const u32 magic : {1U, 0x45886FDEU, 0xFFFFFFFFU}) {
        loose.node.magic.store(magic);
        EXPECT_EQ(XEL_EventNotify(&loose.node), 2U);
        EXPECT_LOG(kEventSource,
                   Text("Eventfd write eventHandle magic error. (magic = %#x)", magic));
    }
    loose.node.magic.store(0);
    EXPECT_EQ(XEL_EventNotify(&loose.node), 2U);
    EXPECT_LOG(kEventSource, "Eventfd write eventHandle magic error. (magic = 0)");
    EXPECT_EQ(Calls(Call::EventfdWrite), 0U);
}

TEST_F(EventNotify, NegativeDescriptorIsRefusedSilently)
{
    LooseNode loose(-1);
    EXPECT_EQ(XEL_EventNotify(&loose.node), kFail);
    loose.node.fd = INT32_MIN;
    EXPECT_EQ(XEL_EventNotify(&loose.node), kFail);
    EXPECT_EQ(Calls(Call::EventfdWrite), 0U);
    EXPECT_NO_LOG();
}

TEST_F(EventNotify, DescriptorZeroIsWritten)
{
    LooseNode loose(0);
    FailNth(Call::EventfdWrite, 1, 0);
    EXPECT_EQ(XEL_EventNotify(&loose.node), 0U);
    EXPECT_EQ(Calls(Call::EventfdWrite), 1U);
    EXPECT_NO_LOG();
}

TEST_F(EventNotify, InterruptedWriteIsRepeated)
{
    const Fd fd = Fd::Event();
    LooseNode loose(fd.Get());
    for (u64 n = 1; n <= 4; ++n) {
        FailNth(Call::EventfdWrite, n, -1, EINTR);
    }
    EXPECT_EQ(XEL_EventNotify(&loose.node), 0U);
    EXPECT_EQ(Calls(Call::EventfdWrite), 5U);
    eventfd_t value = 0;
    EXPECT_EQ(eventfd_read(fd.Get(), &value), 0);
    EXPECT_EQ(value, 1U);
    EXPECT_NO_LOG();
}

TEST_F(EventNotify, SaturatedCounterIsAWarning)
{
    const Fd fd = Fd::Event();
    LooseNode loose(fd.Get());
    ASSERT_EQ(eventfd_write(fd.Get(), UINT64_MAX - 1), 0);
    EXPECT_EQ(XEL_EventNotify(&loose.node), kFail);
    EXPECT_LOG(kEventSource, Warning("Eventfd write unsuccessfully. (errno = 11)"));
    EXPECT_EQ(Calls(Call::EventfdWrite), 1U);
}

TEST_F(EventNotify, AnyOtherFailureIsAWarning)
{
    LooseNode loose(NextFd()); // closed
    EXPECT_EQ(XEL_EventNotify(&loose.node), kFail);
    EXPECT_LOG(kEventSource, Warning("Eventfd write unsuccessfully. (errno = 9)"));
    const Fd fd = Fd::Event();
    loose.node.fd = fd.Get();
    FailNth(Call::EventfdWrite, 1, -1, EINTR);
    FailNth(Call::EventfdWrite, 2, -1, EIO);
    EXPECT_EQ(XEL_EventNotify(&loose.node), kFail);
    EXPECT_LOG(kEventSource, Warning("Eventfd write unsuccessfully. (errno = 5)"));
}

// One write: no lock, no allocation, and no look at the list.
TEST_F(EventNotify, CostsOneWrite)
{
    const Fd fd = Fd::Event();
    LooseNode loose(fd.Get());
    FailAll(Call::PthreadRwlockRdlock, -1);
    FailAll(Call::PthreadRwlockWrlock, -1);
    FailAll(Call::PthreadMutexLock, -1);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(XEL_EventNotify(&loose.node), 0U);
    }
    EXPECT_EQ(Calls(Call::EventfdWrite), 10U);
    for (const Call call : {Call::PthreadRwlockRdlock, Call::PthreadRwlockWrlock,
                            Call::PthreadMutexLock, Call::XelMemAllocF, Call::FmmUnitAlloc}) {
        EXPECT_EQ(Calls(call), 0U);
    }
}

// Three notifications before the thread runs: three runs, each in a dispatch pass of its own.
TEST_F(EventNotify, EachNotificationMakesOneRun)
{
    Worker worker;
    std::vector<u64> waits;
    std::atomic<u32> runs{0};
    const Reaction reaction = [&] {
        waits.push_back(Calls(Call::EpollWait));
        runs.fetch_add(1);
        return 0U;
    };
    const Event event(worker, reaction);
    {
        HeldWorker held(worker);
        for (int i = 0; i < 3; ++i) {
            event.Notify();
        }
        EXPECT_EQ(runs.load(), 0U);
    }
    EXPECT_TRUE(AwaitTrue([&runs] { return runs.load() == 3; }));
    worker.Run([] {});
    EXPECT_EQ(runs.load(), 3U);
    EXPECT_EQ(std::set<u64>(waits.begin(), waits.end()).size(), 3U);
    EXPECT_NO_LOG();
}

TEST_F(EventNotify, ManyNotificationsAreCountedExactly)
{
    Worker worker;
    std::atomic<u32> runs{0};
    const Event event(worker, runs);
    for (int i = 0; i < 1000; ++i) {
        event.Notify();
    }
    EXPECT_TRUE(AwaitTrue([&runs] { return runs.load() == 1000; }));
    worker.Run([] {});
    EXPECT_EQ(runs.load(), 1000U);
}

TEST_F(EventNotify, CallbackMayNotifyItsOwnEventAndOthers)
{
    Worker worker;
    const Worker otherWorker("other");
    std::atomic<u32> runs{0};
    std::atomic<u32> otherRuns{0};
    const Event other(otherWorker, otherRuns);
    XelEventNode* self = nullptr;
    const Reaction reaction = [&] {
        other.Notify();
        if (runs.fetch_add(1) < 9) {
            EXPECT_EQ(XEL_EventNotify(self), 0U);
        }
        return 0U;
    };
    const Event event(worker, reaction);
    self = event.Get();
    event.Notify();
    EXPECT_TRUE(AwaitTrue([&] { return otherRuns.load() == 10; }));
    worker.Run([] {}); // the run that notified last has ended
    EXPECT_EQ(runs.load(), 10U);
}

TEST_F(EventNotify, CallbackRunsOnTheEventsThread)
{
    Worker worker;
    std::atomic<u64> ranOn{0};
    const Reaction reaction = [&ranOn] {
        ranOn.store(pthread_self());
        return 0U;
    };
    const Event event(worker, reaction);
    event.Notify();
    EXPECT_TRUE(AwaitTrue([&] { return ranOn.load() == worker->tid.load(); }));
}

} // namespace
