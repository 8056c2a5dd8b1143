// Events: creation, notification, the callback on the scheduler thread, destruction. An event owns
// its eventfd and its task. Notification takes no lock and trusts the magic alone; the callback
// takes one notification under the list lock and then works on a copy, so that the event may be
// destroyed meanwhile by any thread.
#include "event/xel_event_inner.h"

#include <cerrno>
#include <cstring>
#include <sys/eventfd.h>
#include <unistd.h>

#include "common/xel_memory.h"
#include "event/xel_event_list.h"
#include "scheduler/xel_sch_dbg_inner.h"
#include "thread/xel_sch_task_settings.h"
#include "thread/xel_sch_thread_inner.h"
#include "xel_clock.h"

namespace
{

constexpr u32 kEventType = XEL_TASK_TYPE_PRIO;
constexpr u32 kEventPrio = 1;
constexpr u64 kLongestProcMs = 399;

u64 NowMs()
{
    u64 now = 0;
    (void)SystimeGetMilliSec(&now);
    return now;
}

// Takes one notification. The list lock is held over copy and read: until it is released nobody
// closes the descriptor, so no other object that got its number can be read by mistake. An event of
// another scheduler thread has taken the memory of the one that this run is for.
u32 TakeNotification(XelEventNode* node, EventCopy* copy, bool* isCounted)
{
    *isCounted = false;
    (void)pthread_rwlock_rdlock(&g_xelEventList.lock);
    u32 ret = EventCopyListed(node, copy);
    if (ret == XEL_OK && !ThreadMayRunHere(copy->thread)) {
        XEL_LOG_FAIL(kEventLog, "Eventfd node invalid.");
        ret = XEL_FAIL;
    }
    int readResult = 0;
    int error = 0;
    if (ret == XEL_OK) {
        eventfd_t value = 0;
        readResult = eventfd_read(copy->fd, &value);
        error = errno;
        *isCounted = readResult == 0 && EventBeginRun(node);
    }
    (void)pthread_rwlock_unlock(&g_xelEventList.lock);
    if (readResult != 0) {
        XEL_LOG_FAIL(kEventLog, "Eventfd %d read unsuccessfully, name = %s, errno = %d.", copy->fd,
                     copy->name, error);
        ret = XEL_FAIL;
    }
    return ret;
}

// The end of an event but for its memory. False, logged, when there is no such event.
bool EndEvent(XelEventNode* event)
{
    if (event == nullptr) {
        XEL_LOG_FAIL(kEventLog, "Event destroy eventHandle NULL.");
        return false;
    }
    if (EventListDelNode(event) != XEL_OK) {
        XEL_LOG_FAIL(kEventLog, "Event destroy eventHandle is invalid.");
        return false;
    }
    const u32 ret = XEL_ThreadCtrl(event->thread, XEL_THREAD_CTRL_DEL, event->fd, nullptr);
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kEventLog, "Event delete from epoll unsuccessfully. (ret = %#x)", ret);
    }
    if (event->fd >= 0) {
        close(event->fd);
    }
    return true;
}

void ReportSlowProc(const EventCopy& event, u64 startMs, u64 elapsedMs)
{
    char funcName[kFuncNameSize];
    (void)memset_s(funcName, sizeof(funcName), 0, sizeof(funcName));
    (void)DbgGetFuncName(reinterpret_cast<const void*>(event.proc), funcName, sizeof(funcName));
    XEL_LOG(kEventLog, XEL_LOG_WARN,
            "Eventfd proc timeout.(name = %s, eventfd = %d, startTime = %lu,timeout = %lu,"
            "func = %s)",
            event.name, event.fd, startMs, elapsedMs, funcName);
}

} // namespace

XelEventNode* XEL_EventCreate(XelThreadCtrl* thread, const XelEventAttr* attr)
{
    if (EventCheckEventParam(thread, attr) != XEL_OK) {
        return nullptr;
    }
    const i32 fd = eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) {
        XEL_LOG_FAIL(kEventLog, "Event create fd unsuccessfully. (errno = %d)", errno);
        return nullptr;
    }
    XelEventNode* node = EventCreateEventNodeAndAddList(thread, fd, attr);
    if (node == nullptr) {
        XEL_LOG_FAIL(kEventLog, "Event create ctrl node unsuccessfully.");
        close(fd);
        return nullptr;
    }
    const u32 ret = EventAddToSchThread(thread, node);
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kEventLog, "Event fd add to epoll unsuccessfully. (ret = %#x)", ret);
        (void)EventDestroyEventNodeAndRmList(node);
        close(fd);
        return nullptr;
    }
    return node;
}

