// The scenarios. Each measures one peer once and puts what it found into the line; anything that
// goes wrong is thrown.
#ifndef XEL_BENCH_PEERS_SCENARIO_H
#define XEL_BENCH_PEERS_SCENARIO_H

#include "bench/peers/measure.h"

struct Scenario {
    const char* name;
    void (*run)(const Arguments& arguments, Line& line);
};

void RingScenario(const Arguments& arguments, Line& line);
void UrgentScenario(const Arguments& arguments, Line& line);
void PingPongScenario(const Arguments& arguments, Line& line);
void FloodScenario(const Arguments& arguments, Line& line);
void TimerChurnScenario(const Arguments& arguments, Line& line);
void TimerPeriodicScenario(const Arguments& arguments, Line& line);
void MessageRateScenario(const Arguments& arguments, Line& line);
void MessageLatencyScenario(const Arguments& arguments, Line& line);
void WatchChurnScenario(const Arguments& arguments, Line& line);

// Runs the scenario that argv names and prints its line. Returns the exit status of the process.
int RunScenario(const Scenario* scenarios, std::size_t count, int argc, char** argv);

#endif // XEL_BENCH_PEERS_SCENARIO_H
