// The scheduler registry and the life of a scheduler. It owns the table of all schedulers, its lock
// and each scheduler's event buffer and policy. Creation and destruction hold the registry lock for
// writing, lookup by descriptor for reading; a destroyer also takes the scheduler's lock for
// writing, after it has woken the dispatcher. Any thread may call; callbacks too, but for the
// destruction of their own scheduler.
#include "scheduler/xel_scheduler_inner.h"

#include <cassert>
#include <sched.h>
#include <unistd.h>

#include "common/xel_barrier.h"
#include "common/xel_lock_wait.h"
#include "common/xel_memory.h"
#include "scheduler/xel_sch_hold.h"
#include "scheduler/xel_sch_inner_event.h"
#include "scheduler/xel_sch_policy_bfs.h"
#include "scheduler/xel_sch_task_watch.h"

constinit SchRunCtrl g_xelSchRunCtrl = {};

const char g_xelSchOuterVer[] = "1.0";
const char g_xelSchInterSubVer[] = "B137";
const char g_xelSchMiniVer[] = "2.2.0";

namespace
{

constexpr u32 kSchUnits = 8;
constexpr i32 kWaitForEver = -1;
// A destroyer yields that often, then naps and wakes the dispatcher again: without a policy the
// first wake-ups may all be used up before the gate is closed.
constexpr u32 kYieldsBeforeNap = 256;
constexpr useconds_t kNapUs = 1000;

// The hook of the command debug facility; the first registration stays.
constinit std::atomic<u32 (*)(void)> g_cmdDbgInitHook = nullptr;

// Orders first-time initialisation; taken before every other lock.
pthread_mutex_t g_initMutex = PTHREAD_MUTEX_INITIALIZER;

u32 SchMagicOf(const SchCtrl* sch)
{
    return sch->magic.load(std::memory_order_acquire);
}

u32 CreateRegistry()
{
    g_xelSchRunCtrl.table = FtCtrlCreate(sizeof(SchCtrl), kSchUnits);
    if (g_xelSchRunCtrl.table == nullptr) {
        XEL_LOG_FAIL(kSchLog, "create sch table unsuccessfully, unit = %zu, number = %d.",
                     sizeof(SchCtrl), kSchUnits);
        return XEL_FAIL;
    }
    g_xelSchRunCtrl.created = 0;
    u32 ret = pthread_rwlock_init(&g_xelSchRunCtrl.lock, nullptr) < 0 ? XEL_FAIL : XEL_OK;
    auto* hook = g_cmdDbgInitHook.load(std::memory_order_acquire);
    if (ret == XEL_OK && hook != nullptr) {
        ret = hook();
        if (ret != XEL_OK) {
            XEL_LOG_FAIL(kSchLog, "Xel scheduler dfx init unsuccessfully. (ret = %#x)", ret);
        }
    }
    if (ret != XEL_OK) {
        (void)FtCtrlDestroy(g_xelSchRunCtrl.table);
    }
    return ret;
}

// The table can be used: a failed initialisation leaves its pointer behind.
bool HasRegistry()
{
    return g_xelSchRunCtrl.inited.load(std::memory_order_acquire) == 1 &&
           g_xelSchRunCtrl.table != nullptr;
}

// Clears a record for a new scheduler. Its lock is left as it is: the caller holds it, and threads
// with a stale handle may be waiting for it.
void ClearSchedulerRecord(SchCtrl* ctrl)
{
    ctrl->magic.store(0, std::memory_order_release);
    ctrl->state.store(0, std::memory_order_relaxed);
    ctrl->epFd.store(0, std::memory_order_relaxed);
    ctrl->epSize = 0;
    constexpr size_t kRest = sizeof(SchCtrl) - offsetof(SchCtrl, eventBuf);
    (void)memset_s(&ctrl->eventBuf, kRest, 0, kRest);
}

// Makes a scheduler out of a table entry. The entry may have served another scheduler whose users
// still come with the old handle, so its lock is taken (they leave at once), not overwritten.
u32 BuildScheduler(SchCtrl* ctrl, u32 epFd, u32 epSize, const SchEpollOps* epollOps,
                   const SchPolicyOps* policyOps)
{
    RwlockOpenFresh(&ctrl->lock);
    const WriteGuard guard(ctrl->lock);
    ClearSchedulerRecord(ctrl);
    g_xelSchRunCtrl.created += 1;
    return SchCtrlParamConstruct(ctrl, epFd, epSize, epollOps, policyOps);
}

// Checks of destruction, made without a lock at first.
bool IsDestroyable(const SchCtrl* sch)
{
    if (sch == nullptr) {
        XEL_LOG_FAIL(kSchLog, "Sch destroy, null handle.");
        return false;
    }
    const u32 magic = SchMagicOf(sch);
    if (magic != kSchMagic) {
        XEL_LOG_FAIL(kSchLog, "magic is damaged, magic = %#x.", magic);
        return false;
    }
    const u32 state = sch->state.load(std::memory_order_acquire);
    if ((state & kSchAlive) == 0) {
        XEL_LOG_FAIL(kSchLog, "handle has been destroyed already, state = %#x.", state);
        return false;
    }
    return true;
}

// Takes the scheduler's lock for writing: the dispatcher, woken, ends its cycle and stays out.
void LockOutDispatcher(SchCtrl* sch, SchTaskCtrl* inner)
{
    const WaitForCycle waiting(sch);
    u32 yields = 0;
    RwlockWriteLockWith(&sch->lock, [&yields, inner] {
        if (++yields <= kYieldsBeforeNap) {
            sched_yield();
            return;
        }
        usleep(kNapUs);
        InnerEventRepeat(inner);
    });
}

// The end of a destruction, under both locks. Another destroyer may have been faster: then only
// the own inner event is removed.
void FinishDestroy(SchCtrl* sch, i32 epFd, SchTaskCtrl* inner, const SchEpollOps& ops)
{
    SchInnerEventDestroy(epFd, inner, &ops);
    const u32 magic = SchMagicOf(sch);
    if (magic != kSchMagic) {
        XEL_LOG_FAIL(kSchLog, "magic is damaged, magic = %#x.", magic);
        return;
    }
    (void)SchCtrlDestroy(sch);
}

} // namespace

