// Noise: what is reported about a thread that stays inside a unit, when, and to whom.
#include <atomic>
#include <csignal>
#include <pthread.h>
#include <string>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "recorder.h"
#include "xel_log.h"

static constexpr uint32_t kFail = 0xFFFFFFFF;
static constexpr XelDeadloopThreshold kQuick = {1, 5, 10, 15};

static void ExpectKind(const XelDeadloopReport& report, uint32_t kind, uint32_t level)
{
    EXPECT_EQ(report.kind, kind);
    EXPECT_EQ(report.level, level);
}

// Stays inside one unit until its dead-loop report came, ends it and waits for that line.
static void StickOnce(const Registration& registration, ReportRecorder& recorder)
{
    size_t before = recorder.Count();
    ASSERT_EQ(registration.Begin(), 0U);
    ASSERT_TRUE(recorder.Await(before + 3));
    ASSERT_TRUE(AwaitLooks(5));
    ASSERT_EQ(registration.End(), 0U);
    ASSERT_TRUE(recorder.Await(before + 4));
}

TEST(DeadloopReport, StuckUnitIsReportedOncePerThresholdAndAtItsEnd)
{
    ReportRecorder recorder;
    Registration registration(kQuick);
    StickOnce(registration, recorder);
    ASSERT_TRUE(AwaitLooks(20));
    auto entries = recorder.Entries();
    ASSERT_EQ(entries.size(), 4U);
    ExpectKind(entries[0].report, XEL_DEADLOOP_FIRST, 80);
    ExpectKind(entries[1].report, XEL_DEADLOOP_SECOND, 80);
    ExpectKind(entries[2].report, XEL_DEADLOOP_DEAD, 100);
    ExpectKind(entries[3].report, XEL_DEADLOOP_ENDED, 20);
}

TEST(DeadloopReport, ReportsNeverComeBeforeTheirThreshold)
{
    ReportRecorder recorder;
    Registration registration({10, 13, 27, 41});
    ASSERT_TRUE(AwaitLooks(3));
    uint64_t beginMs = NowMs();
    StickOnce(registration, recorder);
    auto entries = recorder.Entries();
    ASSERT_EQ(entries.size(), 4U);
    const uint64_t thresholdMs[] = {130, 270, 410, 410};
    for (size_t i = 0; i < entries.size(); i++) {
        EXPECT_GE(entries[i].atMs - beginMs, thresholdMs[i]) << i;
        EXPECT_GE(entries[i].report.elapsedMs, thresholdMs[i]) << i;
        EXPECT_LE(entries[i].report.elapsedMs, entries[i].atMs - beginMs) << i;
    }
}

TEST(DeadloopReport, ThreadThatWentOnDuringAReportGetsNoFurtherOne)
{
    ReportRecorder recorder;
    Registration registration({1, 3, 3, 3});
    recorder.Hold();
    ASSERT_EQ(registration.Begin(), 0U);
    ASSERT_TRUE(recorder.AwaitInside());
    ASSERT_EQ(registration.End(), 0U);
    recorder.Release();
    ASSERT_TRUE(recorder.Await(2));
    auto entries = recorder.Entries();
    EXPECT_EQ(entries[0].report.kind, XEL_DEADLOOP_FIRST);
    EXPECT_EQ(entries[1].report.kind, XEL_DEADLOOP_ENDED);
}

TEST(DeadloopReport, EqualThresholdsAreReportedTogether)
{
    ReportRecorder recorder;
    Registration registration({1, 3, 3, 3});
    StickOnce(registration, recorder);
    auto entries = recorder.Entries();
    ASSERT_EQ(entries.size(), 4U);
    EXPECT_EQ(entries[0].report.elapsedMs, entries[2].report.elapsedMs);
    ExpectKind(entries[2].report, XEL_DEADLOOP_DEAD, 100);
}

