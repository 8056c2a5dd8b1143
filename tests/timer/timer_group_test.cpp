// Timer groups and types: records, lists, the order of the checks, and every refusal.
#include <cerrno>

#include "timer_group_support.h"

namespace
{

using namespace timertest;

std::string NoGroup(u32 groupId)
{
    return Text("Timer group get unsuccessfully. (groupId = %u)", groupId);
}

std::string NoType(u32 groupId, u32 typeId)
{
    return Text("Timer type get unsuccessfully. (groupId = %u, timerType = %u)", groupId, typeId);
}

class TimerGroups : public TimerTest
{
};

TEST_F(TimerGroups, FieldsStandAtTheirOffsets)
{
    EXPECT_EQ(offsetof(XelTimerGroup, link), 0U);
    EXPECT_EQ(offsetof(XelTimerGroup, groupId), 16U);
    EXPECT_EQ(offsetof(XelTimerGroup, typeCount), 20U);
    EXPECT_EQ(offsetof(XelTimerGroup, typeList), 24U);
    EXPECT_EQ(sizeof(XelTimerGroup), 40U);
    EXPECT_EQ(offsetof(XelTimerType, link), 0U);
    EXPECT_EQ(offsetof(XelTimerType, typeId), 16U);
    EXPECT_EQ(offsetof(XelTimerType, thread), 24U);
    EXPECT_EQ(offsetof(XelTimerType, attr), 32U);
    EXPECT_EQ(sizeof(XelTimerType), 88U);
}

TEST_F(TimerGroups, NumberOfZeroIsRefused)
{
    EXPECT_EQ(XEL_TimerCreateGroup(0), kFail);
    EXPECT_LOG(kTimerSource, "Timer group create unsuccessfully, invalid parameter. (groupId = 0)");
    EXPECT_EQ(g_xelTimerCtrl.groupCount, 0U);
    XEL_TimerDestroyGroup(0);
    EXPECT_LOG(kTimerSource, "Timer group destroy unsuccessfully, invalid parameter.");
}

// Nobody waits for the groups to be told that a number is none.
TEST_F(TimerGroups, NumberOfZeroIsRefusedWithoutTheMutex)
{
    EXPECT_EQ(XEL_TimerCreateGroup(0), kFail);
    XEL_TimerDestroyGroup(0);
    EXPECT_EQ(XEL_TimerAddTimerType(0, 1, nullptr, nullptr), kFail);
    EXPECT_EQ(XEL_TimerDelTimerType(0, 1), 22U);
    EXPECT_EQ(XEL_TimerCreateAndStart(0, 1, nullptr), nullptr);
    EXPECT_EQ(Calls(Call::PthreadMutexLock), 0U);
    EXPECT_EQ(LogCount(), 6U);
    DropLog();
}

TEST_F(TimerGroups, NewGroupIsEmptyAndStandsAtTheFront)
{
    EXPECT_EQ(XEL_TimerCreateGroup(0xFFFFFFFF), 0U);
    EXPECT_EQ(XEL_TimerCreateGroup(7), 0U);
    TimerGetGroupByGroupId(7)->typeCount = 77; // the next group may take this block
    XEL_TimerDestroyGroup(7);
    EXPECT_EQ(XEL_TimerCreateGroup(1), 0U);
    EXPECT_EQ(g_xelTimerCtrl.groupCount, 2U);
    const XelTimerGroup* one = TimerGetGroupByGroupId(1);
    const XelTimerGroup* last = TimerGetGroupByGroupId(0xFFFFFFFF);
    ASSERT_NE(one, nullptr);
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(TimerGetGroupByGroupId(2), nullptr);
    EXPECT_EQ(g_xelTimerCtrl.groupList.next, &one->link);
    EXPECT_EQ(one->link.next, &last->link);
    EXPECT_EQ(At<u32>(one, 16), 1U);
    EXPECT_EQ(At<u32>(one, 20), 0U);
    EXPECT_EQ(At<const void*>(one, 24), &one->typeList);
    EXPECT_EQ(At<const void*>(one, 32), &one->typeList);
    XEL_TimerDestroyGroup(1);
    EXPECT_EQ(g_xelTimerCtrl.groupCount, 1U);
    EXPECT_EQ(g_xelTimerCtrl.groupList.next, &last->link);
    XEL_TimerDestroyGroup(0xFFFFFFFF);
    EXPECT_NO_LOG();
}

TEST_F(TimerGroups, ExistingGroupIsKept)
{
    EXPECT_EQ(XEL_TimerCreateGroup(5), 0U);
    const XelTimerGroup* group = TimerGetGroupByGroupId(5);
    EXPECT_EQ(XEL_TimerCreateGroup(5), 0U);
    EXPECT_LOG(kTimerSource, Detail("Timer group already exist. (groupId = 5)"));
    EXPECT_EQ(g_xelTimerCtrl.groupCount, 1U);
    EXPECT_EQ(TimerGetGroupByGroupId(5), group);
    XEL_TimerDestroyGroup(5);
    EXPECT_EQ(XEL_TimerCreateGroup(5), 0U);
    EXPECT_NO_LOG();
    XEL_TimerDestroyGroup(5);
}

TEST_F(TimerGroups, NoMemoryIsRefused)
{
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(XEL_TimerCreateGroup(5), kFail);
    EXPECT_LOG(kTimerSource, "Timer group node malloc null.");
    EXPECT_EQ(g_xelTimerCtrl.groupCount, 0U);
    EXPECT_EQ(TimerGetGroupByGroupId(5), nullptr);
    EXPECT_EQ(XEL_TimerCreateGroup(5), 0U); // the mutex is free
    XEL_TimerDestroyGroup(5);
}

TEST_F(TimerGroups, UnknownGroupIsAlreadyDestroyed)
{
    EXPECT_EQ(XEL_TimerCreateGroup(5), 0U);
    XEL_TimerDestroyGroup(6);
    EXPECT_LOG(kTimerSource, Warning("Timer group already destroy. (groupId = 6)"));
    EXPECT_EQ(g_xelTimerCtrl.groupCount, 1U);
    XEL_TimerDestroyGroup(5);
    XEL_TimerDestroyGroup(5);
    EXPECT_LOG(kTimerSource, Warning("Timer group already destroy. (groupId = 5)"));
}

TEST_F(TimerGroups, CountStaysAtZero)
{
    EXPECT_EQ(XEL_TimerCreateGroup(5), 0U);
    g_xelTimerCtrl.groupCount = 0;
    XEL_TimerDestroyGroup(5);
    EXPECT_EQ(g_xelTimerCtrl.groupCount, 0U);
}

class TimerTypes : public TimerGroupTest
{
protected:
    Probe first_;
    Probe second_;
};

// Each call has every later fault as well.
TEST_F(TimerTypes, ParametersAreCheckedInTheirOrder)
{
    const char refused[] = "Timer add type unsuccessfully, invalid parameter.";
    const TimerAttr attr(&first_);
    XelThreadCtrl* thread = worker_->Get();
    EXPECT_EQ(XEL_TimerAddTimerType(0, 0, nullptr, nullptr), kFail);
    EXPECT_LOG(kTimerSource, "Timer check param, invalid timer group id.", refused);
    EXPECT_EQ(XEL_TimerAddTimerType(9, 0, nullptr, nullptr), kFail);
    EXPECT_LOG(kTimerSource, "Timer check param, invalid type.", refused);
    EXPECT_EQ(XEL_TimerAddTimerType(9, 1, nullptr, nullptr), kFail);
    EXPECT_LOG(kTimerSource, "Timer check param, invalid thread handle.", refused);
    EXPECT_EQ(XEL_TimerAddTimerType(9, 1, thread, nullptr), kFail);
    EXPECT_LOG(kTimerSource, "Timer check param, invalid timer attribute.", refused);
    EXPECT_EQ(XEL_TimerAddTimerType(9, 1, thread, attr.Get()), kFail);
    EXPECT_LOG(kTimerSource, NoGroup(9));
    EXPECT_NE(TimerCheckParam(0, 1, thread, attr.Get()), 0U);
    EXPECT_LOG(kTimerSource, "Timer check param, invalid timer group id.");
    EXPECT_EQ(TimerCheckParam(9, 1, thread, attr.Get()), 0U);
    EXPECT_NO_LOG();
    EXPECT_EQ(first_.released.load(), 0);
}

TEST_F(TimerTypes, TypeHoldsAWholeCopyOfTheAttribute)
{
    XelTimerAttr bytes = {};
    {
        const TimerAttr attr(&first_, XEL_TIMER_MODE_PERIODIC, 1234, "fifteen-letters");
        memcpy(&bytes, attr.Get(), sizeof(bytes));
        EXPECT_EQ(XEL_TimerAddTimerType(kGroup, 7, worker_->Get(), attr.Get()), 0U);
    }
    const XelTimerType* type = TypeOf(7);
    ASSERT_NE(type, nullptr);
    EXPECT_EQ(At<u32>(type, 16), 7U);
    EXPECT_EQ(At<XelThreadCtrl*>(type, 24), worker_->Get());
    EXPECT_EQ(memcmp(reinterpret_cast<const char*>(type) + 32, &bytes, sizeof(bytes)), 0);
    EXPECT_EQ(group_->typeCount, 1U);
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(first_.released.load(), 1);
    EXPECT_NO_LOG();
}

TEST_F(TimerTypes, OperationsHoldTheGroupMutexWhileTheyWork)
{
    const TimerAttr attr(&first_);
    const HeldWorker still(*worker_);
    char out = 0;
    const std::pair<Call, std::function<void()>> operations[] = {
        {Call::XelMemAllocF, [] { EXPECT_EQ(XEL_TimerCreateGroup(6), 0U); }},
        {Call::XelMemFreeF, [] { XEL_TimerDestroyGroup(6); }},
        {Call::MemcpyS,
         [&] { EXPECT_EQ(XEL_TimerAddTimerType(kGroup, 1, worker_->Get(), attr.Get()), 0U); }},
        {Call::MemcpyS, [&] { EXPECT_EQ(TimerGetParamByGroupAndType(kGroup, 1, &out, 1), 0U); }},
        {Call::TimerfdCreate,
         [] { EXPECT_NE(XEL_TimerCreateAndStart(kGroup, 1, nullptr), nullptr); }},
        {Call::EpollCtl, [] { EXPECT_EQ(XEL_TimerDelTimerType(kGroup, 1), 0U); }},
    };
    for (const auto& [call, operation] : operations) {
        bool held = false;
        RunAtNth(call, 1, [&held] { held = GroupMutexIsHeld(); });
        operation();
        EXPECT_TRUE(held) << static_cast<u32>(call);
    }
    EXPECT_NO_LOG();
}

// Data of types, also that offered in vain, is released under the mutex.
TEST_F(TimerTypes, DataIsReleasedUnderTheGroupMutex)
{
    int held = 0;
    first_.onRelease = [&held] { held += GroupMutexIsHeld() ? 1 : 0; };
    EXPECT_EQ(AddType(&first_), 0U);
    EXPECT_EQ(AddType(&first_), 0U);
    EXPECT_LOG(kTimerSource, Detail("Timer type already exist. (groupId = 5, typeType = 1)"));
    EXPECT_EQ(held, 1);
    EXPECT_EQ(XEL_TimerDelTimerType(kGroup, kType), 0U);
    EXPECT_EQ(held, 2);
    EXPECT_EQ(AddType(&first_), 0U);
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(held, 3);
}

// Magic, callback and mode are not looked at.
TEST_F(TimerTypes, AttributeIsNotExamined)
{
    XelTimerAttr attr = {};
    attr.mode = 9;
    EXPECT_EQ(XEL_TimerAddTimerType(kGroup, kType, worker_->Get(), &attr), 0U);
    EXPECT_EQ(TypeOf()->attr.mode, 9U);
    EXPECT_NO_LOG();
}

TEST_F(TimerTypes, NewTypesStandAtTheFront)
{
    EXPECT_EQ(AddType(&first_, 1, kLongMs, 0xFFFFFFFF), 0U);
    EXPECT_EQ(AddType(&second_, 1, kLongMs, 2), 0U);
    EXPECT_EQ(group_->typeCount, 2U);
    EXPECT_EQ(group_->typeList.next, &TypeOf(2)->link);
    EXPECT_EQ(TypeOf(2)->link.next, &TypeOf(0xFFFFFFFF)->link);
    EXPECT_EQ(TypeOf(3), nullptr);
    EXPECT_EQ(XEL_TimerDelTimerType(kGroup, 2), 0U);
    EXPECT_EQ(second_.released.load(), 1);
    EXPECT_EQ(first_.released.load(), 0);
    EXPECT_EQ(group_->typeCount, 1U);
    EXPECT_EQ(TypeOf(2), nullptr);
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(first_.released.load(), 1);
    EXPECT_NO_LOG();
}

TEST_F(TimerTypes, ExistingTypeIsKeptAndTheOfferedDataReleased)
{
    Worker other("other");
    EXPECT_EQ(AddType(&first_), 0U);
    XelTimerType* type = TypeOf();
    const TimerAttr attr(&second_, XEL_TIMER_MODE_ONE_SHOT, 9, "other");
    EXPECT_EQ(XEL_TimerAddTimerType(kGroup, kType, other.Get(), attr.Get()), 0U);
    EXPECT_LOG(kTimerSource, Detail("Timer type already exist. (groupId = 5, typeType = 1)"));
    EXPECT_EQ(second_.released.load(), 1);
    EXPECT_EQ(first_.released.load(), 0);
    EXPECT_EQ(TypeOf(), type);
    EXPECT_EQ(type->thread, worker_->Get());
    EXPECT_STREQ(type->attr.name, "type");
    EXPECT_EQ(group_->typeCount, 1U);
    EXPECT_EQ(TimerFindOrAddTimerType(group_, kType, other.Get(), attr.Get()), type);
    EXPECT_LOG(kTimerSource, Detail("Timer type already exist. (groupId = 5, typeType = 1)"));
    EXPECT_EQ(second_.released.load(), 2);
    // Without a destructor the data is nobody's to release.
    attr->destructor = nullptr;
    EXPECT_EQ(XEL_TimerAddTimerType(kGroup, kType, other.Get(), attr.Get()), 0U);
    EXPECT_LOG(kTimerSource, Detail("Timer type already exist. (groupId = 5, typeType = 1)"));
    EXPECT_EQ(second_.released.load(), 2);
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(first_.released.load(), 1);
}

TEST_F(TimerTypes, NoMemoryIsRefusedAndTheDataStaysTheCallers)
{
    FailNth(Call::XelMemAllocF, 2); // the attribute is made first
    EXPECT_EQ(AddType(&first_), kFail);
    EXPECT_LOG(kTimerSource, "Timer type node malloc unsuccessfully.",
               "Timer type find or add unsuccessfully. (groupId = 5, timerType = 1)");
    EXPECT_EQ(first_.released.load(), 0);
    EXPECT_EQ(group_->typeCount, 0U);
    EXPECT_EQ(TypeOf(), nullptr);
    const TimerAttr attr(&first_);
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(TimerFindOrAddTimerType(group_, kType, worker_->Get(), attr.Get()), nullptr);
    EXPECT_LOG(kTimerSource, "Timer type node malloc unsuccessfully.");
    EXPECT_EQ(AddType(&first_), 0U);
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(first_.released.load(), 1);
}

TEST_F(TimerTypes, DeletionTellsWhatIsMissing)
{
    for (const auto& [groupId, typeId] : {std::pair{0U, 1U}, {5U, 0U}, {0U, 0U}}) {
        EXPECT_EQ(XEL_TimerDelTimerType(groupId, typeId), 22U);
        EXPECT_LOG(kTimerSource, Text("Timer delete timer type unsuccessfully, invalid parameter. "
                                      "(id = %u, type = %u)",
                                      groupId, typeId));
    }
    EXPECT_EQ(XEL_TimerDelTimerType(9, 1), 1U);
    EXPECT_LOG(kTimerSource, "Timer delete timer type group get unsuccessfully. (groupId = 9)");
    EXPECT_EQ(XEL_TimerDelTimerType(kGroup, 1), 2U);
    EXPECT_NO_LOG();
}

TEST_F(TimerTypes, CountStaysAtZero)
{
    EXPECT_EQ(AddType(&first_), 0U);
    group_->typeCount = 0;
    EXPECT_EQ(XEL_TimerDelTimerType(kGroup, kType), 0U);
    EXPECT_EQ(group_->typeCount, 0U);
    EXPECT_EQ(first_.released.load(), 1);
}

TEST_F(TimerTypes, TypeWithoutDestructorLeavesItsDataAlone)
{
    for (const bool deleteType : {true, false}) {
        const TimerAttr attr(&first_);
        attr->destructor = nullptr;
        EXPECT_EQ(XEL_TimerAddTimerType(kGroup, kType, worker_->Get(), attr.Get()), 0U);
        if (deleteType) {
            EXPECT_EQ(XEL_TimerDelTimerType(kGroup, kType), 0U);
        } else {
            XEL_TimerDestroyGroup(kGroup);
        }
    }
    EXPECT_EQ(first_.released.load(), 0);
}

TEST_F(TimerTypes, TypesOfAGroupEndFromFrontToBack)
{
    std::vector<int> order;
    first_.onRelease = [&order] { order.push_back(1); };
    second_.onRelease = [&order] { order.push_back(2); };
    EXPECT_EQ(AddType(&first_, 1, kLongMs, 1), 0U);
    EXPECT_EQ(AddType(&second_, 1, kLongMs, 2), 0U);
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(order, (std::vector<int>{2, 1}));
    EXPECT_NO_LOG();
}

// Who looks while the data is released finds the type gone and the group still there.
TEST_F(TimerTypes, TypeIsGoneWhenItsDataIsReleased)
{
    first_.onRelease = [this] {
        EXPECT_EQ(TypeOf(), nullptr);
        EXPECT_EQ(group_->typeCount, 0U);
    };
    EXPECT_EQ(AddType(&first_), 0U);
    EXPECT_EQ(XEL_TimerDelTimerType(kGroup, kType), 0U);
    EXPECT_EQ(first_.released.load(), 1);
    second_.onRelease = [this] {
        EXPECT_EQ(TypeOf(), nullptr);
        EXPECT_EQ(TimerGetGroupByGroupId(kGroup), group_);
        EXPECT_EQ(g_xelTimerCtrl.groupCount, 1U);
    };
    EXPECT_EQ(AddType(&second_), 0U);
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(second_.released.load(), 1);
    EXPECT_NO_LOG();
}

TEST_F(TimerTypes, LookUpsNameWhatIsMissing)
{
    EXPECT_EQ(AddType(&first_), 0U);
    EXPECT_EQ(TimerGetTimerTypeNode(kGroup, kType), TypeOf());
    EXPECT_NO_LOG();
    EXPECT_EQ(TimerGetTimerTypeNode(9, kType), nullptr);
    EXPECT_LOG(kTimerSource, NoGroup(9));
    EXPECT_EQ(TimerGetTimerTypeNode(kGroup, 2), nullptr);
    EXPECT_LOG(kTimerSource, NoType(kGroup, 2));
    XEL_TimerDestroyGroup(kGroup);
    EXPECT_EQ(first_.released.load(), 1);
}

// The type's user data is a block of parameters that callers read back.
class TimerParams : public TimerTypes
{
protected:
    u32 AddBlock(void* block)
    {
        XelTimerAttr attr = {};
        attr.userData = block;
        return XEL_TimerAddTimerType(kGroup, kType, worker_->Get(), &attr);
    }
};

TEST_F(TimerParams, BytesOfTheUserDataAreCopied)
{
    char block[8] = "abcdefg";
    ASSERT_EQ(AddBlock(block), 0U);
    char out[8] = "-------";
    EXPECT_EQ(TimerGetParamByGroupAndType(kGroup, kType, out, 3), 0U);
    EXPECT_STREQ(out, "abc----");
    EXPECT_EQ(TimerGetParamByGroupAndType(kGroup, kType, out, 8), 0U);
    EXPECT_STREQ(out, "abcdefg");
    EXPECT_NO_LOG();
}

TEST_F(TimerParams, MissingGroupOrTypeIsRefused)
{
    char out[4] = "---";
    for (const u32 groupId : {0U, 9U}) {
        EXPECT_EQ(TimerGetParamByGroupAndType(groupId, kType, out, 3), kFail);
        EXPECT_LOG(kTimerSource, NoGroup(groupId));
    }
    for (const u32 typeId : {0U, 2U}) {
        EXPECT_EQ(TimerGetParamByGroupAndType(kGroup, typeId, out, 3), kFail);
        EXPECT_LOG(kTimerSource, NoType(kGroup, typeId));
    }
    EXPECT_STREQ(out, "---");
}

TEST_F(TimerParams, RefusedCopyIsTold)
{
    ASSERT_EQ(AddBlock(nullptr), 0U);
    char out[4] = "---";
    EXPECT_EQ(TimerGetParamByGroupAndType(kGroup, kType, out, 3), kFail);
    EXPECT_LOG(kTimerSource, "Timer param get unsuccessfully. (errNo = 22)");
    ASSERT_EQ(XEL_TimerDelTimerType(kGroup, kType), 0U);
    char block[4] = "abc";
    ASSERT_EQ(AddBlock(block), 0U);
    EXPECT_EQ(TimerGetParamByGroupAndType(kGroup, kType, nullptr, 3), kFail);
    EXPECT_LOG(kTimerSource, "Timer param get unsuccessfully. (errNo = 22)");
    EXPECT_EQ(TimerGetParamByGroupAndType(kGroup, kType, out, 0), kFail);
    EXPECT_LOG(kTimerSource, "Timer param get unsuccessfully. (errNo = 22)");
    FailNth(Call::MemcpyS, 1, ERANGE);
    EXPECT_EQ(TimerGetParamByGroupAndType(kGroup, kType, out, 3), kFail);
    EXPECT_LOG(kTimerSource, "Timer param get unsuccessfully. (errNo = 34)");
    EXPECT_EQ(TimerGetParamByGroupAndType(kGroup, kType, out, 3), 0U); // the mutex is free
    EXPECT_STREQ(out, "abc");
}

} // namespace