u32 SchInit(void)
{
    if (g_xelSchRunCtrl.inited.load(std::memory_order_acquire) == 1) {
        return XEL_OK;
    }
    const MutexGuard guard(g_initMutex);
    if (g_xelSchRunCtrl.inited.load(std::memory_order_relaxed) == 1) {
        return XEL_OK;
    }
    u32 ret = TaskInit();
    if (ret == XEL_OK) {
        ret = CreateRegistry();
    }
    if (ret != XEL_OK) {
        TaskFinal();
        return ret;
    }
    g_xelSchRunCtrl.inited.store(1, std::memory_order_release);
    return XEL_OK;
}

// The lock is not destroyed and the table pointer not cleared: inited alone tells.
u32 SchFinal(void)
{
    const MutexGuard guard(g_initMutex);
    if (g_xelSchRunCtrl.inited.load(std::memory_order_relaxed) == 0) {
        return XEL_OK;
    }
    TaskFinal();
    const u32 ret = FtCtrlDestroy(g_xelSchRunCtrl.table);
    g_xelSchRunCtrl.inited.store(0, std::memory_order_release);
    return ret;
}

void SCH_RegisterCmdDbgInitHook(uint32_t (*hook)(void))
{
    u32 (*none)(void) = nullptr;
    (void)g_cmdDbgInitHook.compare_exchange_strong(none, hook, std::memory_order_acq_rel);
}

SchCtrl* SCH_CreateSch(int32_t epFd, int32_t epSize, const SchEpollOps* epollOps,
                       const SchPolicyOps* policyOps)
{
    if (epFd < 0 || epSize <= 0 || epollOps == nullptr) {
        XEL_LOG_FAIL(kSchLog, "Sch create unsuccessfully, invalid epFd or epoll size.");
        return nullptr;
    }
    if (epSize > XEL_SCH_EPOLL_SIZE_MAX) {
        XEL_LOG_FAIL(kSchLog,
                     "Sch create unsuccessfully, epoll size is too large. (epoll size = %d)",
                     epSize);
        return nullptr;
    }
    if (SchInit() != XEL_OK) {
        XEL_LOG_FAIL(kSchLog, "Sch create unsuccessfully, scheduler init unsuccessfully.");
        return nullptr;
    }
    if (SchGetSchHandleByEpFd(static_cast<u32>(epFd)) != nullptr) {
        XEL_LOG_FAIL(kSchLog, "Sch epoll fd has already create scheduler. (epFd = %d)", epFd);
        return nullptr;
    }
    SchCtrl* sch =
        SchCtrlCreate(static_cast<u32>(epFd), static_cast<u32>(epSize), epollOps, policyOps);
    if (sch == nullptr) {
        XEL_LOG_FAIL(kSchLog,
                     "Sch create unsuccessfully, create ts handle unsuccessfully, epFd = %d, "
                     "epSize = %d.",
                     epFd, epSize);
    }
    return sch;
}

