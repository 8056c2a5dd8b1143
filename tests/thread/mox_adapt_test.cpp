// The adapters: what reaches the library, what comes back, and the buffer of a waiting thread.
#include <cerrno>
#include <sys/epoll.h>

#include "mox_support.h"

namespace
{

using namespace moxtest;

constexpr char kNoBuffer[] = "Thread adadpt epoll events prepare, memory malloc unsuccessfully.";
constexpr char kNoWait[] = "Thread adapt epoll wait, memory alloc unsuccessfully.";

std::string WrongType(u32 type)
{
    return Text("Thread adapt mox epoll_ctl unsuccessfully, fd type is invalid. (fdType = %u)",
                type);
}

class MoxAdapt : public MoxTest
{
protected:
    void SetUp() override
    {
        MoxTest::SetUp();
        ASSERT_EQ(THREAD_HookMoxEpollFunc(), 0U);
        stand_ = Stand();
        stand_->onWait.store(nullptr);
        epFd_ = Fd(THREAD_MoxEpollCreateAdapt());
        before_ = Measure();
    }
    void TearDown() override
    {
        epFd_.Reset();
        before_.descriptors -= 1;
        MoxTest::TearDown();
    }
    u32 CtlCalls() const { return stand_->calls[standin::kCtl].load(); }
    // Registers a descriptor of a task under a number.
    void Add(int fd, u64 data)
    {
        struct epoll_event event = {};
        event.events = EPOLLIN;
        event.data.u64 = data;
        ASSERT_EQ(THREAD_MoxEpollCtlAdapt(epFd_.Get(), 0, fd, &event), 0);
    }

