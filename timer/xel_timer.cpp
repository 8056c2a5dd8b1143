// Timers: creation, arming, expiry and end. A timer owns its timerfd and its task. Any thread may
// call; the callback and the teardown that follows it run on the timer's scheduler thread. Handle
// checks are made under the read side of the timer lock, and the handle stays good while it is
// held.
#include "timer/xel_timer_inner.h"

#include <cerrno>
#include <cstring>
#include <sys/timerfd.h>
#include <unistd.h>

#include "common/xel_memory.h"
#include "scheduler/xel_sch_dbg_inner.h"
#include "thread/xel_sch_task_settings.h"
#include "timer/xel_timer_type.h"
#include "xel_clock.h"

namespace
{

constexpr u32 kTimerTaskType = XEL_TASK_TYPE_PRIO;
constexpr u32 kTimerTaskPrio = 0;
constexpr u32 kDestroyDelayMs = 1; // from XEL_TimerDestroy to the teardown on the timer's thread
constexpr u64 kLongestProcMs = 399;
constexpr u32 kMsPerSecond = 1000;
constexpr long kNsPerMs = 1000000;

u64 NowMs()
{
    u64 now = 0;
    (void)SystimeGetMilliSec(&now);
    return now;
}

// The check that every public operation begins with; the caller holds the read side.
bool IsUsable(const XelTimerNode* node)
{
    if (!TimerHandleIsAvailable(node)) {
        XEL_LOG_FAIL(kTimerLog, "Timer handle invalid.");
        return false;
    }
    return true;
}

// After an arming. An end that another thread asked for between the caller's check and the arming
// wins: its short delay is armed again. Pairs with the store in XEL_TimerDestroy, which comes
// before that delay is armed. Leaves errno alone.
void LetEndWin(XelTimerNode* node)
{
    const int error = errno;
    if (TimerIsEnding(node)) {
        (void)TimerSetStartTime(node, kDestroyDelayMs);
    }
    errno = error;
}

// Arms the node's period. One that another thread stores meanwhile is armed too, for that thread
// may have armed it already: whoever arms last has seen the period that stays.
i32 ArmPeriod(XelTimerNode* node)
{
    u32 armed = 0;
    i32 ret = 0;
    do {
        armed = node->timeout.load(std::memory_order_acquire);
        ret = TimerSetStartTime(node, armed);
    } while (ret == 0 && node->timeout.load(std::memory_order_acquire) != armed);
    LetEndWin(node);
    return ret;
}

i32 Disarm(XelTimerNode* node)
{
    const i32 ret = TimerSetStartTime(node, 0);
    LetEndWin(node);
    return ret;
}

enum class Expiry { Run, Nothing, Failed };

Expiry ExpiryOf(i32 fd, const TimerExpiry& expiry)
{
    if (expiry.length == static_cast<ssize_t>(sizeof(expiry.count))) {
        return Expiry::Run;
    }
    if (expiry.error == EAGAIN || expiry.error == EINTR) {
        return Expiry::Nothing;
    }
    XEL_LOG_FAIL(kTimerLog, "Timerfd %d read unsuccessfully. (errno = %d, readCnt = %d)", fd,
                 expiry.error, static_cast<int>(expiry.length));
    return Expiry::Failed;
}

// Runs the user callback, timed.
u32 RunTimed(XelTimerNode* node, const TimerCall& timer, u64 expirations)
{
    const u64 start = NowMs();
    const u32 ret = timer.callback(node, expirations, timer.userData);
    const u64 elapsed = NowMs() - start;
    if (elapsed > kLongestProcMs) {
        char funcName[kFuncNameSize];
        (void)memset_s(funcName, sizeof(funcName), 0, sizeof(funcName));
        (void)DbgGetFuncName(reinterpret_cast<const void*>(timer.callback), funcName,
                             sizeof(funcName));
        XEL_LOG(kTimerLog, XEL_LOG_WARN,
                "Timer proc timeout. (retUsr = %u, timerfd = %d, startTime = %lu,timeout = %lu, "
                "func = %s)",
                ret, timer.fd, start, elapsed, funcName);
    }
    return ret;
}

// Registers the node's descriptor on the thread's scheduler.
u32 AddToScheduler(XelThreadCtrl* thread, XelTimerNode* node, const char* name)
{
    XelTaskAttr* taskAttr = XEL_TaskCreateAttr();
    if (taskAttr == nullptr) {
        XEL_LOG_FAIL(kTimerLog, "Timer task attribute create unsuccessfully.");
        return XEL_FAIL;
    }
    u32 ret = TimerSetTaskAttr(taskAttr, node, name, strnlen(name, XEL_NAME_SIZE));
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kTimerLog, "Timer task attribute set unsuccessfully.");
    } else {
        SchEpollCtlReq request = {EPOLLIN, taskAttr};
        ret = XEL_ThreadCtrl(thread, XEL_THREAD_CTRL_ADD, node->fd, &request);
        if (ret != XEL_OK) {
            XEL_LOG_FAIL(kTimerLog, "Timer task add to scheduler unsuccessfully.");
        }
    }
    XEL_TaskDestroyAttr(taskAttr);
    return ret;
}

} // namespace

