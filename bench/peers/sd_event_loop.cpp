// sd-event. One callback per iteration, the most urgent one, by its nature. It has no wake-up from
// another thread; a semaphore eventfd stands in.
#include <sys/eventfd.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include "bench/peers/measure.h"
#include "bench/peers/thread_loop.h"

namespace
{

struct WakeRecord {
    sd_event_source* source;
    int fd;
};

class SdEventLoop final : public ThreadLoop
{
public:
    explicit SdEventLoop(const LoopOptions& options) : priorities_(options.priorities)
    {
        Checked(sd_event_new(&event_), "sd_event_new");
    }
    ~SdEventLoop() override { sd_event_unref(event_); }

    void Add(Watch& watch) override
    {
        sd_event_source*& source = watch.room.Make<sd_event_source*>();
        Checked(sd_event_add_io(event_, &source, watch.fd, EPOLLIN, OnIo, &watch),
                "sd_event_add_io");
        if (priorities_ && watch.urgent) {
            sd_event_source_set_priority(source, SD_EVENT_PRIORITY_IMPORTANT);
        }
    }
    void Delete(Watch& watch) override
    {
        sd_event_source_disable_unref(watch.room.As<sd_event_source*>());
    }

    void Add(Wake& wake) override
    {
        auto& record = wake.room.Make<WakeRecord>();
        record.fd = Checked(eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC), "eventfd");
        Checked(sd_event_add_io(event_, &record.source, record.fd, EPOLLIN, OnWake, &wake),
                "sd_event_add_io");
    }
    void Delete(Wake& wake) override
    {
        auto& record = wake.room.As<WakeRecord>();
        sd_event_source_disable_unref(record.source);
        close(record.fd);
    }
    void Send(Wake& wake) override { eventfd_write(wake.room.As<WakeRecord>().fd, 1); }

    void Add(Timer& timer) override
    {
        sd_event_source*& source = timer.room.Make<sd_event_source*>();
        constexpr std::uint64_t kAccuracyUs = 1;
        const std::uint64_t due = NowNs() / 1000 + PeriodUs(timer);
        Checked(
            sd_event_add_time(event_, &source, CLOCK_MONOTONIC, due, kAccuracyUs, OnTimer, &timer),
            "sd_event_add_time");
    }
    void Delete(Timer& timer) override
    {
        sd_event_source* source = timer.room.As<sd_event_source*>();
        sd_event_source_set_enabled(source, SD_EVENT_OFF);
        sd_event_source_unref(source);
    }

    void Run() override
    {
        stop_ = false;
        while (!stop_) {
            Checked(sd_event_run(event_, UINT64_MAX), "sd_event_run");
        }
    }
    void Stop() override { stop_ = true; }

private:
    static std::uint64_t PeriodUs(const Timer& timer)
    {
        return std::uint64_t{timer.periodMs} * 1000;
    }
    static int OnIo(sd_event_source* /*source*/, int /*fd*/, uint32_t /*events*/, void* data)
    {
        const auto* watch = static_cast<const Watch*>(data);
        watch->proc(watch->data);
        return 0;
    }
    static int OnWake(sd_event_source* /*source*/, int fd, uint32_t /*events*/, void* data)
    {
        const auto* wake = static_cast<const Wake*>(data);
        eventfd_t value = 0;
        if (eventfd_read(fd, &value) == 0) {
            wake->proc(wake->data);
        }
        return 0;
    }
    static int OnTimer(sd_event_source* source, uint64_t dueUs, void* data)
    {
        auto* timer = static_cast<Timer*>(data);
        sd_event_source_set_time(source, dueUs + PeriodUs(*timer));
        sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
        timer->expirations = 1;
        timer->proc(timer->data);
        return 0;
    }

    const bool priorities_;
    sd_event* event_ = nullptr;
    bool stop_ = false;
};

} // namespace

std::unique_ptr<Loop> MakeLoop(const LoopOptions& options)
{
    return std::make_unique<SdEventLoop>(options);
}

const char* PeerName()
{
    return "sd-event";
}

const char* PeerVersion()
{
    return XEL_SYSTEMD_VERSION;
}
