// Task attributes: the object that describes a task to be created. The caller's building thread
// owns it; nothing here locks. Also the check that creation and modification make of an object.
#include "scheduler/xel_sch_task_inner.h"

#include <cstring>

#include "common/xel_memory.h"

namespace
{

constexpr u32 kDefaultType = XEL_TASK_TYPE_DELAY;
constexpr u32 kPrioSettableMax = 32; // one more than creation accepts; callers rely on both bounds

} // namespace

const AttrRow<XelTaskAttr> g_xelSchTaskAttrSetMap[5] = {
    {SchTaskAttrSetUsrCb, "task callback"},         {SchTaskAttrSetType, "task schedule type"},
    {SchTaskAttrSetPrio, "task sheduler priority"}, {SchTaskAttrSetName, "task name"},
    {SchTaskAttrSetFdType, "task fd type"},
};
static_assert(XEL_TASK_ATTR_USR_CB == 0 && XEL_TASK_ATTR_FD_TYPE == 4, "rows follow the commands");

XelTaskAttr* XEL_TaskCreateAttr(void)
{
    auto* attr = XEL_ALLOC_RECORD(XelTaskAttr, kTaskLog);
    if (attr == nullptr) {
        return nullptr;
    }
    attr->type = kDefaultType;
    attr->magic = kTaskAttrMagic;
    return attr;
}

uint32_t XEL_TaskSetAttr(XelTaskAttr* attr, uint32_t cmd, const void* value, size_t valueSize)
{
    if (SchCheckTaskAttrParam(attr, cmd, value) != XEL_OK) {
        XEL_LOG_FAIL(kTaskLog, "scheduler set attribute unsuccessfully, param is invalid.");
        return XEL_EINVAL;
    }
    return g_xelSchTaskAttrSetMap[cmd].set(attr, value, valueSize);
}

// The magic is not cleared: the block belongs to the allocator from here on.
void XEL_TaskDestroyAttr(XelTaskAttr* attr)
{
    if (attr == nullptr) {
        XEL_LOG_FAIL(kTaskLog, "scheduler destroy attribute unsuccessfully, attribute is null.");
        return;
    }
    if (attr->magic != kTaskAttrMagic) {
        XEL_LOG_FAIL(kTaskLog,
                     "scheduler destroy attribute unsuccessfully, magic is damaged, magic = %#x.",
                     attr->magic);
        return;
    }
    XEL_FREE(kTaskLog, attr);
}

u32 SchCheckTaskAttrParam(const XelTaskAttr* attr, u32 cmd, const void* value)
{
    if (attr == nullptr) {
        XEL_LOG_FAIL(kTaskLog, "param taskAttr is NULL");
        return XEL_EINVAL;
    }
    if (attr->magic != kTaskAttrMagic) {
        XEL_LOG_FAIL(kTaskLog, "param invalid, magic is damaged, magic = %#x.", attr->magic);
        return XEL_EINVAL;
    }
    if (value == nullptr) {
        XEL_LOG_FAIL(kTaskLog, "param val is NULL");
        return XEL_EINVAL;
    }
    if (cmd > XEL_TASK_ATTR_FD_TYPE) {
        XEL_LOG_FAIL(kTaskLog, "param cmd is illegal, cmd = %d", cmd);
        return XEL_EINVAL;
    }
    return XEL_OK;
}

u32 SchTaskAttrSetUsrCb(XelTaskAttr* attr, const void* value, size_t size)
{
    if (size != sizeof(XelTaskUsrCb)) {
        XEL_LOG_FAIL(kTaskLog, "scheduler set callback unsuccessfully, val size error.");
        return XEL_EINVAL;
    }
    const auto callback = ReadAttrValue<XelTaskUsrCb>(value);
    if (callback.proc == nullptr) {
        XEL_LOG_FAIL(kTaskLog, "scheduler set callback unsuccessfully, proc null.");
        return XEL_EINVAL;
    }
    attr->proc = callback.proc;
    attr->data = callback.data;
    return XEL_OK;
}

