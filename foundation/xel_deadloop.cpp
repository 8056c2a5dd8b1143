// The registrations of the dead-loop monitor and everything that watched threads call. Registering
// and ending take the monitor's lock; a begin or an end of a unit writes two words of the thread's
// own cache line and nothing else. The monitor thread (xel_deadloop_monitor.cpp) is started by the
// first registration and joined by the end of the last.
#include "xel_deadloop.h"

#include <bit>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "foundation/xel_deadloop_inner.h"
#include "foundation/xel_deadloop_thread.h"

// A handle is generation and slot. The first generation is 1 and the last is short of all ones, so
// that no handle is 0 or 0xFFFFFFFF.
static constexpr u32 kIndexBits = std::countr_zero(kDeadloopSlots);
static constexpr u32 kIndexMask = kDeadloopSlots - 1;
static constexpr u32 kLastGeneration = (XEL_FAIL >> kIndexBits) - 1;
static constexpr u32 kNoSlot = kDeadloopSlots;
static constexpr char kUnbound[] = "<unbound>";
static_assert(sizeof(kUnbound) <= XEL_NAME_SIZE);
static_assert(std::has_single_bit(kDeadloopSlots));
static_assert(sizeof(DeadloopSlot) == 64, "a registration has a cache line of its own");

constinit Deadloop g_deadloop = {
    .lock = PTHREAD_MUTEX_INITIALIZER,
    .changed = PTHREAD_COND_INITIALIZER,
    .wake = {},
    .state = DeadloopState::Stopped,
    .poked = false,
    .thread = {},
    .reporting = 0,
    .reportsDone = 0,
    .report = nullptr,
    .context = nullptr,
    .used = {},
};
constinit thread_local bool t_deadloopIsMonitor = false;
constinit DeadloopRow g_deadloopRows[kDeadloopSlots] = {};
constinit DeadloopSlot g_deadloopSlots[kDeadloopSlots] = {};

uint32_t XelDeadloopCheckThreshold(const XelDeadloopThreshold* threshold)
{
    if (threshold == nullptr) {
        return XEL_FAIL;
    }
    // With the first word above 0 and each word at least the one before, all are above 0.
    bool valid = threshold->checkTicks > 0 && threshold->checkTicks <= threshold->firstTicks &&
                 threshold->firstTicks <= threshold->secondTicks &&
                 threshold->secondTicks <= threshold->deadTicks;
    return valid ? XEL_OK : XEL_FAIL;
}

uint32_t XelDeadloopGetThreshold(XelDeadloopThreshold* out, uint32_t value)
{
    if (out == nullptr || value == 0 || value > UINT32_MAX / 3) {
        return XEL_FAIL;
    }
    *out = {value, value, 2 * value, 3 * value};
    return XEL_OK;
}

// The slot of a live handle, or null. Needs no lock: live is one word. Relaxed: the caller has the
// handle from the call that wrote it.
static DeadloopSlot* LiveSlot(u32 handle)
{
    DeadloopSlot& slot = g_deadloopSlots[handle & kIndexMask];
    bool live = handle != 0 && slot.live.load(std::memory_order_relaxed) == handle;
    return live ? &slot : nullptr;
}

// A report function that registered or unregistered could wait for its own end. The thread knows
// itself by a word of its own: its pthread id may serve another thread as soon as it is joined.
static bool OnMonitorThread()
{
    return t_deadloopIsMonitor;
}

// Under the lock, state Stopped. The new thread's first act is to wait for the lock.
static bool StartMonitor()
{
    pthread_condattr_t attr;
    if (pthread_condattr_init(&attr) != 0) {
        return false;
    }
    bool ready = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC) == 0 &&
                 pthread_cond_init(&g_deadloop.wake, &attr) == 0;
    (void)pthread_condattr_destroy(&attr);
    if (!ready) {
        return false;
    }
    if (!DeadloopThreadStart(g_deadloop.thread, DeadloopMonitorMain)) {
        (void)pthread_cond_destroy(&g_deadloop.wake);
        return false;
    }
    g_deadloop.state = DeadloopState::Running;
    return true;
}

// Under the lock, which is given up while the thread ends: registrations that come meanwhile wait
// for the state Stopped, so nobody else starts, stops or signals.
static void StopMonitor()
{
    g_deadloop.state = DeadloopState::Stopping;
    (void)pthread_cond_signal(&g_deadloop.wake);
    {
        WithoutLock pause;
        DeadloopThreadJoin(g_deadloop.thread);
    }
    (void)pthread_cond_destroy(&g_deadloop.wake);
    g_deadloop.state = DeadloopState::Stopped;
    (void)pthread_cond_broadcast(&g_deadloop.changed);
}

// Under the lock. The lowest free slot: a process with few registrations touches few pages.
static u32 FindFree()
{
    u32 index = 0;
    for (u64 word : g_deadloop.used) {
        if (word != UINT64_MAX) {
            return index + static_cast<u32>(std::countr_one(word));
        }
        index += kDeadloopWordBits;
    }
    return kNoSlot;
}

static bool NoneUsed()
{
    u64 all = 0;
    for (u64 word : g_deadloop.used) {
        all |= word;
    }
    return all == 0;
}

