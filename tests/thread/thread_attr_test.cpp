// Thread attributes: defaults, every command with its sizes, ranges and texts, and the order of the
// checks.
#include <climits>
#include <sys/mman.h>
#include <unistd.h>

#include "thread_support.h"

namespace
{

using namespace threadtest;
using namespace xeltest;

constexpr char kSetFailed[] = "Thread set attribute unsuccessfully. (cmd = %d)";

class ThreadAttrs : public CleanProcess
{
protected:
    // Sets a value and demands result and lines, and that a refused one changes nothing.
    void ExpectRefused(i32 cmd, const void* value, size_t size, u32 result,
                       const std::string& reason)
    {
        const XelThreadAttr before = *attr_.Get();
        EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), cmd, value, size), result);
        EXPECT_LOG(kThreadSource, reason, Text(kSetFailed, cmd));
        EXPECT_EQ(memcmp(&before, attr_.Get(), sizeof(before)), 0);
    }
    void ExpectRefused(i32 cmd, u32 value, u32 result, const std::string& reason)
    {
        ExpectRefused(cmd, &value, sizeof(value), result, reason);
    }
    void ExpectTaken(i32 cmd, u32 value, size_t offset)
    {
        EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), cmd, &value, sizeof(value)), 0U);
        EXPECT_EQ(At<u32>(attr_.Get(), offset), value);
        EXPECT_NO_LOG();
    }
    // The second value would be refused as well, but the size is looked at first.
    void ExpectWrongSizes(i32 cmd, std::initializer_list<size_t> sizes, const char* reason)
    {
        const u32 valid[8] = {1, 1, 2, 3, 4, 5, 6, 7};
        const u32 invalid[8] = {};
        for (const size_t size : sizes) {
            ExpectRefused(cmd, valid, size, 22, Text("%s", reason));
            ExpectRefused(cmd, invalid, size, 22, Text("%s", reason));
        }
    }

    ThreadAttr attr_{nullptr};
};

// As above, for the lines that print the size.
std::string WithSize(const char* text, size_t size)
{
    return Text("%s (size = %zu)", text, size);
}

TEST_F(ThreadAttrs, NewRecordHasTheDefaults)
{
    const XelThreadAttr* attr = attr_.Get();
    EXPECT_EQ(At<u32>(attr, 0), 0xFBADBFFEU);
    for (size_t i = 0; i < 16; ++i) {
        EXPECT_EQ(At<char>(attr, 4 + i), '\0') << i;
    }
    EXPECT_EQ(At<u32>(attr, 20), 0U);
    EXPECT_EQ(At<u32>(attr, 24), 32U);
    EXPECT_EQ(At<u32>(attr, 28), 100U);
    EXPECT_EQ(At<u32>(attr, 32), 100U);
    EXPECT_EQ(At<u32>(attr, 36), 200U);
    EXPECT_EQ(At<u32>(attr, 40), 300U);
    EXPECT_EQ(At<u32>(attr, 44), 0U);
    EXPECT_EQ(At<u32>(attr, 48), 1U);
    EXPECT_EQ(sizeof(XelThreadAttr), 52U);
}

TEST_F(ThreadAttrs, FieldsStandAtTheirOffsets)
{
    EXPECT_EQ(offsetof(XelThreadAttr, magic), 0U);
    EXPECT_EQ(offsetof(XelThreadAttr, name), 4U);
    EXPECT_EQ(offsetof(XelThreadAttr, stackSize), 20U);
    EXPECT_EQ(offsetof(XelThreadAttr, epSize), 24U);
    EXPECT_EQ(offsetof(XelThreadAttr, deadloop), 28U);
    EXPECT_EQ(offsetof(XelThreadAttr, epollType), 44U);
    EXPECT_EQ(offsetof(XelThreadAttr, policy), 48U);
}

// A block that was used before carries nothing over.
TEST_F(ThreadAttrs, NewRecordIsCleared)
{
    LetBlockBeUsed(1, sizeof(XelThreadAttr));
    const ThreadAttr attr(nullptr);
    for (size_t i = 0; i < 16; ++i) {
        EXPECT_EQ(attr->name[i], '\0') << i;
    }
    EXPECT_EQ(attr->stackSize, 0U);
}