// The two faults have different results; callers tell them apart.
u32 SchTaskAttrSetType(XelTaskAttr* attr, const void* value, size_t size)
{
    if (size != sizeof(u32)) {
        XEL_LOG_FAIL(kTaskLog, "scheduler set type unsuccessfully, val size error.");
        return XEL_FAIL;
    }
    const u32 type = ReadAttrValue<u32>(value);
    if (type >= kTaskTypeCount) {
        XEL_LOG_FAIL(kTaskLog, "scheduler set type unsuccessfully, type invalid.");
        return XEL_EINVAL;
    }
    attr->type = type;
    return XEL_OK;
}

u32 SchTaskAttrSetPrio(XelTaskAttr* attr, const void* value, size_t size)
{
    if (size != sizeof(u32)) {
        XEL_LOG_FAIL(kTaskLog, "scheduler set priority unsuccessfully, val size error.");
        return XEL_EINVAL;
    }
    const u32 prio = ReadAttrValue<u32>(value);
    if (prio > kPrioSettableMax) {
        return XEL_EINVAL;
    }
    attr->prio = prio;
    return XEL_OK;
}

u32 SchTaskAttrSetName(XelTaskAttr* attr, const void* value, size_t size)
{
    const NameCheck check = CheckName(value, size);
    if (check.fit == NameFit::SizeTooLarge) {
        XEL_LOG_FAIL(kTaskLog,
                     "Scheduler task set attribute unsuccessfully, invalid attrValSize, "
                     "attrSize:%zu.",
                     size);
        return XEL_FAIL;
    }
    if (check.fit == NameFit::Empty) {
        (void)memset_s(attr->name, sizeof(attr->name), 0, sizeof(attr->name));
        return XEL_OK;
    }
    const auto* name = static_cast<const char*>(value);
    if (check.fit == NameFit::Mismatch) {
        // The value may lack a terminator: a bounded copy is printed.
        char shown[XEL_NAME_SIZE + 1] = {};
        (void)memcpy_s(shown, sizeof(shown), name, check.length);
        XEL_LOG_FAIL(kTaskLog,
                     "Scheduler task set attribute unsuccessfully, invalid parameters. (name:%*s) "
                     "len:%u, attrLen:%u.",
                     static_cast<int>(XEL_NAME_SIZE), shown, static_cast<u32>(check.length),
                     static_cast<u32>(size));
        return XEL_FAIL;
    }
    // Copied aside first: a failed copy leaves the name as it was.
    char copy[XEL_NAME_SIZE] = {};
    if (strcpy_s(copy, sizeof(copy), name) != 0) {
        XEL_LOG_FAIL(kTaskLog, "Scheduler set name unsuccessfully, copy name unsuccessfully.");
        return XEL_FAIL;
    }
    memcpy(attr->name, copy, sizeof(copy));
    return XEL_OK;
}

u32 SchTaskAttrSetFdType(XelTaskAttr* attr, const void* value, size_t size)
{
    if (size != sizeof(u32)) {
        XEL_LOG_FAIL(kTaskLog, "Scheduler set fd type unsuccessfully, value size invalid.");
        return XEL_FAIL;
    }
    attr->fdType = ReadAttrValue<u32>(value);
    return XEL_OK;
}

bool SchIsTaskParamValid(const XelTaskAttr* attr)
{
    if (attr->magic != kTaskAttrMagic) {
        XEL_LOG_FAIL(kTaskLog,
                     "scheduler create task unsuccessfully, magic is damaged, magic = %#x.",
                     attr->magic);
        return false;
    }
    if (attr->proc == nullptr) {
        XEL_LOG_FAIL(kTaskLog, "scheduler task param proc null.");
        return false;
    }
    if (attr->type >= kTaskTypeCount) {
        XEL_LOG_FAIL(kTaskLog, "scheduler task param type invalid.");
        return false;
    }
    if (attr->fdType >= kTaskFdTypeCount) {
        XEL_LOG_FAIL(kTaskLog, "scheduler task param fdType invalid.");
        return false;
    }
    if (attr->prio >= kTaskPrioCount) {
        XEL_LOG_FAIL(kTaskLog, "scheduler task param priority invalid.");
        return false;
    }
    return true;
}
