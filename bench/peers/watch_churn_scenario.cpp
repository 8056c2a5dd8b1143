// The cost of one more descriptor beside many: add it, delete it, and whatever the peer puts off.
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

#include "bench/peers/loop.h"
#include "bench/peers/scenario.h"

namespace
{

void Nothing(void* /*data*/) {}

int MakeDescriptor()
{
    return Checked(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "eventfd");
}

// Registered descriptors that never get ready.
class IdleWatches
{
public:
    IdleWatches(Loop& loop, int count) : loop_(loop), watches_(static_cast<std::size_t>(count))
    {
        for (Watch& watch : watches_) {
            watch.fd = MakeDescriptor();
            watch.proc = Nothing;
            loop_.Add(watch);
        }
        loop_.Settle();
    }
    ~IdleWatches()
    {
        for (Watch& watch : watches_) {
            loop_.Delete(watch);
        }
        loop_.Settle();
        for (const Watch& watch : watches_) {
            close(watch.fd);
        }
    }
    IdleWatches(const IdleWatches&) = delete;
    IdleWatches& operator=(const IdleWatches&) = delete;

private:
    Loop& loop_;
    std::vector<Watch> watches_;
};

void AddAndDelete(Loop& loop, int fd, std::vector<Watch>& batch)
{
    for (Watch& watch : batch) {
        watch.fd = fd;
        watch.proc = Nothing;
        loop.Add(watch);
        loop.Delete(watch);
    }
    loop.Settle();
}

} // namespace

void WatchChurnScenario(const Arguments& arguments, Line& line)
{
    constexpr std::size_t kBatch = 100;
    const auto loop = MakeLoop(LoopOptions());
    const IdleWatches beside(*loop, arguments.Whole("beside", 10));
    const int fd = MakeDescriptor();
    std::vector<Watch> batch(kBatch);
    AddAndDelete(*loop, fd, batch); // warm-up
    const auto budget = static_cast<std::uint64_t>(arguments.Real("seconds", 0.05) * 1e9);
    const std::uint64_t end = NowNs() + budget;
    std::vector<double> costs;
    std::uint64_t now = NowNs();
    while (now < end) {
        const std::uint64_t begin = now;
        AddAndDelete(*loop, fd, batch);
        now = NowNs();
        costs.push_back(static_cast<double>(now - begin) / kBatch);
    }
    close(fd);
    line.Put("ns_per_watch", Percentile(costs, 0.5));
}