SchCtrl* XEL_SchCreate(uint32_t epFd, uint32_t epSize)
{
    const SchEpollOps epollOps = {epoll_wait, SchLinuxEpollCtlAdapt, SchLinuxEpollGetErrNoAdapt,
                                  nullptr};
    const SchPolicyOps policyOps = g_schBfsPolicyOps;
    return SCH_CreateSch(static_cast<i32>(epFd), static_cast<i32>(epSize), &epollOps, &policyOps);
}

SchCtrl* SchCtrlCreate(u32 epFd, u32 epSize, const SchEpollOps* epollOps,
                       const SchPolicyOps* policyOps)
{
    const RegistryLock registry(RegistryLock::Side::Write);
    if (registry.HasFailed()) {
        XEL_LOG_FAIL(kSchLog, "Sch ctrl create, write lock unsuccessfully. (ret = %d)",
                     registry.Result());
        return nullptr;
    }
    if (!HasRegistry()) {
        XEL_LOG_FAIL(kSchLog, "Sch ctrl create, scheduler table handle is null.");
        return nullptr;
    }
    auto* ctrl = static_cast<SchCtrl*>(FtEntryAlloc(g_xelSchRunCtrl.table));
    if (ctrl == nullptr) {
        XEL_LOG_FAIL(kSchLog, "Sch ctrl create, malloc control unsuccessfully.");
        return nullptr;
    }
    if (BuildScheduler(ctrl, epFd, epSize, epollOps, policyOps) != XEL_OK) {
        (void)FtEntryFree(ctrl);
        return nullptr;
    }
    return ctrl;
}

u32 SchCtrlParamConstruct(SchCtrl* ctrl, u32 epFd, u32 epSize, const SchEpollOps* epollOps,
                          const SchPolicyOps* policyOps)
{
    const size_t size = epSize * sizeof(struct epoll_event);
    auto* eventBuf = static_cast<struct epoll_event*>(XEL_ALLOC(kSchLog, size));
    if (eventBuf == nullptr) {
        XEL_LOG_FAIL(kSchLog, "Sch param init, malloc event buffer unsuccessfully. (size = %zu)",
                     size);
        return XEL_FAIL;
    }
    (void)memset_s(eventBuf, size, 0, size);
    if (policyOps != nullptr && SchCtrlPolicyInit(ctrl, policyOps, epSize) != XEL_OK) {
        XEL_FREE(kSchLog, eventBuf);
        return XEL_FAIL;
    }
    ctrl->epollOps = *epollOps;
    if (SchMaySetAside(ctrl)) {
        BfsAllowAside(ctrl->policy, static_cast<i32>(epFd));
    }
    SchCtrlInitParam(ctrl, epFd, epSize, eventBuf);
    return XEL_OK;
}

u32 SchCtrlPolicyInit(SchCtrl* ctrl, const SchPolicyOps* policyOps, u32 epSize)
{
    void* policy = policyOps->create == nullptr ? nullptr : policyOps->create(epSize);
    if (policy == nullptr) {
        XEL_LOG_FAIL(kSchLog,
                     "Sch policy init, create scheudle policy unsuccessfully, epoll size = %u.",
                     epSize);
        return XEL_FAIL;
    }
    ctrl->policyOps = *policyOps;
    ctrl->policy = policy;
    return XEL_OK;
}

// The magic comes last: whoever sees it sees a complete record. The lock of a record that was used
// before is open already, or held by the creator.
void SchCtrlInitParam(SchCtrl* ctrl, u32 epFd, u32 epSize, struct epoll_event* eventBuf)
{
    XelSpinlockInit(&ctrl->dispatchLock);
    RwlockOpenFresh(&ctrl->lock);
    ctrl->epFd.store(static_cast<i32>(epFd), std::memory_order_relaxed);
    ctrl->epSize = epSize;
    ctrl->eventBuf = eventBuf;
    ctrl->waitTimeout.store(kWaitForEver, std::memory_order_relaxed);
    ctrl->state.fetch_or(kSchAlive | kSchMayBlock, std::memory_order_relaxed);
    FullBarrier();
    ctrl->magic.store(kSchMagic, std::memory_order_release);
}

// Its own policy over plain Linux epoll; with any other operations registrations are left alone.
bool SchMaySetAside(const SchCtrl* sch)
{
    const SchPolicyOps& policy = sch->policyOps;
    return policy.create == SCH_BfsCreatePolicy && policy.destroy == SCH_BfsDestroyPolicy &&
           policy.prepare == SCH_BfsResPrepare && policy.insert == SCH_BfsInsertEvents &&
           policy.select == SCH_BfsSelectEvents && sch->epollOps.wait == epoll_wait &&
           sch->epollOps.ctl == SchLinuxEpollCtlAdapt;
}

