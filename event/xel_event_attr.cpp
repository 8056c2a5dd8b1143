// Event attributes: the object that describes an event to be created. The caller's building thread
// owns it; nothing here locks.
#include "event/xel_event_inner.h"

#include "common/xel_attr.h"
#include "common/xel_memory.h"

namespace
{

AttrRow<XelEventAttr> g_rows[] = {
    {EventAttrSetCb, "set event proc info"},
    {EventAttrSetName, "set event task name"},
};
static_assert(XEL_EVENT_ATTR_PROC_INFO == 0 && XEL_EVENT_ATTR_TASK_NAME == 1);

} // namespace

XelEventAttr* XEL_EventCreateAttr(void)
{
    auto* attr = XEL_ALLOC_RECORD(XelEventAttr, kEventLog);
    if (attr != nullptr) {
        attr->magic = kEventAttrMagic;
    }
    return attr;
}

// Whatever the check found, the caller sees one code.
uint32_t XEL_EventSetAttr(XelEventAttr* attr, uint32_t cmd, const void* value, size_t size)
{
    if (EventCheckAttrParam(attr, cmd, value) != XEL_OK) {
        return XEL_EARG;
    }
    auto* set = g_rows[cmd].set;
    if (set == nullptr) {
        XEL_LOG_FAIL(kEventLog, "Event attr param set callback null, param type:%d.", cmd);
        return XEL_FAIL;
    }
    return set(attr, value, size);
}

// The magic is not cleared: the block belongs to the allocator from here on.
void XEL_EventDestoryAttr(XelEventAttr* attr)
{
    if (attr == nullptr) {
        XEL_LOG_FAIL(kEventLog, "Event destroy attribute unsuccessfully, attribute is null.");
        return;
    }
    if (attr->magic != kEventAttrMagic) {
        XEL_LOG_FAIL(kEventLog,
                     "Event destroy attribute unsuccessfully, magic is damaged, magic = 0x%x.",
                     attr->magic);
        return;
    }
    XEL_FREE(kEventLog, attr);
}

u32 EventCheckAttrParam(const XelEventAttr* attr, u32 cmd, const void* value)
{
    if (attr == nullptr) {
        XEL_LOG_FAIL(kEventLog, "Event param taskAttr is NULL");
        return XEL_EINVAL;
    }
    if (attr->magic != kEventAttrMagic) {
        XEL_LOG_FAIL(kEventLog,
                     "Event set attribute unsuccessfully, magic is damaged, magic = 0x%x.",
                     attr->magic);
        return XEL_FAIL;
    }
    if (cmd > XEL_EVENT_ATTR_TASK_NAME) {
        XEL_LOG_FAIL(kEventLog, "Event param cmd is illegal, cmd = %d.", cmd);
        return XEL_EINVAL;
    }
    if (value == nullptr) {
        XEL_LOG_FAIL(kEventLog, "Event param is NULL.");
        return XEL_EINVAL;
    }
    return XEL_OK;
}

u32 EventAttrSetCb(XelEventAttr* attr, const void* value, size_t size)
{
    if (size != sizeof(XelEventUsrCb)) {
        return XEL_EARG;
    }
    const auto callback = ReadAttrValue<XelEventUsrCb>(value);
    if (callback.proc == nullptr) {
        return XEL_EARG;
    }
    attr->proc = callback.proc;
    attr->data = callback.data;
    return XEL_OK;
}

u32 EventAttrSetName(XelEventAttr* attr, const void* value, size_t size)
{
    const NameCheck check = CheckName(value, size);
    if (check.fit == NameFit::SizeTooLarge) {
        return XEL_EARG;
    }
    if (check.fit == NameFit::Empty) {
        (void)memset_s(attr->name, sizeof(attr->name), 0, sizeof(attr->name));
        return XEL_OK;
    }
    if (check.fit == NameFit::Mismatch) {
        XEL_LOG_FAIL(kEventLog,
                     "Eventfd attr set unsuccessfully, name too long, lenVal:%zu, len:%zu.",
                     check.length, size);
        return XEL_EARG;
    }
    // Copied aside first: a failed copy leaves the name as it was.
    char copy[XEL_NAME_SIZE] = {};
    const int ret = strncpy_s(copy, sizeof(copy), static_cast<const char*>(value), check.length);
    if (ret != 0) {
        XEL_LOG_FAIL(kEventLog, "Eventfd attr set name unsuccessfully(ret = %#x).",
                     static_cast<u32>(ret));
        return XEL_FAIL;
    }
    memcpy(attr->name, copy, sizeof(copy));
    return XEL_OK;
}
