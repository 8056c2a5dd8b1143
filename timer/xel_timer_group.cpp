// Timer groups and types: timers declared once and created by number. It owns the groups, their
// types, and each type's user data. Every operation holds the group mutex; the timer lock is taken
// inside it.
#include "timer/xel_timer_inner.h"

#include "common/xel_memory.h"
#include "timer/xel_timer_type.h"

namespace
{

// A type's block: the record, and behind it the count of those who use its data. The count is 1 for
// the type itself, and 1 for each run of a timer with the type's data that outlives the timer.
struct TypeBlock {
    XelTimerType type;
    std::atomic<u32> users; // the last one releases the data
};

TypeBlock* BlockOf(XelTimerType* type)
{
    return reinterpret_cast<TypeBlock*>(type);
}

// The group mutex; taken before the timer lock.
class GroupGuard : MutexGuard
{
public:
    GroupGuard() : MutexGuard(g_xelTimerCtrl.groupMutex) {}
};

template <typename Record>
Record* RecordOf(XelLink* link)
{
    static_assert(offsetof(Record, link) == 0);
    return reinterpret_cast<Record*>(link);
}

void ReleaseData(XelTimerDestructor destructor, void* userData)
{
    if (destructor != nullptr) {
        destructor(userData);
    }
}

TimerTypeData* DataOf(XelTimerType* type)
{
    return reinterpret_cast<TimerTypeData*>(BlockOf(type));
}

// Unlinks a type and lets go of its data.
void DropType(XelTimerType* type)
{
    LinkRemove(&type->link);
    TimerTypeDataRelease(DataOf(type));
}

void DestroyGroup(XelTimerGroup* group)
{
    TimerDestroyGroupTimer(group->groupId);
    while (group->typeList.next != &group->typeList) {
        DropType(RecordOf<XelTimerType>(group->typeList.next));
    }
    LinkRemove(&group->link);
    if (g_xelTimerCtrl.groupCount > 0) {
        g_xelTimerCtrl.groupCount -= 1;
    }
    XEL_FREE(kTimerLog, group);
}

u32 AddGroup(u32 groupId)
{
    auto* group = XEL_ALLOC_RECORD(XelTimerGroup, kTimerLog);
    if (group == nullptr) {
        XEL_LOG_FAIL(kTimerLog, "Timer group node malloc null.");
        return XEL_FAIL;
    }
    group->groupId = groupId;
    LinkInit(&group->typeList);
    LinkAddFront(&g_xelTimerCtrl.groupList, &group->link);
    g_xelTimerCtrl.groupCount += 1;
    return XEL_OK;
}

// Whose user data the node works with: its own, released with it, or the type's, which it must not
// release.
struct TimerOwner {
    u32 groupId;
    u32 typeId;
    void* userData; // null: the type's
};

void SetOwner(XelTimerNode* node, const TimerOwner& owner)
{
    node->groupId = owner.groupId;
    node->typeId = owner.typeId;
    if (owner.userData != nullptr) {
        node->userData = owner.userData;
    } else {
        node->destructor = nullptr;
    }
}

// Completes, arms and lists a node under one hold of the timer lock: an expiry in between would not
// find it. The task of a node that cannot be armed stays behind.
bool ArmAndList(XelTimerNode* node, const TimerOwner& owner)
{
    const TimerWriteGuard guard;
    SetOwner(node, owner);
    const i32 ret = TimerSetStartTime(node, node->timeout.load(std::memory_order_relaxed));
    if (ret != 0) {
        XEL_LOG_FAIL(kTimerLog, "Timer start unsuccessfully. (ret = %#x)", static_cast<u32>(ret));
        return false;
    }
    TimerLinkNode(node);
    return true;
}

} // namespace

void TimerTypeDataHold(TimerTypeData* typeData)
{
    reinterpret_cast<TypeBlock*>(typeData)->users.fetch_add(1, std::memory_order_relaxed);
}

void TimerTypeDataRelease(TimerTypeData* typeData)
{
    auto* block = reinterpret_cast<TypeBlock*>(typeData);
    if (block == nullptr || block->users.fetch_sub(1, std::memory_order_acq_rel) != 1) {
        return;
    }
    ReleaseData(block->type.attr.destructor, block->type.attr.userData);
    XEL_FREE(kTimerLog, block);
}

TimerTypeData* TimerSharedTypeData(const XelTimerNode* node)
{
    XelTimerGroup* group = node->groupId == 0 ? nullptr : TimerGetGroupByGroupId(node->groupId);
    XelTimerType* type = group == nullptr ? nullptr : TimerGetTypeByTypeId(group, node->typeId);
    const bool isShared =
        type != nullptr && node->destructor == nullptr && node->userData == type->attr.userData;
    return isShared ? DataOf(type) : nullptr;
}

