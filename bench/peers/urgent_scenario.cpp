// One urgent eventfd among descriptors that are always ready and keep the loop busy for 20
// microseconds each. Another thread writes the urgent one at random moments; what counts is the
// time from there to its callback, and how much bulk work got done meanwhile.
#include <atomic>
#include <thread>
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

#include "bench/peers/loop.h"
#include "bench/peers/scenario.h"
#include "bench/peers/signal.h"

namespace
{

constexpr std::uint64_t kSpinNs = 20000;
constexpr unsigned kPauseMinUs = 200;
constexpr unsigned kPauseSpreadUs = 1600;

class Bulk
{
public:
    Bulk(Loop& loop, int count) : loop_(loop), watches_(static_cast<std::size_t>(count))
    {
        for (Watch& watch : watches_) {
            watch.fd = Checked(eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC), "eventfd");
            watch.proc = Spin;
            watch.data = this;
            loop_.Add(watch);
        }
    }
    ~Bulk()
    {
        for (Watch& watch : watches_) {
            loop_.Delete(watch);
        }
        loop_.Settle();
        for (const Watch& watch : watches_) {
            close(watch.fd);
        }
    }
    Bulk(const Bulk&) = delete;
    Bulk& operator=(const Bulk&) = delete;

    double Runs() const { return static_cast<double>(runs_); }

private:
    static void Spin(void* data)
    {
        static_cast<Bulk*>(data)->runs_ += 1;
        const std::uint64_t end = NowNs() + kSpinNs;
        while (NowNs() < end) {
        }
    }

    Loop& loop_;
    std::uint64_t runs_ = 0;
    std::vector<Watch> watches_;
};

class Urgent
{
public:
    explicit Urgent(Loop& loop) : loop_(loop)
    {
        watch_.fd = Checked(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "eventfd");
        watch_.urgent = true;
        watch_.proc = Answer;
        watch_.data = this;
        loop_.Add(watch_);
    }
    ~Urgent()
    {
        loop_.Delete(watch_);
        loop_.Settle();
        close(watch_.fd);
    }
    Urgent(const Urgent&) = delete;
    Urgent& operator=(const Urgent&) = delete;

    // The writing thread. One write at a time is under way; the last one stops the loop.
    void Write(double seconds)
    {
        const std::uint64_t end = NowNs() + static_cast<std::uint64_t>(seconds * 1e9);
        std::uint32_t random = 2463534242U;
        bool last = false;
        while (!last) {
            random ^= random << 13U;
            random ^= random >> 17U;
            random ^= random << 5U;
            usleep(kPauseMinUs + random % kPauseSpreadUs);
            last = NowNs() >= end;
            last_.store(last, std::memory_order_relaxed); // the descriptor publishes it
            writtenAt_.store(NowNs(), std::memory_order_relaxed);
            eventfd_write(watch_.fd, 1);
            answered_.Wait();
        }
    }

    std::vector<double>& LatenciesUs() { return latenciesUs_; }

private:
    static void Answer(void* data)
    {
        auto* self = static_cast<Urgent*>(data);
        const std::uint64_t now = NowNs();
        const std::uint64_t begin = self->writtenAt_.load(std::memory_order_relaxed);
        self->latenciesUs_.push_back(static_cast<double>(now - begin) / 1e3);
        eventfd_t value = 0;
        eventfd_read(self->watch_.fd, &value);
        if (self->last_.load(std::memory_order_relaxed)) {
            self->loop_.Stop();
        }
        self->answered_.Post();
    }

    Loop& loop_;
    std::atomic<std::uint64_t> writtenAt_{0};
    std::atomic<bool> last_{false};
    Signal answered_;
    std::vector<double> latenciesUs_;
    Watch watch_;
};

} // namespace

void UrgentScenario(const Arguments& arguments, Line& line)
{
    LoopOptions options;
    options.priorities = true;
    options.oneAtATime = arguments.Whole("one", 0) != 0;
    options.batch = 32;
    const auto loop = MakeLoop(options);
    const double seconds = arguments.Real("seconds", 0.5);
    Urgent urgent(*loop);
    const Bulk bulk(*loop, arguments.Whole("bulk", 200)); // goes first: busy loops never settle
    const std::uint64_t begin = NowNs();
    std::thread writer([&] { urgent.Write(seconds); });
    loop->Run();
    const std::uint64_t end = NowNs();
    writer.join();
    std::vector<double>& samples = urgent.LatenciesUs();
    line.Put("p50_us", Percentile(samples, 0.50));
    line.Put("p99_us", Percentile(samples, 0.99));
    line.Put("max_us", Percentile(samples, 1.0));
    line.Put("samples", static_cast<double>(samples.size()));
    line.Put("bulk_per_s", bulk.Runs() * 1e9 / static_cast<double>(end - begin));
}
