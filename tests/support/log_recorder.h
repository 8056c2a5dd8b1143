// Records every log line instead of printing it, and compares what came with what must come.
#ifndef XEL_TESTS_SUPPORT_LOG_RECORDER_H
#define XEL_TESTS_SUPPORT_LOG_RECORDER_H

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/xel_int.h"

namespace xeltest
{

struct LogLine {
    u32 logId;
    std::string file;
    u32 fileNo;
    std::string func;
    u32 component;
    u32 line;
    u32 level;
    std::string text;
};
void PrintTo(const LogLine& line, std::ostream* out);

// Takes everything recorded so far. Each taken line is checked for what all lines have in common:
// log 0, function "<unknown>", component 9, a source line.
std::vector<LogLine> TakeLog();
std::vector<std::string> TakeTexts();
// Forgets everything recorded so far; for tests whose number of lines is a matter of luck.
void DropLog();
// Runs body once within the next call of the log service, on the thread that logs.
void RunAtNextLine(std::function<void()> body);
// Lines recorded and not taken yet, and how many of them have this text.
size_t LogCount();
size_t LogCount(const std::string& text);

// Where a module's lines claim to come from.
struct LogSource {
    const char* file;
    u32 fileNo;
};
inline constexpr LogSource kEventSource{"event/xel_event", 69};
inline constexpr LogSource kTimerSource{"timer/xel_timer", 69};
inline constexpr LogSource kMoxSource{"thread/xel_adapt_mox", 78};
inline constexpr LogSource kThreadSource{"thread/xel_sch_thread", 79};
inline constexpr LogSource kTaskSource{"scheduler/xel_sch_task", 80};
inline constexpr LogSource kSchSource{"scheduler/xel_scheduler", 81};
inline constexpr LogSource kDbgSource{"scheduler/xel_sch_dbg_pub", 83};
inline constexpr LogSource kLightMqSource{"msgque_light/xel_msgque_light", 85};
inline constexpr LogSource kThreadEpollSource{"thread/xel_sch_thread_epoll", 85};
inline constexpr LogSource kBfsSource{"scheduler/xel_sch_policy_bfs", 86};
inline constexpr LogSource kServiceMqSource{"service_msgque/xel_service_mq", 87};
inline constexpr LogSource kServiceMqMngSource{"service_msgque/xel_service_mq_mng", 91};
inline constexpr LogSource kMonitorSource{"scheduler/xel_dbg_exception_monitor", 93};

// One line that must come; severity 100 and the source of the whole comparison unless stated.
struct ExpectedLine {
    ExpectedLine(const char* expected) : text(expected) {}
    ExpectedLine(std::string expected) : text(std::move(expected)) {}
    ExpectedLine(u32 severity, std::string expected) : level(severity), text(std::move(expected)) {}
    ExpectedLine(const LogSource& from, u32 severity, std::string expected)
        : source(&from), level(severity), text(std::move(expected))
    {
    }

    const LogSource* source = nullptr;
    u32 level = 100;
    std::string text;
};
inline ExpectedLine Warning(std::string text)
{
    return {80, std::move(text)};
}
inline ExpectedLine Detail(std::string text)
{
    return {20, std::move(text)};
}
inline ExpectedLine From(const LogSource& source, std::string text, u32 level = 100)
{
    return {source, level, std::move(text)};
}

// Takes the log and demands exactly these lines in this order.
::testing::AssertionResult LogIs(const LogSource& source, const std::vector<ExpectedLine>& lines);
::testing::AssertionResult LogIsEmpty();

// EXPECT_LOG(kTaskSource, "task handle null.", Warning("..."), From(kSchSource, "..."))
#define EXPECT_LOG(source, ...) EXPECT_TRUE(xeltest::LogIs((source), {__VA_ARGS__}))
#define EXPECT_NO_LOG() EXPECT_TRUE(xeltest::LogIsEmpty())

// A text made the way printf makes it.
std::string Text(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace xeltest

#endif // XEL_TESTS_SUPPORT_LOG_RECORDER_H
