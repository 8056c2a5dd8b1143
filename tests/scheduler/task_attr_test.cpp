// Task attributes: defaults, the command table, each setter's checks in their order, destruction.
#include <array>
#include <cstddef>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "scheduler/xel_sch_task_inner.h"
#include "support/xel_test.h"

using namespace xeltest;

namespace
{

constexpr const char* kParamInvalid = "scheduler set attribute unsuccessfully, param is invalid.";

class TaskAttr : public CleanProcess
{
protected:
    void SetUp() override
    {
        CleanProcess::SetUp();
        attr_ = XEL_TaskCreateAttr();
        ASSERT_NE(attr_, nullptr);
    }
    void TearDown() override
    {
        ResetFaults();
        XEL_TaskDestroyAttr(attr_);
        CleanProcess::TearDown();
    }

    template <typename Value>
    u32 Set(u32 cmd, const Value& value, size_t size = sizeof(Value))
    {
        return XEL_TaskSetAttr(attr_, cmd, &value, size);
    }
    u32 SetName(const std::string& name, size_t size)
    {
        return XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_NAME, name.c_str(), size);
    }

    XelTaskAttr* attr_ = nullptr;
};

using Image = std::array<unsigned char, sizeof(XelTaskAttr)>;

Image ImageOf(const XelTaskAttr* attr)
{
    Image image;
    memcpy(image.data(), attr, image.size());
    return image;
}

TEST_F(TaskAttr, RecordHasItsFieldsInOrder)
{
    EXPECT_EQ(offsetof(XelTaskAttr, magic), 0U);
    EXPECT_EQ(offsetof(XelTaskAttr, proc), 8U);
    EXPECT_EQ(offsetof(XelTaskAttr, data), 16U);
    EXPECT_EQ(offsetof(XelTaskAttr, type), 24U);
    EXPECT_EQ(offsetof(XelTaskAttr, prio), 28U);
    EXPECT_EQ(offsetof(XelTaskAttr, name), 32U);
    EXPECT_EQ(offsetof(XelTaskAttr, fdType), 48U);
    EXPECT_EQ(sizeof(XelTaskAttr), 56U);
    EXPECT_EQ(sizeof(XelTaskUsrCb), 16U);
    EXPECT_EQ(offsetof(XelTaskUsrCb, data), 8U);
}

TEST_F(TaskAttr, NewRecordHasTheDefaultsAndNothingElse)
{
    XEL_TaskDestroyAttr(attr_);
    attr_ = XEL_TaskCreateAttr();
    Image expected{};
    const u32 magic = 0x6EFAB123;
    const u32 type = 2;
    memcpy(expected.data(), &magic, sizeof(magic));
    memcpy(expected.data() + offsetof(XelTaskAttr, type), &type, sizeof(type));
    EXPECT_EQ(ImageOf(attr_), expected);
}

// A block that the allocator hands out again keeps its old bytes.
TEST_F(TaskAttr, NewRecordOnAUsedBlockIsClearedToo)
{
    const Image fresh = ImageOf(attr_);
    memset(static_cast<void*>(&attr_->proc), 0xEE, sizeof(*attr_) - offsetof(XelTaskAttr, proc));
    XEL_TaskDestroyAttr(attr_);
    ResetFaults();
    attr_ = XEL_TaskCreateAttr();
    EXPECT_EQ(ImageOf(attr_), fresh);
    EXPECT_EQ(Calls(Call::XelMemAllocF), 1U);
    EXPECT_GE(Calls(Call::MemsetS), 1U);
}

TEST_F(TaskAttr, CreationWithoutMemoryIsSilent)
{
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(XEL_TaskCreateAttr(), nullptr);
    EXPECT_NO_LOG();
}