TEST(DeadloopReport, NamesTheBoundThread)
{
    ReportRecorder recorder;
    std::thread([&recorder] {
        ASSERT_EQ(pthread_setname_np(pthread_self(), "worker-fifteen-"), 0);
        Registration registration(kQuick);
        ASSERT_EQ(pthread_setname_np(pthread_self(), "renamed"), 0);
        StickOnce(registration, recorder);
        for (const auto& entry : recorder.Entries()) {
            EXPECT_STREQ(entry.report.threadName, "worker-fifteen-");
            EXPECT_EQ(entry.report.tid, gettid());
            EXPECT_EQ(entry.report.pthreadId, static_cast<uint64_t>(pthread_self()));
            EXPECT_EQ(entry.report.handle, registration.Handle());
        }
    }).join();
    EXPECT_EQ(recorder.Count(), 4U);
}

TEST(DeadloopReport, WithoutAThreadSaysUnbound)
{
    ReportRecorder recorder;
    Registration registration(kQuick, false);
    StickOnce(registration, recorder);
    for (const auto& entry : recorder.Entries()) {
        EXPECT_STREQ(entry.report.threadName, "<unbound>");
        EXPECT_EQ(entry.report.tid, 0);
        EXPECT_EQ(entry.report.pthreadId, 0U);
    }
}

TEST(DeadloopReport, LastBindingCounts)
{
    ReportRecorder recorder;
    Registration registration(kQuick);
    int tid = 0;
    std::thread([&] {
        tid = gettid();
        ASSERT_EQ(XelDeadloopMonProcSet(registration.Handle()), 0U);
    }).join();
    StickOnce(registration, recorder);
    EXPECT_EQ(recorder.Entries().at(0).report.tid, tid);
}

TEST(DeadloopReport, EachStuckUnitOfAThreadIsReportedAnew)
{
    ReportRecorder recorder;
    Registration registration(kQuick);
    StickOnce(registration, recorder);
    StickOnce(registration, recorder);
    auto entries = recorder.Entries();
    ASSERT_EQ(entries.size(), 8U);
    for (size_t i = 0; i < 8; i++) {
        EXPECT_EQ(entries[i].report.kind, i % 4 + 1) << i;
    }
}

TEST(DeadloopReport, UnitBehindAStuckOneEndsItAndIsMeasuredFromItsOwnBegin)
{
    ReportRecorder recorder;
    Registration registration(kQuick);
    ASSERT_EQ(registration.Begin(), 0U);
    ASSERT_TRUE(recorder.Await(3));
    uint64_t secondBeginMs = NowMs();
    ASSERT_EQ(registration.End(), 0U);
    ASSERT_EQ(registration.Begin(), 0U);
    ASSERT_TRUE(recorder.Await(7));
    ASSERT_EQ(registration.End(), 0U);
    auto entries = recorder.Entries();
    EXPECT_EQ(entries[3].report.kind, XEL_DEADLOOP_ENDED);
    EXPECT_EQ(entries[4].report.kind, XEL_DEADLOOP_FIRST);
    EXPECT_GE(entries[4].atMs - secondBeginMs, 50U);
}

TEST(DeadloopReport, StuckThreadsAreReportedSeparately)
{
    ReportRecorder recorder;
    uint32_t handles[2] = {};
    auto stick = [&recorder](uint32_t& handle) {
        Registration registration(kQuick);
        handle = registration.Handle();
        ASSERT_EQ(registration.Begin(), 0U);
        ASSERT_TRUE(recorder.AwaitKind(handle, XEL_DEADLOOP_DEAD));
        ASSERT_EQ(registration.End(), 0U);
        ASSERT_TRUE(recorder.AwaitKind(handle, XEL_DEADLOOP_ENDED));
        for (const auto& entry : recorder.EntriesOf(handle)) {
            EXPECT_EQ(entry.report.tid, gettid());
        }
    };
    std::thread other(stick, std::ref(handles[1]));
    stick(handles[0]);
    other.join();
    for (uint32_t handle : handles) {
        auto entries = recorder.EntriesOf(handle);
        ASSERT_EQ(entries.size(), 4U);
        for (size_t i = 0; i < 4; i++) {
            EXPECT_EQ(entries[i].report.kind, i + 1);
        }
    }
}

