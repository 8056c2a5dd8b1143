// Small things that many tests need.
#ifndef XEL_TESTS_SUPPORT_HELPERS_H
#define XEL_TESTS_SUPPORT_HELPERS_H

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <sys/epoll.h>

#include "common/xel_int.h"
#include "xel_sch_task.h"

namespace xeltest
{

// A descriptor of one's own.
class Fd
{
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(other.Release()) {}
    Fd& operator=(Fd&& other) noexcept
    {
        Reset(other.Release());
        return *this;
    }
    ~Fd() { Reset(); }

    static Fd Epoll();
    // A non-blocking eventfd; readable from the start with a count above 0.
    static Fd Event(u32 count = 0);

    int Get() const { return fd_; }
    u32 U32() const { return static_cast<u32>(fd_); }
    int Release();
    void Reset(int fd = -1);
    // Of an eventfd: makes it readable, reads it empty.
    void Signal(u64 value = 1) const;
    void Drain() const;

private:
    int fd_;
};

// Both ends of a non-blocking pipe.
struct Pipe {
    Pipe();
    Fd readEnd;
    Fd writeEnd;
};

u32 NopProc(struct epoll_event* events, u64 data);

// How a task is to be made.
struct TaskSpec {
    XelTaskProc proc = NopProc;
    u64 data = 0;
    u32 type = 2;
    u32 prio = 0;
    std::string name = {};
    u32 fdType = 0;
};

// A task attribute made in one go through the public calls.
class Attr
{
public:
    explicit Attr(const TaskSpec& spec = {});
    Attr(const Attr&) = delete;
    Attr& operator=(const Attr&) = delete;
    ~Attr() { XEL_TaskDestroyAttr(attr_); }
    XelTaskAttr* Get() const { return attr_; }

private:
    XelTaskAttr* attr_;
};

// A task that is destroyed at the end, if it still lives.
class Task
{
public:
    explicit Task(int fd, const TaskSpec& spec = {});
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    ~Task() { Destroy(); }
    SchTaskCtrl* Get() const { return task_; }
    SchTaskCtrl* operator->() const { return task_; }
    void Destroy();
    // The task is somebody else's from here on.
    SchTaskCtrl* Release();

private:
    SchTaskCtrl* task_;
};

// Waits for a condition, looking often; false when the time is over.
bool AwaitTrue(const std::function<bool()>& condition, int timeoutMs = 20000);

// Runs a function on a thread of its own. One that does not end within the time ends the program:
// a thread that hangs could not be joined.
class Runner
{
public:
    explicit Runner(std::function<void()> body);
    Runner(const Runner&) = delete;
    Runner& operator=(const Runner&) = delete;
    ~Runner() { Join(); }
    bool HasEnded() const { return ended_->load(); }
    bool AwaitEnd(int timeoutMs = 20000);
    void Join(int timeoutMs = 50000);

private:
    std::shared_ptr<std::atomic<bool>> ended_;
    std::thread thread_;
};

// Under a sanitizer or on a slow machine stress tests make fewer rounds.
constexpr bool IsSanitized()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#elif defined(__has_feature)
    return __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
    return false;
#endif
}

// Runs body in a fresh process of the same program, so that process-wide state is as at load; what
// failed there is shown and fails the test. Not under a fixture that starts threads.
void RunBodyAndExit(const std::function<void()>& body);
#define XELTEST_IN_FRESH_PROCESS(...)                                                              \
    do {                                                                                           \
        GTEST_FLAG_SET(death_test_style, "threadsafe");                                            \
        EXPECT_EXIT(xeltest::RunBodyAndExit(__VA_ARGS__), ::testing::ExitedWithCode(0), "");       \
    } while (false)

} // namespace xeltest

#endif // XEL_TESTS_SUPPORT_HELPERS_H