    standin::Control* stand_ = nullptr;
    Fd epFd_;
};

TEST_F(MoxAdapt, ForwardersPassResultsThrough)
{
    stand_->failWith[standin::kCreate].store(5);
    stand_->answer[standin::kCreate].store(-9);
    EXPECT_EQ(THREAD_MoxEpollCreateAdapt(), -9);
    EXPECT_EQ(THREAD_MoxEpollErrorNoGetAdapt(), 5);
    stand_->failWith[standin::kErrorNoGet].store(1234);
    EXPECT_EQ(THREAD_MoxEpollErrorNoGetAdapt(), 1234);
    stand_->failWith[standin::kErrorNoGet].store(0);
    stand_->failWith[standin::kClose].store(6);
    stand_->answer[standin::kClose].store(-7);
    EXPECT_EQ(THREAD_MoxEpollCloseAdapt(3), -7);
    EXPECT_EQ(stand_->lastClosed, 3);
    EXPECT_EQ(THREAD_EpollCloseFd(2, 3), static_cast<u32>(-7));
    EXPECT_EQ(stand_->calls[standin::kCreate].load(), 2U); // the fixture's and this one
    EXPECT_NO_LOG();
}

// The operation is looked at before the task.
TEST_F(MoxAdapt, OperationsAboveTwoAreRefusedWithoutACall)
{
    const Fd fd = Fd::Event();
    struct epoll_event event = {};
    for (const u32 op : {3U, 4U, kFail}) {
        EXPECT_EQ(THREAD_MoxEpollCtlAdapt(epFd_.Get(), op, fd.Get(), &event), -1);
        EXPECT_LOG(kMoxSource, "Thread adapt mox epoll_ctl unsuccessfully, param op is invalid.");
    }
    EXPECT_EQ(CtlCalls(), 0U);
}

TEST_F(MoxAdapt, DescriptorWithoutTaskIsRefusedWithoutACall)
{
    const Fd fd = Fd::Event();
    struct epoll_event event = {};
    for (const u32 op : {0U, 1U, 2U}) {
        EXPECT_EQ(THREAD_MoxEpollCtlAdapt(epFd_.Get(), op, fd.Get(), &event), -1);
        EXPECT_LOG(kMoxSource, WrongType(2));
    }
    EXPECT_EQ(THREAD_MoxEpollCtlAdapt(epFd_.Get(), 2, -1, nullptr), -1);
    EXPECT_LOG(kMoxSource, WrongType(2));
    EXPECT_EQ(CtlCalls(), 0U);
}

TEST_F(MoxAdapt, DescriptorWhoseTaskIsGoneCannotBeDeleted)
{
    const Fd fd = Fd::Event();
    Task task(fd.Get());
    Add(fd.Get(), 1);
    task.Destroy();
    EXPECT_EQ(THREAD_MoxEpollCtlAdapt(epFd_.Get(), 2, fd.Get(), nullptr), -1);
    EXPECT_LOG(kMoxSource, WrongType(2));
    EXPECT_EQ(CtlCalls(), 1U);
}

TEST_F(MoxAdapt, TypeOfTwoOrMoreIsRefused)
{
    const Fd fd = Fd::Event();
    const Task task(fd.Get());
    struct epoll_event event = {};
    for (const u32 type : {2U, 3U, 100U}) {
        task->fdType.store(type);
        EXPECT_EQ(THREAD_MoxEpollCtlAdapt(epFd_.Get(), 0, fd.Get(), &event), -1);
        EXPECT_LOG(kMoxSource, WrongType(type));
    }
    EXPECT_EQ(CtlCalls(), 0U);
}

TEST_F(MoxAdapt, RecordCarriesMaskTypeAndData)
{
    for (const u32 type : {0U, 1U}) {
        const Fd fd = Fd::Event();
        TaskSpec spec;
        spec.fdType = type;
        const Task task(fd.Get(), spec);
        struct epoll_event event = {};
        event.events = EPOLLIN | static_cast<u32>(EPOLLET);
        event.data.u64 = 0x1122334455667788;
        EXPECT_EQ(THREAD_MoxEpollCtlAdapt(epFd_.Get(), 0, fd.Get(), &event), 0);
        EXPECT_TRUE(stand_->lastCtlHadRecord);
        const u8* bytes = stand_->lastCtlRecord.bytes;
        EXPECT_EQ(At<u32>(bytes, 0), 0x80000001U);
        EXPECT_EQ(bytes[4], type);
        for (size_t i = 5; i < 24; ++i) {
            EXPECT_EQ(bytes[i], 0) << i;
        }
        EXPECT_EQ(At<u64>(bytes, 24), 0x1122334455667788U);
    }
    EXPECT_NO_LOG();
}

TEST_F(MoxAdapt, OperationNumbersAreTheLibrarysOwn)
{
    const Fd fd = Fd::Event();
    const Task task(fd.Get());
    struct epoll_event event = {};
    event.events = EPOLLIN;
    for (int op = 0; op < 3; ++op) {
        EXPECT_EQ(THREAD_MoxEpollCtlAdapt(epFd_.Get(), static_cast<u32>(op), fd.Get(), &event), 0);
        EXPECT_EQ(stand_->lastCtl[0], epFd_.Get());
        EXPECT_EQ(stand_->lastCtl[1], op);
        EXPECT_EQ(stand_->lastCtl[2], fd.Get());
    }
    EXPECT_EQ(Calls(Call::EpollCtl), 0U);
}

TEST_F(MoxAdapt, NullEventIsPassedAsNull)
{
    const Fd fd = Fd::Event();
    const Task task(fd.Get());
    Add(fd.Get(), 1);
    EXPECT_EQ(THREAD_MoxEpollCtlAdapt(epFd_.Get(), 2, fd.Get(), nullptr), 0);
    EXPECT_FALSE(stand_->lastCtlHadRecord);
    EXPECT_NO_LOG();
}

TEST_F(MoxAdapt, ControlResultIsPassedThrough)
{
    const Fd fd = Fd::Event();
    const Task task(fd.Get());
    struct epoll_event event = {};
    stand_->failWith[standin::kCtl].store(88);
    for (const int answer : {-1, -5, 7}) {
        stand_->answer[standin::kCtl].store(answer);
        EXPECT_EQ(THREAD_MoxEpollCtlAdapt(epFd_.Get(), 0, fd.Get(), &event), answer);
        EXPECT_EQ(THREAD_MoxEpollErrorNoGetAdapt(), 88);
    }
    EXPECT_NO_LOG();
}

TEST_F(MoxAdapt, ReadyRecordsAreTranslated)
{
    const Fd first = Fd::Event(1);
    const Fd second = Fd::Event(1);
    const Task firstTask(first.Get());
    const Task secondTask(second.Get());
    Add(first.Get(), 0xAAAA0000BBBB);
    Add(second.Get(), 0xFFFFFFFFFFFFFFFF);
    struct epoll_event events[4] = {};
    events[2].data.u64 = 9;
    EXPECT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), events, 4, 250), 2);
    EXPECT_EQ(u32{events[0].events}, static_cast<u32>(EPOLLIN));
    EXPECT_EQ(u64{events[0].data.u64}, 0xAAAA0000BBBBU);
    EXPECT_EQ(u32{events[1].events}, static_cast<u32>(EPOLLIN));
    EXPECT_EQ(u64{events[1].data.u64}, 0xFFFFFFFFFFFFFFFFU);
    EXPECT_EQ(u64{events[2].data.u64}, 9U);
    EXPECT_EQ(stand_->lastWait[0], epFd_.Get());
    EXPECT_EQ(stand_->lastWait[1], 4);
    EXPECT_EQ(stand_->lastWait[2], 250);
    EXPECT_EQ(stand_->lastWaitBuffer, g_xelMoxEventsInfo->buffer);
}

