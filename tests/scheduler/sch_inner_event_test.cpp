// The private eventfd task that wakes a dispatcher for a destroyer.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "sch_support.h"

namespace
{

using namespace schtest;
using xeltest::Call;

class SchInnerEvent : public SchTest
{
protected:
    Fd epoll = Fd::Epoll();
    EpollProbe probe;
    SchEpollOps ops = probe.Ops();
};

TEST_F(SchInnerEvent, IsATaskOfType3AndPriority31OnASemaphore)
{
    SchTaskCtrl* task = SchInnerEventCreate(epoll.Get(), &ops);
    ASSERT_NE(task, nullptr);
    const int fd = task->fd;
    EXPECT_STREQ(task->name, "schInnerEvent");
    EXPECT_EQ(task->type, 3U);
    EXPECT_EQ(task->prio, 31U);
    EXPECT_EQ(task->fdType.load(), 0U);
    EXPECT_EQ(task->data, static_cast<u64>(fd));
    EXPECT_EQ(task->proc, SchInnerEventProc);
    EXPECT_EQ(task->schCount, 0U) << "bound to nothing";
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    Signal(fd, 3);
    for (int i = 0; i < 3; ++i) {
        u64 value = 0;
        EXPECT_EQ(::read(fd, &value, sizeof(value)), 8);
        EXPECT_EQ(value, 1U);
    }
    const auto ctls = probe.TakeCtls();
    ASSERT_EQ(ctls.size(), 1U);
    EXPECT_EQ(ctls[0].epFd, epoll.Get());
    EXPECT_EQ(ctls[0].op, 0U);
    EXPECT_EQ(ctls[0].fd, fd);
    EXPECT_EQ(ctls[0].events, u32{EPOLLIN});
    EXPECT_EQ(ctls[0].data, reinterpret_cast<u64>(task));
    SchInnerEventDestroy(epoll.Get(), task, &ops);
    const auto removal = probe.TakeCtls();
    ASSERT_EQ(removal.size(), 1U);
    EXPECT_EQ(removal[0].op, 2U);
    EXPECT_EQ(removal[0].fd, fd);
    EXPECT_FALSE(removal[0].hasEvent);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "closed";
    EXPECT_EQ(task->magic.load(), 0U);
    EXPECT_LINES();
}

TEST_F(SchInnerEvent, FailingEventfdIsLogged)
{
    xeltest::FailNth(Call::Eventfd, 1, -1, EMFILE);
    EXPECT_EQ(SchInnerEventCreate(epoll.Get(), &ops), nullptr);
    EXPECT_LINES(SchLine("create event fd unsuccessfully, errno = 24."));
    EXPECT_TRUE(probe.TakeCtls().empty());
}

TEST_F(SchInnerEvent, FailingTaskClosesTheDescriptor)
{
    const Footprint before = Measure();
    xeltest::FailNth(Call::FmmUnitAlloc, 1);
    EXPECT_EQ(SchInnerEventCreate(epoll.Get(), &ops), nullptr);
    EXPECT_LINES(TaskLine("Task create unsuccessfully, alloc task-ctrl unsuccessfully!"));
    EXPECT_EQ(Measure(), before);
    EXPECT_TRUE(probe.TakeCtls().empty());
}

TEST_F(SchInnerEvent, FailingRegistrationIsUndone)
{
    const Footprint before = Measure();
    for (const int result : {-1, 1}) {
        probe.onCtl = [&](const EpollProbe::Ctl&) { return result; };
        probe.errNo.store(28);
        EXPECT_EQ(SchInnerEventCreate(epoll.Get(), &ops), nullptr);
        const auto ctls = probe.TakeCtls();
        ASSERT_EQ(ctls.size(), 1U);
        EXPECT_LINES(
            SchLine(Text("inner event add epoll unsuccessfully:%d, errno:28.", ctls[0].fd)));
        EXPECT_EQ(Measure(), before);
    }
}

TEST_F(SchInnerEvent, CallbackReadsOnceAndOnlyWhenReadable)
{
    const Fd fd(eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK));
    Signal(fd.Get(), 2);
    struct epoll_event event = {EPOLLOUT, {nullptr}};
    EXPECT_EQ(SchInnerEventProc(&event, fd.U32()), 0U);
    event.events = EPOLLIN | EPOLLHUP;
    EXPECT_EQ(SchInnerEventProc(&event, fd.U32()), 0U);
    u64 value = 0;
    EXPECT_EQ(::read(fd.Get(), &value, sizeof(value)), 8) << "one of two was read";
    EXPECT_LINES();
    EXPECT_EQ(SchInnerEventProc(&event, fd.U32()), 0U);
    EXPECT_LINES(SchLine("scheduler inner event read unsuccessfully."));
}

TEST_F(SchInnerEvent, FailingRemovalStillGivesEverythingBack)
{
    const Footprint before = Measure();
    SchTaskCtrl* task = SchInnerEventCreate(epoll.Get(), &ops);
    ASSERT_NE(task, nullptr);
    const int fd = task->fd;
    probe.onCtl = [](const EpollProbe::Ctl&) { return 4; };
    probe.errNo.store(9);
    SchInnerEventDestroy(epoll.Get(), task, &ops);
    EXPECT_LINES(
        SchLine(Text("Sch innner event del epoll unsuccessfully. (fd = %d, epfd = %d, errno = 9)",
                     fd, epoll.Get())));
    EXPECT_EQ(Measure(), before);
}

TEST_F(SchInnerEvent, DamagedTaskIsLeftAlone)
{
    SchTaskCtrl* task = SchInnerEventCreate(epoll.Get(), &ops);
    ASSERT_NE(task, nullptr);
    const int fd = task->fd;
    (void)probe.TakeCtls();
    SchTaskDestroy(task);
    SchInnerEventDestroy(epoll.Get(), task, &ops);
    EXPECT_LINES(TaskLine("task handle magic destroy, magic = 0."),
                 TaskLine("Sch get fd, schTaskHandle invalid."),
                 SchLine("scheduler inner event task damage."));
    EXPECT_TRUE(probe.TakeCtls().empty());
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << "still open";
    ::close(fd);
}

} // namespace
