// As many wake-ups as one thread can send to one loop. A peer that merges wake-ups answers with
// fewer runs; it is done when a run has begun after the last wake-up was sent.
#include <atomic>

#include "bench/peers/loop.h"
#include "bench/peers/scenario.h"
#include "bench/peers/signal.h"

namespace
{

class Flood
{
public:
    explicit Flood(std::uint64_t count) : count_(count)
    {
        LoopOptions options;
        options.ownThread = true;
        loop_ = MakeLoop(options);
        wake_.proc = OnWake;
        wake_.data = this;
        loop_->Add(wake_);
        loop_->Start();
    }
    ~Flood()
    {
        loop_->Join();
        loop_->Delete(wake_);
        loop_->Settle();
    }
    Flood(const Flood&) = delete;
    Flood& operator=(const Flood&) = delete;

    void Measure(Line& line)
    {
        const auto count = static_cast<double>(count_);
        const std::uint64_t begin = NowNs();
        for (std::uint64_t i = 1; i < count_; ++i) {
            loop_->Send(wake_);
        }
        allSent_.store(true, std::memory_order_release); // pairs with the load in OnWake
        loop_->Send(wake_);
        const std::uint64_t sent = NowNs();
        done_.Wait();
        line.Put("ns_per_wake", static_cast<double>(NowNs() - begin) / count);
        line.Put("ns_per_send", static_cast<double>(sent - begin) / count);
        line.Put("runs_per_wake", static_cast<double>(runs_) / count);
    }

private:
    static void OnWake(void* data)
    {
        auto* self = static_cast<Flood*>(data);
        self->runs_ += 1;
        const bool isLast = self->loop_->MergesWakes()
                                ? self->allSent_.load(std::memory_order_acquire)
                                : self->runs_ == self->count_;
        if (isLast && !self->isDone_) {
            self->isDone_ = true;
            self->done_.Post();
        }
    }

    const std::uint64_t count_;
    std::unique_ptr<Loop> loop_;
    Wake wake_;
    std::atomic<bool> allSent_{false};
    std::uint64_t runs_ = 0; // the loop's thread, until it has posted done_
    bool isDone_ = false;
    Signal done_;
};

} // namespace

void FloodScenario(const Arguments& arguments, Line& line)
{
    Flood flood(static_cast<std::uint64_t>(arguments.Whole("count", 1000000)));
    flood.Measure(line);
}
