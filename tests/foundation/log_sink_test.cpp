// Sinks: what they are given, and that replacing one is clean under load.
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "log_capture.h"

namespace
{

struct Recorder {
    std::vector<std::string> lines;
    std::vector<uint32_t> levels;
    bool wellFormed = true;

    static void Record(void* context, uint32_t level, const char* line, size_t length)
    {
        auto* recorder = static_cast<Recorder*>(context);
        recorder->lines.emplace_back(line, length);
        recorder->levels.push_back(level);
        recorder->wellFormed = recorder->wellFormed && length > 0 && line[length - 1] == '\n' &&
                               line[length] == '\0' && strlen(line) == length;
    }
};

TEST(LogSink, ReceivesWholeLinesOfEveryLength)
{
    const StderrFile captured;
    Recorder recorder;
    LOG_SetSink(Recorder::Record, &recorder);
    EXPECT_EQ(PRINT("short"), XEL_OK);
    EXPECT_EQ(PRINT("%s", std::string(50000, 'x').c_str()), XEL_OK);
    LOG_InnerPrint(0, "f", 1, "", 9, 1, 20, "detail");
    LOG_SetSink(nullptr, nullptr);
    ASSERT_EQ(recorder.lines.size(), 3U);
    EXPECT_TRUE(recorder.wellFormed);
    EXPECT_NE(recorder.lines[0].find("] short\n"), std::string::npos);
    EXPECT_NE(recorder.lines[1].find("] " + std::string(50000, 'x') + "\n"), std::string::npos);
    EXPECT_EQ(recorder.levels, (std::vector<uint32_t>{100, 100, 20}));
    EXPECT_EQ(captured.Text(), "") << "nothing reaches standard error meanwhile";
}

TEST(LogSink, NullMeansStandardErrorAgain)
{
    const StderrFile captured;
    Recorder recorder;
    LOG_SetSink(Recorder::Record, &recorder);
    LOG_SetSink(nullptr, nullptr);
    PRINT("message");
    EXPECT_TRUE(recorder.lines.empty());
    EXPECT_EQ(SplitLines(captured.Text()).size(), 1U);
}

// A sink that logs itself, once deep.
struct Nested {
    int depth = 0;
    int lines = 0;

    static void Record(void* context, uint32_t, const char*, size_t)
    {
        auto* nested = static_cast<Nested*>(context);
        nested->lines++;
        if (nested->depth++ == 0) {
            PRINT("from the sink");
            PRINT("%s", std::string(9000, 'x').c_str());
        }
        nested->depth--;
    }
};

TEST(LogSink, SinkMayLogItself)
{
    Nested nested;
    LOG_SetSink(Nested::Record, &nested);
    PRINT("outer");
    LOG_SetSink(nullptr, nullptr);
    EXPECT_EQ(nested.lines, 3);
}

void ReplaceFromInside(void* context, uint32_t, const char*, size_t)
{
    LOG_SetSink(nullptr, nullptr);
    static_cast<std::atomic<int>*>(context)->fetch_add(1);
}

TEST(LogSink, SinkThatReplacesItselfIsIgnored)
{
    std::atomic<int> calls{0};
    LOG_SetSink(ReplaceFromInside, &calls);
    PRINT("one");
    PRINT("two");
    LOG_SetSink(nullptr, nullptr);
    EXPECT_EQ(calls.load(), 2);
}

// A sink that waits inside until another thread asks to replace it, and then logs.
struct Waiter {
    std::atomic<bool> inside{false};
    std::atomic<bool> go{false};
    std::atomic<int> lines{0};

    static void Record(void* context, uint32_t, const char*, size_t)
    {
        auto* waiter = static_cast<Waiter*>(context);
        waiter->lines++;
        if (!waiter->inside.exchange(true)) {
            while (!waiter->go) {
                std::this_thread::yield();
            }
            PRINT("nested while a replacement waits");
        }
    }
};

TEST(LogSink, NestedLineDoesNotWaitForAReplacementThatWaits)
{
    Waiter waiter;
    LOG_SetSink(Waiter::Record, &waiter);
    std::thread logger([] { PRINT("outer"); });
    while (!waiter.inside) {
        std::this_thread::yield();
    }
    std::atomic<bool> replaced{false};
    std::thread replacer([&] {
        LOG_SetSink(nullptr, nullptr);
        EXPECT_EQ(waiter.lines.load(), 2) << "replaced while the old sink was running";
        replaced = true;
    });
    // The replacement cannot be seen waiting from outside; a moment is enough, and too short a one
    // could only make the test pass for less.
    for (int i = 0; i < 100; i++) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(replaced.load());
    waiter.go = true;
    logger.join();
    replacer.join();
    EXPECT_TRUE(replaced.load());
}

struct Guarded {
    std::atomic<bool> alive{false};
    std::atomic<uint64_t> lines{0};
    std::atomic<uint64_t> late{0};

    static void Record(void* context, uint32_t, const char*, size_t)
    {
        auto* guarded = static_cast<Guarded*>(context);
        guarded->late += guarded->alive ? 0 : 1;
        guarded->lines++;
        guarded->late += guarded->alive ? 0 : 1;
    }
};

TEST(LogSink, OldSinkIsNeverInsideAfterItsReplacement)
{
    constexpr int kSinks = 40;
    const StderrFile captured;
    std::vector<Guarded> sinks(kSinks);
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> printed{0};
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&] {
            while (!stop) {
                PRINT("line");
                printed++;
            }
        });
    }
    for (Guarded& sink : sinks) {
        sink.alive = true;
        LOG_SetSink(Guarded::Record, &sink);
        const uint64_t before = printed;
        while (printed == before) {
            std::this_thread::yield();
        }
        LOG_SetSink(nullptr, nullptr);
        sink.alive = false;
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    uint64_t received = 0;
    for (const Guarded& sink : sinks) {
        EXPECT_EQ(sink.late.load(), 0U);
        received += sink.lines;
    }
    EXPECT_GT(received, 0U);
    EXPECT_EQ(received + SplitLines(captured.Text()).size(), printed) << "no line is lost";
}

} // namespace