XelTimerNode* XEL_TimerCreate(XelThreadCtrl* thread, const XelTimerAttr* attr)
{
    if (!TimerIsInParamLegal(thread, attr)) {
        XEL_LOG_FAIL(kTimerLog, "Invalid parameters.");
        return nullptr;
    }
    XelTimerNode* node = TimerCreateNode(thread, attr);
    if (node == nullptr) {
        XEL_LOG_FAIL(kTimerLog, "Timer node create unsuccessfully.");
        return nullptr;
    }
    node->groupId = 0;
    node->typeId = 0;
    TimerAddNode(node);
    return node;
}

bool TimerIsInParamLegal(const XelThreadCtrl* thread, const XelTimerAttr* attr)
{
    return thread != nullptr && attr != nullptr && attr->callback != nullptr &&
           attr->mode < kTimerModeCount;
}

XelTimerNode* TimerCreateNode(XelThreadCtrl* thread, const XelTimerAttr* attr)
{
    const i32 fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    XelTimerNode* node = TimerSchTaskCreate(thread, attr, fd);
    if (node == nullptr) {
        close(fd);
        XEL_LOG_FAIL(kTimerLog,
                     "Timer create node unsuccessfully, create scheduler task unsuccessfully.");
    }
    return node;
}

XelTimerNode* TimerSchTaskCreate(XelThreadCtrl* thread, const XelTimerAttr* attr, i32 fd)
{
    XelTimerNode* node = TimerAllocNode();
    if (node == nullptr) {
        XEL_LOG_FAIL(kTimerLog, "Timer node memory malloc null.");
        return nullptr;
    }
    node->callback = attr->callback;
    node->userData = attr->userData;
    node->fd = fd;
    node->mode = attr->mode;
    node->timeout.store(attr->timeout, std::memory_order_relaxed);
    node->thread = thread;
    node->destructor = attr->destructor;
    node->destroyPending.store(0, std::memory_order_relaxed);
    LinkInit(&node->link);
    node->magic.store(kTimerMagic, std::memory_order_release);
    if (AddToScheduler(thread, node, attr->name) != XEL_OK) {
        {
            const TimerWriteGuard guard;
            node->fd = -1; // the caller's to close
            node->magic.store(0, std::memory_order_release);
        }
        TimerDiscardNode(node);
        return nullptr;
    }
    return node;
}

u32 TimerSetTaskAttr(XelTaskAttr* taskAttr, XelTimerNode* node, const char* name, size_t nameLength)
{
    const XelTaskUsrCb callback = {TimerFdEventProc, reinterpret_cast<u64>(node)};
    const TaskSettings settings = {callback, kTimerTaskType, kTimerTaskPrio, name, nameLength};
    const TaskSettingResult result = ApplyTaskSettings(taskAttr, settings);
    if (result.ret != XEL_OK) {
        XEL_LOG_FAIL(kTimerLog, "eventFd task attr set param unsuccessfully(ret = %u, cmd = %u).",
                     result.ret, result.cmd);
    }
    return result.ret;
}

