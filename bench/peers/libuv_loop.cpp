// libuv. A handle that is closed stays in use until the loop has run once more; Settle does that.
// Several wake-ups that arrive together make one run.
#include <uv.h>

#include "bench/peers/measure.h"
#include "bench/peers/thread_loop.h"

namespace
{

template <typename Record>
uv_handle_t* AsHandle(Record& record)
{
    return reinterpret_cast<uv_handle_t*>(&record);
}

class LibuvLoop final : public ThreadLoop
{
public:
    LibuvLoop() { uv_loop_init(&loop_); }
    ~LibuvLoop() override
    {
        Settle();
        uv_loop_close(&loop_);
    }

    void Add(Watch& watch) override
    {
        auto& poll = watch.room.Make<uv_poll_t>();
        Checked(uv_poll_init(&loop_, &poll, watch.fd), "uv_poll_init");
        poll.data = &watch;
        Checked(uv_poll_start(&poll, UV_READABLE, OnPoll), "uv_poll_start");
    }
    void Delete(Watch& watch) override { uv_close(AsHandle(watch.room.As<uv_poll_t>()), nullptr); }

    void Add(Wake& wake) override
    {
        auto& async = wake.room.Make<uv_async_t>();
        Checked(uv_async_init(&loop_, &async, OnAsync), "uv_async_init");
        async.data = &wake;
    }
    void Delete(Wake& wake) override { uv_close(AsHandle(wake.room.As<uv_async_t>()), nullptr); }
    void Send(Wake& wake) override { uv_async_send(&wake.room.As<uv_async_t>()); }
    bool MergesWakes() const override { return true; }

    void Add(Timer& timer) override
    {
        auto& record = timer.room.Make<uv_timer_t>();
        uv_timer_init(&loop_, &record);
        record.data = &timer;
        uv_timer_start(&record, OnTimer, timer.periodMs, timer.periodMs);
    }
    void Delete(Timer& timer) override
    {
        auto& record = timer.room.As<uv_timer_t>();
        uv_timer_stop(&record);
        uv_close(AsHandle(record), nullptr);
    }

    void RefreshTime() override { uv_update_time(&loop_); }

    void Settle() override { uv_run(&loop_, UV_RUN_NOWAIT); }
    void Run() override { uv_run(&loop_, UV_RUN_DEFAULT); }
    void Stop() override { uv_stop(&loop_); }

private:
    static void OnPoll(uv_poll_t* poll, int /*status*/, int /*events*/)
    {
        const auto* watch = static_cast<const Watch*>(poll->data);
        watch->proc(watch->data);
    }
    static void OnAsync(uv_async_t* async)
    {
        const auto* wake = static_cast<const Wake*>(async->data);
        wake->proc(wake->data);
    }
    static void OnTimer(uv_timer_t* record)
    {
        auto* timer = static_cast<Timer*>(record->data);
        timer->expirations = 1;
        timer->proc(timer->data);
    }

    uv_loop_t loop_;
};

} // namespace

std::unique_ptr<Loop> MakeLoop(const LoopOptions& /*options*/)
{
    return std::make_unique<LibuvLoop>();
}

const char* PeerName()
{
    return "libuv";
}

const char* PeerVersion()
{
    return uv_version_string();
}
