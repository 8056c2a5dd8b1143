// The floor: what is left when nothing but the mandatory system calls remains. One epoll_wait per
// batch, one eventfd per wake-up, one timerfd per timer, one call through a pointer per event.
#include <cerrno>
#include <vector>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "bench/peers/measure.h"
#include "bench/peers/thread_loop.h"

namespace
{

// Stands at the address that epoll hands back.
struct Entry {
    Proc proc;
    void* data;
    int fd;
};

class FloorLoop final : public ThreadLoop
{
public:
    explicit FloorLoop(const LoopOptions& options)
        : wakeFlags_(EFD_NONBLOCK | EFD_CLOEXEC | (options.mergeWakes ? 0 : EFD_SEMAPHORE)),
          epFd_(Checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
          events_(options.oneAtATime ? 1 : static_cast<std::size_t>(options.batch))
    {
    }
    ~FloorLoop() override { close(epFd_); }

    void Add(Watch& watch) override { Register(watch.room, {watch.proc, watch.data, watch.fd}); }
    void Delete(Watch& watch) override
    {
        Checked(epoll_ctl(epFd_, EPOLL_CTL_DEL, watch.fd, nullptr), "epoll_ctl");
    }

    void Add(Wake& wake) override
    {
        const int fd = Checked(eventfd(0, wakeFlags_), "eventfd");
        Register(wake.room, {OnWake, &wake, fd});
    }
    void Delete(Wake& wake) override { close(wake.room.As<Entry>().fd); }
    void Send(Wake& wake) override { eventfd_write(wake.room.As<Entry>().fd, 1); }

    bool MergesWakes() const override { return (wakeFlags_ & EFD_SEMAPHORE) == 0; }

    void Add(Timer& timer) override
    {
        const int fd =
            Checked(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "timerfd_create");
        Register(timer.room, {OnTimer, &timer, fd});
        struct itimerspec time = {};
        time.it_value.tv_sec = timer.periodMs / 1000;
        time.it_value.tv_nsec = static_cast<long>(timer.periodMs % 1000) * 1000000;
        time.it_interval = time.it_value;
        Checked(timerfd_settime(fd, 0, &time, nullptr), "timerfd_settime");
    }
    void Delete(Timer& timer) override
    {
        const int fd = timer.room.As<Entry>().fd;
        const struct itimerspec never = {};
        Checked(timerfd_settime(fd, 0, &never, nullptr), "timerfd_settime");
        close(fd); // this ends the registration as well
    }

    void Run() override
    {
        stop_ = false;
        while (!stop_) {
            const int ready =
                epoll_wait(epFd_, events_.data(), static_cast<int>(events_.size()), -1);
            for (int i = 0; i < ready; ++i) {
                const auto* entry =
                    static_cast<const Entry*>(events_[static_cast<std::size_t>(i)].data.ptr);
                entry->proc(entry->data);
            }
        }
    }
    void Stop() override { stop_ = true; }

private:
    void Register(Room& room, const Entry& values) const
    {
        Entry& entry = room.Make<Entry>();
        entry = values;
        struct epoll_event event = {};
        event.events = EPOLLIN;
        event.data.ptr = &entry;
        Checked(epoll_ctl(epFd_, EPOLL_CTL_ADD, values.fd, &event), "epoll_ctl");
    }
    static void OnWake(void* data)
    {
        auto* wake = static_cast<Wake*>(data);
        eventfd_t value = 0;
        if (eventfd_read(wake->room.As<Entry>().fd, &value) == 0) {
            wake->proc(wake->data);
        }
    }
    static void OnTimer(void* data)
    {
        auto* timer = static_cast<Timer*>(data);
        if (read(timer->room.As<Entry>().fd, &timer->expirations, sizeof(timer->expirations)) > 0) {
            timer->proc(timer->data);
        }
    }

    const int wakeFlags_;
    const int epFd_;
    std::vector<struct epoll_event> events_;
    bool stop_ = false;
};

} // namespace

std::unique_ptr<Loop> MakeLoop(const LoopOptions& options)
{
    return std::make_unique<FloorLoop>(options);
}

const char* PeerName()
{
    return "floor";
}

const char* PeerVersion()
{
    static struct utsname system = {};
    uname(&system);
    return system.release;
}
