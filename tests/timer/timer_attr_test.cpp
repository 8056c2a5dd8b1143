// Timer attributes: the record, the five commands with their sizes, results and texts, and the
// order of the checks.
#include <cerrno>
#include <sys/mman.h>

#include "timer_support.h"

namespace
{

using namespace timertest;

// The line that follows each setter's own.
std::string NotSet(u32 ret, u32 cmd)
{
    return Text("Timer attr set unsuccessfully. (ret = %#x, cmd = %u)", ret, cmd);
}

class TimerAttrs : public TimerTest
{
protected:
    void SetUp() override
    {
        TimerTest::SetUp();
        attr_ = XEL_TimerCreateAttr();
        ASSERT_NE(attr_, nullptr);
    }
    void TearDown() override
    {
        XEL_TimerDestroyAttr(attr_);
        TimerTest::TearDown();
    }
    // A refusal through the public call; the setter alone answers with setterResult.
    void ExpectRefused(u32 cmd, const void* value, size_t size, const std::string& text,
                       u32 setterResult = 22)
    {
        EXPECT_EQ(XEL_TimerSetAttr(attr_, cmd, value, size), kFail);
        EXPECT_LOG(kTimerSource, text, NotSet(setterResult, cmd));
    }

    XelTimerAttr* attr_ = nullptr;
};

TEST_F(TimerAttrs, NewRecordIsZeroButForTheMagic)
{
    memset(attr_, 'x', sizeof(*attr_)); // the next record may take this block
    attr_->magic = 0xABCDEFAA;
    XEL_TimerDestroyAttr(attr_);
    attr_ = XEL_TimerCreateAttr();
    ASSERT_NE(attr_, nullptr);
    EXPECT_EQ(At<u32>(attr_, 0), 0xABCDEFAAU);
    for (size_t offset = 8; offset < 56; offset += 8) {
        EXPECT_EQ(At<u64>(attr_, offset), 0U) << offset;
    }
    EXPECT_EQ(XEL_TIMER_MODE_ONE_SHOT, 0);
}

TEST_F(TimerAttrs, FieldsStandAtTheirOffsets)
{
    EXPECT_EQ(offsetof(XelTimerAttr, magic), 0U);
    EXPECT_EQ(offsetof(XelTimerAttr, callback), 8U);
    EXPECT_EQ(offsetof(XelTimerAttr, userData), 16U);
    EXPECT_EQ(offsetof(XelTimerAttr, mode), 24U);
    EXPECT_EQ(offsetof(XelTimerAttr, timeout), 28U);
    EXPECT_EQ(offsetof(XelTimerAttr, name), 32U);
    EXPECT_EQ(offsetof(XelTimerAttr, destructor), 48U);
    EXPECT_EQ(sizeof(XelTimerAttr), 56U);
    EXPECT_EQ(offsetof(XelTimerUsrCb, proc), 0U);
    EXPECT_EQ(offsetof(XelTimerUsrCb, userData), 8U);
    EXPECT_EQ(sizeof(XelTimerUsrCb), 16U);
}

TEST_F(TimerAttrs, CreationWithoutMemoryIsNull)
{
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(XEL_TimerCreateAttr(), nullptr);
    EXPECT_LOG(kTimerSource, "Timer attr handle malloc null.");
}

TEST_F(TimerAttrs, DestroyRefusesNullAndADamagedMagic)
{
    XEL_TimerDestroyAttr(nullptr);
    EXPECT_LOG(kTimerSource, "Timer attr handle invalid.");
    attr_->magic = 0xABCDEFAB;
    const u64 frees = Calls(Call::XelMemFreeF);
    XEL_TimerDestroyAttr(attr_);
    EXPECT_LOG(kTimerSource, "Timer attr handle invalid.");
    EXPECT_EQ(Calls(Call::XelMemFreeF), frees);
    attr_->magic = 0xABCDEFAA;
}

TEST_F(TimerAttrs, DestroyClearsTheMagicFirst)
{
    XelTimerAttr* attr = XEL_TimerCreateAttr();
    u32 magic = 1;
    RunAtNth(Call::XelMemFreeF, 1, [&] { magic = attr->magic; });
    const AnyCaller any; // the free may be the last act of the call
    XEL_TimerDestroyAttr(attr);
    EXPECT_EQ(magic, 0U);
}

// Null, command and value are looked at before the size.
TEST_F(TimerAttrs, ParametersAreCheckedBeforeTheSetter)
{
    const u32 value = 0;
    EXPECT_EQ(XEL_TimerSetAttr(nullptr, 0, &value, 16), 22U);
    EXPECT_LOG(kTimerSource, "Timer attr param invalid.");
    for (const u32 cmd : {5U, 6U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(XEL_TimerSetAttr(attr_, cmd, &value, 4), 22U);
        EXPECT_LOG(kTimerSource, "Timer attr param invalid.");
    }
    for (u32 cmd = 0; cmd < 5; ++cmd) {
        EXPECT_EQ(XEL_TimerSetAttr(attr_, cmd, nullptr, 99), 22U);
        EXPECT_LOG(kTimerSource, "Timer attr param invalid.");
    }
}

TEST_F(TimerAttrs, MagicIsNotLookedAtBySetting)
{
    attr_->magic = 0;
    const u32 timeout = 77;
    EXPECT_EQ(XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_TIMEOUT, &timeout, 4), 0U);
    EXPECT_EQ(attr_->timeout, 77U);
    attr_->magic = 0xABCDEFAA;
    EXPECT_NO_LOG();
}

TEST_F(TimerAttrs, CallbackIsStored)
{
    int data = 0;
    const XelTimerUsrCb callback = {RunProbe, &data};
    EXPECT_EQ(XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_USR_CB, &callback, 16), 0U);
    EXPECT_EQ(At<XelTimerProc>(attr_, 8), RunProbe);
    EXPECT_EQ(At<void*>(attr_, 16), &data);
    EXPECT_NO_LOG();
}

