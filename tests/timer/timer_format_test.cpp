// Which format each log line of the timers is made from, to the letter.
#include <cerrno>

#include "support/format_notes.h"
#include "timer_group_support.h"

namespace
{

using namespace timertest;

constexpr char kNoTask[] =
    "Timer create node unsuccessfully, create scheduler task unsuccessfully.";
constexpr char kNoNode[] = "Timer node create unsuccessfully.";
constexpr char kNoGroup[] = "Timer group get unsuccessfully. (groupId = %u)";

// With a group, and with the thread held: no line comes from it.
class TimerFormat : public TimerOfType
{
protected:
    void SetUp() override
    {
        TimerOfType::SetUp();
        held_ = std::make_unique<HeldWorker>(*worker_);
    }
    void TearDown() override
    {
        held_.reset();
        TimerOfType::TearDown();
    }
    // What body logs is made from these formats; lines of what is below are left out.
    static void Expect(const std::vector<std::string>& formats, const std::function<void()>& body)
    {
        EXPECT_EQ(FormatsOf({kTimerSource}, body), formats);
    }
    XelTimerNode* Make(u32 mode = XEL_TIMER_MODE_PERIODIC)
    {
        return XEL_TimerCreate(worker_->Get(), TimerAttr(&own_, mode, kLongMs).Get());
    }

