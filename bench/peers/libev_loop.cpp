// libev. Its five priorities order what one poll returned; it cannot poll again in between.
#include <string>

#include <ev.h>

#include "bench/peers/thread_loop.h"

namespace
{

constexpr unsigned kFlags = unsigned{EVBACKEND_EPOLL} | unsigned{EVFLAG_NOENV};

class LibevLoop final : public ThreadLoop
{
public:
    explicit LibevLoop(const LoopOptions& options)
        : priorities_(options.priorities), loop_(ev_loop_new(kFlags))
    {
    }
    ~LibevLoop() override { ev_loop_destroy(loop_); }

    void Add(Watch& watch) override
    {
        ev_io& io = watch.room.Make<ev_io>();
        ev_io_init(&io, (Run<ev_io, Watch>), watch.fd, EV_READ);
        if (priorities_ && watch.urgent) {
            ev_set_priority(&io, EV_MAXPRI);
        }
        io.data = &watch;
        ev_io_start(loop_, &io);
    }
    void Delete(Watch& watch) override { ev_io_stop(loop_, &watch.room.As<ev_io>()); }

    void Add(Wake& wake) override
    {
        ev_async& async = wake.room.Make<ev_async>();
        ev_async_init(&async, (Run<ev_async, Wake>));
        async.data = &wake;
        ev_async_start(loop_, &async);
    }
    void Delete(Wake& wake) override { ev_async_stop(loop_, &wake.room.As<ev_async>()); }
    void Send(Wake& wake) override { ev_async_send(loop_, &wake.room.As<ev_async>()); }
    bool MergesWakes() const override { return true; }

    void Add(Timer& timer) override
    {
        ev_timer& record = timer.room.Make<ev_timer>();
        const double period = timer.periodMs / 1e3;
        ev_timer_init(&record, OnTimer, period, period);
        record.data = &timer;
        ev_timer_start(loop_, &record);
    }
    void Delete(Timer& timer) override { ev_timer_stop(loop_, &timer.room.As<ev_timer>()); }

    void RefreshTime() override { ev_now_update(loop_); }

    void Run() override { ev_run(loop_, 0); }
    void Stop() override { ev_break(loop_, EVBREAK_ALL); }

private:
    template <typename Record, typename Target>
    static void Run(struct ev_loop* /*loop*/, Record* record, int /*events*/)
    {
        const auto* target = static_cast<const Target*>(record->data);
        target->proc(target->data);
    }
    static void OnTimer(struct ev_loop* /*loop*/, ev_timer* record, int /*events*/)
    {
        auto* timer = static_cast<Timer*>(record->data);
        timer->expirations = 1;
        timer->proc(timer->data);
    }

    const bool priorities_;
    struct ev_loop* const loop_;
};

} // namespace

std::unique_ptr<Loop> MakeLoop(const LoopOptions& options)
{
    return std::make_unique<LibevLoop>(options);
}

const char* PeerName()
{
    return "libev";
}

const char* PeerVersion()
{
    static const std::string text =
        std::to_string(ev_version_major()) + "." + std::to_string(ev_version_minor());
    return text.c_str();
}