static u64& UsedWord(u32 index)
{
    return g_deadloop.used[index / kDeadloopWordBits];
}

static u64 UsedBit(u32 index)
{
    return u64{1} << (index % kDeadloopWordBits);
}

// Under the lock. The slot becomes live last: until then no handle reaches it.
static u32 Occupy(u32 index, const XelDeadloopThreshold& threshold)
{
    DeadloopRow& row = g_deadloopRows[index];
    u32 generation = row.generation % kLastGeneration + 1;
    row = {};
    row.threshold = threshold;
    row.generation = generation;
    memcpy(row.name, kUnbound, sizeof(kUnbound));
    DeadloopSlot& slot = g_deadloopSlots[index];
    slot.depth.store(0, std::memory_order_relaxed);
    slot.sequence.store(0, std::memory_order_relaxed);
    u32 handle = generation << kIndexBits | index;
    slot.live.store(handle, std::memory_order_relaxed);
    UsedWord(index) |= UsedBit(index);
    return handle;
}

uint32_t XelDeadloopMonReg(const XelDeadloopThreshold* threshold, uint32_t* handle)
{
    if (handle == nullptr || XelDeadloopCheckThreshold(threshold) != XEL_OK) {
        return XEL_FAIL;
    }
    MutexGuard guard(g_deadloop.lock);
    if (OnMonitorThread()) {
        return XEL_FAIL;
    }
    while (g_deadloop.state == DeadloopState::Stopping) {
        (void)pthread_cond_wait(&g_deadloop.changed, &g_deadloop.lock);
    }
    u32 index = FindFree();
    if (index == kNoSlot) {
        return XEL_FAIL;
    }
    if (g_deadloop.state == DeadloopState::Stopped && !StartMonitor()) {
        return XEL_FAIL;
    }
    *handle = Occupy(index, *threshold);
    g_deadloop.poked = true;
    (void)pthread_cond_signal(&g_deadloop.wake);
    return XEL_OK;
}

uint32_t XelDeadloopMonUnreg(uint32_t handle)
{
    MutexGuard guard(g_deadloop.lock);
    DeadloopSlot* slot = LiveSlot(handle);
    if (slot == nullptr || OnMonitorThread()) {
        return XEL_FAIL;
    }
    // From here on nobody else can end this registration and no new report about it begins. The
    // slot stays used until the running one has returned, so that it is not given out meanwhile.
    slot->live.store(0, std::memory_order_relaxed);
    while (g_deadloop.reporting == handle) {
        (void)pthread_cond_wait(&g_deadloop.changed, &g_deadloop.lock);
    }
    u32 index = handle & kIndexMask;
    UsedWord(index) &= ~UsedBit(index);
    if (NoneUsed()) {
        StopMonitor();
    }
    return XEL_OK;
}

uint32_t XelDeadloopMonProcSet(uint32_t handle)
{
    MutexGuard guard(g_deadloop.lock);
    if (LiveSlot(handle) == nullptr) {
        return XEL_FAIL;
    }
    DeadloopRow& row = g_deadloopRows[handle & kIndexMask];
    pthread_t self = pthread_self();
    row.pthreadId = static_cast<u64>(self);
    row.tid = gettid();
    if (pthread_getname_np(self, row.name, sizeof(row.name)) != 0) {
        row.name[0] = '\0';
    }
    return XEL_OK;
}

uint32_t XelDeadloopMonBegin(uint32_t /*reserved*/, const uint32_t* handle)
{
    DeadloopSlot* slot = handle != nullptr ? LiveSlot(*handle) : nullptr;
    if (slot == nullptr) {
        return XEL_FAIL;
    }
    u32 depth = slot->depth.load(std::memory_order_relaxed);
    slot->depth.store(depth + 1, std::memory_order_relaxed);
    if (depth == 0) {
        u64 sequence = slot->sequence.load(std::memory_order_relaxed);
        slot->sequence.store(sequence + 1, std::memory_order_relaxed);
    }
    return XEL_OK;
}

uint32_t XelDeadloopMonEnd(uint32_t handle, uint32_t /*phase*/)
{
    DeadloopSlot* slot = LiveSlot(handle);
    if (slot == nullptr) {
        return XEL_FAIL;
    }
    u32 depth = slot->depth.load(std::memory_order_relaxed);
    if (depth == 0) {
        return XEL_OK;
    }
    slot->depth.store(depth - 1, std::memory_order_relaxed);
    if (depth == 1) {
        u64 sequence = slot->sequence.load(std::memory_order_relaxed);
        slot->sequence.store(sequence + 1, std::memory_order_relaxed);
    }
    return XEL_OK;
}

uint32_t XelDeadloopSetReport(XelDeadloopReportFunc report, void* context)
{
    MutexGuard guard(g_deadloop.lock);
    if (OnMonitorThread()) {
        return XEL_FAIL;
    }
    g_deadloop.report = report;
    g_deadloop.context = context;
    // Only the report that runs now can be inside the old function.
    u64 done = g_deadloop.reportsDone;
    while (g_deadloop.reporting != 0 && g_deadloop.reportsDone == done) {
        (void)pthread_cond_wait(&g_deadloop.changed, &g_deadloop.lock);
    }
    return XEL_OK;
}