    std::unique_ptr<HeldWorker> held_;
};

TEST_F(TimerFormat, AttributeSettings)
{
    const TimerAttr attr(&own_);
    const XelTimerUsrCb noCallback = {};
    const u32 two = 2;
    const struct {
        u32 cmd;
        const void* value;
        size_t size;
        const char* format;
    } refusals[] = {
        {XEL_TIMER_ATTR_USR_CB, &noCallback, 3, "Timer attr usr cb len invalid. (len = %zu)"},
        {XEL_TIMER_ATTR_USR_CB, &noCallback, 16, "Timer attr usr cb null."},
        {XEL_TIMER_ATTR_MODE, &two, 3, "Timer attr timer mode len invalid. (len = %zu)"},
        {XEL_TIMER_ATTR_MODE, &two, 4, "Timer attr timer mode invalid. (mode = %d)"},
        {XEL_TIMER_ATTR_TIMEOUT, &two, 3, "Timer attr timeout len invalid. (len = %zu)"},
        {XEL_TIMER_ATTR_NAME, "name", 16, "Timer attr name out of range. (name len = %zu)"},
        {XEL_TIMER_ATTR_NAME, "name", 2,
         "Timer attr name length too long, (name len = %zu, len = %zu)."},
        {XEL_TIMER_ATTR_DESTRUCTOR, &two, 3, "Timer attr usr destructor len invalid. (len = %zu)"},
    };
    for (const auto& refusal : refusals) {
        Expect({refusal.format, "Timer attr set unsuccessfully. (ret = %#x, cmd = %d)"}, [&] {
            (void)XEL_TimerSetAttr(attr.Get(), refusal.cmd, refusal.value, refusal.size);
        });
    }
    Expect({"Timer attr usr destructor null."},
           [&] { (void)TimerAttrSetDestructor(attr.Get(), nullptr, 8); });
    Expect({"Timer attr param invalid."},
           [&] { (void)XEL_TimerSetAttr(attr.Get(), 5, &two, sizeof(two)); });
    Expect({"Timer attr handle invalid."}, [] { XEL_TimerDestroyAttr(nullptr); });
}

TEST_F(TimerFormat, FailingCreations)
{
    const struct {
        Call call;
        u64 nth;
        std::vector<std::string> formats;
    } failures[] = {
        {Call::TimerfdCreate, 1, {kNoNode}},
        {Call::XelMemAllocF, 1, {"Timer node memory malloc null.", kNoTask, kNoNode}},
        {Call::XelMemAllocF, 2, {"Timer task attribute create unsuccessfully.", kNoTask, kNoNode}},
        {Call::StrcpyS,
         1,
         {"eventFd task attr set param unsuccessfully(ret = %u, cmd = %u).",
          "Timer task attribute set unsuccessfully.", kNoTask, kNoNode}},
        {Call::EpollCtl, 1, {"Timer task add to scheduler unsuccessfully.", kNoTask, kNoNode}},
    };
    const TimerAttr attr(&own_);
    for (const auto& failure : failures) {
        Expect(failure.formats, [&] {
            FailNth(failure.call, failure.nth);
            EXPECT_EQ(XEL_TimerCreate(worker_->Get(), attr.Get()), nullptr);
        });
    }
    Expect({"Invalid parameters."}, [] { (void)XEL_TimerCreate(nullptr, nullptr); });
}

TEST_F(TimerFormat, FailingOperations)
{
    XelTimerNode* timer = Make();
    XelTimerNode* once = Make(XEL_TIMER_MODE_ONE_SHOT);
    u32 remain = 0;
    const std::pair<const char*, std::function<void()>> operations[] = {
        {"Timer start unsuccessfully. (fd = %d, errno = %d)", [&] { (void)XEL_TimerStart(timer); }},
        {"Timer stop unsuccessfully. (fd = %d, errno = %d)", [&] { (void)XEL_TimerStop(timer); }},
        {"Timer resize unsuccessfully. (fd = %d, errno = %d)",
         [&] { (void)XEL_TimerResize(timer, 5); }},
        {"Timer get remain time unsuccessfully. (fd = %d, errno = %d)",
         [&] { (void)TimerGetTimerRemainTime(timer, &remain); }},
        {"Timer not periodic mode, restart unsuccessfully.",
         [&] { (void)XEL_TimerResize(once, 5); }},
        {"Timer not periodic mode, get remain time unsuccessfully.",
         [&] { (void)TimerGetTimerRemainTime(once, &remain); }},
        {"Timer reset destroy time unsuccessfully. (fd = %d, errno = %d)",
         [&] { XEL_TimerDestroy(timer); }},
        {kInvalid, [&] { (void)XEL_TimerStart(timer); }},
    };
    for (const auto& [format, operation] : operations) {
        Expect({format}, [&run = operation] {
            FailNth(Call::TimerfdSettime, 1);
            FailNth(Call::TimerfdGettime, 1);
            run();
        });
    }
    InnerTimerDestroy(timer);
    InnerTimerDestroy(once);
    EXPECT_NO_LOG();
}

TEST_F(TimerFormat, Expiries)
{
    XelTimerNode* timer = Make();
    Expect({"Timer proc unsuccessfully, magic:%#x."}, [timer] {
        timer->magic.store(1);
        (void)Proc(timer);
        timer->magic.store(0xABCDEFAB);
    });
    Expect({"Timerfd %d read unsuccessfully. (errno = %d, readCnt = %d)"}, [timer] {
        FailNth(Call::Read, 1, -1, EIO);
        (void)Proc(timer);
    });
    own_.result.store(1);
    Expire(timer);
    Expect({"Timer proc timeout. (retUsr = %u, timerfd = %d, startTime = %lu,timeout = %lu, "
            "func = %s)",
            "Timer proc unsuccessfully. (retUsr = %u, timerfd = %d)"},
           [timer] {
               ScriptMilliSec({0, 400});
               (void)Proc(timer);
           });
    TakeOffThread(timer);
    Expect({"Timer task delete unsuccessfully. (ret = %#x)"},
           [timer] { InnerTimerDestroy(timer); });
    Expect({kInvalid, "Timer node delete unsuccessfully. (ret = %#x)"},
           [timer] { InnerTimerDestroy(timer); });
    PutOnThread(timer);
    TimerAddNode(timer);
    InnerTimerDestroy(timer);
}

TEST_F(TimerFormat, Groups)
{
    Expect({"Timer group create unsuccessfully, invalid parameter. (groupId = %u)"},
           [] { (void)XEL_TimerCreateGroup(0); });
    Expect({"Timer group already exist. (groupId = %u)"},
           [] { (void)XEL_TimerCreateGroup(kGroup); });
    Expect({"Timer group destroy unsuccessfully, invalid parameter."},
           [] { XEL_TimerDestroyGroup(0); });
    Expect({"Timer group already destroy. (groupId = %u)"}, [] { XEL_TimerDestroyGroup(9); });
    Expect({"Timer delete timer type unsuccessfully, invalid parameter. (id = %u, type = %u)"},
           [] { (void)XEL_TimerDelTimerType(0, 0); });
    Expect({"Timer delete timer type group get unsuccessfully. (groupId = %u)"},
           [] { (void)XEL_TimerDelTimerType(9, 1); });
    Expect({"Timer check param, invalid timer group id.",
            "Timer add type unsuccessfully, invalid parameter."},
           [] { (void)XEL_TimerAddTimerType(0, 0, nullptr, nullptr); });
    const TimerAttr attr(&typeData_);
    Expect({kNoGroup}, [&] { (void)XEL_TimerAddTimerType(9, kType, worker_->Get(), attr.Get()); });
    Expect({"Timer type node malloc unsuccessfully.",
            "Timer type find or add unsuccessfully. (groupId = %u, timerType = %u)"},
           [&] {
               FailNth(Call::XelMemAllocF, 1);
               (void)XEL_TimerAddTimerType(kGroup, kType, worker_->Get(), attr.Get());
           });
}

TEST_F(TimerFormat, TimersOfATypeAndTheTypeItself)
{
    ASSERT_EQ(AddType(&typeData_), 0U);
    Expect({"Timer type already exist. (groupId = %u, typeType = %u)"},
           [this] { (void)AddType(&own_); });
    own_.released.store(0); // the data offered
    Expect({"Timer create and start unsuccessfully, invalid parameter. (id = %u, type = %u)"},
           [] { (void)XEL_TimerCreateAndStart(0, 0, nullptr); });
    Expect({kNoGroup}, [] { (void)XEL_TimerCreateAndStart(9, kType, nullptr); });
    Expect({"Timer type get unsuccessfully. (groupId = %u, timerType = %u)"},
           [] { (void)XEL_TimerCreateAndStart(kGroup, 2, nullptr); });
    Expect({"Timer param get unsuccessfully. (errNo = %d)"},
           [] { (void)TimerGetParamByGroupAndType(kGroup, kType, nullptr, 1); });
    const int fd = NextFd();
    Expect({"Timer start unsuccessfully. (ret = %#x)"}, [] {
        FailNth(Call::TimerfdSettime, 1);
        (void)XEL_TimerCreateAndStart(kGroup, kType, nullptr);
    });
    (void)DelFd(worker_->Get(), fd); // its task stayed behind
    DropLog();
    XelTimerNode* timer = XEL_TimerCreateAndStart(kGroup, kType, nullptr);
    ASSERT_NE(timer, nullptr);
    TakeOffThread(timer);
    Expect({"Timer task delete unsuccessfully. (ret = %#x, fd = %d)"},
           [] { TimerDestroyTypeTimer(kGroup, kType); });
    PutOnThread(timer);
}

} // namespace
