// libevent. With oneAtATime it polls again after each callback (max_callbacks = 1). A wake-up is an
// event that is made active from another thread; several that arrive together make one run.
#include <event2/event.h>
#include <event2/event_struct.h>
#include <event2/thread.h>

#include "bench/peers/thread_loop.h"

namespace
{

constexpr int kUrgent = 0;
constexpr int kBulk = 1;

class LibeventLoop final : public ThreadLoop
{
public:
    explicit LibeventLoop(const LoopOptions& options)
        : priorities_(options.priorities), base_(MakeBase(options))
    {
        if (priorities_) {
            event_base_priority_init(base_, 2);
        }
    }
    ~LibeventLoop() override { event_base_free(base_); }

    void Add(Watch& watch) override
    {
        auto& record = watch.room.Make<struct event>();
        event_assign(&record, base_, watch.fd, EV_READ | EV_PERSIST, Run<Watch>, &watch);
        if (priorities_) {
            event_priority_set(&record, watch.urgent ? kUrgent : kBulk);
        }
        event_add(&record, nullptr);
    }
    void Delete(Watch& watch) override { event_del(&watch.room.As<struct event>()); }

    void Add(Wake& wake) override
    {
        auto& record = wake.room.Make<struct event>();
        event_assign(&record, base_, -1, EV_READ | EV_PERSIST, Run<Wake>, &wake);
        event_add(&record, nullptr); // keeps the loop running while nothing is to be done
    }
    void Delete(Wake& wake) override { event_del(&wake.room.As<struct event>()); }
    void Send(Wake& wake) override { event_active(&wake.room.As<struct event>(), EV_READ, 0); }
    bool MergesWakes() const override { return true; }

    void Add(Timer& timer) override
    {
        auto& record = timer.room.Make<struct event>();
        event_assign(&record, base_, -1, EV_PERSIST, OnTimer, &timer);
        struct timeval period = {};
        period.tv_sec = timer.periodMs / 1000;
        period.tv_usec = static_cast<suseconds_t>(timer.periodMs % 1000) * 1000;
        event_add(&record, &period);
    }
    void Delete(Timer& timer) override { event_del(&timer.room.As<struct event>()); }

    void Run() override { event_base_loop(base_, EVLOOP_NO_EXIT_ON_EMPTY); }
    void Stop() override { event_base_loopbreak(base_); }

private:
    static struct event_base* MakeBase(const LoopOptions& options)
    {
        struct event_config* config = event_config_new();
        if (options.ownThread) {
            evthread_use_pthreads();
        } else {
            event_config_set_flag(config, EVENT_BASE_FLAG_NOLOCK);
        }
        if (options.timers) {
            event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
        }
        if (options.oneAtATime) {
            event_config_set_max_dispatch_interval(config, nullptr, 1, 0);
        }
        struct event_base* base = event_base_new_with_config(config);
        event_config_free(config);
        return base;
    }
    template <typename Target>
    static void Run(evutil_socket_t /*fd*/, short /*events*/, void* data)
    {
        const auto* target = static_cast<const Target*>(data);
        target->proc(target->data);
    }
    static void OnTimer(evutil_socket_t /*fd*/, short /*events*/, void* data)
    {
        auto* timer = static_cast<Timer*>(data);
        timer->expirations = 1;
        timer->proc(timer->data);
    }

    const bool priorities_;
    struct event_base* const base_;
};

} // namespace

std::unique_ptr<Loop> MakeLoop(const LoopOptions& options)
{
    return std::make_unique<LibeventLoop>(options);
}

const char* PeerName()
{
    return "libevent";
}

const char* PeerVersion()
{
    return event_get_version();
}
