// A thread for the loops of libraries that have none of their own.
#ifndef XEL_BENCH_PEERS_THREAD_LOOP_H
#define XEL_BENCH_PEERS_THREAD_LOOP_H

#include <thread>

#include "bench/peers/loop.h"

class ThreadLoop : public Loop
{
public:
    void Start() override
    {
        stop_.data = this;
        stop_.proc = [](void* data) { static_cast<ThreadLoop*>(data)->Stop(); };
        Add(stop_);
        thread_ = std::thread([this] { Run(); });
    }

    void Join() override
    {
        Send(stop_);
        thread_.join();
        Delete(stop_);
        Settle();
    }

    using Loop::Add;
    using Loop::Delete;

private:
    Wake stop_;
    std::thread thread_;
};

#endif // XEL_BENCH_PEERS_THREAD_LOOP_H
