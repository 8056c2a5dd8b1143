// Events across two scheduler threads, step by step, with what came of each on standard output. The
// library's log goes to standard error; the last two steps are there to be read in it.
#include <cstdio>
#include <exception>
#include <thread>
#include <vector>

#include "examples/common/holdings.h"
#include "examples/worker_events/callbacks.h"

namespace
{

using Clock = std::chrono::steady_clock;

constexpr u64 kNotifiers = 4;
constexpr u64 kNotificationsEach = 10000;
constexpr u64 kNotifications = kNotifiers * kNotificationsEach;

// Runs of every callback. Outlives the scheduler threads: what it says then is final.
struct Runs {
    PingPong game;
    Counter onAlpha;
    Counter onBeta;
    Counter stuck;
    Counter slow;
};

double MillisecondsSince(Clock::time_point begin)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

// The callback on each thread notifies the event on the other.
void PlayPingPong(const WorkerEvent& ping, const WorkerEvent& pong, PingPong& game)
{
    game.ping.store(&ping, std::memory_order_release);
    game.pong.store(&pong, std::memory_order_release);
    const auto begin = Clock::now();
    ping.Notify();
    game.pongs.WaitFor(kRounds);
    const double us = 1000 * MillisecondsSince(begin) / static_cast<double>(kRounds);
    printf("ping-pong: %lu rounds between alpha and beta, %.1f us each\n", kRounds, us);
}

void NotifyOften(const WorkerEvent& one, const WorkerEvent& other)
{
    for (u64 i = 0; i < kNotificationsEach; ++i) {
        one.Notify();
        other.Notify();
    }
}

// Several plain threads notify two events at once; none of the notifications is lost or merged.
void NotifyFromThreads(const WorkerEvent& onAlpha, const WorkerEvent& onBeta, Runs& runs)
{
    {
        std::vector<std::jthread> notifiers;
        for (u64 i = 0; i < kNotifiers; ++i) {
            notifiers.emplace_back([&] { NotifyOften(onAlpha, onBeta); });
        }
    }
    runs.onAlpha.WaitFor(kNotifications);
    runs.onBeta.WaitFor(kNotifications);
    printf("notifiers: %lu threads, %lu notifications for alpha and as many for beta\n", kNotifiers,
           kNotifications);
}

// One stuck and one slow callback, back to back on beta: the monitor has just seen the thread work
// when it gets stuck, and notices the end of that while the slow callback still runs.
void KeepBetaBusy(const WorkerEvent& stuck, const WorkerEvent& slow, Runs& runs)
{
    auto begin = Clock::now();
    stuck.Notify();
    slow.Notify();
    runs.stuck.WaitFor(1);
    printf("stuck: a callback kept beta for %.0f ms; the log has three reports, then the run\n",
           MillisecondsSince(begin));
    begin = Clock::now();
    runs.slow.WaitFor(1);
    printf("slow: a callback kept beta for %.0f ms; the log has the run\n",
           MillisecondsSince(begin));
}

// All events live until the last step is over, so that a run too many would have had its time. They
// go before their threads do.
void RunSteps(Runs& runs)
{
    const Worker alpha("alpha");
    const Worker beta("beta");
    const WorkerEvent ping(alpha, PingCallback, "ping", &runs.game);
    const WorkerEvent pong(beta, PongCallback, "pong", &runs.game);
    const WorkerEvent onAlpha(alpha, CountCallback, "count", &runs.onAlpha);
    const WorkerEvent onBeta(beta, CountCallback, "count", &runs.onBeta);
    const WorkerEvent stuck(beta, StuckCallback, "stuck", &runs.stuck);
    const WorkerEvent slow(beta, SlowCallback, "slow", &runs.slow);
    PlayPingPong(ping, pong, runs.game);
    NotifyFromThreads(onAlpha, onBeta, runs);
    KeepBetaBusy(stuck, slow, runs);
}

bool CheckRuns(Runs& runs)
{
    const u64 pings = runs.game.pings.Value();
    const u64 pongs = runs.game.pongs.Value();
    const u64 onAlpha = runs.onAlpha.Value();
    const u64 onBeta = runs.onBeta.Value();
    const u64 stuck = runs.stuck.Value();
    const u64 slow = runs.slow.Value();
    printf("runs: %lu pings, %lu pongs, %lu counted on alpha, %lu on beta, %lu stuck, %lu slow\n",
           pings, pongs, onAlpha, onBeta, stuck, slow);
    return pings == kRounds && pongs == kRounds && onAlpha == kNotifications &&
           onBeta == kNotifications && stuck == 1 && slow == 1;
}

Holdings HoldingsAfterFirstWorker()
{
    const long threads = CountThreadsAtRest();
    {
        const Worker first("first");
    }
    return CountHoldingsWithThreads(threads);
}

// Against what was there after a first thread had come and gone: the tables that it made stay for
// the life of the process.
bool CheckHoldings(const Holdings& before)
{
    const Holdings now = CountHoldingsWithThreads(before.threads);
    const long blocks = now.blocks - before.blocks;
    const long descriptors = now.descriptors - before.descriptors;
    const long threads = now.threads - before.threads;
    printf("left: %ld blocks, %ld descriptors, %ld threads\n", blocks, descriptors, threads);
    return blocks == 0 && descriptors == 0 && threads == 0;
}

} // namespace

int main()
{
    // Whole lines at once, so that they stand beside the log lines of the same moment.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    try {
        const Holdings before = HoldingsAfterFirstWorker();
        Runs runs;
        RunSteps(runs);
        const bool exact = CheckRuns(runs);
        const bool clean = CheckHoldings(before);
        return exact && clean ? 0 : 1;
    } catch (const std::exception& error) {
        fprintf(stderr, "worker_events: %s\n", error.what());
        return 1;
    }
}