TEST_F(MoxAdapt, NegativeWaitsArePassedOn)
{
    struct epoll_event event = {};
    event.events = 7;
    stand_->failWith[standin::kWait].store(66);
    for (const int answer : {-1, -3, -100}) {
        stand_->answer[standin::kWait].store(answer);
        EXPECT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), &event, 1, 0), answer);
        EXPECT_EQ(THREAD_MoxEpollErrorNoGetAdapt(), 66);
    }
    EXPECT_EQ(u32{event.events}, 7U);
    EXPECT_NO_LOG();
}

TEST_F(MoxAdapt, EmptyWaitCopiesNothing)
{
    struct epoll_event event = {};
    event.data.u64 = 5;
    EXPECT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), &event, 1, 0), 0);
    EXPECT_EQ(u64{event.data.u64}, 5U);
}

// There is no room for more than was asked for.
TEST_F(MoxAdapt, ExcessEventsAreCut)
{
    const Fd fd = Fd::Event(1);
    const Task task(fd.Get());
    Add(fd.Get(), 42);
    struct epoll_event events[2] = {};
    events[1].data.u64 = 9;
    for (const int excess : {1, 7, 100000}) {
        stand_->excess.store(excess);
        EXPECT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), events, 1, 0), 1);
        EXPECT_EQ(u64{events[0].data.u64}, 42U);
        EXPECT_EQ(u64{events[1].data.u64}, 9U);
    }
}

TEST_F(MoxAdapt, CountBelowOneIsRefusedWithoutACall)
{
    struct epoll_event event = {};
    for (const i32 count : {0, -1, INT32_MIN}) {
        EXPECT_EQ(ThreadMoxEventsPrepare(count), nullptr);
        EXPECT_NO_LOG();
        EXPECT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), &event, count, 0), -1);
        EXPECT_LOG(kMoxSource, kNoWait);
    }
    // The same with a buffer: it stays as it was.
    XelMoxEpollEvent* buffer = ThreadMoxEventsPrepare(2);
    ASSERT_NE(buffer, nullptr);
    memset(static_cast<void*>(buffer), 0xAA, 64);
    EXPECT_EQ(ThreadMoxEventsPrepare(0), nullptr);
    EXPECT_EQ(ThreadMoxEventsPrepare(-1), nullptr);
    EXPECT_EQ(buffer[0].data, 0xAAAAAAAAAAAAAAAAU);
    EXPECT_EQ(g_xelMoxEventsInfo->capacity, 2);
    EXPECT_EQ(stand_->calls[standin::kWait].load(), 0U);
}

TEST_F(MoxAdapt, BufferIsReusedAndOnlyTheUsedPartIsCleared)
{
    XelMoxEpollEvent* buffer = ThreadMoxEventsPrepare(4);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(g_xelMoxEventsInfo->capacity, 4);
    EXPECT_EQ(g_xelMoxEventsInfo->buffer, buffer);
    const u64 blocks = Calls(Call::XelMemAllocF);
    for (const i32 count : {1, 2, 3, 4}) {
        memset(static_cast<void*>(buffer), 0xAA, 4 * 32);
        EXPECT_EQ(ThreadMoxEventsPrepare(count), buffer);
        const auto* bytes = reinterpret_cast<const u8*>(buffer);
        for (i32 i = 0; i < 4 * 32; ++i) {
            ASSERT_EQ(bytes[i], i < count * 32 ? 0 : 0xAA) << count << ' ' << i;
        }
        EXPECT_EQ(g_xelMoxEventsInfo->capacity, 4);
    }
    EXPECT_EQ(Calls(Call::XelMemAllocF), blocks);
}

TEST_F(MoxAdapt, LargerCountReplacesTheBuffer)
{
    const Footprint before = Measure();
    for (const i32 count : {1, 2, 5, 64, 4096}) {
        const u64 frees = Calls(Call::XelMemFreeF);
        XelMoxEpollEvent* buffer = ThreadMoxEventsPrepare(count);
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(g_xelMoxEventsInfo->capacity, count);
        EXPECT_EQ(g_xelMoxEventsInfo->buffer, buffer);
        EXPECT_EQ(Measure().blocks, before.blocks + 2); // record and buffer, never more
        EXPECT_EQ(Calls(Call::XelMemFreeF), frees + (count == 1 ? 0 : 1));
        for (i32 i = 0; i < count; ++i) {
            ASSERT_EQ(buffer[i].data, 0U);
            ASSERT_EQ(buffer[i].events, 0U);
            buffer[i].data = 1;
        }
    }
}

