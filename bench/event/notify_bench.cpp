// What XEL_EventNotify costs on top of the eventfd_write that it makes. Each iteration times a
// batch of bare writes and a batch of notifications right after one another, on descriptors that
// the same scheduler thread watches, and takes the other order the next time.
//
// During the timed part the scheduler thread sits in a callback that waits on a semaphore: it
// neither polls nor runs anything, so both batches do the same in the kernel, the first write of
// each putting its descriptor on the epoll instance's ready list and the others only adding to the
// counter. Between the timed parts the thread runs what was notified, so the counters start at
// zero, and each notification is seen to have made one run.
#include <atomic>
#include <stdexcept>

#include <sys/eventfd.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "bench/event/event_objects.h"
#include "xel_sch_task.h"

namespace
{

constexpr int kBatch = 2000;

// An eventfd that is bound to a scheduler thread as an event is, but is written by hand. Its
// callback, on that thread, takes everything at once: the descriptor is no semaphore.
class BareDescriptor
{
public:
    explicit BareDescriptor(const SchedulerThread& thread)
        : thread_(thread), fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
    {
        XelTaskAttr* attr = XEL_TaskCreateAttr();
        const XelTaskUsrCb callback = {Drain, reinterpret_cast<std::uint64_t>(this)};
        const std::uint32_t type = XEL_TASK_TYPE_PRIO;
        const std::uint32_t prio = 1;
        XEL_TaskSetAttr(attr, XEL_TASK_ATTR_USR_CB, &callback, sizeof(callback));
        XEL_TaskSetAttr(attr, XEL_TASK_ATTR_TYPE, &type, sizeof(type));
        XEL_TaskSetAttr(attr, XEL_TASK_ATTR_PRIO, &prio, sizeof(prio));
        SchEpollCtlReq request = {EPOLLIN, attr};
        const bool bound =
            XEL_ThreadCtrl(thread_.Handle(), XEL_THREAD_CTRL_ADD, fd_, &request) == XEL_OK;
        XEL_TaskDestroyAttr(attr);
        if (!bound) {
            close(fd_);
            throw std::runtime_error("cannot register a descriptor");
        }
    }
    ~BareDescriptor()
    {
        XEL_ThreadCtrl(thread_.Handle(), XEL_THREAD_CTRL_DEL, fd_, nullptr);
        close(fd_);
    }
    BareDescriptor(const BareDescriptor&) = delete;
    BareDescriptor& operator=(const BareDescriptor&) = delete;

    bool Write() const { return eventfd_write(fd_, 1) == 0; }
    void WaitDrained() { drained_.Wait(); }

private:
    static std::uint32_t Drain(struct epoll_event* /*events*/, std::uint64_t data)
    {
        auto* self = reinterpret_cast<BareDescriptor*>(data);
        eventfd_t value = 0;
        const int result = eventfd_read(self->fd_, &value);
        self->drained_.Post();
        return result == 0 ? 0 : 1;
    }

    const SchedulerThread& thread_;
    const int fd_;
    Signal drained_;
};

// An event whose callback keeps the scheduler thread until it is let go.
class Holder
{
public:
    explicit Holder(const SchedulerThread& thread) : event_(thread, Hold, this) {}

    void Take()
    {
        event_.Notify();
        held_.Wait();
    }
    void LetGo() { letGo_.Post(); }

private:
    static std::uint32_t Hold(std::uint64_t data)
    {
        auto* self = reinterpret_cast<Holder*>(data);
        self->held_.Post();
        self->letGo_.Wait();
        return 0;
    }

    Signal held_;
    Signal letGo_;
    Event event_;
};

// An event that counts its runs and tells when a batch of them is complete.
class CountedEvent
{
public:
    explicit CountedEvent(const SchedulerThread& thread) : event_(thread, Run, this) {}

    bool Notify() const { return event_.Notify(); }
    void WaitForBatch() { batchDone_.Wait(); }
    std::uint64_t Runs() const { return runs_.load(std::memory_order_relaxed); }

private:
    static std::uint32_t Run(std::uint64_t data)
    {
        auto* self = reinterpret_cast<CountedEvent*>(data);
        if ((self->runs_.fetch_add(1, std::memory_order_relaxed) + 1) % kBatch == 0) {
            self->batchDone_.Post();
        }
        return 0;
    }

    std::atomic<std::uint64_t> runs_{0}; // any memory order: the semaphore publishes it
    Signal batchDone_;
    Event event_;
};

// Nanoseconds per call of a batch; a refused call is told by refused.
template <typename Call>
double TimeBatch(bool& refused, Call&& call)
{
    return NanosecondsOf([&] {
               for (int i = 0; i < kBatch; ++i) {
                   refused |= !call();
               }
           }) /
           kBatch;
}

void NotifyAgainstWrite(benchmark::State& state)
{
    const SchedulerThread thread("bench_notify");
    Holder holder(thread);
    BareDescriptor bare(thread);
    CountedEvent event(thread);
    std::vector<double> writeNs;
    std::vector<double> notifyNs;
    bool refused = false;
    bool writeFirst = true;
    const auto write = [&] { writeNs.push_back(TimeBatch(refused, [&] { return bare.Write(); })); };
    const auto notify = [&] {
        notifyNs.push_back(TimeBatch(refused, [&] { return event.Notify(); }));
    };
    for (auto _ : state) {
        holder.Take();
        if (writeFirst) {
            write();
            notify();
        } else {
            notify();
            write();
        }
        writeFirst = !writeFirst;
        holder.LetGo();
        bare.WaitDrained();
        event.WaitForBatch();
    }
    if (refused || event.Runs() != notifyNs.size() * kBatch) {
        state.SkipWithError("a write failed, or notifications and runs differ in number");
        return;
    }
    state.counters["write_ns"] = Median(writeNs);
    state.counters["notify_ns"] = Median(notifyNs);
    state.counters["on_top_ns"] = Median(notifyNs) - Median(writeNs);
    state.counters["runs"] = static_cast<double>(event.Runs());
}
BENCHMARK(NotifyAgainstWrite)->Iterations(500)->Unit(benchmark::kMicrosecond);

} // namespace
