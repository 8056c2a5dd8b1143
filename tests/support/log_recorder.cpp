// The recorder stands in front of the log service: the program defines LOG_InnerPrint itself. Any
// thread may log; one mutex guards the list of lines.
#include "support/log_recorder.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <ostream>
#include <utility>

#include "xel_log.h"

namespace xeltest
{

namespace
{

// Never destroyed: threads may log until the process is gone.
struct Recorder {
    std::mutex mutex;
    std::vector<LogLine> lines;
    std::function<void()> atNext;
};

Recorder& TheRecorder()
{
    static auto* recorder = new Recorder;
    return *recorder;
}

std::string FormatText(const char* format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<size_t>(std::max(length, 0)), '\0');
    (void)vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

std::vector<LogLine> TakeUnchecked()
{
    Recorder& recorder = TheRecorder();
    const std::lock_guard<std::mutex> guard(recorder.mutex);
    return std::exchange(recorder.lines, {});
}

bool Fits(const LogLine& line, const ExpectedLine& expected, const LogSource& common)
{
    const LogSource& source = expected.source != nullptr ? *expected.source : common;
    return line.file == source.file && line.fileNo == source.fileNo &&
           line.level == expected.level && line.text == expected.text;
}

} // namespace

void PrintTo(const LogLine& line, std::ostream* out)
{
    *out << line.file << '(' << line.fileNo << "):" << line.line << " [" << line.level << "] "
         << line.text;
}

std::vector<LogLine> TakeLog()
{
    std::vector<LogLine> lines = TakeUnchecked();
    for (const LogLine& line : lines) {
        EXPECT_EQ(line.logId, 0U) << line.text;
        EXPECT_EQ(line.func, "<unknown>") << line.text;
        EXPECT_EQ(line.component, 9U) << line.text;
        EXPECT_NE(line.line, 0U) << line.text;
    }
    return lines;
}

std::vector<std::string> TakeTexts()
{
    std::vector<std::string> texts;
    for (LogLine& line : TakeLog()) {
        texts.push_back(std::move(line.text));
    }
    return texts;
}

void RunAtNextLine(std::function<void()> body)
{
    Recorder& recorder = TheRecorder();
    const std::lock_guard<std::mutex> guard(recorder.mutex);
    recorder.atNext = std::move(body);
}

void DropLog()
{
    (void)TakeUnchecked();
}

size_t LogCount()
{
    Recorder& recorder = TheRecorder();
    const std::lock_guard<std::mutex> guard(recorder.mutex);
    return recorder.lines.size();
}

size_t LogCount(const std::string& text)
{
    Recorder& recorder = TheRecorder();
    const std::lock_guard<std::mutex> guard(recorder.mutex);
    return static_cast<size_t>(
        std::count_if(recorder.lines.begin(), recorder.lines.end(),
                      [&text](const LogLine& line) { return line.text == text; }));
}

::testing::AssertionResult LogIs(const LogSource& source, const std::vector<ExpectedLine>& lines)
{
    const std::vector<LogLine> came = TakeLog();
    if (std::equal(came.begin(), came.end(), lines.begin(), lines.end(),
                   [&source](const LogLine& line, const ExpectedLine& expected) {
                       return Fits(line, expected, source);
                   })) {
        return ::testing::AssertionSuccess();
    }
    auto failure = ::testing::AssertionFailure() << "the log differs; expected:\n";
    for (const ExpectedLine& expected : lines) {
        const LogSource& from = expected.source != nullptr ? *expected.source : source;
        failure << "  " << from.file << '(' << from.fileNo << ") [" << expected.level << "] "
                << expected.text << '\n';
    }
    failure << "came:\n";
    for (const LogLine& line : came) {
        failure << "  " << ::testing::PrintToString(line) << '\n';
    }
    return failure;
}

::testing::AssertionResult LogIsEmpty()
{
    return LogIs(kTaskSource, {});
}

std::string Text(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string text = FormatText(format, arguments);
    va_end(arguments);
    return text;
}

} // namespace xeltest

uint32_t LOG_InnerPrint(uint32_t logId, const char* file, uint32_t fileNo, const char* func,
                        uint32_t component, uint32_t line, uint32_t level, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string text = xeltest::FormatText(format, arguments);
    va_end(arguments);
    xeltest::Recorder& recorder = xeltest::TheRecorder();
    std::function<void()> atThis;
    {
        const std::lock_guard<std::mutex> guard(recorder.mutex);
        recorder.lines.push_back(
            {logId, file, fileNo, func, component, line, level, std::move(text)});
        atThis = std::exchange(recorder.atNext, nullptr);
    }
    if (atThis) {
        atThis();
    }
    return 0;
}