TEST(DeadloopReport, OutermostOfNestedUnitsIsMeasured)
{
    ReportRecorder recorder;
    Registration registration(kQuick);
    ASSERT_EQ(registration.Begin(), 0U);
    for (size_t wanted = 1; wanted <= 3; wanted++) {
        ASSERT_EQ(registration.Begin(), 0U); // progress of inner units is not the outer's
        ASSERT_TRUE(recorder.Await(wanted));
        ASSERT_EQ(registration.End(), 0U);
    }
    ASSERT_TRUE(AwaitLooks(5));
    EXPECT_EQ(recorder.Count(), 3U);
    ASSERT_EQ(registration.End(), 0U);
    ASSERT_TRUE(recorder.Await(4));
    EXPECT_EQ(recorder.Entries()[3].report.kind, XEL_DEADLOOP_ENDED);
}

TEST(DeadloopReport, EndWithoutBeginDoesNotOpenAUnit)
{
    ReportRecorder recorder;
    Registration registration({1, 2, 3, 4});
    ASSERT_EQ(registration.End(), 0U);
    ASSERT_TRUE(AwaitLooks(10));
    EXPECT_EQ(recorder.Count(), 0U);
    StickOnce(registration, recorder);
}

TEST(DeadloopReport, DefaultWritesOneLogLineEach)
{
    ASSERT_EQ(pthread_setname_np(pthread_self(), "loop-of-test"), 0);
    Registration registration(kQuick);
    ASSERT_EQ(registration.Begin(), 0U);
    ASSERT_EQ(AwaitLogLines(3).size(), 3U);
    ASSERT_EQ(registration.End(), 0U);
    auto lines = AwaitLogLines(4);
    ASSERT_EQ(lines.size(), 4U);
    const uint32_t levels[] = {80, 80, 100, 20};
    for (size_t i = 0; i < lines.size(); i++) {
        EXPECT_EQ(lines[i].logId, 0U);
        EXPECT_EQ(lines[i].file, "foundation/xel_deadloop");
        EXPECT_EQ(lines[i].fileNo, 94U);
        EXPECT_EQ(lines[i].func, "<unknown>");
        EXPECT_EQ(lines[i].component, 9U);
        EXPECT_EQ(lines[i].level, levels[i]);
        std::string who = "(name:loop-of-test, tid:" + std::to_string(gettid()) + ")";
        EXPECT_TRUE(lines[i].text.ends_with(who)) << lines[i].text;
        EXPECT_NE(lines[i].text.find(" ms"), std::string::npos) << lines[i].text;
    }
    EXPECT_NE(lines[2].text.find("dead loop"), std::string::npos) << lines[2].text;
}

TEST(DeadloopReport, NullFunctionRestoresTheLog)
{
    Registration registration(kQuick);
    {
        ReportRecorder recorder;
        StickOnce(registration, recorder);
        EXPECT_TRUE(LogLines().empty());
    }
    ASSERT_EQ(registration.Begin(), 0U);
    EXPECT_EQ(AwaitLogLines(3).size(), 3U);
    ASSERT_EQ(registration.End(), 0U);
}

