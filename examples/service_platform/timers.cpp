// Declaring, starting and accounting. Callbacks and starts of one kind come from one thread, its
// scheduler thread; only a periodic kind is started and cancelled by the main thread.
#include "examples/service_platform/timers.h"

#include <cstring>
#include <memory>
#include <stdexcept>

namespace
{

constexpr u32 kNoGroup = 0;
constexpr u32 kStatisticsGroup = 1;
constexpr u32 kSessionGroup = 2;

struct KindRow {
    const char* name;
    u32 group;
    u32 type;
    u32 mode;
};

constexpr std::array<KindRow, kTimerKinds> kRows = {{
    {"request", kNoGroup, 0, XEL_TIMER_MODE_ONE_SHOT},
    {"sample", kStatisticsGroup, 1, XEL_TIMER_MODE_PERIODIC},
    {"sweep", kStatisticsGroup, 2, XEL_TIMER_MODE_PERIODIC},
    {"expiry", kSessionGroup, 1, XEL_TIMER_MODE_ONE_SHOT},
    {"set aside", kSessionGroup, 2, XEL_TIMER_MODE_ONE_SHOT},
}};

const KindRow& RowOf(TimerKind kind)
{
    return kRows.at(static_cast<size_t>(kind));
}

u64 NowUs()
{
    const auto now = Clock::now().time_since_epoch();
    return static_cast<u64>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

} // namespace

// Owned by the timer; read and written on the thread of its kind once the timer is armed.
struct TimerTicket {
    Timers& timers;
    TimerKind kind;
    u64 id;
    u64 dueUs;
};

Timers::Timers() : attr_(XEL_TimerCreateAttr())
{
    if (attr_ == nullptr || XEL_TimerCreateGroup(kStatisticsGroup) != XEL_OK ||
        XEL_TimerCreateGroup(kSessionGroup) != XEL_OK) {
        throw std::runtime_error("cannot create the timer groups");
    }
}

Timers::~Timers()
{
    XEL_TimerDestroyGroup(kSessionGroup);
    XEL_TimerDestroyGroup(kStatisticsGroup);
    XEL_TimerDestroyAttr(attr_);
}

const char* Timers::NameOf(TimerKind kind)
{
    return RowOf(kind).name;
}

bool Timers::IsPeriodic(TimerKind kind)
{
    return RowOf(kind).mode == XEL_TIMER_MODE_PERIODIC;
}

// The destructor goes in as the value itself, not as a pointer to it.
bool Timers::Describe(TimerKind kind, TimerTicket* ticket)
{
    const KindRow& row = RowOf(kind);
    const XelTimerUsrCb callback = {Proc, ticket};
    return XelTimerSetAllAttr(attr_, &callback, &row.mode, &At(kind).timeoutMs, row.name) ==
               XEL_OK &&
           XEL_TimerSetAttr(attr_, XEL_TIMER_ATTR_DESTRUCTOR,
                            reinterpret_cast<const void*>(&Release), sizeof(&Release)) == XEL_OK;
}

void Timers::Declare(TimerKind kind, const Worker& worker, u32 timeoutMs, TimerHandler& handler)
{
    At(kind).handler = &handler;
    At(kind).thread = worker.Handle();
    At(kind).timeoutMs = timeoutMs;
    const KindRow& row = RowOf(kind);
    if (row.group == kNoGroup) {
        return;
    }
    if (!Describe(kind, nullptr) ||
        XEL_TimerAddTimerType(row.group, row.type, worker.Handle(), attr_) != XEL_OK) {
        throw std::runtime_error("cannot add a timer type");
    }
}

// The ticket is complete, and counted, before the timer is armed: a periodic one may fire at once.
Timer Timers::Start(TimerKind kind, u64 id)
{
    const u64 dueUs = NowUs() + 1000UL * At(kind).timeoutMs;
    std::unique_ptr<TimerTicket> ticket(new TimerTicket{*this, kind, id, dueUs});
    live_.Add();
    XelTimerNode* node = Create(kind, ticket.get());
    if (node == nullptr) {
        live_.Done();
        return {};
    }
    At(kind).started.fetch_add(1, std::memory_order_relaxed);
    return {node, ticket.release()};
}

// Null: the ticket is still the caller's.
XelTimerNode* Timers::Create(TimerKind kind, TimerTicket* ticket)
{
    const KindRow& row = RowOf(kind);
    if (row.group != kNoGroup) {
        return XEL_TimerCreateAndStart(row.group, row.type, ticket);
    }
    XelTimerNode* node = nullptr;
    if (Describe(kind, ticket)) {
        node = XEL_TimerCreate(At(kind).thread, attr_);
    }
    // A timer that cannot be armed never fires; its request is answered or dropped at the end.
    if (node != nullptr) {
        (void)XEL_TimerStart(node);
    }
    return node;
}

bool Timers::Restart(const Timer& timer)
{
    timer.ticket->dueUs = NowUs() + 1000UL * At(timer.ticket->kind).timeoutMs;
    return XEL_TimerStart(timer.node) == XEL_OK;
}

void Timers::Cancel(const Timer& timer)
{
    At(timer.ticket->kind).cancelled.fetch_add(1, std::memory_order_relaxed);
    XEL_TimerDestroy(timer.node);
}

// Nothing may be thrown through the library's frames.
u32 Timers::Proc(XelTimerNode*, u64 expirations, void* userData)
{
    auto* ticket = static_cast<TimerTicket*>(userData);
    Timers& self = ticket->timers;
    self.NoteFired(*ticket, expirations);
    try {
        self.At(ticket->kind).handler->OnTimer(ticket->kind, ticket->id);
    } catch (...) {
        return XEL_FAIL;
    }
    return XEL_OK;
}

void Timers::NoteFired(TimerTicket& ticket, u64 expirations)
{
    Kind& kind = At(ticket.kind);
    const u64 nowUs = NowUs();
    const u64 behindUs = nowUs > ticket.dueUs ? nowUs - ticket.dueUs : 0;
    kind.fired.fetch_add(1, std::memory_order_relaxed);
    if (expirations > 1 || behindUs > kLateUs) {
        kind.late.fetch_add(1, std::memory_order_relaxed);
    }
    if (behindUs > kind.worstUs.load(std::memory_order_relaxed)) {
        kind.worstUs.store(behindUs, std::memory_order_relaxed);
    }
    ticket.dueUs += expirations * 1000UL * kind.timeoutMs; // the next one of a periodic timer
}

// The types themselves have no ticket.
void Timers::Release(void* userData)
{
    auto* ticket = static_cast<TimerTicket*>(userData);
    if (ticket == nullptr) {
        return;
    }
    Timers& self = ticket->timers;
    delete ticket;
    self.live_.Done();
}

TimerAccount Timers::Account(TimerKind kind) const
{
    const Kind& row = kinds_.at(static_cast<size_t>(kind));
    return {row.started.load(std::memory_order_relaxed), row.fired.load(std::memory_order_relaxed),
            row.cancelled.load(std::memory_order_relaxed), row.late.load(std::memory_order_relaxed),
            row.worstUs.load(std::memory_order_relaxed)};
}
