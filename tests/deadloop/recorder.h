// What the tests of the dead-loop monitor see of it: its log lines, its reports, its thread.
#ifndef XEL_TESTS_DEADLOOP_RECORDER_H
#define XEL_TESTS_DEADLOOP_RECORDER_H

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "xel_deadloop.h"

// One call of LOG_InnerPrint, which this test program defines in front of the library's.
struct LogLine {
    uint32_t logId;
    std::string file;
    uint32_t fileNo;
    std::string func;
    uint32_t component;
    uint32_t level;
    std::string text;
};

// The lines so far; the second waits, for a minute at most, until there are count of them.
std::vector<LogLine> LogLines();
std::vector<LogLine> AwaitLogLines(size_t count);

uint64_t NowMs();

// Report function that keeps what it is told, installed for as long as the object lives. Can hold
// the monitor thread inside the function.
class ReportRecorder
{
public:
    struct Entry {
        XelDeadloopReport report;
        uint64_t atMs; // CLOCK_MONOTONIC
    };

    ReportRecorder();
    ~ReportRecorder();
    ReportRecorder(const ReportRecorder&) = delete;
    ReportRecorder& operator=(const ReportRecorder&) = delete;

    std::vector<Entry> Entries() const;
    std::vector<Entry> EntriesOf(uint32_t handle) const;
    size_t Count() const;
    // True once there are count entries; false after a minute without.
    bool Await(size_t count);
    bool AwaitKind(uint32_t handle, uint32_t kind);
    // From the next report on the monitor thread stays inside the function until Release.
    void Hold();
    void Release();
    bool AwaitInside();
    bool IsInside() const;

private:
    static void Receive(void* context, const XelDeadloopReport* report);

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Entry> entries_;
    bool held_ = false;
    bool inside_ = false;
};

// A registration for as long as the object lives.
class Registration
{
public:
    explicit Registration(const XelDeadloopThreshold& threshold, bool bind = true);
    ~Registration();
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    uint32_t Handle() const { return handle_; }
    uint32_t Begin() const { return XelDeadloopMonBegin(0, &handle_); }
    uint32_t End() const { return XelDeadloopMonEnd(handle_, 1); }
    uint32_t Unreg();

private:
    uint32_t handle_ = UINT32_MAX;
};

// Threads of this process, and the kernel id of the monitor's among them (0: there is none).
size_t ThreadCount();
int MonitorTid();
// Waits for the kernel to forget joined threads, or to show a new one; false after a minute.
bool AwaitThreadCount(size_t count);
bool AwaitNoMonitor();
int AwaitMonitorTid();

// How often the monitor thread has gone to sleep, once per look; false after a minute.
uint64_t MonitorSleeps(int tid);
bool AwaitMonitorSleeps(int tid, uint64_t count);
// Lets the monitor look so many times more.
bool AwaitLooks(uint64_t count);

#endif // XEL_TESTS_DEADLOOP_RECORDER_H
