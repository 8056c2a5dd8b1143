// Operations on one task: handle checks, single fields, modification, binding to schedulers.
#include <cstring>
#include <vector>

#include "task_support.h"

using namespace xeltest;
using namespace tasktest;

namespace
{

constexpr u32 kFailed = 0xFFFFFFFFU;
constexpr u32 kMagic = 0x3DFFE844U;

class TaskChange : public TaskTest
{
protected:
    void SetUp() override
    {
        TaskTest::SetUp();
        fd_ = Fd::Event();
        task_ = XEL_TaskCreate(fd_.Get(), Attr({NopProc, 7, 2, 3, "before", 0}).Get());
        ASSERT_NE(task_, nullptr);
    }
    void TearDown() override
    {
        ResetFaults();
        EXPECT_TRUE(LockIsFree(task_));
        ForceMagic(task_, kMagic);
        XEL_TaskDestroy(task_);
        fd_.Reset();
        TaskTest::TearDown();
    }

    Fd fd_;
    SchTaskCtrl* task_ = nullptr;
};

u32 OtherProc(struct epoll_event* /*events*/, u64 /*data*/)
{
    return 1;
}

std::vector<void*> BoundTo(SchTaskCtrl* task)
{
    std::vector<void*> handles;
    for (const XelSll* node = task->schList.next; node != &task->schList; node = node->next) {
        handles.push_back(node->data);
    }
    return handles;
}

TEST_F(TaskChange, HandleIsCheckedForNullAndMagic)
{
    EXPECT_TRUE(SchTaskHandleIsValid(task_));
    EXPECT_NO_LOG();
    EXPECT_FALSE(SchTaskHandleIsValid(nullptr));
    EXPECT_LOG(kTaskSource, "task handle null.");
    ForceMagic(task_, kDead);
    EXPECT_FALSE(SchTaskHandleIsValid(task_));
    EXPECT_LOG(kTaskSource, "task handle magic destroy, magic = 0xbad.");
    ForeignTask foreign;
    EXPECT_TRUE(SchTaskHandleIsValid(foreign.Get())) << "the pool is not asked";
}

TEST_F(TaskChange, RecordIsCheckedForMagicAndPool)
{
    EXPECT_TRUE(SchTaskCtrlIsValid(task_));
    ForceMagic(task_, kDead);
    EXPECT_FALSE(SchTaskCtrlIsValid(task_));
    EXPECT_LOG(kTaskSource, "Task has damaged. (magic = 0xbad)");
    ForceMagic(task_, kMagic);
    ForeignTask foreign;
    EXPECT_FALSE(SchTaskCtrlIsValid(foreign.Get()));
    EXPECT_NO_LOG();
    void* node = nullptr;
    SwapNode(task_, &node);
    EXPECT_TRUE(SchTaskCtrlIsValid(task_)) << "the list node is not asked";
    SwapNode(task_, &node);
}

TEST_F(TaskChange, DescriptorIsReadUnderTheLock)
{
    EXPECT_EQ(SchTaskGetFdBySchHandle(task_), fd_.U32());
    EXPECT_EQ(SchTaskGetFdBySchHandle(nullptr), kFailed);
    EXPECT_LOG(kTaskSource, "task handle null.", "Sch get fd, schTaskHandle invalid.");
    ForceMagic(task_, kDead);
    EXPECT_EQ(SchTaskGetFdBySchHandle(task_), kFailed);
    EXPECT_LOG(kTaskSource, "task handle magic destroy, magic = 0xbad.",
               "Sch get fd, schTaskHandle invalid.");
}

TEST_F(TaskChange, LinesCarryTheirOwnPlaceInTheSource)
{
    EXPECT_EQ(SchTaskGetFdBySchHandle(nullptr), kFailed);
    const std::vector<LogLine> both = TakeLog();
    ASSERT_EQ(both.size(), 2U);
    EXPECT_NE(both[0].line, both[1].line);
    EXPECT_FALSE(SchTaskHandleIsValid(nullptr));
    const std::vector<LogLine> again = TakeLog();
    ASSERT_EQ(again.size(), 1U);
    EXPECT_EQ(again[0].line, both[0].line) << "the same call, the same place";
}

TEST_F(TaskChange, MagicIsCheckedAgainBeforeTheDescriptorIsRead)
{
    u32 result = 0;
    ChangeWhileItReads(
        task_, [&] { result = SchTaskGetFdBySchHandle(task_); },
        [this] { ForceMagic(task_, kDead); });
    EXPECT_EQ(result, kFailed);
    EXPECT_LOG(kTaskSource, "Sch get fd, task magic is damaged, magic = 0xbad.");
}

TEST_F(TaskChange, DescriptorTypeIsReadWithoutAnyCheck)
{
    EXPECT_EQ(SchTaskGetFdType(nullptr), 2U);
    EXPECT_EQ(SchTaskGetFdType(task_), 0U);
    task_->fdType.store(1);
    EXPECT_EQ(SchTaskGetFdType(task_), 1U);
    ForceMagic(task_, 0);
    EXPECT_EQ(SchTaskGetFdType(task_), 1U);
    XelRwlockWriteLock(&task_->lock);
    EXPECT_EQ(SchTaskGetFdType(task_), 1U) << "no lock";
    XelRwlockWriteUnLock(&task_->lock);
    EXPECT_NO_LOG();
}

TEST_F(TaskChange, DataIsCopiedFromAnAttribute)
{
    const Attr attr({OtherProc, 0xFEDCBA9876543210U, 1, 30, "after", 1});
    SchTaskCtrlSetData(task_, attr.Get());
    EXPECT_EQ(task_->proc, OtherProc);
    EXPECT_EQ(task_->data, 0xFEDCBA9876543210U);
    EXPECT_EQ(task_->type, 1U);
    EXPECT_EQ(task_->prio, 30U);
    EXPECT_EQ(task_->fdType.load(), 1U);
    EXPECT_STREQ(task_->name, "after");
}

TEST_F(TaskChange, ScalarsStayCopiedWhenTheNameIsNot)
{
    const Attr attr({OtherProc, 9, 1, 30, "after", 1});
    FailNth(Call::StrcpyS, 1);
    SchTaskCtrlSetData(task_, attr.Get());
    EXPECT_LOG(kTaskSource, "Task set name unsuccessfully.");
    EXPECT_EQ(task_->proc, OtherProc);
    EXPECT_EQ(task_->data, 9U);
    EXPECT_EQ(task_->type, 1U);
    EXPECT_EQ(task_->prio, 30U);
    EXPECT_EQ(task_->fdType.load(), 1U);
}

TEST_F(TaskChange, ModificationKeepsWhatIsNoAttribute)
{
    EXPECT_EQ(SchTaskAddScheduler(task_, Handle(1)), 0U);
    task_->events.store(EPOLLOUT);
    const u32 version = task_->version;
    EXPECT_EQ(SchFdModAttr(task_, Attr({OtherProc, 9, 1, 30, "after", 1}).Get()), 0U);
    EXPECT_EQ(task_->proc, OtherProc);
    EXPECT_STREQ(task_->name, "after");
    EXPECT_EQ(task_->version, version);
    EXPECT_EQ(task_->fd, fd_.Get());
    EXPECT_EQ(task_->events.load(), static_cast<u32>(EPOLLOUT));
    EXPECT_EQ(BoundTo(task_), std::vector<void*>{Handle(1)});
    EXPECT_EQ(task_->magic.load(), kMagic);
    EXPECT_NO_LOG();
}

TEST_F(TaskChange, ModificationRefusesADamagedMagic)
{
    const Attr attr;
    ForceMagic(task_, kDead);
    EXPECT_EQ(SchFdModify(task_, attr.Get()), kFailed);
    EXPECT_LOG(kTaskSource, "Task modify unsuccessfully, task magic is damaged, magic = 0xbad.");
    EXPECT_STREQ(task_->name, "before");
}

TEST_F(TaskChange, ModificationChecksTheMagicAgainUnderTheLock)
{
    const Attr attr;
    u32 result = 0;
    ChangeWhileItWaits(
        task_, [&] { result = SchFdModify(task_, attr.Get()); },
        [this] { ForceMagic(task_, kDead); });
    EXPECT_EQ(result, kFailed);
    EXPECT_LOG(kTaskSource, "Task modify unsuccessfully, task magic is damaged, magic = 0xbad.");
    EXPECT_STREQ(task_->name, "before");
}

TEST_F(TaskChange, ModificationRefusesARecordOutsideTheTable)
{
    const Attr attr;
    ForeignTask foreign;
    foreign.record.init = 0; // checked later
    EXPECT_EQ(SchFdModify(foreign.Get(), attr.Get()), kFailed);
    EXPECT_LOG(kTaskSource, "Task modify unsuccessfully, fd handle is not valid.");
    EXPECT_TRUE(LockIsFree(foreign.Get()));
    void* node = nullptr;
    SwapNode(task_, &node);
    EXPECT_EQ(SchFdModify(task_, attr.Get()), kFailed) << "its list node counts, too";
    EXPECT_LOG(kTaskSource, "Task modify unsuccessfully, fd handle is not valid.");
    SwapNode(task_, &node);
}

TEST_F(TaskChange, ModificationRefusesADeadTask)
{
    const Attr attr;
    task_->init = 0;
    EXPECT_EQ(SchFdModify(task_, attr.Get()), kFailed);
    EXPECT_LOG(kTaskSource,
               "Task modify unsuccessfully, fd handle had been destroyed already, init = 0.");
    EXPECT_STREQ(task_->name, "before");
    task_->init = 1;
}

TEST_F(TaskChange, AttributeModificationChecksNullFirst)
{
    const Attr attr;
    EXPECT_EQ(SchFdModAttr(nullptr, attr.Get()), 2U);
    EXPECT_LOG(kTaskSource, "Sch modify attribute unsuccessfully, param is null.");
    EXPECT_EQ(SchFdModAttr(task_, nullptr), 2U);
    EXPECT_LOG(kTaskSource, "Sch modify attribute unsuccessfully, param is null.");
}

TEST_F(TaskChange, AttributeModificationChecksTheAttributeBeforeTheTask)
{
    const Attr attr;
    attr.Get()->prio = 32;
    ForceMagic(task_, kDead);
    EXPECT_EQ(SchFdModAttr(task_, attr.Get()), 2U);
    EXPECT_LOG(kTaskSource, "scheduler task param priority invalid.",
               "Sch modify attribute unsuccessfully, param invalid.");
}

TEST_F(TaskChange, AttributeModificationHandsTheResultThrough)
{
    const Attr attr;
    ForceMagic(task_, kDead);
    EXPECT_EQ(SchFdModAttr(task_, attr.Get()), kFailed);
    EXPECT_LOG(kTaskSource, "Task modify unsuccessfully, task magic is damaged, magic = 0xbad.",
               "Sch modify attribute unsuccessfully, ret = -1.");
}

TEST_F(TaskChange, BindingRecordsTheHandle)
{
    const Footprint before = Measure();
    EXPECT_EQ(SchTaskAddScheduler(task_, Handle(1)), 0U);
    EXPECT_EQ(SchedulersOf(task_), 1U);
    EXPECT_EQ(BoundTo(task_), std::vector<void*>{Handle(1)});
    EXPECT_EQ(Measure().blocks, before.blocks + 1);
    EXPECT_EQ(Calls(Call::XelMemAllocF), 2U) << "the attribute's block and one node";
    SchTaskRmScheduler(task_, Handle(1));
    EXPECT_EQ(SchedulersOf(task_), 0U);
    EXPECT_EQ(Measure(), before);
    EXPECT_NO_LOG();
}

TEST_F(TaskChange, BindingTwiceIsRecordedTwiceAndUndoneAtOnce)
{
    const Footprint before = Measure();
    for (const int number : {1, 2, 1, 3, 1}) {
        EXPECT_EQ(SchTaskAddScheduler(task_, Handle(number)), 0U);
    }
    EXPECT_EQ(SchedulersOf(task_), 5U);
    SchTaskRmScheduler(task_, Handle(1));
    EXPECT_EQ(SchedulersOf(task_), 2U);
    SchTaskRmScheduler(task_, Handle(1));
    SchTaskRmScheduler(task_, Handle(9));
    EXPECT_EQ(SchedulersOf(task_), 2U);
    SchTaskRmScheduler(task_, Handle(2));
    EXPECT_EQ(BoundTo(task_), std::vector<void*>{Handle(3)});
    SchTaskRmScheduler(task_, Handle(3));
    EXPECT_EQ(Measure(), before);
    EXPECT_NO_LOG();
}

TEST_F(TaskChange, BindingWithoutMemoryGivesTwelve)
{
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(SchTaskAddScheduler(task_, Handle(1)), 12U);
    EXPECT_LOG(kTaskSource, "task add scheduler unsuccessfully, alloc sll unsuccessfully.");
    EXPECT_EQ(SchedulersOf(task_), 0U);
}

TEST_F(TaskChange, BindingRefusesADamagedMagic)
{
    ForceMagic(task_, kDead);
    EXPECT_EQ(SchTaskAddScheduler(task_, Handle(1)), kFailed);
    EXPECT_LOG(kTaskSource, "task handle magic destroy, magic = 0xbad.");
    EXPECT_EQ(SchedulersOf(task_), 0U);
    SchTaskRmScheduler(task_, Handle(1));
    EXPECT_LOG(kTaskSource, "task handle magic destroy, magic = 0xbad.");
}

TEST_F(TaskChange, BindingChecksTheMagicUnderTheLock)
{
    u32 result = 0;
    ChangeWhileItWaits(
        task_, [&] { result = SchTaskAddScheduler(task_, Handle(1)); },
        [this] { ForceMagic(task_, kDead); });
    EXPECT_EQ(result, kFailed);
    EXPECT_LOG(kTaskSource, "task handle magic destroy, magic = 0xbad.");
    ForceMagic(task_, kMagic);
    EXPECT_EQ(SchTaskAddScheduler(task_, Handle(1)), 0U);
    ChangeWhileItWaits(
        task_, [&] { SchTaskRmScheduler(task_, Handle(1)); }, [this] { ForceMagic(task_, kDead); });
    EXPECT_LOG(kTaskSource, "task handle magic destroy, magic = 0xbad.");
    EXPECT_EQ(SchedulersOf(task_), 1U);
}

} // namespace