TEST_F(ThreadAttrs, CreationWithoutMemoryIsNullAndSilent)
{
    FailNth(Call::XelMemAllocF, 1);
    EXPECT_EQ(XEL_ThreadCreateAttr(), nullptr);
    EXPECT_NO_LOG();
}

TEST_F(ThreadAttrs, DestroyRefusesNullAndADamagedMagic)
{
    XEL_ThreadDestroyAttr(nullptr);
    EXPECT_LOG(kThreadSource, "Thread destroy attribute unsuccessfully, attribute is null.");
    const u64 frees = Calls(Call::XelMemFreeF);
    attr_->magic = 0xAB12;
    XEL_ThreadDestroyAttr(attr_.Get());
    EXPECT_LOG(kThreadSource,
               "Thread destroy attribute unsuccessfully, magic is damaged, magic = 0xab12.");
    EXPECT_EQ(Calls(Call::XelMemFreeF), frees);
    attr_->magic = 0xFBADBFFE;
}

TEST_F(ThreadAttrs, DestroyFreesWithoutClearingTheMagic)
{
    XelThreadAttr* attr = XEL_ThreadCreateAttr();
    u32 magic = 0;
    RunAtNth(Call::XelMemFreeF, 1, [&] { magic = attr->magic; });
    const AnyCaller any; // the free may be the last act of the call
    XEL_ThreadDestroyAttr(attr);
    EXPECT_EQ(magic, 0xFBADBFFEU);
    EXPECT_NO_LOG();
}

// Each call has every later fault as well, so that the first check in the order must answer.
TEST_F(ThreadAttrs, ChecksRunInTheirOrder)
{
    EXPECT_EQ(XEL_ThreadSetAttr(nullptr, 101, nullptr, 0), 22U);
    EXPECT_LOG(kThreadSource, "Thread param taskAttr is NULL.");
    attr_->magic = 0x77;
    EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), 101, nullptr, 0), kFail);
    EXPECT_LOG(kThreadSource,
               "Thread set attribute unsuccessfully, magic is damaged, magic = 0x77.");
    attr_->magic = 0xFBADBFFE;
    EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), 101, nullptr, 0), 22U);
    EXPECT_LOG(kThreadSource, "Thread set attribute unsuccessfully, cmd is invalid, cmd = 101.");
    EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), 6, nullptr, 0), 22U);
    EXPECT_LOG(kThreadSource, "Thread param is NULL.");
    EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), 6, "x", 0), 22U);
    EXPECT_LOG(kThreadSource, "Thread param len is illegal.");
    EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), 6, "x", 1), 22U);
    EXPECT_LOG(kThreadSource, "Thread set attr param, invalid cmd. (cmd = 6)");
}

TEST_F(ThreadAttrs, CheckAnswersAlone)
{
    EXPECT_EQ(SchCheckThreadAttrParam(nullptr, 0, "x", 1), 22U);
    EXPECT_LOG(kThreadSource, "Thread param taskAttr is NULL.");
    attr_->magic = 0;
    EXPECT_EQ(SchCheckThreadAttrParam(attr_.Get(), 0, "x", 1), kFail);
    EXPECT_LOG(kThreadSource, "Thread set attribute unsuccessfully, magic is damaged, "
                              "magic = 0x0.");
    attr_->magic = 0xFBADBFFE;
    EXPECT_EQ(SchCheckThreadAttrParam(attr_.Get(), 100, "x", 1), 0U);
    EXPECT_EQ(SchCheckThreadAttrParam(attr_.Get(), 6, "x", 1), 0U);
    EXPECT_NO_LOG();
}

TEST_F(ThreadAttrs, CommandsAreComparedUnsigned)
{
    for (const i32 cmd : {101, 1000, INT_MAX, -1, INT_MIN}) {
        EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), cmd, "x", 1), 22U);
        EXPECT_LOG(kThreadSource,
                   Text("Thread set attribute unsuccessfully, cmd is invalid, cmd = %d.", cmd));
    }
}

