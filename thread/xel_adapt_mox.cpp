// The adaptation to the alternative epoll implementation, a library that the process may or may not
// have. It owns the table of the library's five functions, loaded once under a mutex and read
// without it afterwards, and one buffer of event records per waiting thread, which only grows and
// lives as long as the process.
#include "thread/xel_adapt_mox.h"

#include <dlfcn.h>
#include <sys/epoll.h>

#include "common/xel_lock_guard.h"
#include "common/xel_memory.h"
#include "scheduler/xel_sch_task_inner.h"
#include "thread/xel_sch_thread_inner.h"

XelMoxEpollFunc g_xelMoxEpollFuncMap[kMoxFuncCount] = {
    {0, nullptr, "MOX_EpollCreate"}, {1, nullptr, "MOX_EpollCtl"},
    {2, nullptr, "MOX_EpollWait"},   {3, nullptr, "MOX_EpollErrorNoGet"},
    {4, nullptr, "MOX_EpollClose"},
};
XelMoxEpollCtl g_xelMoxEpollCtl = {g_xelMoxEpollFuncMap, PTHREAD_MUTEX_INITIALIZER};
u8 g_xelMoxEpollLoaded;
__thread XelMoxEventsInfo* g_xelMoxEventsInfo;

namespace
{

constexpr char kLibrary[] = "libtzkbase.so";

enum FuncRow : u32 { kCreate, kCtl, kWait, kErrorNoGet, kClose };

using CreateFunc = int (*)();
using CtlFunc = int (*)(int epFd, int op, int fd, XelMoxEpollEvent* event);
using WaitFunc = int (*)(int epFd, XelMoxEpollEvent* events, int maxEvents, int timeoutMs);
using ErrorNoGetFunc = int (*)();
using CloseFunc = int (*)(int fd);

// The operation numbers of this library and the other's own.
struct MoxOpPair {
    u32 op;
    int moxOp;
};
constexpr MoxOpPair kMoxOps[] = {
    {XEL_SCH_EPOLL_ADD, 0}, {XEL_SCH_EPOLL_MOD, 1}, {XEL_SCH_EPOLL_DEL, 2}};
constexpr u32 kMoxOpMax = XEL_SCH_EPOLL_DEL;

constexpr int kRefused = -1;

// A row resolved by the load that the caller's descriptor came from, or null before any load.
template <typename Func>
Func FuncOf(FuncRow row)
{
    return reinterpret_cast<Func>(g_xelMoxEpollCtl.map[row].function);
}

// Resolves all rows; those resolved before a failure keep their pointers, unused.
bool ResolveAll(void* library)
{
    for (XelMoxEpollFunc& row : g_xelMoxEpollFuncMap) {
        row.function = dlsym(library, row.symbol);
        if (row.function == nullptr) {
            XEL_LOG_FAIL(kMoxLog, "Adapt kirva mox epoll load symbol unsuccessfully. (error = %s)",
                         dlerror());
            return false;
        }
    }
    return true;
}

// Clears as much of the buffer as the next wait uses.
XelMoxEpollEvent* Cleared(XelMoxEpollEvent* buffer, i32 count)
{
    if (buffer != nullptr) {
        const size_t size = static_cast<size_t>(count) * sizeof(XelMoxEpollEvent);
        (void)memset_s(buffer, size, 0, size);
    }
    return buffer;
}

} // namespace

uint32_t THREAD_HookMoxEpollFunc(void)
{
    const MutexGuard guard(g_xelMoxEpollCtl.mutex);
    if (g_xelMoxEpollLoaded != 0) {
        return XEL_OK;
    }
    void* library = dlopen(kLibrary, RTLD_NOW | RTLD_GLOBAL);
    if (library == nullptr) {
        XEL_LOG_FAIL(kMoxLog, "Adapt kirva mox epoll load lib(%s) unsuccessfully. (error = %s)",
                     kLibrary, dlerror());
        return XEL_FAIL;
    }
    if (!ResolveAll(library)) {
        dlclose(library);
        return XEL_FAIL;
    }
    g_xelMoxEpollLoaded = 1;
    return XEL_OK;
}

u32 ThreadMoxEpollInit(u32 /*epSize*/, i32* epFd, SchEpollOps* ops)
{
    if (THREAD_HookMoxEpollFunc() != XEL_OK) {
        return XEL_FAIL;
    }
    const i32 fd = THREAD_MoxEpollCreateAdapt();
    if (fd < 0) {
        XEL_LOG_FAIL(kMoxLog, "Thread create ctrl, epoll create unsuccessfully. (errno = %d)",
                     THREAD_MoxEpollErrorNoGetAdapt());
        return XEL_FAIL;
    }
    *epFd = fd;
    ops->wait = THREAD_MoxEpollWaitAdapt;
    ops->ctl = THREAD_MoxEpollCtlAdapt;
    ops->getErrNo = THREAD_MoxEpollErrorNoGetAdapt;
    return XEL_OK;
}