// A wrong size comes before a null callback; neither changes anything.
TEST_F(TimerAttrs, CallbackOfAWrongSizeOrNullIsRefused)
{
    const XelTimerUsrCb kept = {RunProbe, this};
    ASSERT_EQ(XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_USR_CB, &kept, 16), 0U);
    const XelTimerUsrCb null[2] = {};
    for (const size_t size : {size_t{0}, size_t{8}, size_t{15}, size_t{17}}) {
        const std::string text = Text("Timer attr usr cb len invalid. (len = %zu)", size);
        ExpectRefused(0, null, size, text);
        EXPECT_EQ(TimerAttrSetCb(attr_, null, size), 22U);
        EXPECT_LOG(kTimerSource, text);
    }
    ExpectRefused(0, null, 16, "Timer attr usr cb null.");
    EXPECT_EQ(TimerAttrSetCb(attr_, null, 16), 22U);
    EXPECT_LOG(kTimerSource, "Timer attr usr cb null.");
    EXPECT_EQ(attr_->callback, RunProbe);
    EXPECT_EQ(attr_->userData, this);
}

TEST_F(TimerAttrs, ModeIsOneOfTwo)
{
    for (const u32 mode : {1U, 0U, 1U}) {
        EXPECT_EQ(XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_MODE, &mode, 4), 0U);
        EXPECT_EQ(At<u32>(attr_, 24), mode);
    }
    for (const u32 mode : {2U, 3U, 0xFFFFFFFFU}) {
        const std::string text =
            Text("Timer attr timer mode invalid. (mode = %d)", static_cast<i32>(mode));
        ExpectRefused(1, &mode, 4, text);
        EXPECT_EQ(TimerAttrSetMode(attr_, &mode, 4), 22U);
        EXPECT_LOG(kTimerSource, text);
    }
    const u32 bad[2] = {2, 2};
    for (const size_t size : {size_t{0}, size_t{3}, size_t{5}, size_t{8}}) {
        ExpectRefused(1, bad, size, Text("Timer attr timer mode len invalid. (len = %zu)", size));
    }
    EXPECT_EQ(attr_->mode, 1U);
}

TEST_F(TimerAttrs, AnyTimeoutIsAccepted)
{
    for (const u32 timeout : {5U, 0xFFFFFFFFU, 0U}) {
        EXPECT_EQ(XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_TIMEOUT, &timeout, 4), 0U);
        EXPECT_EQ(At<u32>(attr_, 28), timeout);
    }
    const u64 value = 9;
    for (const size_t size : {size_t{0}, size_t{3}, size_t{8}}) {
        const std::string text = Text("Timer attr timeout len invalid. (len = %zu)", size);
        ExpectRefused(2, &value, size, text);
        EXPECT_EQ(TimerAttrSetTimeout(attr_, &value, size), 22U);
        EXPECT_LOG(kTimerSource, text);
    }
    EXPECT_EQ(attr_->timeout, 0U);
}

