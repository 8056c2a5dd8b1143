#include "recorder.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "xel_log.h"

using namespace std::chrono_literals;

static constexpr auto kPatience = 60s;

// Log

static std::mutex g_logMutex;
static std::condition_variable g_logGrown;
static std::vector<LogLine> g_logLines;

extern "C" uint32_t LOG_InnerPrint(uint32_t logId, const char* file, uint32_t fileNo,
                                   const char* func, uint32_t component, uint32_t /*line*/,
                                   uint32_t level, const char* format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    std::scoped_lock lock(g_logMutex);
    g_logLines.push_back({logId, file, fileNo, func, component, level, text});
    g_logGrown.notify_all();
    return 0;
}

// Lines of one test are not another's, also when all run in one process.
class ForgetLinesBeforeEachTest : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo& /*info*/) override
    {
        std::scoped_lock lock(g_logMutex);
        g_logLines.clear();
    }
};
[[maybe_unused]] static const bool g_isForgetting = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new ForgetLinesBeforeEachTest);
    return true;
}();

std::vector<LogLine> LogLines()
{
    std::scoped_lock lock(g_logMutex);
    return g_logLines;
}

std::vector<LogLine> AwaitLogLines(size_t count)
{
    std::unique_lock lock(g_logMutex);
    g_logGrown.wait_for(lock, kPatience, [count] { return g_logLines.size() >= count; });
    return g_logLines;
}

// Reports

uint64_t NowMs()
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

ReportRecorder::ReportRecorder()
{
    EXPECT_EQ(XelDeadloopSetReport(Receive, this), 0U);
}

ReportRecorder::~ReportRecorder()
{
    Release();
    EXPECT_EQ(XelDeadloopSetReport(nullptr, nullptr), 0U);
}

void ReportRecorder::Receive(void* context, const XelDeadloopReport* report)
{
    auto* self = static_cast<ReportRecorder*>(context);
    std::unique_lock lock(self->mutex_);
    self->entries_.push_back({*report, NowMs()});
    self->inside_ = true;
    self->changed_.notify_all();
    self->changed_.wait(lock, [self] { return !self->held_; });
    self->inside_ = false;
    self->changed_.notify_all();
}

std::vector<ReportRecorder::Entry> ReportRecorder::Entries() const
{
    std::scoped_lock lock(mutex_);
    return entries_;
}

std::vector<ReportRecorder::Entry> ReportRecorder::EntriesOf(uint32_t handle) const
{
    std::vector<Entry> found;
    for (const Entry& entry : Entries()) {
        if (entry.report.handle == handle) {
            found.push_back(entry);
        }
    }
    return found;
}

size_t ReportRecorder::Count() const
{
    std::scoped_lock lock(mutex_);
    return entries_.size();
}

bool ReportRecorder::Await(size_t count)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return entries_.size() >= count; });
}

bool ReportRecorder::AwaitKind(uint32_t handle, uint32_t kind)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] {
        for (const Entry& entry : entries_) {
            if (entry.report.handle == handle && entry.report.kind == kind) {
                return true;
            }
        }
        return false;
    });
}

void ReportRecorder::Hold()
{
    std::scoped_lock lock(mutex_);
    held_ = true;
}

void ReportRecorder::Release()
{
    std::scoped_lock lock(mutex_);
    held_ = false;
    changed_.notify_all();
}

bool ReportRecorder::AwaitInside()
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [this] { return inside_; });
}

bool ReportRecorder::IsInside() const
{
    std::scoped_lock lock(mutex_);
    return inside_;
}

// Registrations

Registration::Registration(const XelDeadloopThreshold& threshold, bool bind)
{
    EXPECT_EQ(XelDeadloopMonReg(&threshold, &handle_), 0U);
    if (bind) {
        EXPECT_EQ(XelDeadloopMonProcSet(handle_), 0U);
    }
}

Registration::~Registration()
{
    if (handle_ != UINT32_MAX) {
        EXPECT_EQ(XelDeadloopMonUnreg(handle_), 0U);
    }
}

uint32_t Registration::Unreg()
{
    uint32_t handle = handle_;
    handle_ = UINT32_MAX;
    return XelDeadloopMonUnreg(handle);
}

// Threads

static std::vector<int> Tids()
{
    std::vector<int> tids;
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        return tids;
    }
    for (dirent* entry = readdir(tasks); entry != nullptr; entry = readdir(tasks)) {
        if (entry->d_name[0] != '.') {
            tids.push_back(std::atoi(entry->d_name));
        }
    }
    closedir(tasks);
    return tids;
}

static std::string TaskFile(int tid, const char* name)
{
    return "/proc/self/task/" + std::to_string(tid) + "/" + name;
}

size_t ThreadCount()
{
    return Tids().size();
}

int MonitorTid()
{
    for (int tid : Tids()) {
        std::ifstream file(TaskFile(tid, "comm"));
        std::string name;
        if (std::getline(file, name) && name == "XelDeadloop") {
            return tid;
        }
    }
    return 0;
}

// What the kernel shows of threads cannot be waited for by other means than looking again.
template <typename Condition>
static bool Poll(Condition condition)
{
    auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

bool AwaitThreadCount(size_t count)
{
    return Poll([count] { return ThreadCount() == count; });
}

bool AwaitNoMonitor()
{
    return Poll([] { return MonitorTid() == 0; });
}

int AwaitMonitorTid()
{
    return Poll([] { return MonitorTid() != 0; }) ? MonitorTid() : 0;
}

uint64_t MonitorSleeps(int tid)
{
    std::ifstream file(TaskFile(tid, "status"));
    const std::string key = "voluntary_ctxt_switches:";
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(key)) {
            return std::strtoull(line.c_str() + key.size(), nullptr, 10);
        }
    }
    return 0;
}

bool AwaitMonitorSleeps(int tid, uint64_t count)
{
    return Poll([=] { return MonitorSleeps(tid) >= count; });
}

bool AwaitLooks(uint64_t count)
{
    int tid = AwaitMonitorTid();
    return tid != 0 && AwaitMonitorSleeps(tid, MonitorSleeps(tid) + count);
}