u32 SchCtrlDestroy(SchCtrl* ctrl)
{
    if (SchMaySetAside(ctrl)) {
        TaskWatchEndAll(ctrl->epFd.load(std::memory_order_relaxed));
    }
    if (ctrl->policy != nullptr && ctrl->policyOps.destroy != nullptr) {
        ctrl->policyOps.destroy(ctrl->policy);
    }
    XEL_FREE(kSchLog, ctrl->eventBuf);
    FullBarrier();
    ctrl->magic.store(0, std::memory_order_release);
    ctrl->state.store(0, std::memory_order_release);
    ctrl->eventBuf = nullptr;
    return FtEntryFree(ctrl);
}

void XEL_SchDestroy(SchCtrl* sch)
{
    if (!IsDestroyable(sch)) {
        return;
    }
    assert(!SchCycle::IsInside(sch) && "a callback must not destroy its own scheduler");
    const i32 epFd = sch->epFd.load(std::memory_order_relaxed);
    const SchEpollOps ops = sch->epollOps;
    SchTaskCtrl* inner = SchInnerEventCreate(epFd, &ops);
    if (inner == nullptr) {
        XEL_LOG_FAIL(kSchLog, "Sch create inner event unsuccess.");
        return;
    }
    const RegistryLock registry(RegistryLock::Side::Write);
    if (registry.HasFailed()) {
        SchInnerEventDestroy(epFd, inner, &ops);
        XEL_LOG_FAIL(kSchLog, "Sch destroy, write lock unsuccessfully, ret = %d.",
                     registry.Result());
        return;
    }
    if (!InnerEventNotify(inner)) {
        SchInnerEventDestroy(epFd, inner, &ops);
        XEL_LOG_FAIL(kSchLog, "Sch destroy unsuccessfully, event fd notify unsuccessfully.");
        return;
    }
    LockOutDispatcher(sch, inner);
    FinishDestroy(sch, epFd, inner, ops);
    XelRwlockWriteUnLock(&sch->lock);
}

bool SchSchedulerHandleIsValid(const SchCtrl* sch)
{
    if (sch == nullptr) {
        XEL_LOG_FAIL(kSchLog, "sch handle null.");
        return false;
    }
    const u32 magic = SchMagicOf(sch);
    if (magic != kSchMagic) {
        XEL_LOG_FAIL(kSchLog, "sch handle magic destroy, magic = %#x.", magic);
        return false;
    }
    return true;
}

SchCtrl* SchGetSchHandleByEpFd(u32 epFd)
{
    if (g_xelSchRunCtrl.inited.load(std::memory_order_acquire) == 0) {
        XEL_LOG_FAIL(kSchLog, "Sch is not available.");
        return nullptr;
    }
    const RegistryLock registry(RegistryLock::Side::Read);
    if (registry.HasFailed()) {
        XEL_LOG_FAIL(kSchLog,
                     "Sch get task handle unsuccessfully, read lock unsuccessfully. (ret = %d)",
                     registry.Result());
        return nullptr;
    }
    return static_cast<SchCtrl*>(
        FtGetEntryByHook(g_xelSchRunCtrl.table, &epFd, SchMatchSchHandleWithEpFd));
}

bool SchMatchSchHandleWithEpFd(void* entry, const void* epFd)
{
    auto* sch = static_cast<SchCtrl*>(entry);
    if (SchMagicOf(sch) != kSchMagic) {
        XEL_LOG_FAIL(kSchLog, "Sch get task handle unsuccessfully, magic error.");
        return false;
    }
    const SchReadGuard guard(sch);
    return static_cast<u32>(sch->epFd.load(std::memory_order_relaxed)) ==
           *static_cast<const u32*>(epFd);
}

u32 SchGetEpollFdBySchHandle(const SchCtrl* sch)
{
    if (!SchSchedulerHandleIsValid(sch)) {
        XEL_LOG_FAIL(kSchLog, "Sch get epoll fd unsuccessfully, schHandle invalid.");
        return XEL_FAIL;
    }
    return static_cast<u32>(sch->epFd.load(std::memory_order_relaxed));
}

u32 SchGetPolicyHandleBySchHandle(SchCtrl* sch, void** policy)
{
    if (!SchSchedulerHandleIsValid(sch)) {
        XEL_LOG_FAIL(kSchLog, "Sch get epoll fd unsuccessfully, schHandle invalid.");
        return XEL_FAIL;
    }
    const SchReadGuard guard(sch);
    *policy = sch->policy;
    return XEL_OK;
}

u32 SchGetMaxEventCnt(SchCtrl* sch)
{
    return sch->policy != nullptr ? sch->policyOps.prepare(sch->policy) : sch->epSize;
}