TEST_F(TaskAttr, TableHoldsTheFiveSettersWithTheirLabels)
{
    const auto& map = g_xelSchTaskAttrSetMap;
    static_assert(sizeof(map) == 5 * 16);
    EXPECT_EQ(map[0].set, SchTaskAttrSetUsrCb);
    EXPECT_EQ(map[1].set, SchTaskAttrSetType);
    EXPECT_EQ(map[2].set, SchTaskAttrSetPrio);
    EXPECT_EQ(map[3].set, SchTaskAttrSetName);
    EXPECT_EQ(map[4].set, SchTaskAttrSetFdType);
    EXPECT_STREQ(map[0].label, "task callback");
    EXPECT_STREQ(map[1].label, "task schedule type");
    EXPECT_STREQ(map[2].label, "task sheduler priority");
    EXPECT_STREQ(map[3].label, "task name");
    EXPECT_STREQ(map[4].label, "task fd type");
}

TEST_F(TaskAttr, NullRecordIsRefusedFirst)
{
    EXPECT_EQ(XEL_TaskSetAttr(nullptr, 99, nullptr, 0), 22U);
    EXPECT_LOG(kTaskSource, "param taskAttr is NULL", kParamInvalid);
}

TEST_F(TaskAttr, DamagedMagicIsRefusedSecond)
{
    attr_->magic = 0xBAD;
    EXPECT_EQ(XEL_TaskSetAttr(attr_, 99, nullptr, 0), 22U);
    EXPECT_LOG(kTaskSource, "param invalid, magic is damaged, magic = 0xbad.", kParamInvalid);
    attr_->magic = 0;
    EXPECT_EQ(XEL_TaskSetAttr(attr_, 99, nullptr, 0), 22U);
    EXPECT_LOG(kTaskSource, "param invalid, magic is damaged, magic = 0.", kParamInvalid);
    attr_->magic = 0x6EFAB123;
}

TEST_F(TaskAttr, NullValueIsRefusedThird)
{
    EXPECT_EQ(XEL_TaskSetAttr(attr_, 99, nullptr, 0), 22U);
    EXPECT_LOG(kTaskSource, "param val is NULL", kParamInvalid);
    for (u32 cmd = 0; cmd <= 4; ++cmd) {
        EXPECT_EQ(XEL_TaskSetAttr(attr_, cmd, nullptr, 4), 22U);
        EXPECT_LOG(kTaskSource, "param val is NULL", kParamInvalid);
    }
}

TEST_F(TaskAttr, UnknownCommandIsRefusedLast)
{
    EXPECT_EQ(Set(5, u32{0}), 22U);
    EXPECT_LOG(kTaskSource, "param cmd is illegal, cmd = 5", kParamInvalid);
    EXPECT_EQ(Set(0x7FFFFFFF, u32{0}), 22U);
    EXPECT_LOG(kTaskSource, "param cmd is illegal, cmd = 2147483647", kParamInvalid);
    EXPECT_EQ(Set(0xFFFFFFFF, u32{0}), 22U) << "compared unsigned";
    EXPECT_LOG(kTaskSource, "param cmd is illegal, cmd = -1", kParamInvalid);
}

TEST_F(TaskAttr, CheckAloneAnswersWithItsOwnLineOnly)
{
    const u32 value = 0;
    EXPECT_EQ(SchCheckTaskAttrParam(attr_, 4, &value), 0U);
    EXPECT_NO_LOG();
    EXPECT_EQ(SchCheckTaskAttrParam(nullptr, 0, &value), 22U);
    EXPECT_LOG(kTaskSource, "param taskAttr is NULL");
    EXPECT_EQ(SchCheckTaskAttrParam(attr_, 5, &value), 22U);
    EXPECT_LOG(kTaskSource, "param cmd is illegal, cmd = 5");
}

TEST_F(TaskAttr, CallbackIsCopiedWithItsData)
{
    EXPECT_EQ(Set(XEL_TASK_ATTR_USR_CB, XelTaskUsrCb{NopProc, 0x123456789ABCDEF0U}), 0U);
    EXPECT_EQ(attr_->proc, NopProc);
    EXPECT_EQ(attr_->data, 0x123456789ABCDEF0U);
}