// The thread's own magic is checked later, by the thread operation.
u32 EventCheckEventParam(const XelThreadCtrl* thread, const XelEventAttr* attr)
{
    if (thread == nullptr) {
        XEL_LOG_FAIL(kEventLog, "Eventfd create handle null.");
        return XEL_EARG;
    }
    if (attr == nullptr) {
        XEL_LOG_FAIL(kEventLog, "Eventfd create attr null.");
        return XEL_EARG;
    }
    if (attr->magic != kEventAttrMagic) {
        XEL_LOG_FAIL(kEventLog, "Eventfd create maigic error.");
        return XEL_FAIL;
    }
    if (attr->proc == nullptr) {
        XEL_LOG_FAIL(kEventLog, "Eventfd create params invalid, user callback is null");
        return XEL_EARG;
    }
    return XEL_OK;
}

u32 EventAddToSchThread(XelThreadCtrl* thread, XelEventNode* node)
{
    XelTaskAttr* taskAttr = XEL_TaskCreateAttr();
    if (taskAttr == nullptr) {
        XEL_LOG_FAIL(kEventLog, "Event task attr create unsuccessfully.");
        return XEL_ENOMEM;
    }
    u32 ret = XEL_FAIL;
    if (EventSetTaskAttr(taskAttr, node) == XEL_OK) {
        SchEpollCtlReq request = {EPOLLIN, taskAttr};
        ret = XEL_ThreadCtrl(thread, XEL_THREAD_CTRL_ADD, node->fd, &request);
    }
    XEL_TaskDestroyAttr(taskAttr);
    return ret;
}

u32 EventSetTaskAttr(XelTaskAttr* taskAttr, XelEventNode* node)
{
    const XelTaskUsrCb callback = {SchEventProc, reinterpret_cast<u64>(node)};
    const TaskSettings settings = {callback, kEventType, kEventPrio, node->name,
                                   strlen(node->name)};
    const u32 ret = ApplyTaskSettings(taskAttr, settings).ret;
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kEventLog, "Eventfd task attr set param unsuccessfully. (ret = %#x)", ret);
    }
    return ret;
}

uint32_t XEL_EventNotify(XelEventNode* event)
{
    if (event == nullptr) {
        XEL_LOG_FAIL(kEventLog, "Eventfd write, eventHandle NULL.");
        return XEL_EARG;
    }
    const u32 magic = event->magic.load(std::memory_order_acquire);
    if (magic != kEventMagic) {
        XEL_LOG_FAIL(kEventLog, "Eventfd write eventHandle magic error. (magic = %#x)", magic);
        return XEL_EARG;
    }
    if (event->fd < 0) {
        return XEL_FAIL;
    }
    // Bounded by the signals that arrive.
    while (eventfd_write(event->fd, 1) != 0) {
        const int error = errno;
        if (error != EINTR) {
            XEL_LOG(kEventLog, XEL_LOG_WARN, "Eventfd write unsuccessfully. (errno = %d)", error);
            return XEL_FAIL;
        }
    }
    return XEL_OK;
}

u32 SchEventProc(struct epoll_event* events, u64 data)
{
    if ((events->events & EPOLLIN) == 0) {
        return XEL_FAIL;
    }
    auto* node = reinterpret_cast<XelEventNode*>(data);
    EventCopy event;
    bool isCounted = false;
    if (TakeNotification(node, &event, &isCounted) != XEL_OK) {
        return XEL_FAIL;
    }
    const u64 start = NowMs();
    const u32 ret = event.proc(event.data);
    if (ret != XEL_OK) {
        XEL_LOG_FAIL(kEventLog,
                     "Eventfd user callback unsuccessfully: name = %s, ret = %u, fd = %d.",
                     event.name, ret, event.fd);
    }
    const u64 elapsed = NowMs() - start;
    if (elapsed > kLongestProcMs) {
        ReportSlowProc(event, start, elapsed);
    }
    if (isCounted) {
        EventEndRun(node);
    }
    return ret;
}

u32 SchEventGetUserInfo(const XelEventNode* node, EventCopy* copy)
{
    (void)pthread_rwlock_rdlock(&g_xelEventList.lock);
    const u32 ret = EventCopyListed(node, copy);
    (void)pthread_rwlock_unlock(&g_xelEventList.lock);
    return ret;
}

void XEL_EventDestroy(XelEventNode* event)
{
    if (EndEvent(event)) {
        EventDestroyEventNode(event);
    }
}

void EventDestroyThen(XelEventNode* event, EventRelease release, void* data)
{
    if (EndEvent(event)) {
        EventReleaseNode(event, release, data);
    } else {
        release(data);
    }
}

XelEventNode* XelEventInnerCreate(XelThreadCtrl* thread, XelEventProc proc, const char* name,
                                  uint64_t data)
{
    XelEventAttr* attr = XEL_EventCreateAttr();
    if (attr == nullptr) {
        return nullptr;
    }
    const XelEventUsrCb callback = {proc, data};
    XelEventNode* event = nullptr;
    if (XEL_EventSetAttr(attr, XEL_EVENT_ATTR_PROC_INFO, &callback, sizeof(callback)) == XEL_OK &&
        XEL_EventSetAttr(attr, XEL_EVENT_ATTR_TASK_NAME, name, strlen(name)) == XEL_OK) {
        event = XEL_EventCreate(thread, attr);
    }
    XEL_EventDestoryAttr(attr);
    return event;
}
