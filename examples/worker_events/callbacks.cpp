// What runs on the scheduler threads. A result other than 0 is logged by the library.
#include "examples/worker_events/callbacks.h"

#include <thread>

u32 PingCallback(u64 data)
{
    auto* game = reinterpret_cast<PingPong*>(data);
    (void)game->pings.Add();
    return game->pong.load(std::memory_order_acquire)->TryNotify();
}

u32 PongCallback(u64 data)
{
    auto* game = reinterpret_cast<PingPong*>(data);
    if (game->pongs.Add() >= kRounds) {
        return XEL_OK;
    }
    return game->ping.load(std::memory_order_acquire)->TryNotify();
}

u32 CountCallback(u64 data)
{
    (void)reinterpret_cast<Counter*>(data)->Add();
    return XEL_OK;
}

u32 StuckCallback(u64 data)
{
    std::this_thread::sleep_for(kStuckTime);
    return CountCallback(data);
}

u32 SlowCallback(u64 data)
{
    std::this_thread::sleep_for(kSlowTime);
    return CountCallback(data);
}