TEST_F(TaskAttr, CallbackOfAnotherSizeIsRefusedBeforeItIsRead)
{
    const Image before = ImageOf(attr_);
    const XelTaskUsrCb nothing{nullptr, 0};
    for (const size_t size : {size_t{0}, size_t{8}, size_t{15}, size_t{17}, SIZE_MAX}) {
        EXPECT_EQ(Set(XEL_TASK_ATTR_USR_CB, nothing, size), 22U);
        EXPECT_LOG(kTaskSource, "scheduler set callback unsuccessfully, val size error.");
    }
    EXPECT_EQ(ImageOf(attr_), before);
}

TEST_F(TaskAttr, NullCallbackIsRefusedAndTheOldOneKept)
{
    EXPECT_EQ(Set(XEL_TASK_ATTR_USR_CB, XelTaskUsrCb{NopProc, 7}), 0U);
    const Image before = ImageOf(attr_);
    EXPECT_EQ(Set(XEL_TASK_ATTR_USR_CB, XelTaskUsrCb{nullptr, 8}), 22U);
    EXPECT_LOG(kTaskSource, "scheduler set callback unsuccessfully, proc null.");
    EXPECT_EQ(ImageOf(attr_), before);
}

TEST_F(TaskAttr, TypesZeroToThreeAreStored)
{
    for (const u32 type : {0U, 1U, 2U, 3U}) {
        EXPECT_EQ(Set(XEL_TASK_ATTR_TYPE, type), 0U);
        EXPECT_EQ(attr_->type, type);
    }
}

TEST_F(TaskAttr, WrongTypeAndWrongSizeOfTypeHaveDifferentResults)
{
    const Image before = ImageOf(attr_);
    for (const u32 type : {4U, 5U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(Set(XEL_TASK_ATTR_TYPE, type), 22U);
        EXPECT_LOG(kTaskSource, "scheduler set type unsuccessfully, type invalid.");
    }
    for (const size_t size : {size_t{0}, size_t{3}, size_t{5}, size_t{8}}) {
        EXPECT_EQ(Set(XEL_TASK_ATTR_TYPE, u64{9}, size), 0xFFFFFFFFU) << "the size goes first";
        EXPECT_LOG(kTaskSource, "scheduler set type unsuccessfully, val size error.");
    }
    EXPECT_EQ(ImageOf(attr_), before);
}

TEST_F(TaskAttr, PrioritiesZeroToThirtyTwoAreStored)
{
    for (const u32 prio : {0U, 1U, 31U, 32U}) {
        EXPECT_EQ(Set(XEL_TASK_ATTR_PRIO, prio), 0U);
        EXPECT_EQ(attr_->prio, prio);
    }
}

TEST_F(TaskAttr, HigherPriorityIsRefusedInSilence)
{
    const Image before = ImageOf(attr_);
    for (const u32 prio : {33U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(Set(XEL_TASK_ATTR_PRIO, prio), 22U);
        EXPECT_NO_LOG();
    }
    EXPECT_EQ(ImageOf(attr_), before);
}

TEST_F(TaskAttr, WrongSizeOfPriorityIsRefusedAloud)
{
    const Image before = ImageOf(attr_);
    for (const size_t size : {size_t{0}, size_t{3}, size_t{5}, size_t{8}}) {
        EXPECT_EQ(Set(XEL_TASK_ATTR_PRIO, u64{99}, size), 22U);
        EXPECT_LOG(kTaskSource, "scheduler set priority unsuccessfully, val size error.");
    }
    EXPECT_EQ(ImageOf(attr_), before);
}

TEST_F(TaskAttr, PriorityThirtyTwoCanBeSetButNoTaskCreatedWithIt)
{
    EXPECT_EQ(Set(XEL_TASK_ATTR_USR_CB, XelTaskUsrCb{NopProc, 0}), 0U);
    EXPECT_EQ(Set(XEL_TASK_ATTR_PRIO, u32{32}), 0U);
    EXPECT_NO_LOG();
    EXPECT_EQ(XEL_TaskCreate(0, attr_), nullptr);
    EXPECT_LOG(kTaskSource, "scheduler task param priority invalid.",
               "scheduler create task unsuccessfully, scheduler check param unsuccessfully, param "
               "invalid.");
}

TEST_F(TaskAttr, NamesUpToFifteenCharactersAreStored)
{
    for (size_t length = 1; length <= 15; ++length) {
        const std::string name(length, static_cast<char>('a' + length));
        EXPECT_EQ(SetName(name, length), 0U);
        EXPECT_STREQ(attr_->name, name.c_str());
    }
    EXPECT_EQ(SetName("abc", 15), 0U) << "the size may be above the length";
    EXPECT_STREQ(attr_->name, "abc");
    EXPECT_NO_LOG();
}

TEST_F(TaskAttr, NameOfSizeSixteenIsRefusedBeforeItIsRead)
{
    EXPECT_EQ(SetName("old", 3), 0U);
    const Image before = ImageOf(attr_);
    const auto* unreadable = reinterpret_cast<const char*>(uintptr_t{16});
    EXPECT_EQ(XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_NAME, unreadable, 16), 0xFFFFFFFFU);
    EXPECT_LOG(kTaskSource,
               "Scheduler task set attribute unsuccessfully, invalid attrValSize, attrSize:16.");
    EXPECT_EQ(XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_NAME, unreadable, SIZE_MAX), 0xFFFFFFFFU);
    EXPECT_LOG(kTaskSource, "Scheduler task set attribute unsuccessfully, invalid attrValSize, "
                            "attrSize:18446744073709551615.");
    EXPECT_EQ(ImageOf(attr_), before);
}

