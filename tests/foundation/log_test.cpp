// What one log line says.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "foundation/xel_log_time.h"
#include "log_capture.h"
#include "sanitized.h"

namespace
{

std::string OneLine(const StderrFile& captured)
{
    const std::vector<std::string> lines = SplitLines(captured.Text());
    return lines.size() == 1 ? lines[0] : "<not one line: " + captured.Text() + ">";
}

std::string ProcessAndThread()
{
    char text[64];
    snprintf(text, sizeof(text), "[%d:%d] ", getpid(), gettid());
    return text;
}

TEST(Log, LineCarriesTimeSeverityPlaceProcessThreadAndMessage)
{
    const StderrFile captured;
    g_fakes.fixedNano = 123456789;
    g_fakes.fixedSeconds = 1795251845; // 2026-11-21 09:04:05
    const uint32_t result = LOG_InnerPrint(0, "scheduler/xel_sch_task", 80, "<unknown>", 9, 123,
                                           100, "value = %d, name = %s", 5, "abc");
    g_fakes.fixedSeconds = -1;
    EXPECT_EQ(result, XEL_OK);
    EXPECT_EQ(captured.Text(), "2026-11-21T09:04:05.123456Z ERROR scheduler/xel_sch_task(80):123 " +
                                   ProcessAndThread() + "value = 5, name = abc\n");
}

TEST(Log, SeveritiesHaveNamesAndOthersAreNumbers)
{
    const StderrFile captured;
    for (const uint32_t level : {100U, 80U, 20U, 0U, 4294967295U}) {
        LOG_InnerPrint(0, "f", 1, "<unknown>", 9, 1, level, "m");
    }
    const std::vector<std::string> lines = SplitLines(captured.Text());
    ASSERT_EQ(lines.size(), 5U);
    const char* const names[] = {" ERROR f", " WARN f", " INFO f", " 0 f", " 4294967295 f"};
    for (size_t i = 0; i < lines.size(); i++) {
        EXPECT_NE(lines[i].find(names[i]), std::string::npos) << lines[i];
    }
}

TEST(Log, TimeIsThatOfTheSystemsCalendar)
{
    // Each day of 200 years and some seconds of it, the end of February included.
    for (uint64_t day = 0; day < 73200; day++) {
        for (const uint64_t second : {0U, 3599U, 86399U}) {
            const auto time = static_cast<time_t>(day * 86400 + second);
            const UtcTime ours = UtcOf(day * 86400 + second);
            tm theirs{};
            gmtime_r(&time, &theirs);
            ASSERT_EQ(ours.year, static_cast<uint32_t>(theirs.tm_year + 1900)) << day;
            ASSERT_EQ(ours.month, static_cast<uint32_t>(theirs.tm_mon + 1)) << day;
            ASSERT_EQ(ours.day, static_cast<uint32_t>(theirs.tm_mday)) << day;
            ASSERT_EQ(ours.hour, static_cast<uint32_t>(theirs.tm_hour));
            ASSERT_EQ(ours.minute, static_cast<uint32_t>(theirs.tm_min));
            ASSERT_EQ(ours.second, static_cast<uint32_t>(theirs.tm_sec));
        }
    }
}

TEST(Log, OneCallIsOneLineWhateverNewlinesItHolds)
{
    const StderrFile captured;
    PRINT("%s", "trailing\n");
    PRINT("%s", "trailing two\r\n\n");
    PRINT("%s", "in\nthe\rmiddle\v\f.");
    PRINT("%s", "\n");
    LOG_InnerPrint(0, "bad\nfile", 1, "<unknown>", 9, 1, 100, "after a bad file");
    const std::vector<std::string> lines = SplitLines(captured.Text());
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_EQ(MessageOf(lines[0]), "trailing");
    EXPECT_EQ(MessageOf(lines[1]), "trailing two");
    EXPECT_EQ(MessageOf(lines[2]), "in the middle  .");
    EXPECT_EQ(MessageOf(lines[3]), "");
    EXPECT_NE(lines[4].find("bad file(1)"), std::string::npos);
}

// Hidden from the compiler, which takes %m for no part of the language.
const char* volatile g_withErrno = "%m%s";

TEST(Log, ErrnoIsKeptAndPrinted)
{
    const StderrFile captured;
    errno = ENOTTY;
    PRINT(g_withErrno, "");
    EXPECT_EQ(errno, ENOTTY);
    PRINT(g_withErrno, std::string(2000, 'x').c_str());
    EXPECT_EQ(errno, ENOTTY);
    const std::vector<std::string> lines = SplitLines(captured.Text());
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(MessageOf(lines[0]), strerror(ENOTTY));
    EXPECT_EQ(MessageOf(lines[1]), strerror(ENOTTY) + std::string(2000, 'x'));
}

TEST(Log, ErrnoIsKeptWhenTheDestinationFails)
{
    const StderrFile captured;
    g_fakes.failureErrno = EIO;
    g_fakes.failures = 1;
    errno = ENOTTY;
    EXPECT_EQ(PRINT("lost"), XEL_FAIL);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(captured.Text(), "");
}

TEST(Log, NullFileIsAQuestionMark)
{
    const StderrFile captured;
    EXPECT_EQ(LOG_InnerPrint(0, nullptr, 1, nullptr, 9, 2, 100, "message"), XEL_OK);
    EXPECT_NE(OneLine(captured).find(" ERROR ?(1):2 "), std::string::npos);
}

TEST(Log, LongFileNameIsCut)
{
    const StderrFile captured;
    const std::string name(5000, 'n');
    EXPECT_EQ(LOG_InnerPrint(0, name.c_str(), 1, "", 9, 2, 100, "message"), XEL_OK);
    const std::string line = OneLine(captured);
    EXPECT_NE(line.find(" " + std::string(256, 'n') + "(1):2 "), std::string::npos);
    EXPECT_EQ(MessageOf(line), "message");
}

TEST(Log, NullFormatIsAFailureWithALine)
{
    const StderrFile captured;
    const char* volatile none = nullptr;
    EXPECT_EQ(LOG_InnerPrint(0, "f", 1, "", 9, 2, 100, none, 0), XEL_FAIL);
    EXPECT_EQ(MessageOf(OneLine(captured)), "(no message)");
}

TEST(Log, MessageThatCannotBeFormattedIsAFailureWithALine)
{
    const StderrFile captured;
    const wchar_t notInThisLocale[] = {0x7FFFFFF0, 0};
    EXPECT_EQ(PRINT("wide %ls", notInThisLocale), XEL_FAIL);
    EXPECT_EQ(MessageOf(OneLine(captured)), "wide %ls");
}

TEST(Log, MessagesOfEveryLengthComeWhole)
{
    for (size_t length = 850; length <= 1100; length++) {
        const StderrFile captured;
        const std::string message(length, 'm');
        const uint64_t writes = g_fakes.writes;
        ASSERT_EQ(PRINT("%s", message.c_str()), XEL_OK);
        ASSERT_EQ(MessageOf(OneLine(captured)), message) << length;
        ASSERT_EQ(g_fakes.writes, writes + 1);
    }
    for (const size_t length : {0U, 1U, 4000U, 4095U, 4096U, 4097U, 100000U, 3000000U}) {
        const StderrFile captured;
        const std::string message(length, 'm');
        const uint64_t writes = g_fakes.writes;
        ASSERT_EQ(PRINT("%s", message.c_str()), XEL_OK);
        ASSERT_EQ(MessageOf(OneLine(captured)), message) << length;
        ASSERT_EQ(g_fakes.writes, writes + 1);
    }
}

TEST(Log, LineIsCutWhenThereIsNoMemoryForIt)
{
    if (!kMmapCanFail) {
        GTEST_SKIP() << "mmap cannot be made to fail here";
    }
    const StderrFile captured;
    g_fakes.mmapFails = true;
    const uint32_t result = PRINT("%s", std::string(5000, 'm').c_str());
    g_fakes.mmapFails = false;
    EXPECT_EQ(result, XEL_OK);
    const std::string line = OneLine(captured);
    EXPECT_GT(line.size(), 1000U);
    EXPECT_LT(line.size(), 1024U);
    EXPECT_EQ(MessageOf(line).find_first_not_of('m'), std::string::npos);
}

} // namespace
