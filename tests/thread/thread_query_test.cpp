// Questions about scheduler threads: ids, the caller's own handle, the list of all threads.
#include <pthread.h>

#include "thread_support.h"

namespace
{

using namespace threadtest;
using namespace xeltest;

class ThreadQuery : public ThreadTest
{
};

TEST_F(ThreadQuery, InfoGivesTheThreadsId)
{
    Worker worker;
    u64 self = 0;
    worker.Run([&self] { self = pthread_self(); });
    u64 tid = 0;
    EXPECT_EQ(XEL_ThreadGetInfo(worker.Get(), XEL_THREAD_INFO_TID, &tid, sizeof(tid)), 0U);
    EXPECT_EQ(tid, self);
    tid = 0;
    EXPECT_EQ(THREAD_GetSchTid(worker.Get(), &tid), 0U);
    EXPECT_EQ(tid, self);
    tid = 0;
    EXPECT_EQ(ThreadInfoGetTid(worker.Get(), &tid, 8), 0U);
    EXPECT_EQ(tid, self);
    EXPECT_NO_LOG();
}

// Each call has every later fault as well.
TEST_F(ThreadQuery, InfoChecksInItsOrder)
{
    XelThreadCtrl record = {};
    record.magic = 0xFBADBFFE;
    EXPECT_EQ(XEL_ThreadGetInfo(nullptr, 1, nullptr, 4), 22U);
    EXPECT_LOG(kThreadSource, "Thread get info unsuccessfully, thread handle null.");
    EXPECT_EQ(XEL_ThreadGetInfo(&record, 1, nullptr, 4), 22U);
    EXPECT_LOG(kThreadSource, "Thread get info unsuccessfully, cmd is invalid.");
    EXPECT_EQ(XEL_ThreadGetInfo(&record, 0, nullptr, 4), 22U);
    EXPECT_LOG(kThreadSource, "Thread get info unsuccessfully, val is null.");
    u64 tid = 5;
    EXPECT_EQ(XEL_ThreadGetInfo(&record, 0, &tid, 4), 22U);
    EXPECT_LOG(kThreadSource,
               "Thread get info unsuccessfully, invalid handle. (magic = 0xfbadbffe)");
    record.magic = 0xFBADBFFF;
    for (const size_t size : {size_t{0}, size_t{4}, size_t{7}, size_t{9}}) {
        EXPECT_EQ(XEL_ThreadGetInfo(&record, 0, &tid, size), kFail);
        EXPECT_LOG(kThreadSource, "Thread get info unsuccessfully. (cmd = 0)");
        EXPECT_EQ(ThreadInfoGetTid(&record, &tid, size), kFail);
        EXPECT_NO_LOG();
    }
    EXPECT_EQ(tid, 5U);
}

TEST_F(ThreadQuery, TidOfADamagedHandleIsRefused)
{
    XelThreadCtrl record = {};
    u64 tid = 5;
    EXPECT_EQ(THREAD_GetSchTid(&record, &tid), kFail);
    EXPECT_LOG(kThreadSource, "Thread get tid unsuccessfully, invalid handle. (magic = 0)");
    EXPECT_EQ(tid, 5U);
}

TEST_F(ThreadQuery, ContextHandleIsTheCallersOwn)
{
    Worker first("first");
    Worker second("second");
    EXPECT_EQ(XEL_ThreadGetCtxHandle(), nullptr);
    for (Worker* worker : {&first, &second}) {
        XelThreadCtrl* found = nullptr;
        worker->Run([&found] { found = XEL_ThreadGetCtxHandle(); });
        EXPECT_EQ(found, worker->Get());
    }
    Runner([] { EXPECT_EQ(XEL_ThreadGetCtxHandle(), nullptr); }).Join();
}

// A thread id is free again before the record of its last owner is.
TEST_F(ThreadQuery, ContextHandleIsNotThatOfAThreadThatHasEnded)
{
    XelThreadCtrl record = {};
    record.tid.store(pthread_self());
    ThreadAddCtrlNode(&record);
    EXPECT_EQ(XEL_ThreadGetCtxHandle(), &record);
    record.exited.store(1);
    EXPECT_EQ(XEL_ThreadGetCtxHandle(), nullptr);
    ThreadRmCtrlNode(&record);
}

// The thread runs before its creator has listed it.
TEST_F(ThreadQuery, ContextHandleIsFoundOnceTheThreadIsListed)
{
    std::atomic<bool> looked{false};
    std::atomic<XelThreadCtrl*> early{nullptr};
    RunAtNth(Call::EpollWait, 1, [&] {
        early.store(XEL_ThreadGetCtxHandle());
        looked.store(true);
    });
    RunAtNth(Call::PthreadDetach, 1,
             [&] { EXPECT_TRUE(AwaitTrue([&looked] { return looked.load(); })); });
    Worker worker;
    EXPECT_TRUE(looked.load());
    EXPECT_EQ(early.load(), nullptr);
    XelThreadCtrl* found = nullptr;
    worker.Run([&found] { found = XEL_ThreadGetCtxHandle(); });
    EXPECT_EQ(found, worker.Get());
}

TEST_F(ThreadQuery, DeployInfoRecordLayout)
{
    EXPECT_EQ(offsetof(XelSchDeployInfo, name), 0U);
    EXPECT_EQ(offsetof(XelSchDeployInfo, tid), 8U);
    EXPECT_EQ(offsetof(XelSchDeployInfo, stackSize), 16U);
    EXPECT_EQ(offsetof(XelSchDeployInfo, epFd), 20U);
    EXPECT_EQ(offsetof(XelSchDeployInfo, deadTicks), 24U);
    EXPECT_EQ(offsetof(XelSchDeployInfo, epSize), 28U);
    EXPECT_EQ(sizeof(XelSchDeployInfo), 32U);
}

TEST_F(ThreadQuery, DeployInfoDescribesAThread)
{
    ThreadAttr attr("deployed");
    const XelDeadloopThreshold threshold{1, 2, 300, 4000};
    attr.Set(XEL_THREAD_ATTR_EP_SIZE, 99).Set(XEL_THREAD_ATTR_STACK_SIZE, 1U << 17);
    ASSERT_EQ(XEL_ThreadSetAttr(attr.Get(), XEL_THREAD_ATTR_DEADLOOP_PARAM, &threshold, 16), 0U);
    const Worker worker(attr);
    XelSchDeployInfo info = {};
    u32 count = 1;
    EXPECT_EQ(THREAD_GetSchDeployInfo(-1, &info, &count), 0U);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(info.name, worker->name); // the record's own
    EXPECT_EQ(info.tid, worker->tid.load());
    EXPECT_EQ(info.stackSize, 1U << 17);
    EXPECT_EQ(info.epFd, worker->epFd);
    EXPECT_EQ(info.deadTicks, 4000U);
    EXPECT_EQ(info.epSize, 99U);
}

TEST_F(ThreadQuery, DeployInfoListsTheNewestFirstUpToTheRoom)
{
    const Worker first("first");
    const Worker second("second");
    const Worker third("third");
    const Worker* newestFirst[] = {&third, &second, &first};
    for (const u32 room : {1U, 2U, 3U, 10U}) {
        XelSchDeployInfo infos[10] = {};
        u32 count = room;
        EXPECT_EQ(THREAD_GetSchDeployInfo(-1, infos, &count), 0U);
        ASSERT_EQ(count, room < 3 ? room : 3);
        for (u32 i = 0; i < count; ++i) {
            EXPECT_EQ(infos[i].epFd, (*newestFirst[i])->epFd) << room;
        }
        EXPECT_EQ(infos[count].name, nullptr);
    }
}

TEST_F(ThreadQuery, RoomOfZeroStillReceivesOneRecord)
{
    const Worker first("first");
    const Worker second("second");
    for (const i32 filter : {-1, -100}) {
        XelSchDeployInfo infos[2] = {};
        u32 count = 0;
        EXPECT_EQ(THREAD_GetSchDeployInfo(filter, infos, &count), 0U);
        EXPECT_EQ(count, 1U);
        EXPECT_EQ(infos[0].epFd, second->epFd);
        EXPECT_EQ(infos[1].name, nullptr);
    }
}

TEST_F(ThreadQuery, DeployInfoOfNoThreadIsEmpty)
{
    XelSchDeployInfo info = {};
    u32 count = 5;
    EXPECT_EQ(THREAD_GetSchDeployInfo(-1, &info, &count), 0U);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(info.name, nullptr);
}

TEST_F(ThreadQuery, FilterFindsTheThreadOfADescriptor)
{
    const Worker first("first");
    const Worker second("second");
    for (const Worker* worker : {&first, &second}) {
        for (const u32 room : {0U, 1U, 2U}) {
            XelSchDeployInfo infos[2] = {};
            u32 count = room;
            EXPECT_EQ(THREAD_GetSchDeployInfo((*worker)->epFd, infos, &count), 0U);
            EXPECT_EQ(count, 1U);
            EXPECT_EQ(infos[0].name, (*worker)->name);
            EXPECT_EQ(infos[1].name, nullptr);
        }
    }
    XelSchDeployInfo info = {};
    u32 count = 2;
    EXPECT_EQ(THREAD_GetSchDeployInfo(0, &info, &count), 0U);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(info.name, nullptr);
}

// Even when a later one in the list has the descriptor too.
TEST_F(ThreadQuery, FilterStopsAtItsFirstMatch)
{
    const ThreadAttr attr;
    XelThreadCtrl records[2] = {};
    for (XelThreadCtrl& record : records) {
        ASSERT_EQ(ThreadCtrlInit(&record, attr.Get()), 0U);
        record.epFd = 77;
        ThreadAddCtrlNode(&record);
    }
    XelSchDeployInfo infos[2] = {};
    u32 count = 2;
    EXPECT_EQ(THREAD_GetSchDeployInfo(77, infos, &count), 0U);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(infos[0].name, records[1].name);
    EXPECT_EQ(infos[1].name, nullptr);
    for (XelThreadCtrl& record : records) {
        ThreadRmCtrlNode(&record);
    }
}

// Several may ask at once.
TEST_F(ThreadQuery, QuestionsHoldTheListForReading)
{
    const Held byContext =
        HeldAtUnlock(g_xelThreadCtrlMng.lock, [] { EXPECT_EQ(XEL_ThreadGetCtxHandle(), nullptr); });
    EXPECT_EQ(byContext, Held::ForReading);
    XelSchDeployInfo info = {};
    u32 count = 1;
    const Held byDeployment = HeldAtUnlock(g_xelThreadCtrlMng.lock, [&] {
        EXPECT_EQ(THREAD_GetSchDeployInfo(-1, &info, &count), 0U);
    });
    EXPECT_EQ(byDeployment, Held::ForReading);
}

} // namespace
