// The counters of the server and what the hooks saw, as text and as JSON. Called while a response
// is built, on the loop's thread.
#ifndef HTTP_SERVER_STATS_REPORT_H
#define HTTP_SERVER_STATS_REPORT_H

#include <string>

#include "common/xel_int.h"
#include "examples/http_server/stats.h"

struct ServerCounters {
    u64 opened = 0;   // connections accepted and served
    u64 closed = 0;   // of those, the ones that have ended
    u64 refused = 0;  // turned away because there were too many
    u64 timedOut = 0; // found late by the sweep
    u64 requests = 0; // responses handed to the kernel as a whole

    u64 Open() const { return opened - closed; }
};

std::string StatsAsText(const TaskStats& stats, const ServerCounters& counters);
std::string StatsAsJson(const TaskStats& stats, const ServerCounters& counters);

#endif // HTTP_SERVER_STATS_REPORT_H
