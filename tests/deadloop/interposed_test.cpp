// A platform with a pthread_create of its own in front of the process, here one that always fails.
// The monitor does not meet it. Builds with a sanitizer have to start threads where the sanitizer
// sees it; there the failure is the start failure that a registration must survive.
#include <atomic>
#include <cerrno>
#include <dlfcn.h>
#include <pthread.h>

#include <gtest/gtest.h>

#include "recorder.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SANITIZED 1
#endif
#endif

static std::atomic<int> g_calls{0};

extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* /*thread*/,
                                                                     const pthread_attr_t* /*attr*/,
                                                                     void* (* /*entry*/)(void*),
                                                                     void* /*argument*/) noexcept
{
    g_calls++;
    return EAGAIN;
}

#if defined(SANITIZED)

TEST(DeadloopInterposed, RegistrationWithoutAThreadFailsAndLeavesNothing)
{
    size_t threads = ThreadCount();
    XelDeadloopThreshold threshold = {100, 100, 200, 300};
    for (int round = 1; round <= 3; round++) {
        uint32_t handle = 77;
        EXPECT_EQ(XelDeadloopMonReg(&threshold, &handle), 0xFFFFFFFFU);
        EXPECT_EQ(handle, 77U);
        EXPECT_EQ(g_calls, round);
    }
    EXPECT_EQ(ThreadCount(), threads);
}

#else

#include <sys/resource.h>

TEST(DeadloopInterposed, MonitorDoesNotUseIt)
{
    ReportRecorder recorder;
    Registration registration({1, 2, 3, 4});
    ASSERT_NE(AwaitMonitorTid(), 0);
    ASSERT_EQ(registration.Begin(), 0U);
    ASSERT_TRUE(recorder.Await(3));
    ASSERT_EQ(registration.End(), 0U);
    ASSERT_TRUE(recorder.Await(4));
    ASSERT_EQ(registration.Unreg(), 0U);
    EXPECT_TRUE(AwaitNoMonitor());
    EXPECT_EQ(g_calls, 0);
    // It does stand in front of every library: this is what their calls are bound to.
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "pthread_create"), reinterpret_cast<void*>(pthread_create));
}

TEST(DeadloopInterposed, RegistrationWithoutAThreadFailsAndLeavesNothing)
{
    // No address space for a stack: the C library itself cannot make a thread.
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
    rlimit none = {0, before.rlim_max};
    XelDeadloopThreshold threshold = {100, 100, 200, 300};
    uint32_t handle = 77;
    ASSERT_EQ(setrlimit(RLIMIT_AS, &none), 0);
    uint32_t refused = XelDeadloopMonReg(&threshold, &handle);
    ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);
    EXPECT_EQ(refused, 0xFFFFFFFFU);
    EXPECT_EQ(handle, 77U);
    EXPECT_EQ(MonitorTid(), 0);
    ASSERT_EQ(XelDeadloopMonReg(&threshold, &handle), 0U);
    EXPECT_EQ(XelDeadloopMonUnreg(handle), 0U);
}

#endif
