// Thread attributes: the object that describes a scheduler thread to be created. The caller's
// building thread owns it; nothing here locks.
#include "thread/xel_sch_thread_inner.h"

#include "common/xel_attr.h"
#include "common/xel_memory.h"

namespace
{

constexpr u32 kCmdMax = XEL_THREAD_ATTR_EPOLL_TYPE;
constexpr u32 kDefaultEpSize = 32;
constexpr XelDeadloopThreshold kDefaultDeadloop = {100, 100, 200, 300};
constexpr u32 kThresholdStep = 10;

// The commands are not contiguous, so the rows carry them.
struct ThreadAttrRow {
    u32 cmd;
    AttrSetter<XelThreadAttr> set;
};

ThreadAttrRow g_rows[] = {
    {XEL_THREAD_ATTR_NAME, ThreadAttrSetName},
    {XEL_THREAD_ATTR_EP_SIZE, ThreadAttrSetEpSize},
    {XEL_THREAD_ATTR_STACK_SIZE, ThreadAttrSetStackSize},
    {XEL_THREAD_ATTR_DEADLOOP_PARAM, ThreadAttrSetDeadloopParam},
    {XEL_THREAD_ATTR_SIMPLE_THRESHOLD, ThreadAttrSetSimpleThreshold},
    {XEL_THREAD_ATTR_SCHEDULE_POLICY, ThreadAttrSetSchedulePolicy},
    {XEL_THREAD_ATTR_EPOLL_TYPE, ThreadAttrSetEpollType},
};

const ThreadAttrRow* FindRow(u32 cmd)
{
    for (const ThreadAttrRow& row : g_rows) {
        if (row.cmd == cmd) {
            return &row;
        }
    }
    return nullptr;
}

} // namespace

XelThreadAttr* XEL_ThreadCreateAttr(void)
{
    auto* attr = XEL_ALLOC_RECORD(XelThreadAttr, kThreadLog);
    if (attr == nullptr) {
        return nullptr;
    }
    attr->epSize = kDefaultEpSize;
    attr->deadloop = kDefaultDeadloop;
    attr->epollType = XEL_EPOLL_TYPE_LINUX;
    attr->policy = XEL_SCH_POLICY_BFS;
    attr->magic = kThreadAttrMagic;
    return attr;
}

uint32_t XEL_ThreadSetAttr(XelThreadAttr* attr, int32_t cmd, const void* value, size_t size)
{
    const auto number = static_cast<u32>(cmd);
    u32 ret = SchCheckThreadAttrParam(attr, number, value, size);
    if (ret != XEL_OK) {
        return ret;
    }
    const ThreadAttrRow* row = FindRow(number);
    if (row == nullptr) {
        XEL_LOG_FAIL(kThreadLog, "Thread set attr param, invalid cmd. (cmd = %d)", cmd);
        return XEL_EINVAL;
    }
    ret = row->set(attr, value, size);
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kThreadLog, "Thread set attribute unsuccessfully. (cmd = %d)", cmd);
    }
    return ret;
}

// The magic is not cleared: the block belongs to the allocator from here on.
void XEL_ThreadDestroyAttr(XelThreadAttr* attr)
{
    if (attr == nullptr) {
        XEL_LOG_FAIL(kThreadLog, "Thread destroy attribute unsuccessfully, attribute is null.");
        return;
    }
    if (attr->magic != kThreadAttrMagic) {
        XEL_LOG_FAIL(kThreadLog,
                     "Thread destroy attribute unsuccessfully, magic is damaged, magic = 0x%x.",
                     attr->magic);
        return;
    }
    XEL_FREE(kThreadLog, attr);
}

u32 SchCheckThreadAttrParam(const XelThreadAttr* attr, u32 cmd, const void* value, size_t size)
{
    if (attr == nullptr) {
        XEL_LOG_FAIL(kThreadLog, "Thread param taskAttr is NULL.");
        return XEL_EINVAL;
    }
    if (attr->magic != kThreadAttrMagic) {
        XEL_LOG_FAIL(kThreadLog,
                     "Thread set attribute unsuccessfully, magic is damaged, magic = 0x%x.",
                     attr->magic);
        return XEL_FAIL;
    }
    if (cmd > kCmdMax) {
        XEL_LOG_FAIL(kThreadLog, "Thread set attribute unsuccessfully, cmd is invalid, cmd = %d.",
                     cmd);
        return XEL_EINVAL;
    }
    if (value == nullptr) {
        XEL_LOG_FAIL(kThreadLog, "Thread param is NULL.");
        return XEL_EINVAL;
    }
    if (size == 0) {
        XEL_LOG_FAIL(kThreadLog, "Thread param len is illegal.");
        return XEL_EINVAL;
    }
    return XEL_OK;
}

