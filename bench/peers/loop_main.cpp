// The scenarios that an event loop takes part in. Without arguments: name and version of the peer.
#include <iterator>

#include "bench/peers/scenario.h"

int main(int argc, char** argv)
{
    static constexpr Scenario kScenarios[] = {
        {"ring", RingScenario},
        {"urgent", UrgentScenario},
        {"ping_pong", PingPongScenario},
        {"flood", FloodScenario},
        {"timer_churn", TimerChurnScenario},
        {"timer_periodic", TimerPeriodicScenario},
        {"message_rate", MessageRateScenario},
        {"message_latency", MessageLatencyScenario},
        {"watch_churn", WatchChurnScenario},
    };
    return RunScenario(kScenarios, std::size(kScenarios), argc, argv);
}