TEST_F(ThreadAttrs, UnknownCommandsWithinTheRangeFailTheSearch)
{
    for (i32 cmd = 6; cmd < 100; ++cmd) {
        EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), cmd, "abcd", 4), 22U);
        EXPECT_LOG(kThreadSource, Text("Thread set attr param, invalid cmd. (cmd = %d)", cmd));
    }
}

TEST_F(ThreadAttrs, SizeZeroIsRefusedForEveryCommand)
{
    const u32 value = 1;
    for (const i32 cmd : {0, 1, 2, 3, 4, 5, 100}) {
        EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), cmd, &value, 0), 22U);
        EXPECT_LOG(kThreadSource, "Thread param len is illegal.");
    }
}

TEST_F(ThreadAttrs, NameOfFifteenCharactersIsStoredWhole)
{
    EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), 0, "abcdefghijklmno", 15), 0U);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(attr_.Get()) + 4), "abcdefghijklmno");
    EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), 0, "x", 1), 0U);
    EXPECT_STREQ(attr_->name, "x");
    // A size above the length is fine while it is below 16.
    EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), 0, "abc", 15), 0U);
    EXPECT_STREQ(attr_->name, "abc");
    EXPECT_NO_LOG();
}

TEST_F(ThreadAttrs, NameSizeOfSixteenIsRefusedUnread)
{
    void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    for (const size_t size : {size_t{16}, size_t{17}, SIZE_MAX}) {
        ExpectRefused(0, page, size, kFail,
                      "Thread set name attribute, attribute length out of boundary.");
    }
    EXPECT_EQ(munmap(page, 4096), 0);
}

TEST_F(ThreadAttrs, EmptyNameIsRefused)
{
    ASSERT_EQ(XEL_ThreadSetAttr(attr_.Get(), 0, "kept", 4), 0U);
    for (const size_t size : {size_t{1}, size_t{15}}) {
        ExpectRefused(0, "", size, kFail,
                      Text("Thread set name attribute, name length invalid. (strlen = 0, "
                           "expectlen = %zu)",
                           size));
    }
    EXPECT_STREQ(attr_->name, "kept");
}

TEST_F(ThreadAttrs, NameSizeBelowTheLengthIsRefused)
{
    ExpectRefused(0, "abc", 2, kFail,
                  "Thread set name attribute, name length invalid. (strlen = 3, expectlen = 2)");
    // Without a terminator in 16 bytes: no more than those are read.
    auto* pages = static_cast<char*>(
        mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    ASSERT_EQ(mprotect(pages + 4096, 4096, PROT_NONE), 0);
    char* endless = pages + 4096 - 16;
    memset(endless, 'a', 16);
    ExpectRefused(0, endless, 15, kFail,
                  "Thread set name attribute, name length invalid. (strlen = 16, expectlen = 15)");
    EXPECT_EQ(munmap(pages, 8192), 0);
}

TEST_F(ThreadAttrs, FailedNameCopyKeepsTheOldName)
{
    ASSERT_EQ(XEL_ThreadSetAttr(attr_.Get(), 0, "old", 3), 0U);
    FailNth(Call::StrcpyS, 1);
    ExpectRefused(0, "new", 3, kFail,
                  "Thread set name attribute, name copy unsuccessfully. (name = new)");
    EXPECT_STREQ(attr_->name, "old");
}

TEST_F(ThreadAttrs, EpollSizeIsAboveZeroWithoutUpperBound)
{
    for (const u32 size : {1U, 4096U, 4097U, 0x7FFFFFFFU}) {
        ExpectTaken(XEL_THREAD_ATTR_EP_SIZE, size, 24);
    }
    for (const i32 size : {0, -1, INT_MIN}) {
        ExpectRefused(XEL_THREAD_ATTR_EP_SIZE, static_cast<u32>(size), kFail,
                      Text("Thread set epoll size attribute, size invalid. (epSize = %d)", size));
    }
    ExpectWrongSizes(XEL_THREAD_ATTR_EP_SIZE, {1, 3, 5, 8},
                     "Thread set epoll size attribute, attribute length out of boundary.");
}

TEST_F(ThreadAttrs, StackSizeTakesAnyValue)
{
    for (const u32 size : {1U, 65536U, 0xFFFFFFFFU, 0U}) {
        ExpectTaken(XEL_THREAD_ATTR_STACK_SIZE, size, 20);
    }
    ExpectWrongSizes(XEL_THREAD_ATTR_STACK_SIZE, {1, 3, 5, 8},
                     "Thread set stack size attribute, attribute length out of boundary.");
}

TEST_F(ThreadAttrs, DeadloopThresholdIsStoredWhole)
{
    const XelDeadloopThreshold threshold{5, 6, 7, 8};
    EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), XEL_THREAD_ATTR_DEADLOOP_PARAM, &threshold, 16), 0U);
    EXPECT_EQ(At<u32>(attr_.Get(), 28), 5U);
    EXPECT_EQ(At<u32>(attr_.Get(), 32), 6U);
    EXPECT_EQ(At<u32>(attr_.Get(), 36), 7U);
    EXPECT_EQ(At<u32>(attr_.Get(), 40), 8U);
    EXPECT_NO_LOG();
    ExpectWrongSizes(XEL_THREAD_ATTR_DEADLOOP_PARAM, {4, 15, 17, 32},
                     "Thread set deadloop param attribute, attribute length out of boundary.");
}

