// Creation of an event: what it looks like, and every step failing in turn with nothing left
// behind.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/eventfd.h>

#include "event_support.h"

namespace
{

using namespace eventtest;

std::string NotAdded(u32 ret)
{
    return Text("Event fd add to epoll unsuccessfully. (ret = %#x)", ret);
}

class EventCreate : public EventTest
{
protected:
    void SetUp() override
    {
        EventTest::SetUp();
        worker_ = std::make_unique<Worker>();
        worker_->Run([] {}); // the thread has what it ever takes
    }
    void TearDown() override
    {
        worker_.reset();
        EventTest::TearDown();
    }
    // A refused creation: null, the lines, and everything as before.
    void ExpectRefused(const std::vector<ExpectedLine>& lines)
    {
        ExpectRefused(worker_->Get(), attr_.Get(), lines);
    }
    void ExpectRefused(XelThreadCtrl* thread, const XelEventAttr* attr,
                       const std::vector<ExpectedLine>& lines)
    {
        const Footprint before = Measure();
        EXPECT_EQ(XEL_EventCreate(thread, attr), nullptr);
        EXPECT_TRUE(LogIs(kEventSource, lines));
        EXPECT_EQ(Measure(), before);
        EXPECT_EQ(g_xelEventList.count, 0U);
    }