TEST_F(TaskAttr, EmptyStringErasesTheWholeName)
{
    for (const size_t size : {size_t{0}, size_t{7}, size_t{15}}) {
        EXPECT_EQ(SetName("123456789012345", 15), 0U);
        EXPECT_EQ(SetName("", size), 0U);
        const std::array<char, 16> cleared{};
        EXPECT_EQ(memcmp(attr_->name, cleared.data(), cleared.size()), 0);
    }
    EXPECT_NO_LOG();
}

TEST_F(TaskAttr, SizeBelowTheLengthIsRefused)
{
    EXPECT_EQ(SetName("old", 3), 0U);
    const Image before = ImageOf(attr_);
    EXPECT_EQ(SetName("hello", 4), 0xFFFFFFFFU);
    EXPECT_LOG(kTaskSource, "Scheduler task set attribute unsuccessfully, invalid parameters. "
                            "(name:           hello) len:5, attrLen:4.");
    EXPECT_EQ(SetName("x", 0), 0xFFFFFFFFU);
    EXPECT_LOG(kTaskSource, "Scheduler task set attribute unsuccessfully, invalid parameters. "
                            "(name:               x) len:1, attrLen:0.");
    EXPECT_EQ(ImageOf(attr_), before);
}

// No terminator within the field: nothing behind the first 16 characters is looked at or printed.
TEST_F(TaskAttr, NameWithoutTerminatorIsRefused)
{
    EXPECT_EQ(SetName("old", 3), 0U);
    const Image before = ImageOf(attr_);
    const std::array<char, 16> endless{'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h',
                                       'i', 'j', 'k', 'l', 'm', 'n', 'o', 'p'};
    EXPECT_EQ(XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_NAME, endless.data(), 15), 0xFFFFFFFFU);
    EXPECT_LOG(kTaskSource, "Scheduler task set attribute unsuccessfully, invalid parameters. "
                            "(name:abcdefghijklmnop) len:16, attrLen:15.");
    EXPECT_EQ(SetName("abcdefghijklmnopqrst", 0), 0xFFFFFFFFU);
    EXPECT_LOG(kTaskSource, "Scheduler task set attribute unsuccessfully, invalid parameters. "
                            "(name:abcdefghijklmnop) len:16, attrLen:0.");
    EXPECT_EQ(ImageOf(attr_), before);
}

TEST_F(TaskAttr, FailedCopyKeepsTheOldName)
{
    EXPECT_EQ(SetName("old", 3), 0U);
    const Image before = ImageOf(attr_);
    FailNth(Call::StrcpyS, 1);
    EXPECT_EQ(SetName("new", 3), 0xFFFFFFFFU);
    EXPECT_LOG(kTaskSource, "Scheduler set name unsuccessfully, copy name unsuccessfully.");
    EXPECT_EQ(ImageOf(attr_), before);
}

