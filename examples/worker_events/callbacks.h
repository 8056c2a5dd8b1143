// The callbacks of the example and what they work on. They are global functions of their own names
// and the program exports them, because the log names the callback that took too long (with every
// second letter raised by one).
#ifndef WORKER_EVENTS_CALLBACKS_H
#define WORKER_EVENTS_CALLBACKS_H

#include <atomic>
#include <chrono>

#include "examples/common/worker.h"
#include "examples/worker_events/counter.h"

constexpr u64 kRounds = 5000;
constexpr auto kStuckTime = std::chrono::milliseconds(3500);
constexpr auto kSlowTime = std::chrono::milliseconds(450);

// The main thread stores both events (release) before the first notification; the callbacks load
// them (acquire).
struct PingPong {
    std::atomic<const WorkerEvent*> ping{nullptr}; // on alpha
    std::atomic<const WorkerEvent*> pong{nullptr}; // on beta
    Counter pings;
    Counter pongs;
};

XEL_EXTERN_C_BEGIN

// data: a PingPong. Each notifies the other, until there were kRounds pongs.
XEL_API u32 PingCallback(u64 data);
XEL_API u32 PongCallback(u64 data);

// data: a Counter, as for the next two.
XEL_API u32 CountCallback(u64 data);

// Both do what a callback must not: they keep their thread from everybody else.
XEL_API u32 StuckCallback(u64 data);
XEL_API u32 SlowCallback(u64 data);

XEL_EXTERN_C_END

#endif // WORKER_EVENTS_CALLBACKS_H
