// A thread that fails before its first cycle: a stack size that the system refuses, a monitor that
// refuses. It ends without saying so; the process goes on.
#include <cerrno>
#include <climits>
#include <pthread.h>

#include "deadloop_probe.h"
#include "thread_support.h"

namespace
{

using namespace threadtest;
using namespace xeltest;

class ThreadStart : public ThreadTest
{
protected:
    // Creates a thread that fails at its start, and demands its lines and that it never exits.
    void ExpectStillborn(const ThreadAttr& attr, const std::vector<ExpectedLine>& lines)
    {
        XelThreadCtrl* thread = XEL_ThreadCreate(attr.Get());
        ASSERT_NE(thread, nullptr);
        EXPECT_TRUE(AwaitTrue([&lines] { return LogCount() == lines.size(); }));
        EXPECT_TRUE(AwaitGone("stillborn"));
        EXPECT_TRUE(LogIs(kThreadSource, lines));
        EXPECT_EQ(Calls(Call::EpollWait), 0U);
        EXPECT_EQ(thread->exited.load(), 0U);
        Bury(thread);
    }
    // The destroyer waits for ever; only a flag set by hand lets it go on.
    static void Bury(XelThreadCtrl* thread)
    {
        ResetFaults();
        const u64 polls = Calls(Call::Usleep);
        Runner destroyer([thread] { EXPECT_EQ(SchEventThreadDestory(thread), 0U); });
        EXPECT_TRUE(AwaitTrue([polls] { return Calls(Call::Usleep) >= polls + 5; }));
        EXPECT_FALSE(destroyer.HasEnded());
        EXPECT_EQ(thread->exited.load(), 0U);
        thread->exited.store(1);
        destroyer.Join();
    }
    // Other threads are not affected.
    static void ExpectGoesOn()
    {
        Worker worker("successor");
        bool ran = false;
        worker.Run([&ran] { ran = true; });
        EXPECT_TRUE(ran);
    }
};

TEST_F(ThreadStart, StackSizeBelowTheMinimumStopsTheThread)
{
    ThreadAttr attr("stillborn");
    attr.Set(XEL_THREAD_ATTR_STACK_SIZE, 1);
    FailAll(Call::XelDeadloopMonReg); // comes later
    ExpectStillborn(attr, {"Thread set stack size unsuccessfully. (ret = 22)",
                           "Thread proc, set stack size unsuccessfully."});
    ExpectGoesOn();
}

TEST_F(ThreadStart, NoStackAttributeStopsTheThread)
{
    ThreadAttr attr("stillborn");
    attr.Set(XEL_THREAD_ATTR_STACK_SIZE, 1U << 20);
    FailNth(Call::PthreadAttrInit, 1, ENOMEM);
    ExpectStillborn(attr,
                    {"Thread set stack size, thread attribute init unsuccessfully. (ret = 12)",
                     "Thread proc, set stack size unsuccessfully."});
}

TEST_F(ThreadStart, RefusedRegistrationStopsTheThread)
{
    const ThreadAttr attr("stillborn");
    FailNth(Call::XelDeadloopMonReg, 1);
    ExpectStillborn(attr, {"Thread proc, set deadloop to monitor unsuccessfully."});
    ExpectGoesOn();
}

TEST_F(ThreadStart, RefusedBindingStopsTheThread)
{
    const ThreadAttr attr("stillborn");
    FailNth(Call::XelDeadloopMonProcSet, 1);
    ExpectStillborn(attr, {"Thread proc, set deadloop action unsuccessfully."});
    ExpectGoesOn();
}

TEST_F(ThreadStart, RefusingMonitorLeavesTheProcessAlone)
{
    const ThreadAttr attr("stillborn");
    FailAll(Call::XelDeadloopMonReg);
    std::vector<XelThreadCtrl*> threads;
    for (int i = 0; i < 5; ++i) {
        threads.push_back(XEL_ThreadCreate(attr.Get()));
        ASSERT_NE(threads.back(), nullptr);
    }
    const std::string line = "Thread proc, set deadloop to monitor unsuccessfully.";
    EXPECT_TRUE(AwaitTrue([&line] { return LogCount(line) == 5; }));
    EXPECT_LOG(kThreadSource, line, line, line, line, line);
    EXPECT_TRUE(AwaitGone("stillborn"));
    ResetFaults();
    ExpectGoesOn();
    for (XelThreadCtrl* thread : threads) {
        thread->exited.store(1);
        EXPECT_EQ(SchEventThreadDestory(thread), 0U);
    }
}

TEST_F(ThreadStart, StackSizeZeroIsNotValidated)
{
    EXPECT_EQ(ThreadSetStackSize(0), 0U);
    EXPECT_EQ(Calls(Call::PthreadAttrInit), 0U);
    EXPECT_NO_LOG();
}

TEST_F(ThreadStart, EachStepOfTheValidationHasItsLine)
{
    const u32 size = 1U << 20;
    EXPECT_EQ(ThreadSetStackSize(size), 0U);
    EXPECT_EQ(ThreadSetStackSize(static_cast<u32>(PTHREAD_STACK_MIN)), 0U);
    EXPECT_NO_LOG();
    FailNth(Call::PthreadAttrInit, 1, ENOMEM);
    EXPECT_EQ(ThreadSetStackSize(size), kFail);
    EXPECT_LOG(kThreadSource,
               "Thread set stack size, thread attribute init unsuccessfully. (ret = 12)");
    FailNth(Call::PthreadAttrSetstacksize, 1, EINVAL);
    EXPECT_EQ(ThreadSetStackSize(size), kFail);
    EXPECT_LOG(kThreadSource, "Thread set stack size unsuccessfully. (ret = 22)");
    t_getStackSizeResult = EINVAL;
    EXPECT_EQ(ThreadSetStackSize(size), kFail);
    t_getStackSizeResult = 0;
    EXPECT_LOG(kThreadSource, "Thread get stack size unsuccessfully. (ret = 22)");
}

// The size is validated, and that is all: the thread has the default stack.
TEST_F(ThreadStart, ValidStackSizeIsNotApplied)
{
    size_t usual = 0;
    size_t asked = 0;
    const auto measure = [](size_t* size) {
        pthread_attr_t attr;
        ASSERT_EQ(pthread_getattr_np(pthread_self(), &attr), 0);
        EXPECT_EQ(pthread_attr_getstacksize(&attr, size), 0);
        EXPECT_EQ(pthread_attr_destroy(&attr), 0);
    };
    Worker plain;
    plain.Run([&] { measure(&usual); });
    ThreadAttr attr;
    attr.Set(XEL_THREAD_ATTR_STACK_SIZE, static_cast<u32>(PTHREAD_STACK_MIN));
    Worker small(attr);
    small.Run([&] { measure(&asked); });
    EXPECT_EQ(small->stackSize, static_cast<u32>(PTHREAD_STACK_MIN));
    EXPECT_GT(asked, static_cast<size_t>(PTHREAD_STACK_MIN));
    EXPECT_EQ(asked, usual);
}

} // namespace