TEST_F(TaskAttr, AnyDescriptorTypeIsStored)
{
    for (const u32 fdType : {1U, 0U, 2U, 77U, 0xFFFFFFFFU}) {
        EXPECT_EQ(Set(XEL_TASK_ATTR_FD_TYPE, fdType), 0U);
        EXPECT_EQ(attr_->fdType, fdType);
    }
    EXPECT_NO_LOG();
}

TEST_F(TaskAttr, WrongSizeOfDescriptorTypeIsRefused)
{
    const Image before = ImageOf(attr_);
    for (const size_t size : {size_t{0}, size_t{3}, size_t{5}, size_t{8}}) {
        EXPECT_EQ(Set(XEL_TASK_ATTR_FD_TYPE, u64{1}, size), 0xFFFFFFFFU);
        EXPECT_LOG(kTaskSource, "Scheduler set fd type unsuccessfully, value size invalid.");
    }
    EXPECT_EQ(ImageOf(attr_), before);
}

TEST_F(TaskAttr, ValueMayStandAtAnyAddress)
{
    alignas(8) std::array<char, 32> bytes{};
    const XelTaskUsrCb callback{NopProc, 5};
    memcpy(bytes.data() + 1, &callback, sizeof(callback));
    EXPECT_EQ(XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_USR_CB, bytes.data() + 1, 16), 0U);
    EXPECT_EQ(attr_->proc, NopProc);
    const u32 prio = 9;
    memcpy(bytes.data() + 3, &prio, sizeof(prio));
    EXPECT_EQ(XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_PRIO, bytes.data() + 3, 4), 0U);
    EXPECT_EQ(attr_->prio, 9U);
}

TEST_F(TaskAttr, DestructionOfNullIsLogged)
{
    XEL_TaskDestroyAttr(nullptr);
    EXPECT_LOG(kTaskSource, "scheduler destroy attribute unsuccessfully, attribute is null.");
}

TEST_F(TaskAttr, DestructionOfADamagedRecordLeavesItAllocated)
{
    const Footprint before = Measure();
    attr_->magic = 0xDEAD;
    XEL_TaskDestroyAttr(attr_);
    EXPECT_LOG(kTaskSource,
               "scheduler destroy attribute unsuccessfully, magic is damaged, magic = 0xdead.");
    EXPECT_EQ(Measure(), before);
    EXPECT_EQ(Calls(Call::XelMemFreeF), 0U);
    attr_->magic = 0x6EFAB123;
}

TEST_F(TaskAttr, DestructionFreesTheBlockWithItsMagic)
{
    XelTaskAttr* attr = XEL_TaskCreateAttr();
    const Footprint before = Measure();
    u32 magic = 0;
    RunAtNth(Call::XelMemFreeF, 1, [&] { magic = attr->magic; });
    XEL_TaskDestroyAttr(attr);
    EXPECT_EQ(magic, 0x6EFAB123U) << "not cleared before the free";
    EXPECT_EQ(Measure().blocks, before.blocks - 1);
    EXPECT_NO_LOG();
}

TEST_F(TaskAttr, RecordServesSeveralTasksAndMayGoBeforeThem)
{
    const Fd first = Fd::Event();
    const Fd second = Fd::Event();
    XelTaskAttr* attr = XEL_TaskCreateAttr();
    const XelTaskUsrCb callback{NopProc, 0x55};
    EXPECT_EQ(XEL_TaskSetAttr(attr, XEL_TASK_ATTR_USR_CB, &callback, sizeof(callback)), 0U);
    SchTaskCtrl* one = XEL_TaskCreate(first.Get(), attr);
    SchTaskCtrl* two = XEL_TaskCreate(second.Get(), attr);
    memset(attr->name, 'x', 3);
    attr->data = 0x66;
    XEL_TaskDestroyAttr(attr);
    for (SchTaskCtrl* task : {one, two}) {
        ASSERT_NE(task, nullptr);
        EXPECT_EQ(task->data, 0x55U);
        EXPECT_STREQ(task->name, "");
        XEL_TaskDestroy(task);
    }
}

} // namespace
