// Helpers of all tests.
#include "support/helpers.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

namespace xeltest
{

Fd Fd::Epoll()
{
    return Fd(epoll_create1(EPOLL_CLOEXEC));
}

Fd Fd::Event(u32 count)
{
    return Fd(eventfd(count, EFD_NONBLOCK | EFD_CLOEXEC));
}

int Fd::Release()
{
    return std::exchange(fd_, -1);
}

void Fd::Reset(int fd)
{
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = fd;
}

void Fd::Signal(u64 value) const
{
    EXPECT_EQ(::write(fd_, &value, sizeof(value)), static_cast<ssize_t>(sizeof(value)));
}

void Fd::Drain() const
{
    u64 value = 0;
    while (::read(fd_, &value, sizeof(value)) > 0) {
    }
}

Pipe::Pipe()
{
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
    readEnd.Reset(ends[0]);
    writeEnd.Reset(ends[1]);
}

u32 NopProc(struct epoll_event* /*events*/, u64 /*data*/)
{
    return 0;
}

Attr::Attr(const TaskSpec& spec) : attr_(XEL_TaskCreateAttr())
{
    EXPECT_NE(attr_, nullptr);
    const XelTaskUsrCb callback{spec.proc, spec.data};
    EXPECT_EQ(XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_USR_CB, &callback, sizeof(callback)), 0U);
    EXPECT_EQ(XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_TYPE, &spec.type, sizeof(u32)), 0U);
    EXPECT_EQ(XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_PRIO, &spec.prio, sizeof(u32)), 0U);
    EXPECT_EQ(XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_NAME, spec.name.c_str(), spec.name.size()), 0U);
    EXPECT_EQ(XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_FD_TYPE, &spec.fdType, sizeof(u32)), 0U);
}

Task::Task(int fd, const TaskSpec& spec) : task_(XEL_TaskCreate(fd, Attr(spec).Get()))
{
    EXPECT_NE(task_, nullptr);
}

void Task::Destroy()
{
    if (task_ != nullptr) {
        XEL_TaskDestroy(Release());
    }
}

SchTaskCtrl* Task::Release()
{
    return std::exchange(task_, nullptr);
}

bool AwaitTrue(const std::function<bool()>& condition, int timeoutMs)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return true;
}

Runner::Runner(std::function<void()> body)
    : ended_(std::make_shared<std::atomic<bool>>(false)),
      thread_([body = std::move(body), ended = ended_] {
          body();
          ended->store(true);
      })
{
}

bool Runner::AwaitEnd(int timeoutMs)
{
    return AwaitTrue([this] { return HasEnded(); }, timeoutMs);
}

void Runner::Join(int timeoutMs)
{
    if (!thread_.joinable()) {
        return;
    }
    if (!AwaitEnd(timeoutMs)) {
        fprintf(stderr, "a test thread does not end\n");
        abort();
    }
    thread_.join();
}

// The framework keeps quiet in the child, so the failed checks are printed by hand.
void RunBodyAndExit(const std::function<void()>& body)
{
    body();
    const auto* result = ::testing::UnitTest::GetInstance()->current_test_info()->result();
    for (int i = 0; i < result->total_part_count(); ++i) {
        const ::testing::TestPartResult& part = result->GetTestPartResult(i);
        if (part.failed()) {
            fprintf(stderr, "%s:%d: %s\n", part.file_name(), part.line_number(), part.message());
        }
    }
    fflush(stderr);
    _exit(result->Failed() ? 1 : 0);
}

} // namespace xeltest