// A value of 0 disarms.
i32 TimerSetStartTime(XelTimerNode* node, u32 timeoutMs)
{
    struct itimerspec spec = {};
    spec.it_value.tv_sec = timeoutMs / kMsPerSecond;
    spec.it_value.tv_nsec = static_cast<long>(timeoutMs % kMsPerSecond) * kNsPerMs;
    if (node->mode == XEL_TIMER_MODE_PERIODIC) {
        spec.it_interval = spec.it_value;
    }
    return timerfd_settime(node->fd, 0, &spec, nullptr);
}

uint32_t XEL_TimerStart(XelTimerNode* timer)
{
    const TimerReadGuard guard;
    if (!IsUsable(timer)) {
        return XEL_EINVAL;
    }
    if (ArmPeriod(timer) != 0) {
        XEL_LOG_FAIL(kTimerLog, "Timer start unsuccessfully. (fd = %d, errno = %d)", timer->fd,
                     errno);
        return XEL_FAIL;
    }
    return XEL_OK;
}

uint32_t XEL_TimerStop(XelTimerNode* timer)
{
    const TimerReadGuard guard;
    if (!IsUsable(timer)) {
        return XEL_EINVAL;
    }
    if (Disarm(timer) != 0) {
        XEL_LOG_FAIL(kTimerLog, "Timer stop unsuccessfully. (fd = %d, errno = %d)", timer->fd,
                     errno);
        return XEL_FAIL;
    }
    return XEL_OK;
}

// The new period is stored first, and stays stored when arming fails.
uint32_t XEL_TimerResize(XelTimerNode* timer, uint32_t timeoutMs)
{
    const TimerReadGuard guard;
    if (!IsUsable(timer)) {
        return XEL_EINVAL;
    }
    if (timer->mode != XEL_TIMER_MODE_PERIODIC) {
        XEL_LOG_FAIL(kTimerLog, "Timer not periodic mode, restart unsuccessfully.");
        return XEL_FAIL;
    }
    timer->timeout.store(timeoutMs, std::memory_order_release);
    if (ArmPeriod(timer) != 0) {
        XEL_LOG_FAIL(kTimerLog, "Timer resize unsuccessfully. (fd = %d, errno = %d)", timer->fd,
                     errno);
        return XEL_FAIL;
    }
    return XEL_OK;
}

uint32_t TimerGetTimerRemainTime(XelTimerNode* timer, uint32_t* remainMs)
{
    struct itimerspec spec = {};
    {
        const TimerReadGuard guard;
        if (!IsUsable(timer)) {
            return XEL_FAIL;
        }
        if (timer->mode != XEL_TIMER_MODE_PERIODIC) {
            XEL_LOG_FAIL(kTimerLog, "Timer not periodic mode, get remain time unsuccessfully.");
            return XEL_FAIL;
        }
        if (timerfd_gettime(timer->fd, &spec) != 0) {
            XEL_LOG_FAIL(kTimerLog, "Timer get remain time unsuccessfully. (fd = %d, errno = %d)",
                         timer->fd, errno);
            return XEL_FAIL;
        }
    }
    *remainMs =
        static_cast<u32>(spec.it_value.tv_sec * kMsPerSecond + spec.it_value.tv_nsec / kNsPerMs);
    return XEL_OK;
}

// The mark comes first: a start that still finds the handle usable may arm the short delay as the
// timer's period, and what expires then must find the mark.
void XEL_TimerDestroy(XelTimerNode* timer)
{
    const TimerReadGuard guard;
    if (!IsUsable(timer)) {
        return;
    }
    timer->destroyPending.store(kTimerPending, std::memory_order_seq_cst);
    timer->timeout.store(kDestroyDelayMs, std::memory_order_release);
    if (TimerSetStartTime(timer, kDestroyDelayMs) != 0) {
        XEL_LOG_FAIL(kTimerLog, "Timer reset destroy time unsuccessfully. (fd = %d, errno = %d)",
                     timer->fd, errno);
    }
}

