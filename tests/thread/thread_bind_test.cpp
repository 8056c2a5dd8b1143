// Binding descriptors to a scheduler thread: XEL_ThreadCtrl and the one-call form.
#include <sys/eventfd.h>

#include "thread_support.h"

namespace
{

using namespace threadtest;
using namespace xeltest;

class ThreadBind : public ThreadTest
{
};

TEST_F(ThreadBind, NullAndDamagedThreadsAreRefused)
{
    EXPECT_EQ(XEL_ThreadCtrl(nullptr, 7, 1, nullptr), kFail);
    EXPECT_LOG(kThreadSource, "Param invalid handel, epoll ctl opreation(7).");
    EXPECT_EQ(XEL_ThreadCtrl(nullptr, kFail, 1, nullptr), kFail);
    EXPECT_LOG(kThreadSource, "Param invalid handel, epoll ctl opreation(4294967295).");
    XelThreadCtrl record = {};
    record.magic = 0xFBADBFFE;
    EXPECT_EQ(XEL_ThreadCtrl(&record, 7, 1, nullptr), kFail);
    EXPECT_LOG(kThreadSource, "Thread magic is damaged, magic = 0xfbadbffe.");
}

TEST_F(ThreadBind, ThreadWithoutSchedulerIsRefusedBeforeTheOperation)
{
    XelThreadCtrl record = {};
    record.magic = 0xFBADBFFF;
    EXPECT_EQ(XEL_ThreadCtrl(&record, 3, 1, nullptr), kFail);
    EXPECT_LOG(kThreadSource, "Get scheduler handle unsuccessfully.");
}

TEST_F(ThreadBind, UnknownOperationIsRefused)
{
    const Worker worker;
    EXPECT_EQ(XEL_ThreadCtrl(worker.Get(), 3, 41, nullptr), kFail);
    EXPECT_LOG(kThreadSource, "operation mode is invalid , task = 41, op = 3");
    EXPECT_EQ(XEL_ThreadCtrl(worker.Get(), kFail, -1, nullptr), kFail);
    EXPECT_LOG(kThreadSource, "operation mode is invalid , task = -1, op = -1");
}

TEST_F(ThreadBind, HandleOfTheScheduler)
{
    const Worker worker;
    EXPECT_EQ(SchGetHandle(worker.Get()), worker->sch);
    EXPECT_EQ(SchGetHandle(nullptr), nullptr);
    EXPECT_LOG(kThreadSource,
               "Param invalid param null, get schHandle by thread handle unsuccessfully.");
    XelThreadCtrl record = {};
    record.magic = 0x99;
    record.sch = worker->sch;
    EXPECT_EQ(SchGetHandle(&record), nullptr);
    EXPECT_LOG(kThreadSource, "Thread magic is damaged, magic = 0x99.");
}

TEST_F(ThreadBind, RequestIsNeededButForDelete)
{
    const Worker worker;
    const Fd fd = Fd::Event();
    for (const u32 op : {0U, 1U}) {
        EXPECT_EQ(XEL_ThreadCtrl(worker.Get(), op, fd.Get(), nullptr), kFail);
        EXPECT_LOG(kSchSource, "Sch epoll ctl unsuccessfully, param is null.");
    }
    EXPECT_EQ(XEL_ThreadCtrl(worker.Get(), 2, fd.Get(), nullptr), kFail);
    EXPECT_LOG(kSchSource, "Sch delete fd unsuccessfully, invalid task handle.",
               Text("Sch operation unsuccessfully. (fd = %d, op = 2, ret = 0xffffffff)", fd.Get()));
}

TEST_F(ThreadBind, AddModifyDelete)
{
    Worker worker;
    const Fd fd = Fd::Event();
    std::atomic<u32> first{0};
    std::atomic<u32> second{0};
    const auto counter = [&fd](std::atomic<u32>& runs) {
        return Body([&fd, &runs](u32) {
            fd.Drain();
            runs.fetch_add(1);
            return 0U;
        });
    };
    const Body one = counter(first);
    const Body two = counter(second);
    ASSERT_EQ(AddFd(worker.Get(), fd.Get(), SpecOf(one), 0), 0U); // EPOLLIN is added
    fd.Signal();
    ASSERT_TRUE(AwaitTrue([&] { return first.load() == 1; }));
    ASSERT_EQ(ModFd(worker.Get(), fd.Get(), SpecOf(two)), 0U);
    fd.Signal();
    ASSERT_TRUE(AwaitTrue([&] { return second.load() == 1; }));
    ASSERT_EQ(DelFd(worker.Get(), fd.Get()), 0U);
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), nullptr);
    EXPECT_EQ(Registration(worker->epFd, fd.Get()), "");
    fd.Signal();
    worker.Run([] {});
    EXPECT_EQ(first.load(), 1U);
    EXPECT_EQ(second.load(), 1U);
}