int THREAD_MoxEpollCreateAdapt(void)
{
    auto* create = FuncOf<CreateFunc>(kCreate);
    return create == nullptr ? kRefused : create();
}

// The descriptor type comes from the task, for a delete as well: a descriptor whose task is gone
// cannot be taken out.
int THREAD_MoxEpollCtlAdapt(int epFd, uint32_t op, int fd, struct epoll_event* event)
{
    if (op > kMoxOpMax) {
        XEL_LOG_FAIL(kMoxLog, "Thread adapt mox epoll_ctl unsuccessfully, param op is invalid.");
        return kRefused;
    }
    const u32 fdType = SchTaskGetFdType(SchTaskGetHandleByAppFd(fd));
    if (fdType >= kTaskFdTypeCount) {
        XEL_LOG_FAIL(kMoxLog,
                     "Thread adapt mox epoll_ctl unsuccessfully, fd type is invalid. (fdType = %d)",
                     fdType);
        return kRefused;
    }
    auto* ctl = FuncOf<CtlFunc>(kCtl);
    if (ctl == nullptr) {
        return kRefused;
    }
    XelMoxEpollEvent record = {};
    if (event != nullptr) {
        record.events = event->events;
        record.fdType = static_cast<u8>(fdType);
        record.data = event->data.u64;
    }
    return ctl(epFd, kMoxOps[op].moxOp, fd, event == nullptr ? nullptr : &record);
}

// What comes beyond the request is not looked at: there is no room for it.
int THREAD_MoxEpollWaitAdapt(int epFd, struct epoll_event* events, int maxEvents, int timeoutMs)
{
    XelMoxEpollEvent* buffer = ThreadMoxEventsPrepare(maxEvents);
    if (buffer == nullptr) {
        XEL_LOG_FAIL(kMoxLog, "Thread adapt epoll wait, memory alloc unsuccessfully.");
        return kRefused;
    }
    auto* wait = FuncOf<WaitFunc>(kWait);
    const int answered = wait == nullptr ? kRefused : wait(epFd, buffer, maxEvents, timeoutMs);
    const int ready = answered > maxEvents ? maxEvents : answered;
    for (int i = 0; i < ready; ++i) {
        events[i].events = buffer[i].events;
        events[i].data.u64 = buffer[i].data;
    }
    return ready;
}

int THREAD_MoxEpollErrorNoGetAdapt(void)
{
    auto* errorNoGet = FuncOf<ErrorNoGetFunc>(kErrorNoGet);
    return errorNoGet == nullptr ? 0 : errorNoGet();
}

int THREAD_MoxEpollCloseAdapt(int fd)
{
    auto* closeFunc = FuncOf<CloseFunc>(kClose);
    return closeFunc == nullptr ? kRefused : closeFunc(fd);
}

// The capacity is stored before the buffer is known to exist: after a failed growth every count up
// to it is refused until a larger one is asked for.
XelMoxEpollEvent* ThreadMoxEventsPrepare(i32 count)
{
    if (count < 1) {
        return nullptr;
    }
    XelMoxEventsInfo* info = g_xelMoxEventsInfo;
    if (info == nullptr) {
        info = XEL_ALLOC_RECORD(XelMoxEventsInfo, kMoxLog);
        if (info == nullptr) {
            return nullptr;
        }
        g_xelMoxEventsInfo = info;
    } else if (info->capacity >= count) {
        return Cleared(info->buffer, count);
    } else if (info->buffer != nullptr) {
        XEL_FREE(kMoxLog, info->buffer);
    }
    info->buffer = ThreadMoxEpollEventsCreate(count);
    info->capacity = count;
    return Cleared(info->buffer, count);
}

XelMoxEpollEvent* ThreadMoxEpollEventsCreate(i32 count)
{
    const size_t size = static_cast<size_t>(count) * sizeof(XelMoxEpollEvent);
    auto* buffer = static_cast<XelMoxEpollEvent*>(XEL_ALLOC(kMoxLog, size));
    if (buffer == nullptr) {
        XEL_LOG_FAIL(kMoxLog, "Thread adadpt epoll events prepare, memory malloc unsuccessfully.");
    }
    return buffer;
}
