// What the scheduler tests share: descriptors, tasks and schedulers that clean up after themselves,
// expected log lines, recorders for the debug hooks and for a scheduler's epoll operations.
#ifndef XEL_TESTS_SCH_SUPPORT_H
#define XEL_TESTS_SCH_SUPPORT_H

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/xel_int.h"
#include "scheduler/xel_scheduler_inner.h"
#include "support/xel_test.h"

namespace schtest
{

using xeltest::Attr;
using xeltest::AwaitTrue;
using xeltest::Fd;
using xeltest::Footprint;
using xeltest::Measure;
using xeltest::NopProc;
using xeltest::Runner;
using xeltest::TaskSpec;
using xeltest::Text;

// Of an eventfd: makes it readable, reads it empty.
void Signal(int fd, u64 value = 1);
void Drain(int fd);

// The callback that reads its descriptor (its data) empty.
u32 DrainProc(struct epoll_event* event, u64 data);

SchTaskCtrl* MakeTask(int fd, const TaskSpec& spec = {});
// SCH_EpollCtrl with the operations by name.
u32 AddFd(SchCtrl* sch, int fd, const TaskSpec& spec, u32 events = EPOLLIN);
u32 ModFd(SchCtrl* sch, int fd, const TaskSpec& spec, u32 events = EPOLLIN);
u32 DelFd(SchCtrl* sch, int fd);

// The Linux operations, for SCH_CreateSch.
SchEpollOps LinuxOps();

enum class Policy { None, Bfs };

// An epoll instance with a scheduler on it. A still living scheduler is destroyed at the end.
class TestSch
{
public:
    explicit TestSch(Policy policy = Policy::Bfs, i32 size = 64);
    TestSch(const SchEpollOps& ops, const SchPolicyOps* policy, i32 size = 64);
    TestSch(const TestSch&) = delete;
    ~TestSch() { Destroy(); }
    SchCtrl* Get() const { return sch_; }
    SchCtrl* operator->() const { return sch_; }
    int EpFd() const { return epoll_.Get(); }
    void Destroy();
    void Forget() { sch_ = nullptr; } // destroyed elsewhere

private:
    Fd epoll_;
    SchCtrl* sch_;
};

// One expected log line: where it comes from, how severe it is, and what it says.
struct Line {
    u32 fileNo;
    u32 level;
    std::string text;
    bool operator==(const Line&) const = default;
};
void PrintTo(const Line& line, std::ostream* out);

inline Line SchLine(std::string text, u32 level = 100)
{
    return {81, level, std::move(text)};
}
inline Line BfsLine(std::string text, u32 level = 100)
{
    return {86, level, std::move(text)};
}
inline Line TaskLine(std::string text, u32 level = 100)
{
    return {80, level, std::move(text)};
}
inline Line MonLine(std::string text, u32 level)
{
    return {93, level, std::move(text)};
}

// Takes everything logged so far; checks that each file number goes with its file.
std::vector<Line> TakeLines();

using Lines = std::vector<Line>;
#define EXPECT_LINES(...) EXPECT_EQ(schtest::TakeLines(), (schtest::Lines{__VA_ARGS__}))

// True while nobody holds the registry lock. A holder's own thread is let in again by the plain
// calls, so that a lock that was never given back shows here only.
bool RegistryIsFree();

// True while a writer waits for the scheduler's lock: a destroyer has reached its last wait.
bool WriterWaits(SchCtrl* sch);

// Records every call of the debug hooks, in order.
class HookRecorder
{
public:
    HookRecorder();
    HookRecorder(const HookRecorder&) = delete;
    ~HookRecorder();
    // "err <epFd> <code>", "stat <fd> <us>", "trace <epFd> <fd> <us>", "insert <epFd> <fd>",
    // "del <fd>"
    static std::vector<std::string> Take();
    static void Note(std::string what);
};

// A scheduler's epoll operations under the control of a test: each call is recorded and then
// answered by the test's function, or by Linux when there is none.
struct EpollProbe {
    struct Wait {
        int epFd;
        struct epoll_event* events;
        int maxEvents;
        int timeoutMs;
    };
    struct Ctl {
        int epFd;
        u32 op;
        int fd;
        bool hasEvent;
        u32 events;
        u64 data;
    };
    std::mutex mutex;
    std::vector<Wait> waits;
    std::vector<Ctl> ctls;
    std::function<int(const Wait&)> onWait;
    std::function<int(const Ctl&)> onCtl;
    std::atomic<int> errNo{-1};   // what getErrNo answers; -1: errno of the thread
    std::atomic<int> clobber{-1}; // what getErrNo leaves in errno; -1: nothing
    std::atomic<u32> errNoCalls{0};

    EpollProbe();
    EpollProbe(const EpollProbe&) = delete;
    ~EpollProbe();
    SchEpollOps Ops() const;
    std::vector<Wait> TakeWaits();
    std::vector<Ctl> TakeCtls();
};

// Fixture: leaves the process as found.
class SchTest : public xeltest::CleanProcess
{
};

} // namespace schtest

#endif // XEL_TESTS_SCH_SUPPORT_H