TEST_F(MoxAdapt, NewBufferIsCleared)
{
    u64 nth = 2; // the first block is the record
    for (const i32 count : {5, 9}) {
        LetBlockBeUsed(nth, static_cast<size_t>(count) * 32);
        const auto* bytes = reinterpret_cast<const u8*>(ThreadMoxEventsPrepare(count));
        ASSERT_NE(bytes, nullptr);
        for (i32 i = 0; i < count * 32; ++i) {
            ASSERT_EQ(bytes[i], 0) << count << ' ' << i;
        }
        nth = 1;
    }
}

TEST_F(MoxAdapt, WaitTakesNoLock)
{
    struct epoll_event event = {};
    constexpr Call locks[] = {Call::PthreadMutexLock, Call::PthreadRwlockRdlock,
                              Call::PthreadRwlockWrlock};
    u64 before = 0;
    u64 after = 0;
    for (const Call lock : locks) {
        before += CallsHere(lock);
    }
    EXPECT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), &event, 1, 0), 0);
    for (const Call lock : locks) {
        after += CallsHere(lock);
    }
    EXPECT_EQ(after, before);
}

TEST_F(MoxAdapt, NoMemoryForTheRecordIsRefused)
{
    struct epoll_event event = {};
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), &event, 1, 0), -1);
    EXPECT_LOG(kMoxSource, kNoWait);
    EXPECT_EQ(g_xelMoxEventsInfo, nullptr);
    EXPECT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), &event, 1, 0), 0);
}

// The capacity is recorded before the buffer is known to exist.
TEST_F(MoxAdapt, FailedGrowthIsRememberedUntilALargerCountIsAsked)
{
    struct epoll_event events[9] = {};
    ASSERT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), events, 2, 0), 0);
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), events, 8, 0), -1);
    EXPECT_LOG(kMoxSource, kNoBuffer, kNoWait);
    EXPECT_EQ(g_xelMoxEventsInfo->capacity, 8);
    EXPECT_EQ(g_xelMoxEventsInfo->buffer, nullptr);
    const u64 allocations = Calls(Call::XelMemAllocF);
    for (const int count : {1, 2, 8}) {
        EXPECT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), events, count, 0), -1);
        EXPECT_LOG(kMoxSource, kNoWait);
    }
    EXPECT_EQ(Calls(Call::XelMemAllocF), allocations);
    EXPECT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), events, 9, 0), 0);
    EXPECT_EQ(g_xelMoxEventsInfo->capacity, 9);
    EXPECT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), events, 1, 0), 0);
    EXPECT_NO_LOG();
}

TEST_F(MoxAdapt, FirstBufferThatFailsIsRememberedToo)
{
    struct epoll_event events[2] = {};
    FailNth(Call::XelMemAllocF, 2);
    EXPECT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), events, 1, 0), -1);
    EXPECT_LOG(kMoxSource, kNoBuffer, kNoWait);
    ASSERT_NE(g_xelMoxEventsInfo, nullptr);
    EXPECT_EQ(g_xelMoxEventsInfo->capacity, 1);
    EXPECT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), events, 1, 0), -1);
    EXPECT_LOG(kMoxSource, kNoWait);
    EXPECT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), events, 2, 0), 0);
}

TEST_F(MoxAdapt, BufferCreationAlone)
{
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(ThreadMoxEpollEventsCreate(3), nullptr);
    EXPECT_LOG(kMoxSource, kNoBuffer);
}

TEST_F(MoxAdapt, EachThreadHasABufferOfItsOwn)
{
    struct epoll_event event = {};
    ASSERT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), &event, 1, 0), 0);
    Runner([this] {
        EXPECT_EQ(g_xelMoxEventsInfo, nullptr);
        struct epoll_event own = {};
        EXPECT_EQ(THREAD_MoxEpollWaitAdapt(epFd_.Get(), &own, 1, 0), 0);
        EXPECT_NE(g_xelMoxEventsInfo, nullptr);
        DropBuffer();
    }).Join();
    EXPECT_EQ(g_xelMoxEventsInfo->capacity, 1);
}

} // namespace
