// How log lines reach standard error: in one write each, whole, whatever the stream does.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "log_capture.h"
#include "sanitized.h"

namespace
{

constexpr size_t kLong = 100000;

// Message number of a thread: length and content follow from both, so that a mix shows.
std::string Payload(int thread, int number, size_t length)
{
    const std::string head =
        std::to_string(thread) + ":" + std::to_string(number) + ":" + std::to_string(length) + ":";
    return head + std::string(length, static_cast<char>('a' + thread));
}

TEST(LogStream, LinesOfManyThreadsThroughAPipeAreWhole)
{
    constexpr int kThreads = 8;
    constexpr int kLines = 60;
    constexpr size_t kAll = size_t{kThreads} * kLines;
    StderrPipe pipe;
    std::string text;
    std::thread reader([&] { text = pipe.ReadAll(); });
    const uint64_t writes = g_fakes.writes;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; i++) {
        threads.emplace_back([i] {
            std::mt19937 random(static_cast<uint32_t>(i));
            for (int number = 0; number < kLines; number++) {
                const size_t length = number % 10 == 9 ? kLong : random() % 3900;
                PRINT("%s", Payload(i, number, length).c_str());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(g_fakes.writes, writes + kAll) << "one write each";
    pipe.CloseWriteEnd();
    reader.join();
    const std::vector<std::string> lines = SplitLines(text);
    ASSERT_EQ(lines.size(), kAll);
    std::map<int, int> next;
    for (const std::string& line : lines) {
        const std::string message = MessageOf(line);
        int thread = -1;
        int number = -1;
        size_t length = 0;
        ASSERT_EQ(sscanf(message.c_str(), "%d:%d:%zu:", &thread, &number, &length), 3);
        ASSERT_EQ(message, Payload(thread, number, length));
        ASSERT_EQ(number, next[thread]++) << "the lines of one thread stay in order";
    }
}

TEST(LogStream, ShortWriteIsContinued)
{
    const StderrFile captured;
    for (const size_t part : {size_t{1}, size_t{50}, kLong}) {
        g_fakes.shortWrite = part;
        const uint64_t writes = g_fakes.writes;
        EXPECT_EQ(PRINT("%s", std::string(kLong, 'x').c_str()), XEL_OK);
        EXPECT_EQ(g_fakes.writes, writes + 2);
    }
    for (const std::string& line : SplitLines(captured.Text())) {
        EXPECT_EQ(MessageOf(line), std::string(kLong, 'x'));
    }
    EXPECT_EQ(SplitLines(captured.Text()).size(), 3U);
}

TEST(LogStream, InterruptedWriteIsTriedAgain)
{
    const StderrFile captured;
    g_fakes.failureErrno = EINTR;
    g_fakes.failures = 3;
    EXPECT_EQ(PRINT("message"), XEL_OK);
    ASSERT_EQ(SplitLines(captured.Text()).size(), 1U);
    EXPECT_EQ(MessageOf(SplitLines(captured.Text())[0]), "message");
}

TEST(LogStream, FullNonBlockingStreamIsWaitedFor)
{
    StderrPipe pipe;
    fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK);
    std::string text;
    std::thread writer([&] {
        EXPECT_EQ(PRINT("%s", std::string(3 * kLong, 'x').c_str()), XEL_OK);
        pipe.CloseWriteEnd();
    });
    text = pipe.ReadAll();
    writer.join();
    ASSERT_EQ(SplitLines(text).size(), 1U);
    EXPECT_EQ(MessageOf(SplitLines(text)[0]), std::string(3 * kLong, 'x'));
}

TEST(LogStream, ClosedStreamIsAFailure)
{
    const int saved = dup(STDERR_FILENO);
    close(STDERR_FILENO);
    const uint32_t result = PRINT("lost");
    dup2(saved, STDERR_FILENO);
    close(saved);
    EXPECT_EQ(result, XEL_FAIL);
}

TEST(LogStream, NothingComesFromTheHeap)
{
    if (kSanitized) {
        GTEST_SKIP() << "the sanitizer's heap is not counted";
    }
    const StderrFile captured;
    const std::string message(kLong, 'x');
    const uint64_t probe = g_fakes.allocations;
    void* volatile block = malloc(message.size());
    free(block);
    ASSERT_GT(g_fakes.allocations, probe) << "the count works";
    const uint64_t before = g_fakes.allocations;
    for (int i = 0; i < 100; i++) {
        PRINT("%d %s %#x %lu", i, "short", 12U, 5UL);
        PRINT("%s", message.c_str());
    }
    EXPECT_EQ(g_fakes.allocations, before);
}

TEST(LogStream, MappingsAreTakenForLongLinesOnly)
{
    if (!kMmapCanFail) {
        GTEST_SKIP() << "calls of mmap are not counted here";
    }
    const StderrFile captured;
    const uint64_t before = g_fakes.mmaps;
    PRINT("%s", std::string(500, 'x').c_str());
    EXPECT_EQ(g_fakes.mmaps, before);
    const std::string message(5000, 'x');
    const uint64_t beforeLong = g_fakes.mmaps;
    PRINT("%s", message.c_str());
    EXPECT_EQ(g_fakes.mmaps, beforeLong + 1);
}

// Pages of address space.
uint64_t AddressSpacePages()
{
    FILE* file = fopen("/proc/self/statm", "r");
    uint64_t pages = 0;
    const int found = fscanf(file, "%lu", &pages);
    fclose(file);
    return found == 1 ? pages : 0;
}

TEST(LogStream, LongLinesGiveTheirMemoryBack)
{
    const StderrFile captured;
    const std::string message(kLong, 'x');
    PRINT("%s", message.c_str());
    const uint64_t before = AddressSpacePages();
    for (int i = 0; i < 100; i++) {
        PRINT("%s", message.c_str());
    }
    ASSERT_GT(before, 0U);
    EXPECT_LT(AddressSpacePages(), before + 10 * kLong / 4096) << "room for ten of the hundred";
}

// Bytes that wait in the pipe.
int Waiting(int fd)
{
    int bytes = 0;
    ioctl(fd, FIONREAD, &bytes);
    return bytes;
}

TEST(LogStream, CancelledThreadFinishesItsLineAndLeavesNoLock)
{
    StderrPipe pipe;
    // Longer than the pipe: the thread gets stuck in write, where it could be cancelled.
    std::string message(kLong, 'x');
    pthread_t thread;
    pthread_create(
        &thread, nullptr,
        [](void* text) -> void* {
            PRINT("%s", static_cast<const char*>(text));
            pthread_testcancel();
            return nullptr;
        },
        message.data());
    const int size = fcntl(pipe.ReadEnd(), F_GETPIPE_SZ);
    while (Waiting(pipe.ReadEnd()) < size) {
        sched_yield();
    }
    pthread_cancel(thread);
    std::string text;
    std::thread reader([&] { text = pipe.ReadAll(); });
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(PRINT("%s", std::string(5000, 'y').c_str()), XEL_OK);
    pipe.CloseWriteEnd();
    reader.join();
    ASSERT_EQ(SplitLines(text).size(), 2U);
    EXPECT_EQ(MessageOf(SplitLines(text)[0]), message);
}

} // namespace
