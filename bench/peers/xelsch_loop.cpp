// libxelsch through its public functions. A loop that is run by the caller is a scheduler on an
// epoll descriptor; one with a thread of its own is a scheduler thread with the default attributes,
// whose wake-ups are events and whose timers are timers of the library.
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <stdexcept>

#include <unistd.h>

#include "bench/peers/loop.h"
#include "bench/peers/measure.h"
#include "xel_event.h"
#include "xel_scheduler.h"
#include "xel_thread.h"
#include "xel_timer.h"

namespace
{

void Demand(bool done, const char* what)
{
    if (!done) {
        throw std::runtime_error(what);
    }
}

// The attribute object of a loop's tasks; what differs between two of them is set before each use.
class TaskAttr
{
public:
    TaskAttr() : attr_(XEL_TaskCreateAttr())
    {
        constexpr std::uint32_t kType = XEL_TASK_TYPE_PRIO;
        XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_TYPE, &kType, sizeof(kType));
    }
    ~TaskAttr() { XEL_TaskDestroyAttr(attr_); }
    TaskAttr(const TaskAttr&) = delete;
    TaskAttr& operator=(const TaskAttr&) = delete;

    SchEpollCtlReq RequestFor(Watch& watch)
    {
        const std::uint32_t prio = watch.urgent ? 0 : 31;
        const XelTaskUsrCb callback = {Run, reinterpret_cast<std::uint64_t>(&watch)};
        XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_USR_CB, &callback, sizeof(callback));
        XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_PRIO, &prio, sizeof(prio));
        return {EPOLLIN, attr_};
    }

private:
    static std::uint32_t Run(struct epoll_event* /*events*/, std::uint64_t data)
    {
        const auto* watch = reinterpret_cast<const Watch*>(data);
        watch->proc(watch->data);
        return 0;
    }

    XelTaskAttr* const attr_;
};

// A scheduler that the calling thread dispatches.
class SchedulerLoop final : public Loop
{
public:
    explicit SchedulerLoop(const LoopOptions& options)
        : epFd_(Checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1"))
    {
        if (options.priorities) {
            sch_ = XEL_SchCreate(static_cast<std::uint32_t>(epFd_),
                                 static_cast<std::uint32_t>(options.batch));
        } else {
            const SchEpollOps ops = {epoll_wait, EpollControl, ErrorNumber, nullptr};
            sch_ = SCH_CreateSch(epFd_, options.batch, &ops, nullptr);
        }
        Demand(sch_ != nullptr, "cannot create a scheduler");
    }
    ~SchedulerLoop() override
    {
        XEL_SchDestroy(sch_);
        close(epFd_);
    }

    void Add(Watch& watch) override
    {
        SchEpollCtlReq request = taskAttr_.RequestFor(watch);
        Demand(SCH_EpollCtrl(sch_, XEL_SCH_EPOLL_ADD, watch.fd, &request) == XEL_OK,
               "cannot add a descriptor");
    }
    void Delete(Watch& watch) override
    {
        Demand(SCH_EpollCtrl(sch_, XEL_SCH_EPOLL_DEL, watch.fd, nullptr) == XEL_OK,
               "cannot delete a descriptor");
    }
    void Run() override
    {
        stop_ = false;
        while (!stop_) {
            XEL_SchDispatch(sch_);
        }
    }
    void Stop() override { stop_ = true; }

    // Events and timers belong to scheduler threads.
    void Add(Wake& /*wake*/) override { Demand(false, "no thread"); }
    void Delete(Wake& /*wake*/) override {}
    void Send(Wake& /*wake*/) override {}
    void Add(Timer& /*timer*/) override { Demand(false, "no thread"); }
    void Delete(Timer& /*timer*/) override {}
    void Start() override { Demand(false, "no thread"); }
    void Join() override {}

private:
    static int EpollControl(int epFd, std::uint32_t op, int fd, struct epoll_event* event)
    {
        static constexpr int kOps[] = {EPOLL_CTL_ADD, EPOLL_CTL_MOD, EPOLL_CTL_DEL};
        return epoll_ctl(epFd, kOps[op], fd, event);
    }
    static int ErrorNumber() { return errno; }

    const int epFd_;
    TaskAttr taskAttr_;
    SchCtrl* sch_ = nullptr;
    bool stop_ = false;
};

// A scheduler thread; it runs from its creation to its destruction.
class SchedulerThreadLoop final : public Loop
{
public:
    SchedulerThreadLoop() : timerAttr_(XEL_TimerCreateAttr())
    {
        constexpr std::uint32_t kMode = XEL_TIMER_MODE_PERIODIC;
        XEL_TimerSetAttr(timerAttr_, XEL_TIMER_ATTR_MODE, &kMode, sizeof(kMode));
        XEL_TimerSetAttr(timerAttr_, XEL_TIMER_ATTR_DESTRUCTOR,
                         reinterpret_cast<const void*>(OnTimerGone), sizeof(&OnTimerGone));
        XelThreadAttr* attr = XEL_ThreadCreateAttr();
        constexpr const char* kName = "peer";
        XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_NAME, kName, std::strlen(kName));
        thread_ = XEL_ThreadCreate(attr);
        XEL_ThreadDestroyAttr(attr);
        Demand(thread_ != nullptr, "cannot create a scheduler thread");
    }
    ~SchedulerThreadLoop() override
    {
        Settle();
        (void)SchEventThreadDestory(thread_);
        XEL_TimerDestroyAttr(timerAttr_);
    }