    EventAttr attr_{CountRun, 0, "made"};
    std::unique_ptr<Worker> worker_;
};

// Each call has every later fault as well.
TEST_F(EventCreate, ParametersAreCheckedInTheirOrder)
{
    EventAttr attr(nullptr);
    EXPECT_EQ(EventCheckEventParam(nullptr, nullptr), 2U);
    EXPECT_LOG(kEventSource, "Eventfd create handle null.");
    EXPECT_EQ(EventCheckEventParam(worker_->Get(), nullptr), 2U);
    EXPECT_LOG(kEventSource, "Eventfd create attr null.");
    attr->magic = 1;
    EXPECT_EQ(EventCheckEventParam(worker_->Get(), attr.Get()), kFail);
    EXPECT_LOG(kEventSource, "Eventfd create maigic error.");
    attr->magic = 0x45886FDE;
    EXPECT_EQ(EventCheckEventParam(worker_->Get(), attr.Get()), 2U);
    EXPECT_LOG(kEventSource, "Eventfd create params invalid, user callback is null");
    EXPECT_EQ(EventCheckEventParam(worker_->Get(), attr_.Get()), 0U);
    EXPECT_NO_LOG();
}

TEST_F(EventCreate, InvalidParametersAreRefusedBeforeAnythingElse)
{
    const EventAttr noProc(nullptr);
    FailAll(Call::Eventfd, -1, EMFILE);
    ExpectRefused(nullptr, attr_.Get(), {"Eventfd create handle null."});
    ExpectRefused(worker_->Get(), nullptr, {"Eventfd create attr null."});
    ExpectRefused(worker_->Get(), noProc.Get(),
                  {"Eventfd create params invalid, user callback is null"});
    attr_->magic = 0;
    ExpectRefused({"Eventfd create maigic error."});
    attr_->magic = 0x45886FDE;
    EXPECT_EQ(Calls(Call::Eventfd), 0U);
    ResetFaults();
}

TEST_F(EventCreate, NoEventfdIsRefused)
{
    FailNth(Call::Eventfd, 1, -1, EMFILE);
    ExpectRefused({"Event create fd unsuccessfully. (errno = 24)"});
}

TEST_F(EventCreate, EventfdComesBeforeTheNode)
{
    FailNth(Call::Eventfd, 1, -1, EMFILE);
    FailNth(Call::XelMemAllocF, 1);
    ExpectRefused({"Event create fd unsuccessfully. (errno = 24)"});
    ResetFaults();
}

TEST_F(EventCreate, NoNodeIsRefused)
{
    FailNth(Call::XelMemAllocF, 1);
    ExpectRefused(
        {"Alloc event node unsuccessfully, no memory.", "Event create ctrl node unsuccessfully."});
}

// Positive answers of the lock count as failures here.
TEST_F(EventCreate, FailedListLockIsRefused)
{
    for (const i64 answer : {-1, 11}) {
        FailNth(Call::PthreadRwlockWrlock, 1, answer, EDEADLK);
        ExpectRefused({"event list lock unsuccessfully, errno = 35.",
                       "Event add node to list unsuccessfully.",
                       "Event create ctrl node unsuccessfully."});
    }
}

TEST_F(EventCreate, NoTaskAttributeIsRefused)
{
    FailNth(Call::XelMemAllocF, 2);
    ExpectRefused({"Event task attr create unsuccessfully.", NotAdded(12)});
}

TEST_F(EventCreate, RefusedTaskAttributeIsRefused)
{
    FailNth(Call::StrcpyS, 1);
    ExpectRefused(
        {From(kTaskSource, "Scheduler set name unsuccessfully, copy name unsuccessfully."),
         "Eventfd task attr set param unsuccessfully. (ret = 0xffffffff)", NotAdded(kFail)});
    EXPECT_EQ(Calls(Call::EpollCtl), 2U); // the fixture's add and delete
}

// The first refusal ends the settings, and its result is passed on.
TEST_F(EventCreate, FirstRefusedCommandGivesTheResult)
{
    XelEventNode node = {};
    EXPECT_EQ(EventSetTaskAttr(nullptr, &node), 22U);
    EXPECT_LOG(kEventSource, From(kTaskSource, "param taskAttr is NULL"),
               From(kTaskSource, "scheduler set attribute unsuccessfully, param is invalid."),
               "Eventfd task attr set param unsuccessfully. (ret = 0x16)");
}

TEST_F(EventCreate, DamagedThreadIsRefusedByTheThreadOperation)
{
    XelThreadCtrl record = {};
    record.magic = 0x5678;
    ExpectRefused(
        &record, attr_.Get(),
        {From(kThreadSource, "Thread magic is damaged, magic = 0x5678."), NotAdded(kFail)});
}

TEST_F(EventCreate, RefusedRegistrationIsRefused)
{
    const int fd = NextFd();
    FailNth(Call::EpollCtl, 1, -1, ENOSPC);
    ExpectRefused({From(kSchSource, Text("Sch fd add to epoll unsuccessfully. (epollFd = %d, "
                                         "fd = %d, mistake = 28)",
                                         (*worker_)->epFd, fd)),
                   From(kSchSource, Text("Sch operation unsuccessfully. (fd = %d, op = 0, "
                                         "ret = 0xffffffff)",
                                         fd)),
                   NotAdded(kFail)});
}

TEST_F(EventCreate, EveryFailingServiceIsUndone)
{
    for (const Call call : {Call::XelMemAllocF, Call::FmmUnitAlloc, Call::Eventfd, Call::EpollCtl,
                            Call::PthreadRwlockWrlock}) {
        u64 nth = 1;
        for (;; ++nth) {
            ResetFaults();
            const Footprint before = Measure();
            // A positive answer passes as success in the task table, with the lock not held.
            FailNth(call, nth, call == Call::PthreadRwlockWrlock ? -1 : kUsualFailure, EIO);
            XelEventNode* event = XEL_EventCreate(worker_->Get(), attr_.Get());
            if (event != nullptr) {
                ResetFaults();
                XEL_EventDestroy(event);
                break;
            }
            EXPECT_GT(LogCount(), 0U);
            DropLog();
            EXPECT_EQ(Measure(), before) << static_cast<u32>(call) << ' ' << nth;
            EXPECT_EQ(g_xelEventList.count, 0U);
        }
        EXPECT_GE(nth, 2U) << static_cast<u32>(call);
        EXPECT_NO_LOG();
    }
}

TEST_F(EventCreate, NodeHoldsTheAttributes)
{
    const EventAttr attr(CountRun, 0xAABBCCDD00112233, "fifteen-letters");
    XelEventNode* event = XEL_EventCreate(worker_->Get(), attr.Get());
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(At<u32>(event, 0), 0x45687BEDU);
    EXPECT_EQ(At<XelLink*>(event, 8), &g_xelEventList.head);
    EXPECT_EQ(At<XelLink*>(event, 16), &g_xelEventList.head);
    EXPECT_STREQ(reinterpret_cast<const char*>(event) + 24, "fifteen-letters");
    EXPECT_EQ(At<XelThreadCtrl*>(event, 40), worker_->Get());
    EXPECT_GE(At<i32>(event, 48), 0);
    EXPECT_EQ(At<XelEventProc>(event, 56), CountRun);
    EXPECT_EQ(At<u64>(event, 64), 0xAABBCCDD00112233U);
    EXPECT_EQ(sizeof(XelEventNode), 72U);
    XEL_EventDestroy(event);
    EXPECT_NO_LOG();
}

TEST_F(EventCreate, NameWithoutEndIsCutAtFifteenCharacters)
{
    memset(attr_->name, 'x', sizeof(attr_->name));
    XelEventNode* event = XEL_EventCreate(worker_->Get(), attr_.Get());
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(std::string(event->name), std::string(15, 'x'));
    XEL_EventDestroy(event);
    EXPECT_NO_LOG();
}

// The callback may run as soon as the thread knows the event, and looks for it in the list.
TEST_F(EventCreate, EventIsListedBeforeItsThreadKnowsIt)
{
    u32 listed = 0;
    RunAtNth(Call::EpollCtl, 1, [&listed] { listed = g_xelEventList.count; });
    const Event event(*worker_, CountRun, 0);
    EXPECT_EQ(listed, 1U);
}

TEST_F(EventCreate, FieldsStandAtTheirOffsets)
{
    EXPECT_EQ(offsetof(XelEventNode, magic), 0U);
    EXPECT_EQ(offsetof(XelEventNode, link), 8U);
    EXPECT_EQ(offsetof(XelEventNode, name), 24U);
    EXPECT_EQ(offsetof(XelEventNode, thread), 40U);
    EXPECT_EQ(offsetof(XelEventNode, fd), 48U);
    EXPECT_EQ(offsetof(XelEventNode, proc), 56U);
    EXPECT_EQ(offsetof(XelEventNode, data), 64U);
}

TEST_F(EventCreate, TaskBehindTheEvent)
{
    const Event event(*worker_, CountRun, 0, "task-name");
    SchTaskCtrl* task = SchTaskGetHandleByAppFd(event->fd);
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->proc, SchEventProc);
    EXPECT_EQ(task->data, reinterpret_cast<u64>(event.Get()));
    EXPECT_EQ(task->type, 0U);
    EXPECT_EQ(task->prio, 1U);
    EXPECT_STREQ(task->name, "task-name");
    EXPECT_EQ(task->fdType.load(), 0U);
    // Level-triggered; the kernel adds EPOLLERR and EPOLLHUP.
    EXPECT_EQ(Registration((*worker_)->epFd, event->fd),
              Text("0x19 %#lx", reinterpret_cast<unsigned long>(task)));
}

