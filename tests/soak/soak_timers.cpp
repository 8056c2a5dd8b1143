// Timers, and timers of groups and types. Each user data is a block that the destructor frees; the
// books know how many were handed over.
#include <memory>

#include "soak.h"
#include "xel_timer.h"

namespace soak
{

namespace
{

constexpr u32 kPerRound = 16;
constexpr u32 kTypes = 3;
constexpr u32 kMaxTimeoutMs = 4;

struct Data {
    std::atomic<u64> runs;
    bool isCounted; // a one-shot timer whose expiry is in the books
};

Data* NewData(bool isCounted)
{
    Of(Book::TimerData).in.fetch_add(1);
    return new Data{{}, isCounted};
}

void Release(void* userData)
{
    delete static_cast<Data*>(userData);
    Of(Book::TimerData).out.fetch_add(1);
}

u32 OnTimer(XelTimerNode*, uint64_t expirations, void* userData)
{
    auto* data = static_cast<Data*>(userData);
    SOAK_CHECK(expirations > 0);
    data->runs.fetch_add(1);
    Of(Book::Expiries).out.fetch_add(data->isCounted ? 1 : 0);
    return 0;
}

using Attr = std::unique_ptr<XelTimerAttr, void (*)(XelTimerAttr*)>;

Attr MakeAttr(Data* data, u32 mode, u32 timeoutMs)
{
    Attr attr(XEL_TimerCreateAttr(), XEL_TimerDestroyAttr);
    SOAK_CHECK(attr != nullptr);
    const XelTimerUsrCb callback = {OnTimer, data};
    SOAK_CHECK(XelTimerSetAllAttr(attr.get(), &callback, &mode, &timeoutMs, "soak") == XEL_OK);
    SOAK_CHECK(XEL_TimerSetAttr(attr.get(), XEL_TIMER_ATTR_DESTRUCTOR,
                                reinterpret_cast<const void*>(Release), 8) == XEL_OK);
    return attr;
}

// Its handle is good until the end of this function: periodic timers do not end themselves.
void UsePeriodic(Worker& worker, XelThreadCtrl* thread)
{
    Data* data = NewData(false);
    const u32 timeoutMs = 1 + worker.random.Below(kMaxTimeoutMs);
    const Attr attr = MakeAttr(data, XEL_TIMER_MODE_PERIODIC, timeoutMs);
    XelTimerNode* timer = XEL_TimerCreate(thread, attr.get());
    SOAK_CHECK(timer != nullptr);
    SOAK_CHECK(XEL_TimerStart(timer) == XEL_OK);
    if (worker.random.Below(4) == 0) {
        Await("a run of a periodic timer", [data] { return data->runs.load() > 0; });
    }
    u32 remainMs = 0;
    SOAK_CHECK(XEL_TimerResize(timer, 1 + worker.random.Below(kMaxTimeoutMs)) == XEL_OK);
    SOAK_CHECK(TimerGetTimerRemainTime(timer, &remainMs) == XEL_OK);
    SOAK_CHECK(remainMs <= kMaxTimeoutMs);
    if (worker.random.Below(2) == 0) {
        SOAK_CHECK(XEL_TimerStop(timer) == XEL_OK);
    }
    XEL_TimerDestroy(timer);
    worker.operations.fetch_add(6);
}

// The handle may be gone as soon as the timer is started.
void UseOneShot(Worker& worker, XelThreadCtrl* thread)
{
    Data* data = NewData(true);
    const Attr attr = MakeAttr(data, XEL_TIMER_MODE_ONE_SHOT, 1 + worker.random.Below(2));
    XelTimerNode* timer = XEL_TimerCreate(thread, attr.get());
    SOAK_CHECK(timer != nullptr);
    Of(Book::Expiries).in.fetch_add(1);
    SOAK_CHECK(XEL_TimerStart(timer) == XEL_OK);
    worker.operations.fetch_add(2);
}

void AddTypes(Worker& worker, u32 group)
{
    SOAK_CHECK(XEL_TimerCreateGroup(group) == XEL_OK);
    for (u32 type = 1; type <= kTypes; ++type) {
        // A time-out of 0 would leave the timers disarmed, which is a state like any other here.
        const Attr attr =
            MakeAttr(NewData(false), worker.random.Below(2), worker.random.Below(kMaxTimeoutMs));
        XelThreadCtrl* thread = SharedThread(worker.random.Below(kSharedThreads));
        SOAK_CHECK(XEL_TimerAddTimerType(group, type, thread, attr.get()) == XEL_OK);
    }
    worker.operations.fetch_add(1 + kTypes);
}

} // namespace

// All timers of a round have gone before the next one: a round is never behind another.
void SoakTimers(Worker& worker)
{
    for (u32 i = 0; i < kPerRound; ++i) {
        XelThreadCtrl* thread = SharedThread(worker.random.Below(kSharedThreads));
        if (worker.random.Below(2) == 0) {
            UsePeriodic(worker, thread);
        } else {
            UseOneShot(worker, thread);
        }
    }
    Ledger& data = Of(Book::TimerData);
    const u64 due = data.in.load() > 4 * kPerRound ? data.in.load() - 4 * kPerRound : 0;
    Await("the release of timers", [&data, due] { return data.out.load() >= due; });
}

// Each worker has a group number of its own. The group goes while timers of it are running.
void SoakGroups(Worker& worker)
{
    const u32 group = 1 + worker.number;
    AddTypes(worker, group);
    for (u32 i = 0; i < kPerRound; ++i) {
        const u32 type = 1 + worker.random.Below(kTypes);
        Data* data = worker.random.Below(2) == 0 ? NewData(false) : nullptr;
        SOAK_CHECK(XEL_TimerCreateAndStart(group, type, data) != nullptr);
        worker.operations.fetch_add(1);
    }
    if (worker.random.Below(2) == 0) {
        SOAK_CHECK(XEL_TimerDelTimerType(group, 1) == XEL_OK);
        SOAK_CHECK(XEL_TimerDelTimerType(group, 1) == 2);
        SOAK_CHECK(XEL_TimerCreateAndStart(group, 1, nullptr) == nullptr);
        worker.operations.fetch_add(3);
    }
    XEL_TimerDestroyGroup(group);
    SOAK_CHECK(XEL_TimerDelTimerType(group, 2) == 1);
    worker.operations.fetch_add(2);
}

} // namespace soak