XelTimerGroup* TimerGetGroupByGroupId(u32 groupId)
{
    for (XelLink* link = g_xelTimerCtrl.groupList.next; link != &g_xelTimerCtrl.groupList;
         link = link->next) {
        auto* group = RecordOf<XelTimerGroup>(link);
        if (group->groupId == groupId) {
            return group;
        }
    }
    return nullptr;
}

XelTimerType* TimerGetTypeByTypeId(XelTimerGroup* group, u32 typeId)
{
    for (XelLink* link = group->typeList.next; link != &group->typeList; link = link->next) {
        auto* type = RecordOf<XelTimerType>(link);
        if (type->typeId == typeId) {
            return type;
        }
    }
    return nullptr;
}

XelTimerType* TimerGetTimerTypeNode(u32 groupId, u32 typeId)
{
    XelTimerGroup* group = TimerGetGroupByGroupId(groupId);
    if (group == nullptr) {
        XEL_LOG_FAIL(kTimerLog, "Timer group get unsuccessfully. (groupId = %u)", groupId);
        return nullptr;
    }
    XelTimerType* type = TimerGetTypeByTypeId(group, typeId);
    if (type == nullptr) {
        XEL_LOG_FAIL(kTimerLog, "Timer type get unsuccessfully. (groupId = %u, timerType = %u)",
                     groupId, typeId);
    }
    return type;
}

uint32_t XEL_TimerCreateGroup(uint32_t groupId)
{
    if (groupId == 0) {
        XEL_LOG_FAIL(kTimerLog,
                     "Timer group create unsuccessfully, invalid parameter. (groupId = %u)",
                     groupId);
        return XEL_FAIL;
    }
    const GroupGuard guard;
    if (TimerGetGroupByGroupId(groupId) != nullptr) {
        XEL_LOG(kTimerLog, XEL_LOG_INFO, "Timer group already exist. (groupId = %u)", groupId);
        return XEL_OK;
    }
    return AddGroup(groupId);
}

void XEL_TimerDestroyGroup(uint32_t groupId)
{
    if (groupId == 0) {
        XEL_LOG_FAIL(kTimerLog, "Timer group destroy unsuccessfully, invalid parameter.");
        return;
    }
    const GroupGuard guard;
    XelTimerGroup* group = TimerGetGroupByGroupId(groupId);
    if (group == nullptr) {
        XEL_LOG(kTimerLog, XEL_LOG_WARN, "Timer group already destroy. (groupId = %u)", groupId);
        return;
    }
    DestroyGroup(group);
}

u32 TimerCheckParam(u32 groupId, u32 typeId, const XelThreadCtrl* thread, const XelTimerAttr* attr)
{
    if (groupId == 0) {
        XEL_LOG_FAIL(kTimerLog, "Timer check param, invalid timer group id.");
        return XEL_FAIL;
    }
    if (typeId == 0) {
        XEL_LOG_FAIL(kTimerLog, "Timer check param, invalid type.");
        return XEL_FAIL;
    }
    if (thread == nullptr) {
        XEL_LOG_FAIL(kTimerLog, "Timer check param, invalid thread handle.");
        return XEL_FAIL;
    }
    if (attr == nullptr) {
        XEL_LOG_FAIL(kTimerLog, "Timer check param, invalid timer attribute.");
        return XEL_FAIL;
    }
    return XEL_OK;
}

uint32_t XEL_TimerAddTimerType(uint32_t groupId, uint32_t typeId, XelThreadCtrl* thread,
                               const XelTimerAttr* attr)
{
    if (TimerCheckParam(groupId, typeId, thread, attr) != XEL_OK) {
        XEL_LOG_FAIL(kTimerLog, "Timer add type unsuccessfully, invalid parameter.");
        return XEL_FAIL;
    }
    const GroupGuard guard;
    XelTimerGroup* group = TimerGetGroupByGroupId(groupId);
    if (group == nullptr) {
        XEL_LOG_FAIL(kTimerLog, "Timer group get unsuccessfully. (groupId = %u)", groupId);
        return XEL_FAIL;
    }
    if (TimerFindOrAddTimerType(group, typeId, thread, attr) == nullptr) {
        XEL_LOG_FAIL(kTimerLog,
                     "Timer type find or add unsuccessfully. (groupId = %u, timerType = %u)",
                     groupId, typeId);
        return XEL_FAIL;
    }
    return XEL_OK;
}

