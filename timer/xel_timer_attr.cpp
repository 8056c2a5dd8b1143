// Timer attributes: the object that describes a timer to be created. The caller's building thread
// owns it; nothing here locks.
#include "timer/xel_timer_inner.h"

#include "common/xel_attr.h"
#include "common/xel_memory.h"

namespace
{

constexpr AttrRow<XelTimerAttr> kRows[] = {
    {TimerAttrSetCb, "timer callback"},           {TimerAttrSetMode, "timer mode"},
    {TimerAttrSetTimeout, "timer timeout"},       {TimerAttrSetName, "timer name"},
    {TimerAttrSetDestructor, "timer destructor"},
};
static_assert(XEL_TIMER_ATTR_USR_CB == 0 && XEL_TIMER_ATTR_DESTRUCTOR == 4,
              "rows follow the commands");

} // namespace

XelTimerAttr* XEL_TimerCreateAttr(void)
{
    auto* attr = XEL_ALLOC_RECORD(XelTimerAttr, kTimerLog);
    if (attr == nullptr) {
        XEL_LOG_FAIL(kTimerLog, "Timer attr handle malloc null.");
        return nullptr;
    }
    attr->magic = kTimerAttrMagic;
    return attr;
}

// The attribute's magic is not looked at; a setter's refusal becomes the general failure.
uint32_t XEL_TimerSetAttr(XelTimerAttr* attr, uint32_t cmd, const void* value, size_t size)
{
    if (attr == nullptr || cmd > XEL_TIMER_ATTR_DESTRUCTOR || value == nullptr) {
        XEL_LOG_FAIL(kTimerLog, "Timer attr param invalid.");
        return XEL_EINVAL;
    }
    const u32 ret = kRows[cmd].set(attr, value, size);
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kTimerLog, "Timer attr set unsuccessfully. (ret = %#x, cmd = %d)", ret, cmd);
        return XEL_FAIL;
    }
    return XEL_OK;
}

void XEL_TimerDestroyAttr(XelTimerAttr* attr)
{
    if (attr == nullptr || attr->magic != kTimerAttrMagic) {
        XEL_LOG_FAIL(kTimerLog, "Timer attr handle invalid.");
        return;
    }
    attr->magic = 0;
    XEL_FREE(kTimerLog, attr);
}

u32 TimerAttrSetCb(XelTimerAttr* attr, const void* value, size_t size)
{
    if (size != sizeof(XelTimerUsrCb)) {
        XEL_LOG_FAIL(kTimerLog, "Timer attr usr cb len invalid. (len = %zu)", size);
        return XEL_EINVAL;
    }
    const auto callback = ReadAttrValue<XelTimerUsrCb>(value);
    if (callback.proc == nullptr) {
        XEL_LOG_FAIL(kTimerLog, "Timer attr usr cb null.");
        return XEL_EINVAL;
    }
    attr->callback = callback.proc;
    attr->userData = callback.userData;
    return XEL_OK;
}

u32 TimerAttrSetMode(XelTimerAttr* attr, const void* value, size_t size)
{
    if (size != sizeof(u32)) {
        XEL_LOG_FAIL(kTimerLog, "Timer attr timer mode len invalid. (len = %zu)", size);
        return XEL_EINVAL;
    }
    const auto mode = ReadAttrValue<u32>(value);
    if (mode >= kTimerModeCount) {
        XEL_LOG_FAIL(kTimerLog, "Timer attr timer mode invalid. (mode = %d)", mode);
        return XEL_EINVAL;
    }
    attr->mode = mode;
    return XEL_OK;
}

u32 TimerAttrSetTimeout(XelTimerAttr* attr, const void* value, size_t size)
{
    if (size != sizeof(u32)) {
        XEL_LOG_FAIL(kTimerLog, "Timer attr timeout len invalid. (len = %zu)", size);
        return XEL_EINVAL;
    }
    attr->timeout = ReadAttrValue<u32>(value);
    return XEL_OK;
}

u32 TimerAttrSetName(XelTimerAttr* attr, const void* value, size_t size)
{
    const NameCheck check = CheckName(value, size);
    if (check.fit == NameFit::SizeTooLarge) {
        XEL_LOG_FAIL(kTimerLog, "Timer attr name out of range. (name len = %zu)", size);
        return XEL_EINVAL;
    }
    if (check.fit == NameFit::Empty) {
        (void)memset_s(attr->name, sizeof(attr->name), 0, sizeof(attr->name));
        return XEL_OK;
    }
    if (check.fit == NameFit::Mismatch) {
        XEL_LOG_FAIL(kTimerLog, "Timer attr name length too long, (name len = %zu, len = %zu).",
                     check.length, size);
        return XEL_EINVAL;
    }
    // Copied aside first: a failed copy leaves the name as it was.
    char copy[XEL_NAME_SIZE] = {};
    if (strcpy_s(copy, sizeof(copy), static_cast<const char*>(value)) != 0) {
        XEL_LOG_FAIL(kTimerLog, "Timer attr copy name unsuccessfully.");
        return XEL_FAIL;
    }
    memcpy(attr->name, copy, sizeof(copy));
    return XEL_OK;
}

// The value pointer is the destructor itself, unlike the callback's: callers depend on it.
u32 TimerAttrSetDestructor(XelTimerAttr* attr, const void* value, size_t size)
{
    if (size != sizeof(XelTimerDestructor)) {
        XEL_LOG_FAIL(kTimerLog, "Timer attr usr destructor len invalid. (len = %zu)", size);
        return XEL_EINVAL;
    }
    if (value == nullptr) {
        XEL_LOG_FAIL(kTimerLog, "Timer attr usr destructor null.");
        return XEL_EINVAL;
    }
    attr->destructor = reinterpret_cast<XelTimerDestructor>(reinterpret_cast<uintptr_t>(value));
    return XEL_OK;
}

uint32_t XelTimerSetAllAttr(XelTimerAttr* attr, const XelTimerUsrCb* callback, const uint32_t* mode,
                            const uint32_t* timeoutMs, const char* name)
{
    const struct {
        u32 cmd;
        const void* value;
        size_t size;
    } rows[] = {
        {XEL_TIMER_ATTR_USR_CB, callback, sizeof(*callback)},
        {XEL_TIMER_ATTR_MODE, mode, sizeof(*mode)},
        {XEL_TIMER_ATTR_TIMEOUT, timeoutMs, sizeof(*timeoutMs)},
        {XEL_TIMER_ATTR_NAME, name, name == nullptr ? 0 : strlen(name)},
    };
    for (const auto& row : rows) {
        const u32 ret = XEL_TimerSetAttr(attr, row.cmd, row.value, row.size);
        if (ret != XEL_OK) {
            return ret;
        }
    }
    return XEL_OK;
}