// The value is the destructor itself.
TEST_F(TimerAttrs, DestructorIsTheValueItself)
{
    const void* value = reinterpret_cast<const void*>(ReleaseProbe);
    for (const size_t size : {size_t{0}, size_t{7}, size_t{9}, size_t{16}}) {
        ExpectRefused(4, value, size,
                      Text("Timer attr usr destructor len invalid. (len = %zu)", size));
    }
    EXPECT_EQ(attr_->destructor, nullptr);
    EXPECT_EQ(XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_DESTRUCTOR, value, 8), 0U);
    EXPECT_EQ(At<XelTimerDestructor>(attr_, 48), ReleaseProbe);
    EXPECT_EQ(TimerAttrSetDestructor(attr_, nullptr, 8), 22U);
    EXPECT_LOG(kTimerSource, "Timer attr usr destructor null.");
    EXPECT_EQ(TimerAttrSetDestructor(attr_, nullptr, 4), 22U);
    EXPECT_LOG(kTimerSource, "Timer attr usr destructor len invalid. (len = 4)");
    EXPECT_EQ(attr_->destructor, ReleaseProbe);
}

TEST_F(TimerAttrs, NameOfFifteenCharactersIsStored)
{
    EXPECT_EQ(XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_NAME, "fifteen-letters", 15), 0U);
    EXPECT_STREQ(reinterpret_cast<const char*>(attr_) + 32, "fifteen-letters");
    EXPECT_EQ(XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_NAME, "ab", 15), 0U);
    EXPECT_STREQ(attr_->name, "ab");
    EXPECT_EQ(XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_NAME, "abc", 3), 0U);
    EXPECT_STREQ(attr_->name, "abc");
    EXPECT_NO_LOG();
}

TEST_F(TimerAttrs, EmptyNameClearsTheField)
{
    for (const size_t size : {size_t{0}, size_t{1}, size_t{15}}) {
        memset(attr_->name, 'x', sizeof(attr_->name));
        EXPECT_EQ(XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_NAME, "", size), 0U);
        EXPECT_EQ(At<u64>(attr_, 32), 0U);
        EXPECT_EQ(At<u64>(attr_, 40), 0U);
    }
    EXPECT_NO_LOG();
}

// The size alone is looked at first, also of an empty name.
TEST_F(TimerAttrs, NameSizeAboveFifteenIsRefusedUnread)
{
    void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    ASSERT_EQ(XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_NAME, "kept", 4), 0U);
    for (const size_t size : {size_t{16}, size_t{17}, SIZE_MAX}) {
        const std::string text = Text("Timer attr name out of range. (name len = %zu)", size);
        ExpectRefused(3, page, size, text);
        ExpectRefused(3, "", size, text);
        EXPECT_EQ(TimerAttrSetName(attr_, page, size), 22U);
        EXPECT_LOG(kTimerSource, text);
    }
    EXPECT_EQ(munmap(page, 4096), 0);
    EXPECT_STREQ(attr_->name, "kept");
}

TEST_F(TimerAttrs, NameLongerThanItsSizeIsRefused)
{
    ASSERT_EQ(XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_NAME, "kept", 4), 0U);
    ExpectRefused(3, "abc", 2, "Timer attr name length too long, (name len = 3, len = 2).");
    ExpectRefused(3, "a", 0, "Timer attr name length too long, (name len = 1, len = 0).");
    EXPECT_STREQ(attr_->name, "kept");
}

