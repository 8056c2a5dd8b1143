// Event attributes: the record, both commands with their sizes, results and texts, and the order of
// the checks.
#include <cerrno>
#include <sys/mman.h>

#include "event_support.h"

namespace
{

using namespace eventtest;

class EventAttrs : public CleanProcess
{
protected:
    u32 SetName(const void* name, size_t size)
    {
        return XEL_EventSetAttr(attr_.Get(), XEL_EVENT_ATTR_TASK_NAME, name, size);
    }

    EventAttr attr_{nullptr, 0, ""};
};

// A block that was used before carries nothing over.
TEST_F(EventAttrs, NewRecordIsEmpty)
{
    LetBlockBeUsed(1, sizeof(XelEventAttr));
    XelEventAttr* attr = XEL_EventCreateAttr();
    ASSERT_NE(attr, nullptr);
    EXPECT_EQ(At<u32>(attr, 0), 0x45886FDEU);
    EXPECT_EQ(At<void*>(attr, 8), nullptr);
    EXPECT_EQ(At<u64>(attr, 16), 0U);
    EXPECT_EQ(At<u64>(attr, 24), 0U);
    EXPECT_EQ(At<u64>(attr, 32), 0U);
    XEL_EventDestoryAttr(attr);
}

TEST_F(EventAttrs, FieldsStandAtTheirOffsets)
{
    EXPECT_EQ(offsetof(XelEventAttr, magic), 0U);
    EXPECT_EQ(offsetof(XelEventAttr, proc), 8U);
    EXPECT_EQ(offsetof(XelEventAttr, data), 16U);
    EXPECT_EQ(offsetof(XelEventAttr, name), 24U);
    EXPECT_EQ(sizeof(XelEventAttr), 40U);
    EXPECT_EQ(offsetof(XelEventUsrCb, proc), 0U);
    EXPECT_EQ(offsetof(XelEventUsrCb, data), 8U);
    EXPECT_EQ(sizeof(XelEventUsrCb), 16U);
}

TEST_F(EventAttrs, CreationWithoutMemoryIsNullAndSilent)
{
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(XEL_EventCreateAttr(), nullptr);
    EXPECT_NO_LOG();
}

TEST_F(EventAttrs, DestroyRefusesNullAndADamagedMagic)
{
    XEL_EventDestoryAttr(nullptr);
    EXPECT_LOG(kEventSource, "Event destroy attribute unsuccessfully, attribute is null.");
    attr_->magic = 0xCAFE;
    const u64 frees = Calls(Call::XelMemFreeF);
    XEL_EventDestoryAttr(attr_.Get());
    EXPECT_LOG(kEventSource,
               "Event destroy attribute unsuccessfully, magic is damaged, magic = 0xcafe.");
    EXPECT_EQ(Calls(Call::XelMemFreeF), frees);
    attr_->magic = 0x45886FDE;
}

TEST_F(EventAttrs, DestroyFreesWithoutClearingTheMagic)
{
    XelEventAttr* attr = XEL_EventCreateAttr();
    u32 magic = 0;
    RunAtNth(Call::XelMemFreeF, 1, [&] { magic = attr->magic; });
    const AnyCaller any; // the free may be the last act of the call
    XEL_EventDestoryAttr(attr);
    EXPECT_EQ(magic, 0x45886FDEU);
}

// Each call has every later fault as well. The caller sees 2 whatever the check answered.
TEST_F(EventAttrs, ChecksRunInTheirOrder)
{
    EXPECT_EQ(XEL_EventSetAttr(nullptr, 2, nullptr, 99), 2U);
    EXPECT_LOG(kEventSource, "Event param taskAttr is NULL");
    attr_->magic = 0x1234;
    EXPECT_EQ(XEL_EventSetAttr(attr_.Get(), 2, nullptr, 99), 2U);
    EXPECT_LOG(kEventSource,
               "Event set attribute unsuccessfully, magic is damaged, magic = 0x1234.");
    attr_->magic = 0x45886FDE;
    EXPECT_EQ(XEL_EventSetAttr(attr_.Get(), 2, nullptr, 99), 2U);
    EXPECT_LOG(kEventSource, "Event param cmd is illegal, cmd = 2.");
    EXPECT_EQ(XEL_EventSetAttr(attr_.Get(), 1, nullptr, 99), 2U);
    EXPECT_LOG(kEventSource, "Event param is NULL.");
    EXPECT_EQ(XEL_EventSetAttr(attr_.Get(), 1, "x", 99), 2U);
    EXPECT_NO_LOG();
}

TEST_F(EventAttrs, CheckAnswersAlone)
{
    EXPECT_EQ(EventCheckAttrParam(nullptr, 0, "x"), 22U);
    EXPECT_LOG(kEventSource, "Event param taskAttr is NULL");
    attr_->magic = 0;
    EXPECT_EQ(EventCheckAttrParam(attr_.Get(), 0, "x"), kFail);
    EXPECT_LOG(kEventSource, "Event set attribute unsuccessfully, magic is damaged, magic = 0x0.");
    attr_->magic = 0x45886FDE;
    for (const u32 cmd : {2U, 100U, kFail}) {
        EXPECT_EQ(EventCheckAttrParam(attr_.Get(), cmd, "x"), 22U);
        EXPECT_LOG(kEventSource,
                   Text("Event param cmd is illegal, cmd = %d.", static_cast<i32>(cmd)));
    }
    EXPECT_EQ(EventCheckAttrParam(attr_.Get(), 0, nullptr), 22U);
    EXPECT_LOG(kEventSource, "Event param is NULL.");
    EXPECT_EQ(EventCheckAttrParam(attr_.Get(), 0, "x"), 0U);
    EXPECT_EQ(EventCheckAttrParam(attr_.Get(), 1, "x"), 0U);
    EXPECT_NO_LOG();
}

TEST_F(EventAttrs, CallbackIsStored)
{
    const XelEventUsrCb callback{CountRun, 0x1122334455667788};
    EXPECT_EQ(XEL_EventSetAttr(attr_.Get(), XEL_EVENT_ATTR_PROC_INFO, &callback, 16), 0U);
    EXPECT_EQ(At<XelEventProc>(attr_.Get(), 8), CountRun);
    EXPECT_EQ(At<u64>(attr_.Get(), 16), 0x1122334455667788U);
}

TEST_F(EventAttrs, CallbackOfAWrongSizeOrNullIsRefusedSilently)
{
    const XelEventUsrCb good[2] = {{CountRun, 7}, {}};
    ASSERT_EQ(XEL_EventSetAttr(attr_.Get(), 0, good, 16), 0U);
    const XelEventUsrCb other[2] = {{React, 8}, {}};
    for (const size_t size : {size_t{0}, size_t{8}, size_t{15}, size_t{17}, size_t{32}}) {
        EXPECT_EQ(XEL_EventSetAttr(attr_.Get(), 0, other, size), 2U);
        EXPECT_EQ(EventAttrSetCb(attr_.Get(), other, size), 2U);
    }
    const XelEventUsrCb null{nullptr, 9};
    EXPECT_EQ(XEL_EventSetAttr(attr_.Get(), 0, &null, 16), 2U);
    EXPECT_EQ(EventAttrSetCb(attr_.Get(), &null, 16), 2U);
    EXPECT_EQ(attr_->proc, CountRun);
    EXPECT_EQ(attr_->data, 7U);
    EXPECT_NO_LOG();
}

TEST_F(EventAttrs, NameOfFifteenCharactersIsStored)
{
    EXPECT_EQ(SetName("abcdefghijklmno", 15), 0U);
    EXPECT_STREQ(reinterpret_cast<const char*>(attr_.Get()) + 24, "abcdefghijklmno");
    EXPECT_EQ(SetName("abc", 15), 0U);
    EXPECT_STREQ(attr_->name, "abc");
    EXPECT_EQ(SetName("ab", 2), 0U);
    EXPECT_STREQ(attr_->name, "ab");
    EXPECT_NO_LOG();
}

TEST_F(EventAttrs, NameSizeAboveFifteenIsRefusedUnreadAndSilently)
{
    void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    ASSERT_EQ(SetName("kept", 4), 0U);
    for (const size_t size : {size_t{16}, size_t{17}, SIZE_MAX}) {
        EXPECT_EQ(SetName(page, size), 2U);
    }
    EXPECT_EQ(munmap(page, 4096), 0);
    EXPECT_STREQ(attr_->name, "kept");
    EXPECT_NO_LOG();
}

TEST_F(EventAttrs, EmptyNameClearsTheField)
{
    for (const size_t size : {size_t{0}, size_t{1}, size_t{15}}) {
        ASSERT_EQ(SetName("abcdefghijklmno", 15), 0U);
        EXPECT_EQ(SetName("", size), 0U);
        EXPECT_EQ(At<u64>(attr_.Get(), 24), 0U);
        EXPECT_EQ(At<u64>(attr_.Get(), 32), 0U);
    }
    EXPECT_NO_LOG();
}

TEST_F(EventAttrs, NameSizeBelowTheLengthIsRefused)
{
    ASSERT_EQ(SetName("kept", 4), 0U);
    EXPECT_EQ(SetName("abc", 2), 2U);
    EXPECT_LOG(kEventSource, "Eventfd attr set unsuccessfully, name too long, lenVal:3, len:2.");
    EXPECT_EQ(SetName("a", 0), 2U);
    EXPECT_LOG(kEventSource, "Eventfd attr set unsuccessfully, name too long, lenVal:1, len:0.");
    // Without a terminator in 16 bytes: no more than those are read.
    auto* pages = static_cast<char*>(
        mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    ASSERT_EQ(mprotect(pages + 4096, 4096, PROT_NONE), 0);
    char* endless = pages + 4096 - 16;
    memset(endless, 'a', 16);
    EXPECT_EQ(SetName(endless, 15), 2U);
    EXPECT_LOG(kEventSource, "Eventfd attr set unsuccessfully, name too long, lenVal:16, len:15.");
    EXPECT_EQ(munmap(pages, 8192), 0);
    EXPECT_STREQ(attr_->name, "kept");
}

TEST_F(EventAttrs, FailedNameCopyIsRefused)
{
    ASSERT_EQ(SetName("kept", 4), 0U);
    FailNth(Call::StrncpyS, 1, ERANGE);
    EXPECT_EQ(SetName("new", 3), kFail);
    EXPECT_LOG(kEventSource, "Eventfd attr set name unsuccessfully(ret = 0x22).");
    EXPECT_STREQ(attr_->name, "kept");
}

} // namespace