// The task callback. The run keeps the node's memory until the teardown is over: by then another
// thread may have taken the timer, and its address must not be a new timer's yet. The mark is
// looked at after the expiration count has been read, which may be that of the end's short delay.
u32 TimerFdEventProc(struct epoll_event* events, u64 data)
{
    auto* node = reinterpret_cast<XelTimerNode*>(data);
    TimerRun run(node, events->events);
    if (run.Magic() != kTimerMagic) {
        XEL_LOG_FAIL(kTimerLog, "Timer proc unsuccessfully, magic:%#x.", run.Magic());
        return XEL_FAIL;
    }
    if (TimerIsEnding(node)) {
        InnerTimerDestroy(node);
        run.End();
        return XEL_OK;
    }
    if ((events->events & EPOLLIN) == 0) {
        return XEL_OK;
    }
    const TimerCall timer = run.Call();
    const Expiry expiry = ExpiryOf(timer.fd, run.Expiry());
    if (expiry != Expiry::Run) {
        return expiry == Expiry::Nothing ? XEL_OK : XEL_FAIL;
    }
    const u32 ret = RunTimed(node, timer, run.Expiry().count);
    if (timer.mode == XEL_TIMER_MODE_ONE_SHOT) {
        InnerTimerDestroy(node);
        run.End();
    }
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kTimerLog, "Timer proc unsuccessfully. (retUsr = %u, timerfd = %d)", ret,
                     timer.fd);
        return XEL_FAIL;
    }
    return XEL_OK;
}

// A timer whose task cannot be removed is out of the list, but neither closed nor freed.
void InnerTimerDestroy(XelTimerNode* node)
{
    u32 ret = TimerDelNode(node);
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kTimerLog, "Timer node delete unsuccessfully. (ret = %#x)", ret);
        return;
    }
    ret = XEL_ThreadCtrl(node->thread, XEL_THREAD_CTRL_DEL, node->fd, nullptr);
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kTimerLog, "Timer task delete unsuccessfully. (ret = %#x)", ret);
        return;
    }
    TimerReleaseUnlessRunning(node);
}

bool TimerDetachNode(XelTimerNode* node)
{
    const u32 ret = XEL_ThreadCtrl(node->thread, XEL_THREAD_CTRL_DEL, node->fd, nullptr);
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kTimerLog, "Timer task delete unsuccessfully. (ret = %#x, fd = %d)", ret,
                     node->fd);
        return false;
    }
    return true;
}

XelTimerNode* TimerInnerCreateAndStart(XelThreadCtrl* thread, const XelTimerUsrCb* callback,
                                       u32 mode, u32 timeoutMs, const char* name)
{
    XelTimerAttr* attr = XEL_TimerCreateAttr();
    if (attr == nullptr) {
        return nullptr;
    }
    XelTimerNode* node = nullptr;
    u32 ret = XelTimerSetAllAttr(attr, callback, &mode, &timeoutMs, name);
    if (ret == XEL_OK) {
        node = XEL_TimerCreate(thread, attr);
        ret = node == nullptr ? XEL_FAIL : XEL_TimerStart(node);
    }
    XEL_TimerDestroyAttr(attr);
    if (ret != XEL_OK && node != nullptr) {
        InnerTimerDestroy(node);
        node = nullptr;
    }
    return node;
}

XelTimerNode* XelTimerCreateOneShotAndStart(const XelTimerOneShotParam* param, const char* name)
{
    if (param == nullptr || name == nullptr) {
        return nullptr;
    }
    const XelTimerUsrCb callback = {param->proc, param->userData};
    return TimerInnerCreateAndStart(param->thread, &callback, XEL_TIMER_MODE_ONE_SHOT,
                                    param->timeoutMs, name);
}
