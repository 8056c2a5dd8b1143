// Tokens that go round a ring of pipes: the callback of a pipe takes one byte out of it and puts
// one into the next. Every event costs one read and one write, whatever loop delivers it; what
// differs is the polling and the loop's own work.
#include <memory>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "bench/peers/loop.h"
#include "bench/peers/scenario.h"

namespace
{

class Ring
{
public:
    Ring(Loop& loop, int size, int tokens) : loop_(loop), pipes_(static_cast<std::size_t>(size))
    {
        for (Pipe& pipe : pipes_) {
            int ends[2];
            Checked(pipe2(ends, O_NONBLOCK | O_CLOEXEC), "pipe2");
            pipe.ring = this;
            pipe.watch.fd = ends[0];
            pipe.ownWriteFd = ends[1];
        }
        for (std::size_t i = 0; i < pipes_.size(); ++i) {
            pipes_[i].nextWriteFd = pipes_[(i + 1) % pipes_.size()].ownWriteFd;
            pipes_[i].watch.proc = Pass;
            pipes_[i].watch.data = &pipes_[i];
            loop_.Add(pipes_[i].watch);
        }
        const auto count = static_cast<std::size_t>(tokens);
        for (std::size_t token = 0; token < count; ++token) {
            PutByte(pipes_[token * pipes_.size() / count].ownWriteFd);
        }
    }
    ~Ring()
    {
        for (Pipe& pipe : pipes_) {
            loop_.Delete(pipe.watch);
        }
        loop_.Settle();
        for (const Pipe& pipe : pipes_) {
            close(pipe.watch.fd);
            close(pipe.ownWriteFd);
        }
    }
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;

    // Nanoseconds per event. A loop that runs a whole batch before it stops is measured by the
    // events that really ran.
    double Measure(std::int64_t events)
    {
        left_ = events;
        const std::uint64_t begin = NowNs();
        loop_.Run();
        const std::uint64_t end = NowNs();
        if (failed_) {
            throw std::runtime_error("a token was lost");
        }
        return static_cast<double>(end - begin) / static_cast<double>(events - left_);
    }

private:
    struct Pipe {
        Watch watch;
        Ring* ring = nullptr;
        int nextWriteFd = -1;
        int ownWriteFd = -1;
    };

    static void PutByte(int fd)
    {
        const char byte = 't';
        Checked(static_cast<int>(write(fd, &byte, 1)), "write");
    }

    static void Pass(void* data)
    {
        const auto* pipe = static_cast<const Pipe*>(data);
        Ring* ring = pipe->ring;
        char byte = 0;
        if (read(pipe->watch.fd, &byte, 1) != 1 || write(pipe->nextWriteFd, &byte, 1) != 1) {
            ring->failed_ = true;
            ring->loop_.Stop();
        }
        ring->left_ -= 1;
        if (ring->left_ == 0) {
            ring->loop_.Stop();
        }
    }

    Loop& loop_;
    std::int64_t left_ = 0;
    bool failed_ = false;
    std::vector<Pipe> pipes_;
};

} // namespace

// The median of several parts: what else the machine does meanwhile hits some of them only.
void RingScenario(const Arguments& arguments, Line& line)
{
    constexpr std::int64_t kWarmUp = 5000;
    constexpr int kParts = 9;
    LoopOptions options;
    options.oneAtATime = arguments.Whole("one", 0) != 0;
    options.priorities = options.oneAtATime;
    const auto loop = MakeLoop(options);
    Ring ring(*loop, arguments.Whole("size", 100), arguments.Whole("tokens", 100));
    const double estimate = ring.Measure(kWarmUp);
    const double budgetNs = arguments.Real("seconds", 0.1) * 1e9;
    const auto events = static_cast<std::int64_t>(budgetNs / estimate / kParts) + 1;
    std::vector<double> parts(kParts);
    for (double& part : parts) {
        part = ring.Measure(events);
    }
    line.Put("ns_per_event", Percentile(parts, 0.5));
}