TEST_F(ThreadAttrs, DeadloopThresholdMustBeValid)
{
    const XelDeadloopThreshold invalid[] = {{0, 1, 2, 3}, {1, 0, 2, 3}, {1, 1, 0, 3}, {1, 1, 2, 0},
                                            {2, 1, 2, 3}, {1, 3, 2, 3}, {1, 1, 3, 2}};
    for (const XelDeadloopThreshold& threshold : invalid) {
        ExpectRefused(XEL_THREAD_ATTR_DEADLOOP_PARAM, &threshold, 16, 22,
                      "Thread set deadloop param attribute, deadloop threshold is invalid.");
    }
}

TEST_F(ThreadAttrs, SimpleThresholdReplacesAllFourWords)
{
    const u32 values[] = {20, 10, 100, 5000};
    for (const u32 value : values) {
        EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), XEL_THREAD_ATTR_SIMPLE_THRESHOLD, &value, 4), 0U);
        EXPECT_EQ(At<u32>(attr_.Get(), 28), value);
        EXPECT_EQ(At<u32>(attr_.Get(), 32), value);
        EXPECT_EQ(At<u32>(attr_.Get(), 36), 2 * value);
        EXPECT_EQ(At<u32>(attr_.Get(), 40), 3 * value);
    }
    EXPECT_NO_LOG();
}

TEST_F(ThreadAttrs, SimpleThresholdIsANonZeroMultipleOfTen)
{
    for (const u32 value : {0U, 1U, 5U, 9U, 11U, 15U, 101U, 0xFFFFFFFFU}) {
        ExpectRefused(XEL_THREAD_ATTR_SIMPLE_THRESHOLD, value, 22,
                      "Thread set deadloop param attribute, deadloop threshold is invalid.");
    }
    ExpectWrongSizes(XEL_THREAD_ATTR_SIMPLE_THRESHOLD, {1, 3, 5, 16},
                     "Thread set deadloop param attribute, attribute length out of boundary.");
}

// The monitor refuses it, and nobody looks at that result.
TEST_F(ThreadAttrs, SimpleThresholdTooLargeForTheMonitorIsTakenWithoutEffect)
{
    const u32 value = 4294967290U;
    const XelThreadAttr before = *attr_.Get();
    EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), XEL_THREAD_ATTR_SIMPLE_THRESHOLD, &value, 4), 0U);
    EXPECT_EQ(memcmp(&before, attr_.Get(), sizeof(before)), 0);
    EXPECT_NO_LOG();
}

