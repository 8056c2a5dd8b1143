// The monitor thread of the dead-loop monitor. It sleeps until the next look is due, looks at the
// sequence word of every registration under the monitor's lock, and calls the report function with
// the lock given up. It is started and joined by the registry (xel_deadloop.cpp).
#include <algorithm>
#include <bit>
#include <ctime>
#include <iterator>

#include "common/xel_log_site.h"
#include "foundation/xel_deadloop_inner.h"

static constexpr LogSite kSite = {"foundation/xel_deadloop", 94};
static constexpr u64 kSecondNs = 1'000'000'000;
static constexpr u64 kMilliNs = 1'000'000;
static constexpr u64 kLateNs = 2 * kDeadloopTickNs; // a look that is later still counts no more
static constexpr u64 kNothingToDoNs = kSecondNs;    // until a registration pokes or the stop comes
static constexpr u32 kLooksPerCheck = 10;

static u64 NowNs()
{
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<u64>(now.tv_sec) * kSecondNs + static_cast<u64>(now.tv_nsec);
}

static u64 TicksToNs(u32 ticks)
{
    return ticks * kDeadloopTickNs;
}

static bool IsInside(u64 sequence)
{
    return (sequence & 1) != 0;
}

// What is done with a report unless a function was set: one log line.
static void LogReport(const XelDeadloopReport& report)
{
    const char* name = report.threadName;
    u64 ms = report.elapsedMs;
    switch (report.kind) {
    case XEL_DEADLOOP_FIRST:
        XEL_LOG(kSite, report.level,
                "Thread is slow, inside one unit of work for %lu ms. (name:%s, tid:%d)", ms, name,
                report.tid);
        break;
    case XEL_DEADLOOP_SECOND:
        XEL_LOG(kSite, report.level,
                "Thread is still slow, inside one unit of work for %lu ms. (name:%s, tid:%d)", ms,
                name, report.tid);
        break;
    case XEL_DEADLOOP_DEAD:
        XEL_LOG(kSite, report.level,
                "Thread is in a dead loop, inside one unit of work for %lu ms. (name:%s, tid:%d)",
                ms, name, report.tid);
        break;
    default:
        XEL_LOG(kSite, report.level,
                "Thread has left its unit of work after %lu ms. (name:%s, tid:%d)", ms, name,
                report.tid);
        break;
    }
}

static XelDeadloopReport MakeReport(const DeadloopRow& row, u32 handle, u32 kind)
{
    static constexpr u32 kLevels[] = {XEL_LOG_WARN, XEL_LOG_WARN, XEL_LOG_ERROR, XEL_LOG_INFO};
    static_assert(XEL_DEADLOOP_FIRST == 1 && XEL_DEADLOOP_ENDED == std::size(kLevels));
    XelDeadloopReport report = {
        .kind = kind,
        .level = kLevels[kind - 1],
        .handle = handle,
        .tid = row.tid,
        .pthreadId = row.pthreadId,
        .elapsedMs = row.insideNs / kMilliNs,
        .threadName = {},
    };
    std::copy(std::begin(row.name), std::end(row.name), report.threadName);
    return report;
}

// Under the lock, given up during the call: a report function may block or log, and only those who
// end this registration or replace the function wait for it. Returns whether the registration is
// still live; its slot cannot have been given to another, see XelDeadloopMonUnreg.
static bool Deliver(const DeadloopSlot& slot, const XelDeadloopReport& report)
{
    XelDeadloopReportFunc function = g_deadloop.report;
    void* context = g_deadloop.context;
    g_deadloop.reporting = report.handle;
    {
        WithoutLock pause;
        if (function != nullptr) {
            function(context, &report);
        } else {
            LogReport(report);
        }
    }
    g_deadloop.reporting = 0;
    g_deadloop.reportsDone++;
    (void)pthread_cond_broadcast(&g_deadloop.changed);
    return slot.live.load(std::memory_order_relaxed) == report.handle;
}

// Time inside a unit at which its next report is due; rows with all reports made have none.
static u64 NextReportNs(const DeadloopRow& row)
{
    const u32 ticks[] = {row.threshold.firstTicks, row.threshold.secondTicks,
                         row.threshold.deadTicks};
    return row.reported < XEL_DEADLOOP_DEAD ? TicksToNs(ticks[row.reported]) : UINT64_MAX;
}