TEST_F(ThreadBind, SecondAddOfADescriptorIsRefused)
{
    const Worker worker;
    const Worker other;
    const Fd fd = Fd::Event();
    ASSERT_EQ(AddFd(worker.Get(), fd.Get(), {}), 0U);
    for (const Worker* thread : {&worker, &other}) {
        EXPECT_EQ(AddFd(thread->Get(), fd.Get(), {}), kFail);
        EXPECT_LOG(
            kSchSource,
            From(kTaskSource, Text("Task fd has already create task. (fd = %d)", fd.Get())),
            Text("Sch task handle create unsuccessfully. (fd = %d)", fd.Get()),
            Text("Sch operation unsuccessfully. (fd = %d, op = 0, ret = 0xffffffff)", fd.Get()));
    }
    EXPECT_EQ(DelFd(worker.Get(), fd.Get()), 0U);
}

// The one-call form, and what its tasks are handed.
std::atomic<u32> g_commonRuns{0};
std::atomic<u64> g_commonData{0};

u32 CommonProc(struct epoll_event* /*events*/, u64 data)
{
    g_commonData.store(data);
    if (g_commonRuns.fetch_add(1) == 2) {
        const auto* common = reinterpret_cast<const XelSchCommonTask*>(data);
        eventfd_t value = 0;
        EXPECT_EQ(eventfd_read(static_cast<int>(common->fd), &value), 0);
    }
    return 0;
}

class ThreadCommonTask : public ThreadTest
{
protected:
    void SetUp() override
    {
        ThreadTest::SetUp();
        g_commonRuns.store(0);
        g_commonData.store(0);
    }
};

TEST_F(ThreadCommonTask, NullIsRefusedSilently)
{
    EXPECT_EQ(SchCommonOperationTask(nullptr, CommonProc, "n", 0), 22U);
    EXPECT_EQ(SchCommonOperationTask(nullptr, nullptr, nullptr, 2), 22U);
    EXPECT_NO_LOG();
}

TEST_F(ThreadCommonTask, EveryOperationButDeleteAdds)
{
    Worker worker;
    const Fd fd = Fd::Event();
    for (const u32 op : {0U, 1U, 3U, 9U}) {
        XelSchCommonTask common{fd.U32(), worker.Get(), 17, 1};
        ASSERT_EQ(SchCommonOperationTask(&common, CommonProc, "common", op), 0U) << op;
        const SchTaskCtrl* task = SchTaskGetHandleByAppFd(fd.Get());
        ASSERT_NE(task, nullptr);
        EXPECT_EQ(task->proc, CommonProc);
        EXPECT_EQ(task->data, reinterpret_cast<u64>(&common));
        EXPECT_EQ(task->type, 1U);
        EXPECT_EQ(task->prio, 17U);
        EXPECT_STREQ(task->name, "common");
        EXPECT_EQ(task->fdType.load(), 0U);
        EXPECT_EQ(Registration(worker->epFd, fd.Get()),
                  Text("0x19 %#lx", reinterpret_cast<unsigned long>(task)));
        EXPECT_EQ(SchCommonOperationTask(&common, nullptr, nullptr, 2), 0U);
        EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), nullptr);
    }
    EXPECT_NO_LOG();
}

