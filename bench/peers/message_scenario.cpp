// Messages from producer threads to a consumer on a loop's thread: as many as get through, and the
// time that one takes when they come at a fixed rate.
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include <sched.h>

#include "bench/peers/channel.h"
#include "bench/peers/scenario.h"
#include "bench/peers/signal.h"

namespace
{

constexpr std::uint64_t kWindow = 4096; // messages under way at a time

// Producers that send as fast as the consumer takes, never more than the window ahead.
class Race
{
public:
    Race(int producers, std::size_t size, bool drain) : producers_(producers), body_(size)
    {
        ChannelOptions options;
        options.producers = producers;
        options.capacity = kWindow + static_cast<std::size_t>(producers);
        options.drain = drain;
        options.consume = Take;
        options.data = this;
        channel_ = MakeChannel(options);
    }

    // Nanoseconds that the given number of messages takes.
    double Run(std::uint64_t each)
    {
        sent_ = 0;
        taken_ = 0;
        total_ = each * static_cast<std::uint64_t>(producers_);
        const std::uint64_t begin = NowNs();
        std::vector<std::thread> threads;
        threads.reserve(static_cast<std::size_t>(producers_));
        for (int i = 0; i < producers_; ++i) {
            threads.emplace_back([this, each, i] { Produce(static_cast<std::size_t>(i), each); });
        }
        done_.Wait();
        const std::uint64_t end = NowNs();
        for (std::thread& thread : threads) {
            thread.join();
        }
        return static_cast<double>(end - begin);
    }

private:
    void Produce(std::size_t producer, std::uint64_t count)
    {
        for (std::uint64_t i = 0; i < count; ++i) {
            const std::uint64_t number = sent_.fetch_add(1, std::memory_order_relaxed);
            while (number >= taken_.load(std::memory_order_relaxed) + kWindow) {
                sched_yield();
            }
            channel_->Send(producer, body_.data(), body_.size());
        }
    }
    static void Take(void* data, const void* /*body*/, std::size_t /*size*/)
    {
        auto* self = static_cast<Race*>(data);
        if (self->taken_.fetch_add(1, std::memory_order_relaxed) + 1 == self->total_) {
            self->done_.Post();
        }
    }

    const int producers_;
    const std::vector<char> body_;
    std::uint64_t total_ = 0;             // changed while no producer runs
    std::atomic<std::uint64_t> sent_{0};  // the counters only hold producers back:
    std::atomic<std::uint64_t> taken_{0}; // the channel and done_ publish
    Signal done_;
    std::unique_ptr<Channel> channel_;
};

// One producer that sends at a fixed rate and never sleeps, the consumer on another core. Each
// message carries its own moment.
class Stream
{
public:
    Stream(std::size_t size, double perSecond, bool drain)
        : gapNs_(static_cast<std::uint64_t>(1e9 / perSecond)), body_(size)
    {
        ChannelOptions options;
        options.capacity = kWindow * 4;
        options.drain = drain;
        options.consume = Take;
        options.data = this;
        channel_ = MakeChannel(options);
    }

    std::vector<double>& Run(std::uint64_t count)
    {
        PinThisThread(cores_.second);
        count_ = count;
        latenciesUs_.reserve(count);
        std::uint64_t next = NowNs();
        for (std::uint64_t i = 0; i < count; ++i) {
            next += gapNs_;
            std::uint64_t now = NowNs();
            while (now < next) {
                now = NowNs();
            }
            std::memcpy(body_.data(), &now, sizeof(now));
            channel_->Send(0, body_.data(), body_.size());
        }
        done_.Wait();
        return latenciesUs_;
    }

private:
    static void Take(void* data, const void* body, std::size_t /*size*/)
    {
        auto* self = static_cast<Stream*>(data);
        if (self->latenciesUs_.empty()) {
            PinThisThread(self->cores_.first);
        }
        std::uint64_t sentAt = 0;
        std::memcpy(&sentAt, body, sizeof(sentAt));
        self->latenciesUs_.push_back(static_cast<double>(NowNs() - sentAt) / 1e3);
        if (self->latenciesUs_.size() == self->count_) {
            self->done_.Post();
        }
    }

    const TwoCores cores_ = FindTwoCores();
    const std::uint64_t gapNs_;
    std::vector<char> body_;
    std::uint64_t count_ = 0;
    std::vector<double> latenciesUs_;
    Signal done_;
    std::unique_ptr<Channel> channel_;
};

} // namespace

// The median of several parts: what else the machine does meanwhile hits some of them only.
void MessageRateScenario(const Arguments& arguments, Line& line)
{
    constexpr std::uint64_t kWarmUp = 5000;
    constexpr std::size_t kParts = 5;
    const int producers = arguments.Whole("producers", 1);
    Race race(producers, static_cast<std::size_t>(arguments.Whole("size", 64)),
              arguments.Whole("drain", 0) != 0);
    const double estimate = race.Run(kWarmUp) / kWarmUp;
    const double budgetNs = arguments.Real("seconds", 0.2) * 1e9;
    const auto each = static_cast<std::uint64_t>(budgetNs / estimate / kParts) + kWindow;
    const double total = static_cast<double>(each) * producers;
    std::vector<double> wallNs(kParts);
    std::vector<double> cpuNs(kParts);
    for (std::size_t i = 0; i < kParts; ++i) {
        const std::uint64_t cpuBegin = ProcessCpuNs();
        wallNs[i] = race.Run(each) / total;
        cpuNs[i] = static_cast<double>(ProcessCpuNs() - cpuBegin) / total;
    }
    line.Put("ns_per_message", Percentile(wallNs, 0.5));
    line.Put("cpu_ns", Percentile(cpuNs, 0.5));
}

void MessageLatencyScenario(const Arguments& arguments, Line& line)
{
    const double perSecond = arguments.Real("rate", 20000);
    Stream stream(static_cast<std::size_t>(arguments.Whole("size", 64)), perSecond,
                  arguments.Whole("drain", 0) != 0);
    const double seconds = arguments.Real("seconds", 0.3);
    std::vector<double>& samples = stream.Run(static_cast<std::uint64_t>(seconds * perSecond));
    line.Put("p50_us", Percentile(samples, 0.50));
    line.Put("p99_us", Percentile(samples, 0.99));
}
