// The timers of the platform: five kinds, and an account of each. Statistics and sessions are timer
// groups of the library, with their kinds as types, and their timers are created by number; the
// time-out of a request is a timer of its own.
//
// Each timer owns a ticket, which its destructor gives back: the ticket says who is called, when
// the timer is due, and counts as live until the library has let go of the timer.
#ifndef SERVICE_PLATFORM_TIMERS_H
#define SERVICE_PLATFORM_TIMERS_H

#include <array>
#include <atomic>

#include "examples/common/worker.h"
#include "examples/service_platform/gauge.h"
#include "xel_timer.h"

enum class TimerKind : u8 { Request, Sample, Sweep, Expiry, SetAside };
constexpr size_t kTimerKinds = 5;

// A callback is late when it begins more than this after its timer was due, or stands for more than
// one expiry.
constexpr u64 kLateUs = 10000;

class TimerHandler
{
public:
    // On the thread of the kind. May throw: the library logs the failed run.
    virtual void OnTimer(TimerKind kind, u64 id) = 0;

protected:
    ~TimerHandler() = default;
};

struct TimerAccount {
    u64 started = 0;
    u64 fired = 0;
    u64 cancelled = 0; // before they fired; a periodic one at the end
    u64 late = 0;
    u64 worstUs = 0; // latest begin of a callback after its due time

    // Every one-shot timer ended in one of two ways; a periodic one can only be cancelled.
    bool Closes(bool isPeriodic) const { return started == cancelled + (isPeriodic ? 0 : fired); }
};

class Timers;
struct TimerTicket;

// A timer that was started. Good on the thread of its kind, until it fires or is cancelled.
struct Timer {
    XelTimerNode* node = nullptr;
    TimerTicket* ticket = nullptr;
};

class Timers
{
public:
    Timers();
    Timers(const Timers&) = delete;
    Timers& operator=(const Timers&) = delete;
    // All timers must have gone, see WaitUntilGone.
    ~Timers();

    static const char* NameOf(TimerKind kind);
    static bool IsPeriodic(TimerKind kind);

    // Says where a kind runs, how long it takes and who is called. Once for each kind, before the
    // first start of it; main thread. Throws std::runtime_error.
    void Declare(TimerKind kind, const Worker& worker, u32 timeoutMs, TimerHandler& handler);
    // node is null when there is no timer to be had. A one-shot kind on its own thread.
    Timer Start(TimerKind kind, u64 id);
    // Begins the full time-out again. On the thread of the kind.
    bool Restart(const Timer& timer);
    // No callback comes any more. One-shot kinds: on the thread of the kind.
    void Cancel(const Timer& timer);

    // False: the library still holds some at the deadline.
    bool WaitUntilGone(Clock::time_point deadline) { return live_.WaitForZero(deadline); }
    TimerAccount Account(TimerKind kind) const;

private:
    struct Kind {
        TimerHandler* handler = nullptr;
        XelThreadCtrl* thread = nullptr;
        u32 timeoutMs = 0;
        // Counters only, written on the thread of the kind.
        std::atomic<u64> started{0};
        std::atomic<u64> fired{0};
        std::atomic<u64> cancelled{0};
        std::atomic<u64> late{0};
        std::atomic<u64> worstUs{0};
    };

    static u32 Proc(XelTimerNode* timer, u64 expirations, void* userData);
    static void Release(void* userData);
    bool Describe(TimerKind kind, TimerTicket* ticket);
    XelTimerNode* Create(TimerKind kind, TimerTicket* ticket);
    void NoteFired(TimerTicket& ticket, u64 expirations);
    Kind& At(TimerKind kind) { return kinds_.at(static_cast<size_t>(kind)); }

    XelTimerAttr* attr_; // main thread while kinds are declared, then the thread of the requests
    std::array<Kind, kTimerKinds> kinds_;
    Gauge live_;
};

#endif // SERVICE_PLATFORM_TIMERS_H