    void Add(Watch& watch) override
    {
        SchEpollCtlReq request = taskAttr_.RequestFor(watch);
        Demand(XEL_ThreadCtrl(thread_, XEL_THREAD_CTRL_ADD, watch.fd, &request) == XEL_OK,
               "cannot add a descriptor");
    }
    void Delete(Watch& watch) override
    {
        Demand(XEL_ThreadCtrl(thread_, XEL_THREAD_CTRL_DEL, watch.fd, nullptr) == XEL_OK,
               "cannot delete a descriptor");
    }

    void Add(Wake& wake) override
    {
        const auto run = [](std::uint64_t data) -> std::uint32_t {
            const auto* target = reinterpret_cast<const Wake*>(data);
            target->proc(target->data);
            return 0;
        };
        XelEventNode*& event = wake.room.Make<XelEventNode*>();
        event = XelEventInnerCreate(thread_, run, "peer", reinterpret_cast<std::uint64_t>(&wake));
        Demand(event != nullptr, "cannot create an event");
    }
    void Delete(Wake& wake) override { XEL_EventDestroy(wake.room.As<XelEventNode*>()); }
    void Send(Wake& wake) override { (void)XEL_EventNotify(wake.room.As<XelEventNode*>()); }

    bool RunsFromCreation() const override { return true; }

    void Add(Timer& timer) override
    {
        const XelTimerUsrCb callback = {OnTimer, &timer};
        XEL_TimerSetAttr(timerAttr_, XEL_TIMER_ATTR_USR_CB, &callback, sizeof(callback));
        XEL_TimerSetAttr(timerAttr_, XEL_TIMER_ATTR_TIMEOUT, &timer.periodMs,
                         sizeof(timer.periodMs));
        TimerRecord& record = timer.room.Make<TimerRecord>();
        record = {this, XEL_TimerCreate(thread_, timerAttr_)};
        Demand(record.node != nullptr, "cannot create a timer");
        Demand(XEL_TimerStart(record.node) == XEL_OK, "cannot start a timer");
    }
    void Delete(Timer& timer) override
    {
        XelTimerNode* node = timer.room.As<TimerRecord>().node;
        Demand(XEL_TimerStop(node) == XEL_OK, "cannot stop a timer");
        XEL_TimerDestroy(node);
        timersDeleted_ += 1;
    }

    // The scheduler thread frees a destroyed timer within about a millisecond.
    void Settle() override
    {
        std::unique_lock<std::mutex> guard(goneMutex_);
        settling_ = true;
        allGone_.wait(guard, [this] { return timersGone_ == timersDeleted_; });
        settling_ = false;
    }

    void Run() override { Demand(false, "a scheduler thread runs by itself"); }
    void Stop() override {}
    void Start() override {}
    void Join() override {}

private:
    struct TimerRecord {
        SchedulerThreadLoop* loop;
        XelTimerNode* node;
    };

    static std::uint32_t OnTimer(XelTimerNode* /*node*/, std::uint64_t expirations, void* userData)
    {
        auto* timer = static_cast<Timer*>(userData);
        timer->expirations = expirations;
        timer->proc(timer->data);
        return 0;
    }
    static void OnTimerGone(void* userData)
    {
        auto* self = static_cast<Timer*>(userData)->room.As<TimerRecord>().loop;
        const std::lock_guard<std::mutex> guard(self->goneMutex_);
        self->timersGone_ += 1;
        if (self->settling_ && self->timersGone_ == self->timersDeleted_) {
            self->allGone_.notify_one();
        }
    }

    TaskAttr taskAttr_;
    XelTimerAttr* const timerAttr_;
    XelThreadCtrl* thread_ = nullptr;
    std::mutex goneMutex_; // guards timersGone_ and settling_
    std::condition_variable allGone_;
    std::uint64_t timersDeleted_ = 0; // unchanged while settling_ is set
    std::uint64_t timersGone_ = 0;
    bool settling_ = false;
};

} // namespace

std::unique_ptr<Loop> MakeLoop(const LoopOptions& options)
{
    if (options.ownThread || options.timers) {
        return std::make_unique<SchedulerThreadLoop>();
    }
    return std::make_unique<SchedulerLoop>(options);
}

const char* PeerName()
{
    return "xelsch";
}

const char* PeerVersion()
{
    return g_xelSchMiniVer;
}
