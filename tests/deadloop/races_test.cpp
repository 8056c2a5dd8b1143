// Many threads at once, with the monitor starting, stopping and reporting all the time.
#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "recorder.h"

static constexpr int kThreads = 4;

template <typename Body>
static void RunThreads(Body body)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; i++) {
        threads.emplace_back(body);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(DeadloopRaces, RegistrationsComeAndGoWhileTheMonitorDoes)
{
    RunThreads([] {
        for (int round = 0; round < 300; round++) {
            Registration registration({1, 1000, 1000, 1000});
            for (int unit = 0; unit < 20; unit++) {
                EXPECT_EQ(registration.Begin(), 0U);
                EXPECT_EQ(registration.End(), 0U);
            }
        }
    });
    EXPECT_TRUE(AwaitNoMonitor());
    EXPECT_TRUE(LogLines().empty());
}

// A new thread may get the pthread id of a monitor thread that has just been joined.
TEST(DeadloopRaces, FreshThreadIsNeverTakenForAMonitorThatEnded)
{
    std::atomic<int> refused{0};
    RunThreads([&refused] {
        for (int round = 0; round < 60; round++) {
            std::thread([&refused] {
                const XelDeadloopThreshold threshold = {1, 1000, 1000, 1000};
                uint32_t handle = 0;
                if (XelDeadloopMonReg(&threshold, &handle) != 0 ||
                    XelDeadloopMonUnreg(handle) != 0) {
                    refused++;
                }
            }).join();
        }
    });
    EXPECT_EQ(refused, 0);
    EXPECT_TRUE(AwaitNoMonitor());
}

TEST(DeadloopRaces, StuckUnitsEndWithTheirRegistrationDuringReports)
{
    ReportRecorder recorder;
    RunThreads([&recorder] {
        for (int round = 0; round < 10; round++) {
            Registration registration({1, 2, 2, 3});
            EXPECT_EQ(registration.Begin(), 0U);
            EXPECT_TRUE(recorder.AwaitKind(registration.Handle(), XEL_DEADLOOP_FIRST));
            uint32_t handle = registration.Handle();
            EXPECT_EQ(registration.Unreg(), 0U);
            size_t reports = recorder.EntriesOf(handle).size();
            EXPECT_GE(reports, 1U);
            EXPECT_LE(reports, 3U);
        }
    });
    EXPECT_TRUE(AwaitNoMonitor());
}

TEST(DeadloopRaces, ReportFunctionIsReplacedDuringReports)
{
    static std::atomic<uint64_t> calls{0};
    std::atomic<bool> over{false};
    std::thread replacer([&over] {
        while (!over) {
            // On this stack: a call that outlived the replacement would touch a dead word.
            std::atomic<int> inside{0};
            auto count = [](void* context, const XelDeadloopReport* report) {
                auto& users = *static_cast<std::atomic<int>*>(context);
                users++;
                calls += report->kind != 0 ? 1 : 0;
                users--;
            };
            EXPECT_EQ(XelDeadloopSetReport(count, &inside), 0U);
            std::this_thread::yield();
            EXPECT_EQ(XelDeadloopSetReport(nullptr, nullptr), 0U);
            EXPECT_EQ(inside, 0);
        }
    });
    RunThreads([] {
        Registration registration({1, 1, 1, 1});
        for (int round = 0; round < 10; round++) {
            EXPECT_EQ(registration.Begin(), 0U);
            EXPECT_TRUE(AwaitLooks(4));
            EXPECT_EQ(registration.End(), 0U);
            EXPECT_TRUE(AwaitLooks(2));
        }
    });
    over = true;
    replacer.join();
    EXPECT_GT(calls + LogLines().size(), 0U);
}