// Level-triggered: it runs again and again until it reads its descriptor.
TEST_F(ThreadCommonTask, CallbackGetsTheRecordAndIsLevelTriggered)
{
    Worker worker;
    const Fd fd = Fd::Event(1);
    XelSchCommonTask common{fd.U32(), worker.Get(), 0, 2};
    ASSERT_EQ(SchCommonOperationTask(&common, CommonProc, "common", 0), 0U);
    EXPECT_TRUE(AwaitTrue([] { return g_commonRuns.load() == 3; }));
    worker.Run([] {});
    EXPECT_EQ(g_commonRuns.load(), 3U);
    EXPECT_EQ(g_commonData.load(), reinterpret_cast<u64>(&common));
    EXPECT_EQ(SchCommonOperationTask(&common, CommonProc, "common", 2), 0U);
}

TEST_F(ThreadCommonTask, OperationOneDoesNotModify)
{
    const Worker worker;
    const Fd fd = Fd::Event();
    XelSchCommonTask common{fd.U32(), worker.Get(), 1, 1};
    ASSERT_EQ(SchCommonOperationTask(&common, CommonProc, "common", 1), 0U);
    common.prio = 9;
    EXPECT_EQ(SchCommonOperationTask(&common, CommonProc, "other", 1), kFail);
    EXPECT_LOG(kSchSource,
               From(kTaskSource, Text("Task fd has already create task. (fd = %d)", fd.Get())),
               Text("Sch task handle create unsuccessfully. (fd = %d)", fd.Get()),
               Text("Sch operation unsuccessfully. (fd = %d, op = 0, ret = 0xffffffff)", fd.Get()));
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get())->prio, 1U);
    EXPECT_EQ(SchCommonOperationTask(&common, CommonProc, "common", 2), 0U);
}

TEST_F(ThreadCommonTask, NoMemoryForTheAttributeIsTwelve)
{
    const Worker worker;
    const Fd fd = Fd::Event();
    XelSchCommonTask common{fd.U32(), worker.Get(), 1, 1};
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(SchCommonOperationTask(&common, CommonProc, "common", 0), 12U);
    EXPECT_NO_LOG();
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), nullptr);
}

// Callback, type, priority, name: the first refusal ends it, and nothing is bound.
TEST_F(ThreadCommonTask, AttributesAreSetInOrder)
{
    const Worker worker;
    const Fd fd = Fd::Event();
    const char* longName = "sixteen-letters!";
    XelSchCommonTask common{fd.U32(), worker.Get(), 33, 4};
    EXPECT_EQ(SchCommonOperationTask(&common, nullptr, longName, 0), 22U);
    EXPECT_LOG(kTaskSource, "scheduler set callback unsuccessfully, proc null.");
    EXPECT_EQ(SchCommonOperationTask(&common, nullptr, nullptr, 0), 22U);
    EXPECT_LOG(kTaskSource, "scheduler set callback unsuccessfully, proc null.");
    EXPECT_EQ(SchCommonOperationTask(&common, CommonProc, longName, 0), 22U);
    EXPECT_LOG(kTaskSource, "scheduler set type unsuccessfully, type invalid.");
    common.type = 3;
    EXPECT_EQ(SchCommonOperationTask(&common, CommonProc, longName, 0), 22U);
    EXPECT_NO_LOG();
    common.prio = 31;
    EXPECT_EQ(SchCommonOperationTask(&common, CommonProc, longName, 0), kFail);
    EXPECT_LOG(kTaskSource, "Scheduler task set attribute unsuccessfully, invalid attrValSize, "
                            "attrSize:16.");
    EXPECT_EQ(SchTaskGetHandleByAppFd(fd.Get()), nullptr);
}

TEST_F(ThreadCommonTask, InvalidThreadIsRefused)
{
    const Fd fd = Fd::Event();
    XelSchCommonTask common{fd.U32(), nullptr, 1, 1};
    EXPECT_EQ(SchCommonOperationTask(&common, CommonProc, "common", 0), kFail);
    EXPECT_LOG(kThreadSource, "Param invalid handel, epoll ctl opreation(0).");
    EXPECT_EQ(SchCommonOperationTask(&common, CommonProc, "common", 1), kFail);
    EXPECT_LOG(kThreadSource, "Param invalid handel, epoll ctl opreation(0).");
    EXPECT_EQ(SchCommonOperationTask(&common, CommonProc, "common", 2), kFail);
    EXPECT_LOG(kThreadSource, "Param invalid handel, epoll ctl opreation(2).");
}

} // namespace