TEST_F(ThreadAttrs, PolicyIsBelowTwo)
{
    ExpectTaken(XEL_THREAD_ATTR_SCHEDULE_POLICY, 0, 48);
    ExpectTaken(XEL_THREAD_ATTR_SCHEDULE_POLICY, 1, 48);
    for (const u32 policy : {2U, 3U, 0xFFFFFFFFU}) {
        ExpectRefused(XEL_THREAD_ATTR_SCHEDULE_POLICY, policy, 22,
                      Text("Thread set schedule policy attribute, policy type is invalid. "
                           "(policy type = %d)",
                           static_cast<i32>(policy)));
    }
    // The size is looked at before the value.
    for (const u64 wide : {u64{0}, u64{7}}) {
        for (const size_t size : {1U, 3U, 5U, 8U}) {
            ExpectRefused(
                XEL_THREAD_ATTR_SCHEDULE_POLICY, &wide, size, 22,
                WithSize("Thread set schedule policy attribute, attribute length is invalid.",
                         size));
        }
    }
}

TEST_F(ThreadAttrs, EpollTypeIsLinuxOrMox)
{
    ExpectTaken(XEL_THREAD_ATTR_EPOLL_TYPE, 2, 44);
    ExpectTaken(XEL_THREAD_ATTR_EPOLL_TYPE, 0, 44);
    ExpectRefused(XEL_THREAD_ATTR_EPOLL_TYPE, 1, 22,
                  "Thread set epoll type attribute, mesh type is not support.");
    for (const u32 type : {3U, 100U, 0xFFFFFFFFU}) {
        ExpectRefused(XEL_THREAD_ATTR_EPOLL_TYPE, type, 22,
                      Text("Thread set epoll type attribute, epoll type is out of boundary. "
                           "(epoll type = %d)",
                           static_cast<i32>(type)));
    }
    const u64 wide = 1;
    for (const size_t size : {1U, 3U, 5U, 8U}) {
        ExpectRefused(
            XEL_THREAD_ATTR_EPOLL_TYPE, &wide, size, 22,
            WithSize("Thread set epoll type attribute, attribute length is invalid.", size));
    }
}

// The setters alone: the same results, without the line of the caller.
TEST_F(ThreadAttrs, SettersAnswerAlone)
{
    const u32 one = 1;
    const u32 many = 999;
    EXPECT_EQ(ThreadAttrSetName(attr_.Get(), "n", 1), 0U);
    EXPECT_EQ(ThreadAttrSetEpSize(attr_.Get(), &one, 4), 0U);
    EXPECT_EQ(ThreadAttrSetStackSize(attr_.Get(), &many, 4), 0U);
    EXPECT_EQ(ThreadAttrSetSchedulePolicy(attr_.Get(), &one, 4), 0U);
    EXPECT_NO_LOG();
    EXPECT_EQ(ThreadAttrSetEpollType(attr_.Get(), &one, 4), 22U);
    EXPECT_LOG(kThreadSource, "Thread set epoll type attribute, mesh type is not support.");
    EXPECT_EQ(ThreadAttrSetSimpleThreshold(attr_.Get(), &many, 4), 22U);
    EXPECT_LOG(kThreadSource,
               "Thread set deadloop param attribute, deadloop threshold is invalid.");
    EXPECT_EQ(ThreadAttrSetDeadloopParam(attr_.Get(), &many, 4), 22U);
    EXPECT_LOG(kThreadSource,
               "Thread set deadloop param attribute, attribute length out of boundary.");
    EXPECT_EQ(attr_->stackSize, 999U);
}

// Values may stand at any address.
TEST_F(ThreadAttrs, ValuesNeedNoAlignment)
{
    char bytes[24] = {};
    const XelDeadloopThreshold threshold{1, 2, 3, 4};
    memcpy(bytes + 1, &threshold, sizeof(threshold));
    EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), XEL_THREAD_ATTR_DEADLOOP_PARAM, bytes + 1, 16), 0U);
    EXPECT_EQ(XEL_ThreadSetAttr(attr_.Get(), XEL_THREAD_ATTR_EP_SIZE, bytes + 5, 4), 0U);
    EXPECT_EQ(attr_->epSize, 2U);
    EXPECT_EQ(attr_->deadloop.deadTicks, 4U);
    EXPECT_NO_LOG();
}

} // namespace