// A type that exists stays as it is; the data offered for it is not kept, and so released.
XelTimerType* TimerFindOrAddTimerType(XelTimerGroup* group, u32 typeId, XelThreadCtrl* thread,
                                      const XelTimerAttr* attr)
{
    XelTimerType* type = TimerGetTypeByTypeId(group, typeId);
    if (type != nullptr) {
        XEL_LOG(kTimerLog, XEL_LOG_INFO, "Timer type already exist. (groupId = %u, typeType = %u)",
                group->groupId, typeId);
        ReleaseData(attr->destructor, attr->userData);
        return type;
    }
    auto* block = XEL_ALLOC_RECORD(TypeBlock, kTimerLog);
    if (block == nullptr) {
        XEL_LOG_FAIL(kTimerLog, "Timer type node malloc unsuccessfully.");
        return nullptr;
    }
    type = &block->type;
    block->users.store(1, std::memory_order_relaxed);
    type->typeId = typeId;
    type->thread = thread;
    if (memcpy_s(&type->attr, sizeof(type->attr), attr, sizeof(*attr)) != 0) {
        XEL_FREE(kTimerLog, block); // a type without its attribute would run nothing
        return nullptr;
    }
    LinkAddFront(&group->typeList, &type->link);
    group->typeCount += 1;
    return type;
}

uint32_t XEL_TimerDelTimerType(uint32_t groupId, uint32_t typeId)
{
    constexpr u32 kNoGroup = 1;
    constexpr u32 kNoType = 2;
    if (groupId == 0 || typeId == 0) {
        XEL_LOG_FAIL(kTimerLog,
                     "Timer delete timer type unsuccessfully, invalid parameter. (id = %u, "
                     "type = %u)",
                     groupId, typeId);
        return XEL_EINVAL;
    }
    const GroupGuard guard;
    XelTimerGroup* group = TimerGetGroupByGroupId(groupId);
    if (group == nullptr) {
        XEL_LOG_FAIL(kTimerLog, "Timer delete timer type group get unsuccessfully. (groupId = %u)",
                     groupId);
        return kNoGroup;
    }
    XelTimerType* type = TimerGetTypeByTypeId(group, typeId);
    if (type == nullptr) {
        return kNoType;
    }
    TimerDestroyTypeTimer(groupId, typeId);
    if (group->typeCount > 0) {
        group->typeCount -= 1;
    }
    DropType(type);
    return XEL_OK;
}

uint32_t TimerGetParamByGroupAndType(uint32_t groupId, uint32_t typeId, void* buffer,
                                     uint32_t length)
{
    const GroupGuard guard;
    const XelTimerType* type = TimerGetTimerTypeNode(groupId, typeId);
    if (type == nullptr) {
        return XEL_FAIL;
    }
    const int ret = memcpy_s(buffer, length, type->attr.userData, length);
    if (ret != 0) {
        XEL_LOG_FAIL(kTimerLog, "Timer param get unsuccessfully. (errNo = %d)", ret);
        return XEL_FAIL;
    }
    return XEL_OK;
}

XelTimerNode* XEL_TimerCreateAndStart(uint32_t groupId, uint32_t typeId, void* userData)
{
    if (groupId == 0 || typeId == 0) {
        XEL_LOG_FAIL(kTimerLog,
                     "Timer create and start unsuccessfully, invalid parameter. (id = %u, "
                     "type = %u)",
                     groupId, typeId);
        return nullptr;
    }
    return TimerCreateAndStart(groupId, typeId, userData);
}

XelTimerNode* TimerCreateAndStart(u32 groupId, u32 typeId, void* userData)
{
    const GroupGuard guard;
    XelTimerType* type = TimerGetTimerTypeNode(groupId, typeId);
    if (type == nullptr) {
        return nullptr;
    }
    XelTimerNode* node = TimerCreateNode(type->thread, &type->attr);
    if (node == nullptr) {
        XEL_LOG_FAIL(kTimerLog, "Timer node create unsuccessfully.");
        return nullptr;
    }
    if (!ArmAndList(node, {groupId, typeId, userData})) {
        TimerDiscardNode(node);
        return nullptr;
    }
    return node;
}

void TimerDestroyTypeTimer(u32 groupId, u32 typeId)
{
    TimerCommonDestroyTimer(groupId, typeId, TimerDestroyTimerTypeMatch);
}

void TimerDestroyGroupTimer(u32 groupId)
{
    TimerCommonDestroyTimer(groupId, 0, TimerDestroyTimerGroupMatch);
}

bool TimerDestroyTimerTypeMatch(const XelTimerNode* node, u32 groupId, u32 typeId)
{
    return node->groupId == groupId && node->typeId == typeId;
}

bool TimerDestroyTimerGroupMatch(const XelTimerNode* node, u32 groupId, u32 /*typeId*/)
{
    return node->groupId == groupId;
}