// No more than sixteen bytes are read.
TEST_F(TimerAttrs, NameWithoutTerminatorIsRefused)
{
    auto* pages = static_cast<char*>(
        mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    ASSERT_EQ(mprotect(pages + 4096, 4096, PROT_NONE), 0);
    char* endless = pages + 4096 - 16;
    memset(endless, 'a', 16);
    const char text[] = "Timer attr name length too long, (name len = 16, len = 15).";
    ExpectRefused(3, endless, 15, text);
    EXPECT_EQ(TimerAttrSetName(attr_, endless, 15), 22U);
    EXPECT_LOG(kTimerSource, text);
    EXPECT_EQ(munmap(pages, 8192), 0);
    EXPECT_STREQ(attr_->name, "");
}

TEST_F(TimerAttrs, FailedNameCopyIsAFailureOfItsOwn)
{
    ASSERT_EQ(XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_NAME, "kept", 4), 0U);
    FailNth(Call::StrcpyS, 1);
    ExpectRefused(3, "name", 4, "Timer attr copy name unsuccessfully.", kFail);
    FailNth(Call::StrcpyS, 1);
    EXPECT_EQ(TimerAttrSetName(attr_, "name", 4), kFail);
    EXPECT_LOG(kTimerSource, "Timer attr copy name unsuccessfully.");
    EXPECT_STREQ(attr_->name, "kept");
}

class TimerSetAll : public TimerAttrs
{
protected:
    u32 SetAll(const char* name)
    {
        return XelTimerSetAllAttr(attr_, &callback_, &mode_, &timeout_, name);
    }

    XelTimerUsrCb callback_ = {RunProbe, this};
    u32 mode_ = XEL_TIMER_MODE_PERIODIC;
    u32 timeout_ = 40;
};

TEST_F(TimerSetAll, SetsFourFields)
{
    EXPECT_EQ(SetAll("fifteen-letters"), 0U);
    EXPECT_EQ(attr_->callback, RunProbe);
    EXPECT_EQ(attr_->userData, this);
    EXPECT_EQ(attr_->mode, 1U);
    EXPECT_EQ(attr_->timeout, 40U);
    EXPECT_STREQ(attr_->name, "fifteen-letters");
    EXPECT_EQ(attr_->destructor, nullptr);
    EXPECT_EQ(SetAll(""), 0U);
    EXPECT_STREQ(attr_->name, "");
    EXPECT_NO_LOG();
}

TEST_F(TimerSetAll, NameOfSixteenCharactersFails)
{
    EXPECT_EQ(SetAll("sixteen-letters!"), kFail);
    EXPECT_LOG(kTimerSource, "Timer attr name out of range. (name len = 16)", NotSet(22, 3));
    EXPECT_EQ(SetAll("a name of twenty-five xxx"), kFail);
    EXPECT_LOG(kTimerSource, "Timer attr name out of range. (name len = 25)", NotSet(22, 3));
    EXPECT_STREQ(attr_->name, "");
}

// What comes before the failure is set, what comes after it is not.
TEST_F(TimerSetAll, FirstFailureEndsTheRow)
{
    EXPECT_EQ(XelTimerSetAllAttr(nullptr, &callback_, &mode_, &timeout_, ""), 22U);
    EXPECT_LOG(kTimerSource, "Timer attr param invalid.");
    mode_ = 2;
    EXPECT_EQ(SetAll("sixteen-letters!"), kFail);
    EXPECT_LOG(kTimerSource, "Timer attr timer mode invalid. (mode = 2)", NotSet(22, 1));
    EXPECT_EQ(attr_->callback, RunProbe);
    EXPECT_EQ(attr_->timeout, 0U);
    callback_.proc = nullptr;
    EXPECT_EQ(SetAll("sixteen-letters!"), kFail);
    EXPECT_LOG(kTimerSource, "Timer attr usr cb null.", NotSet(22, 0));
    mode_ = 1;
    callback_.proc = RunProbe;
    EXPECT_EQ(XelTimerSetAllAttr(attr_, &callback_, &mode_, nullptr, "sixteen-letters!"), 22U);
    EXPECT_LOG(kTimerSource, "Timer attr param invalid.");
    EXPECT_EQ(attr_->mode, 1U);
    EXPECT_EQ(XelTimerSetAllAttr(attr_, nullptr, &mode_, &timeout_, ""), 22U);
    EXPECT_EQ(XelTimerSetAllAttr(attr_, &callback_, nullptr, &timeout_, ""), 22U);
    EXPECT_EQ(SetAll(nullptr), 22U);
    const char text[] = "Timer attr param invalid.";
    EXPECT_LOG(kTimerSource, text, text, text);
    EXPECT_EQ(attr_->timeout, 40U); // the name comes last
}

} // namespace
