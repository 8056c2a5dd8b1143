// Schedulers with a loop of one's own, destroyed while that loop waits, and scheduler threads that
// come and go.
#include "soak.h"

#include <cerrno>
#include <thread>

#include <sys/eventfd.h>
#include <unistd.h>

#include "scheduler/xel_scheduler_inner.h"
#include "xel_event.h"

namespace soak
{

namespace
{

constexpr u32 kFds = 12;
constexpr u32 kMaxSignals = 200;

// A descriptor with its task; a count written is as many runs.
struct Source {
    int fd;
    std::atomic<u64> runs;
    u64 signals;
};

// Set around the wait of the loop on this descriptor: inside it the loop holds its scheduler.
thread_local std::atomic<bool>* t_isWaiting = nullptr;

int WaitAndTell(int epFd, struct epoll_event* events, int maxEvents, int timeoutMs)
{
    if (timeoutMs != 0) {
        t_isWaiting->store(true);
    }
    const int ready = epoll_wait(epFd, events, maxEvents, timeoutMs);
    t_isWaiting->store(false);
    return ready;
}

u32 OnSource(struct epoll_event*, u64 data)
{
    auto* source = reinterpret_cast<Source*>(data);
    u64 one = 0;
    if (read(source->fd, &one, sizeof(one)) != sizeof(one)) {
        return 0; // a run for readiness that an earlier one had taken
    }
    source->runs.fetch_add(one);
    Of(Book::TaskSignals).out.fetch_add(one);
    return 0;
}

u32 Nothing(u64)
{
    return 0;
}

// The library's own operations for plain Linux epoll, or the ones that tell when the loop waits.
SchCtrl* CreateScheduler(Worker& worker, int epFd)
{
    const SchEpollOps ops = {WaitAndTell, SchLinuxEpollCtlAdapt, SchLinuxEpollGetErrNoAdapt,
                             nullptr};
    const bool hasPolicy = worker.random.Below(2) == 0;
    SchCtrl* sch = SCH_CreateSch(epFd, 1 + static_cast<i32>(worker.random.Below(32)), &ops,
                                 hasPolicy ? &g_schBfsPolicyOps : nullptr);
    SOAK_CHECK(sch != nullptr);
    return sch;
}

void AddSource(Worker& worker, SchCtrl* sch, Source& source)
{
    source.fd = eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC);
    SOAK_CHECK(source.fd >= 0);
    XelTaskAttr* attr = XEL_TaskCreateAttr();
    const XelTaskUsrCb callback = {OnSource, reinterpret_cast<u64>(&source)};
    const u32 type = worker.random.Below(4);
    const u32 prio = worker.random.Below(32);
    SOAK_CHECK(XEL_TaskSetAttr(attr, XEL_TASK_ATTR_USR_CB, &callback, sizeof(callback)) == XEL_OK);
    SOAK_CHECK(XEL_TaskSetAttr(attr, XEL_TASK_ATTR_TYPE, &type, sizeof(type)) == XEL_OK);
    SOAK_CHECK(XEL_TaskSetAttr(attr, XEL_TASK_ATTR_PRIO, &prio, sizeof(prio)) == XEL_OK);
    SchEpollCtlReq request = {EPOLLIN, attr};
    SOAK_CHECK(SCH_EpollCtrl(sch, XEL_SCH_EPOLL_ADD, source.fd, &request) == XEL_OK);
    SOAK_CHECK(SCH_EpollCtrl(sch, XEL_SCH_EPOLL_MOD, source.fd, &request) == XEL_OK);
    XEL_TaskDestroyAttr(attr);
}

void SignalSources(Worker& worker, Source (&sources)[kFds])
{
    const u32 count = worker.random.Below(kMaxSignals);
    for (u32 i = 0; i < count; ++i) {
        Source& source = sources[worker.random.Below(kFds)];
        source.signals += 1;
        Of(Book::TaskSignals).in.fetch_add(1);
        SOAK_CHECK(eventfd_write(source.fd, 1) == 0);
    }
    worker.operations.fetch_add(count);
}

void RemoveSource(SchCtrl* sch, Source& source)
{
    Await("the runs of a task", [&source] { return source.runs.load() == source.signals; });
    SOAK_CHECK(SCH_EpollCtrl(sch, XEL_SCH_EPOLL_DEL, source.fd, nullptr) == XEL_OK);
    close(source.fd);
}

} // namespace

// The loop looks whether it is over behind each cycle, and is destroyed inside one.
void SoakSchedulers(Worker& worker)
{
    const int epFd = epoll_create1(EPOLL_CLOEXEC);
    SOAK_CHECK(epFd >= 0);
    SchCtrl* sch = CreateScheduler(worker, epFd);
    std::atomic<bool> isWaiting = false;
    std::atomic<bool> isOver = false;
    std::thread loop([sch, &isWaiting, &isOver] {
        t_isWaiting = &isWaiting;
        while (!isOver.load()) {
            XEL_SchDispatch(sch);
        }
    });
    Source sources[kFds] = {};
    for (Source& source : sources) {
        AddSource(worker, sch, source);
    }
    SignalSources(worker, sources);
    for (Source& source : sources) {
        RemoveSource(sch, source);
    }
    Await("a waiting loop", [&isWaiting] { return isWaiting.load(); });
    isOver.store(true);
    XEL_SchDestroy(sch);
    loop.join();
    close(epFd);
    worker.operations.fetch_add(2 + 3 * kFds);
}

void SoakThreads(Worker& worker)
{
    XelThreadCtrl* thread = StartThread("soak", worker.random.Below(2));
    XelEventNode* event = XelEventInnerCreate(thread, Nothing, "soak", 0);
    SOAK_CHECK(event != nullptr);
    for (u32 i = 0; i < 8; ++i) {
        SOAK_CHECK(XEL_EventNotify(event) == XEL_OK);
    }
    u64 tid = 0;
    SOAK_CHECK(XEL_ThreadGetInfo(thread, XEL_THREAD_INFO_TID, &tid, sizeof(tid)) == XEL_OK);
    SOAK_CHECK(tid != 0);
    if (worker.random.Below(2) == 0) {
        RunOn(thread, [thread] { SOAK_CHECK(XEL_ThreadGetCtxHandle() == thread); });
    }
    XEL_EventDestroy(event);
    SOAK_CHECK(SchEventThreadDestory(thread) == XEL_OK);
    worker.operations.fetch_add(12);
}

} // namespace soak