// Unlike the names of tasks and events, an empty one is refused: a thread must have a name.
u32 ThreadAttrSetName(XelThreadAttr* attr, const void* value, size_t size)
{
    const NameCheck check = CheckName(value, size);
    if (check.fit == NameFit::SizeTooLarge) {
        XEL_LOG_FAIL(kThreadLog, "Thread set name attribute, attribute length out of boundary.");
        return XEL_FAIL;
    }
    if (check.fit != NameFit::Fits) {
        XEL_LOG_FAIL(kThreadLog,
                     "Thread set name attribute, name length invalid. (strlen = %zu, "
                     "expectlen = %zu)",
                     check.length, size);
        return XEL_FAIL;
    }
    const auto* name = static_cast<const char*>(value);
    // Copied aside first: a failed copy leaves the name as it was.
    char copy[XEL_NAME_SIZE] = {};
    if (strcpy_s(copy, sizeof(copy), name) != 0) {
        XEL_LOG_FAIL(kThreadLog, "Thread set name attribute, name copy unsuccessfully. (name = %s)",
                     name);
        return XEL_FAIL;
    }
    memcpy(attr->name, copy, sizeof(copy));
    return XEL_OK;
}

u32 ThreadAttrSetEpSize(XelThreadAttr* attr, const void* value, size_t size)
{
    if (size != sizeof(i32)) {
        XEL_LOG_FAIL(kThreadLog,
                     "Thread set epoll size attribute, attribute length out of boundary.");
        return XEL_EINVAL;
    }
    const auto epSize = ReadAttrValue<i32>(value);
    if (epSize <= 0) {
        XEL_LOG_FAIL(kThreadLog, "Thread set epoll size attribute, size invalid. (epSize = %d)",
                     epSize);
        return XEL_FAIL;
    }
    attr->epSize = static_cast<u32>(epSize);
    return XEL_OK;
}

u32 ThreadAttrSetStackSize(XelThreadAttr* attr, const void* value, size_t size)
{
    if (size != sizeof(u32)) {
        XEL_LOG_FAIL(kThreadLog,
                     "Thread set stack size attribute, attribute length out of boundary.");
        return XEL_EINVAL;
    }
    attr->stackSize = ReadAttrValue<u32>(value);
    return XEL_OK;
}

u32 ThreadAttrSetDeadloopParam(XelThreadAttr* attr, const void* value, size_t size)
{
    if (size != sizeof(XelDeadloopThreshold)) {
        XEL_LOG_FAIL(kThreadLog,
                     "Thread set deadloop param attribute, attribute length out of boundary.");
        return XEL_EINVAL;
    }
    const auto threshold = ReadAttrValue<XelDeadloopThreshold>(value);
    if (XelDeadloopCheckThreshold(&threshold) != XEL_OK) {
        XEL_LOG_FAIL(kThreadLog,
                     "Thread set deadloop param attribute, deadloop threshold is invalid.");
        return XEL_EINVAL;
    }
    attr->deadloop = threshold;
    return XEL_OK;
}

// One number instead of four; it shares the texts of the four.
u32 ThreadAttrSetSimpleThreshold(XelThreadAttr* attr, const void* value, size_t size)
{
    if (size != sizeof(u32)) {
        XEL_LOG_FAIL(kThreadLog,
                     "Thread set deadloop param attribute, attribute length out of boundary.");
        return XEL_EINVAL;
    }
    const auto number = ReadAttrValue<u32>(value);
    if (number == 0 || number % kThresholdStep != 0) {
        XEL_LOG_FAIL(kThreadLog,
                     "Thread set deadloop param attribute, deadloop threshold is invalid.");
        return XEL_EINVAL;
    }
    // A number too large for the monitor leaves the thresholds as they are.
    XelDeadloopThreshold threshold = attr->deadloop;
    (void)XelDeadloopGetThreshold(&threshold, number);
    attr->deadloop = threshold;
    return XEL_OK;
}

u32 ThreadAttrSetSchedulePolicy(XelThreadAttr* attr, const void* value, size_t size)
{
    if (size != sizeof(u32)) {
        XEL_LOG_FAIL(kThreadLog,
                     "Thread set schedule policy attribute, attribute length is invalid. "
                     "(size = %zu)",
                     size);
        return XEL_EINVAL;
    }
    const auto policy = ReadAttrValue<u32>(value);
    if (policy >= kPolicyCount) {
        XEL_LOG_FAIL(kThreadLog,
                     "Thread set schedule policy attribute, policy type is invalid. "
                     "(policy type = %d)",
                     policy);
        return XEL_EINVAL;
    }
    attr->policy = policy;
    return XEL_OK;
}

u32 ThreadAttrSetEpollType(XelThreadAttr* attr, const void* value, size_t size)
{
    if (size != sizeof(u32)) {
        XEL_LOG_FAIL(kThreadLog,
                     "Thread set epoll type attribute, attribute length is invalid. (size = %zu)",
                     size);
        return XEL_EINVAL;
    }
    const auto type = ReadAttrValue<u32>(value);
    if (type >= kEpollTypeCount) {
        XEL_LOG_FAIL(kThreadLog,
                     "Thread set epoll type attribute, epoll type is out of boundary. "
                     "(epoll type = %d)",
                     type);
        return XEL_EINVAL;
    }
    if (type == XEL_EPOLL_TYPE_MESH) {
        XEL_LOG_FAIL(kThreadLog, "Thread set epoll type attribute, mesh type is not support.");
        return XEL_EINVAL;
    }
    attr->epollType = type;
    return XEL_OK;
}