TEST(DeadloopReport, ReplacingWaitsForTheOldFunction)
{
    ReportRecorder recorder;
    recorder.Hold();
    Registration registration(kQuick);
    ASSERT_EQ(registration.Begin(), 0U);
    ASSERT_TRUE(recorder.AwaitInside());
    std::atomic<bool> replaced{false};
    bool insideAfter = true;
    std::thread replacer([&] {
        EXPECT_EQ(XelDeadloopSetReport(nullptr, nullptr), 0U);
        insideAfter = recorder.IsInside();
        replaced = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // nothing to await: it must wait
    EXPECT_FALSE(replaced);
    recorder.Release();
    replacer.join();
    EXPECT_FALSE(insideAfter);
    EXPECT_EQ(recorder.Count(), 1U);
    EXPECT_GE(AwaitLogLines(2).size(), 2U); // the second and third report go to the log
}

TEST(DeadloopReport, BlockedReportFunctionHoldsUpNobodyElse)
{
    ReportRecorder recorder;
    recorder.Hold();
    Registration stuck(kQuick);
    ASSERT_EQ(stuck.Begin(), 0U);
    ASSERT_TRUE(recorder.AwaitInside());
    for (int round = 0; round < 10; round++) {
        Registration other(kQuick);
        EXPECT_EQ(other.Begin(), 0U);
        EXPECT_EQ(other.End(), 0U);
        EXPECT_EQ(other.Unreg(), 0U);
    }
    EXPECT_EQ(stuck.End(), 0U);
    EXPECT_EQ(XelDeadloopMonProcSet(stuck.Handle()), 0U);
    EXPECT_TRUE(recorder.IsInside());
    recorder.Release();
}

TEST(DeadloopReport, EndOfARegistrationWaitsForItsReport)
{
    ReportRecorder recorder;
    recorder.Hold();
    Registration keepsTheMonitor({1, 1000, 1000, 1000}); // else the stop would do the waiting
    Registration registration(kQuick);
    ASSERT_EQ(registration.Begin(), 0U);
    ASSERT_TRUE(recorder.AwaitInside());
    std::atomic<bool> ended{false};
    bool insideAfter = true;
    std::thread ender([&] {
        EXPECT_EQ(registration.Unreg(), 0U);
        insideAfter = recorder.IsInside();
        ended = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // nothing to await: it must wait
    EXPECT_FALSE(ended);
    recorder.Release();
    ender.join();
    EXPECT_FALSE(insideAfter);
    EXPECT_EQ(recorder.Count(), 1U);
}

TEST(DeadloopReport, NothingIsSaidAfterTheRegistrationEnded)
{
    ReportRecorder recorder;
    Registration keepsTheMonitor({1, 1000, 1000, 1000});
    Registration registration({1, 5, 1000, 1000});
    ASSERT_EQ(registration.Begin(), 0U);
    ASSERT_TRUE(recorder.Await(1));
    uint32_t handle = registration.Handle();
    ASSERT_EQ(registration.Unreg(), 0U);
    EXPECT_EQ(XelDeadloopMonEnd(handle, 1), kFail);
    Registration successor({1, 5, 1000, 1000}); // in the place of the one that was stuck
    ASSERT_TRUE(AwaitLooks(20));
    EXPECT_EQ(recorder.Count(), 1U);
}

struct Inside {
    std::atomic<bool> done{false};
    uint32_t handle = 0;
    uint32_t regResult = 0;
    uint32_t unregResult = 0;
    uint32_t setResult = 0;
    bool blocksSignals = false;
};

static void CallBackIn(void* context, const XelDeadloopReport* /*report*/)
{
    auto* inside = static_cast<Inside*>(context);
    uint32_t handle = 0;
    inside->regResult = XelDeadloopMonReg(&kQuick, &handle);
    inside->unregResult = XelDeadloopMonUnreg(inside->handle);
    inside->setResult = XelDeadloopSetReport(nullptr, nullptr);
    sigset_t mask;
    (void)pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    inside->blocksSignals = true;
    for (int signo : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGALRM, SIGCHLD, SIGRTMIN, SIGRTMAX}) {
        inside->blocksSignals = inside->blocksSignals && sigismember(&mask, signo) == 1;
    }
    (void)LOG_InnerPrint(0, "test", 1, "<unknown>", 9, 1, 20, "%s", "from inside");
    inside->done = true;
    inside->done.notify_all();
}

TEST(DeadloopReport, FunctionMayLogButNotRegisterOnABlockedSignalsThread)
{
    Inside inside;
    Registration registration({1, 2, 1000, 1000});
    inside.handle = registration.Handle();
    ASSERT_EQ(XelDeadloopSetReport(CallBackIn, &inside), 0U);
    ASSERT_EQ(registration.Begin(), 0U);
    inside.done.wait(false);
    EXPECT_EQ(registration.End(), 0U);
    EXPECT_EQ(registration.Unreg(), 0U);
    EXPECT_EQ(XelDeadloopSetReport(nullptr, nullptr), 0U);
    EXPECT_EQ(inside.regResult, kFail);
    EXPECT_EQ(inside.unregResult, kFail);
    EXPECT_EQ(inside.setResult, kFail);
    EXPECT_TRUE(inside.blocksSignals);
    ASSERT_GE(LogLines().size(), 1U);
    EXPECT_EQ(LogLines()[0].text, "from inside");
}

TEST(DeadloopReport, RegisteringLeavesTheCallersSignalMask)
{
    sigset_t before;
    sigset_t after;
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &before), 0);
    Registration registration(kQuick);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &after), 0);
    for (int signo = 1; signo < SIGRTMAX; signo++) {
        EXPECT_EQ(sigismember(&before, signo), sigismember(&after, signo)) << signo;
    }
}