TEST_F(EventCreate, DescriptorIsASemaphoreThatDoesNotBlock)
{
    const Event event(*worker_, CountRun, 0);
    EXPECT_EQ(fcntl(event->fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(event->fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    eventfd_t value = 0;
    EXPECT_EQ(eventfd_read(event->fd, &value), -1);
    // Out of the thread's sight, so that nobody else reads.
    ASSERT_EQ(DelFd(worker_->Get(), event->fd), 0U);
    ASSERT_EQ(eventfd_write(event->fd, 2), 0);
    EXPECT_EQ(eventfd_read(event->fd, &value), 0);
    EXPECT_EQ(value, 1U);
    EXPECT_EQ(eventfd_read(event->fd, &value), 0);
    EXPECT_EQ(eventfd_read(event->fd, &value), -1);
    const xeltest::Attr task;
    SchEpollCtlReq request{EPOLLIN, task.Get()};
    ASSERT_EQ(XEL_ThreadCtrl(worker_->Get(), 0, event->fd, &request), 0U);
}

TEST_F(EventCreate, NewEventsAreListedAtTheHead)
{
    Event first(*worker_, CountRun, 0);
    EXPECT_EQ(g_xelEventList.count, 1U);
    const Event second(*worker_, CountRun, 0);
    EXPECT_EQ(g_xelEventList.count, 2U);
    EXPECT_EQ(g_xelEventList.head.next, &second->link);
    EXPECT_EQ(second->link.next, &first->link);
    EXPECT_EQ(g_xelEventList.head.prev, &first->link);
    EXPECT_TRUE(EventIsNodeAvailable(first.Get()));
    first.Destroy();
    EXPECT_EQ(g_xelEventList.count, 1U);
    EXPECT_EQ(second->link.next, &g_xelEventList.head);
}

TEST_F(EventCreate, AttributeMayBeDestroyedAndReused)
{
    std::atomic<u32> runs{0};
    auto attr = std::make_unique<EventAttr>(CountRun, DataOf(runs));
    XelEventNode* first = XEL_EventCreate(worker_->Get(), attr->Get());
    XelEventNode* second = XEL_EventCreate(worker_->Get(), attr->Get());
    attr.reset();
    EXPECT_EQ(XEL_EventNotify(first), 0U);
    EXPECT_EQ(XEL_EventNotify(second), 0U);
    EXPECT_TRUE(AwaitTrue([&runs] { return runs.load() == 2; }));
    XEL_EventDestroy(first);
    XEL_EventDestroy(second);
}

TEST_F(EventCreate, NodeOperationsAlone)
{
    XelEventNode* node = EventCreateEventNode(worker_->Get(), 5, attr_.Get());
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->magic.load(), 0x45687BEDU);
    EXPECT_EQ(node->fd, 5);
    EXPECT_STREQ(node->name, "made");
    EXPECT_FALSE(EventIsNodeAvailable(node));
    EXPECT_EQ(g_xelEventList.count, 0U);
    EXPECT_EQ(EventListAddNode(node), 0U);
    EXPECT_TRUE(EventIsNodeAvailable(node));
    EXPECT_EQ(g_xelEventList.count, 1U);
    EXPECT_EQ(EventDestroyEventNodeAndRmList(node), 0U);
    EXPECT_EQ(g_xelEventList.count, 0U);
    node = EventCreateEventNodeAndAddList(worker_->Get(), 6, attr_.Get());
    ASSERT_NE(node, nullptr);
    EXPECT_TRUE(EventIsNodeAvailable(node));
    EXPECT_EQ(EventListDelNode(node), 0U);
    EXPECT_FALSE(EventIsNodeAvailable(node));
    EventDestroyEventNode(node);
    EXPECT_NO_LOG();
}

// A record that the caller made himself, with nothing of the library's behind it.
TEST_F(EventCreate, NodeMadeElsewhereIsListedAsWell)
{
    struct {
        XelEventNode node;
        u8 behind[64];
    } own[2] = {};
    memset(own[0].behind, 0xEE, sizeof(own[0].behind));
    const Event made(*worker_, CountRun, 0);
    memcpy(static_cast<void*>(&own[1].node), static_cast<const void*>(made.Get()),
           sizeof(XelEventNode));
    memset(own[1].behind, 0xEE, sizeof(own[1].behind));
    for (auto& [node, behind] : own) {
        node.magic.store(0x45687BED);
        EXPECT_FALSE(EventIsNodeAvailable(&node));
        EXPECT_EQ(EventListAddNode(&node), 0U);
        EXPECT_TRUE(EventIsNodeAvailable(&node));
        EXPECT_FALSE(EventIsNodeAvailable(&node + 1));
        EXPECT_TRUE(EventIsNodeAvailable(made.Get()));
        EXPECT_EQ(g_xelEventList.count, 2U);
        EXPECT_EQ(EventListDelNode(&node), 0U);
        EXPECT_FALSE(EventIsNodeAvailable(&node));
        EXPECT_TRUE(std::all_of(std::begin(behind), std::end(behind),
                                [](u8 byte) { return byte == 0xEE; }));
    }
    EXPECT_EQ(g_xelEventList.count, 1U);
}

// The result of the name's copy is ignored.
TEST_F(EventCreate, FailedNameCopyIsIgnored)
{
    FailNth(Call::StrncpyS, 1);
    XelEventNode* event = XEL_EventCreate(worker_->Get(), attr_.Get());
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(Hits(), 1U);
    XEL_EventDestroy(event);
    EXPECT_NO_LOG();
}

class EventInnerCreate : public EventCreate
{
};

TEST_F(EventInnerCreate, MakesAnEventInOneCall)
{
    std::atomic<u32> runs{0};
    XelEventNode* event =
        XelEventInnerCreate(worker_->Get(), CountRun, "fifteen-letters", DataOf(runs));
    ASSERT_NE(event, nullptr);
    EXPECT_STREQ(event->name, "fifteen-letters");
    EXPECT_EQ(event->thread, worker_->Get());
    EXPECT_EQ(XEL_EventNotify(event), 0U);
    EXPECT_TRUE(AwaitTrue([&runs] { return runs.load() == 1; }));
    XEL_EventDestroy(event);
    event = XelEventInnerCreate(worker_->Get(), CountRun, "", 0);
    ASSERT_NE(event, nullptr);
    EXPECT_STREQ(event->name, "");
    XEL_EventDestroy(event);
    EXPECT_NO_LOG();
}

TEST_F(EventInnerCreate, FailuresGiveNullAndLeaveNothing)
{
    const Footprint before = Measure();
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(XelEventInnerCreate(worker_->Get(), CountRun, "n", 0), nullptr);
    EXPECT_NO_LOG();
    EXPECT_EQ(XelEventInnerCreate(worker_->Get(), nullptr, "n", 0), nullptr);
    EXPECT_NO_LOG();
    EXPECT_EQ(XelEventInnerCreate(worker_->Get(), CountRun, "sixteen-letters!", 0), nullptr);
    EXPECT_NO_LOG();
    EXPECT_EQ(XelEventInnerCreate(nullptr, CountRun, "n", 0), nullptr);
    EXPECT_LOG(kEventSource, "Eventfd create handle null.");
    EXPECT_EQ(Measure(), before);
}

} // namespace