// Several may be due at one look. A report takes as long as its function: the thread may have gone
// on, or the registration have ended, by then.
static void DeliverDue(DeadloopRow& row, const DeadloopSlot& slot, u32 handle)
{
    while (row.insideNs >= NextReportNs(row)) {
        row.reported++;
        if (!Deliver(slot, MakeReport(row, handle, row.reported)) ||
            slot.sequence.load(std::memory_order_relaxed) != row.seenSequence) {
            return;
        }
    }
}

// The thread has begun or ended units since the last look: a new count, from this look on.
static void NoteMove(DeadloopRow& row, const DeadloopSlot& slot, u32 handle, u64 sequence)
{
    bool wasReported = row.reported != 0;
    XelDeadloopReport ended = MakeReport(row, handle, XEL_DEADLOOP_ENDED);
    row.seenSequence = sequence;
    row.insideNs = 0;
    row.reported = 0;
    if (wasReported) {
        (void)Deliver(slot, ended);
    }
}

static void LookAt(DeadloopRow& row, const DeadloopSlot& slot, u64 sinceNs)
{
    u32 handle = slot.live.load(std::memory_order_relaxed);
    u64 sequence = slot.sequence.load(std::memory_order_relaxed);
    if (handle == 0) {
        return; // its end waits for a report that has just returned
    }
    u64 countedNs = std::min(sinceNs, TicksToNs(row.threshold.checkTicks));
    if (sequence != row.seenSequence) {
        NoteMove(row, slot, handle, sequence);
    } else if (IsInside(sequence)) {
        row.insideNs += countedNs;
        DeliverDue(row, slot, handle);
    }
}

// How long the row can do without a look. Often enough while its thread sleeps too: a unit that
// begins after a long sleep is then found, and reported, as soon as any other.
static u64 NextLookNs(const DeadloopRow& row)
{
    u64 oftenNs = TicksToNs(std::max(row.threshold.checkTicks / kLooksPerCheck, 1U));
    return IsInside(row.seenSequence) ? std::min(oftenNs, NextReportNs(row) - row.insideNs)
                                      : oftenNs;
}

// Looks at every registration; sinceNs is what this look counts. Returns the time to the next one.
// The words of the bitmap are read anew for each slot: the lock is given up during reports.
static u64 LookAtAll(u64 sinceNs)
{
    u64 nextNs = kNothingToDoNs;
    bool first = true;
    for (u32 index = 0; index < kDeadloopSlots; index++) {
        u64 rest = g_deadloop.used[index / kDeadloopWordBits] >> (index % kDeadloopWordBits);
        if (rest == 0) {
            index |= kDeadloopWordBits - 1; // none in this word any more
            continue;
        }
        index += static_cast<u32>(std::countr_zero(rest));
        LookAt(g_deadloopRows[index], g_deadloopSlots[index], sinceNs);
        u64 rowNs = NextLookNs(g_deadloopRows[index]);
        nextNs = first ? rowNs : std::min(nextNs, rowNs);
        first = false;
    }
    return nextNs;
}

// Under the lock. Returns at the deadline, or early for a stop, a new registration or no reason.
static void SleepUntil(u64 deadlineNs)
{
    timespec deadline = {};
    deadline.tv_sec = static_cast<time_t>(deadlineNs / kSecondNs);
    deadline.tv_nsec = static_cast<long>(deadlineNs % kSecondNs);
    if (!g_deadloop.poked && g_deadloop.state == DeadloopState::Running) {
        (void)pthread_cond_timedwait(&g_deadloop.wake, &g_deadloop.lock, &deadline);
    }
    g_deadloop.poked = false;
}

// What a look counts that was planned for plannedNs after the look before and came after elapsedNs.
static u64 CountedNs(u64 elapsedNs, u64 plannedNs)
{
    return std::min(elapsedNs, plannedNs + kLateNs);
}

int DeadloopMonitorMain(void* /*unused*/)
{
    t_deadloopIsMonitor = true;
    (void)pthread_setname_np(pthread_self(), "XelDeadloop");
    MutexGuard guard(g_deadloop.lock);
    u64 lookedNs = NowNs();
    u64 plannedNs = 0;
    while (g_deadloop.state == DeadloopState::Running) {
        plannedNs = LookAtAll(CountedNs(NowNs() - lookedNs, plannedNs));
        // After the looks: a unit that was found open has surely begun before this time, so its
        // count never runs ahead of the truth.
        lookedNs = NowNs();
        SleepUntil(lookedNs + plannedNs);
    }
    return 0;
}
