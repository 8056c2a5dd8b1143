// The table at the end, and the verdict: does every account close, and is nothing left?
#ifndef SERVICE_PLATFORM_REPORT_H
#define SERVICE_PLATFORM_REPORT_H

#include <vector>

#include "examples/common/holdings.h"
#include "examples/service_platform/load.h"
#include "examples/service_platform/platform.h"
#include "examples/service_platform/trace.h"

struct Report {
    PlatformAccount platform;
    bool hasLoad = false;
    LoadTally load;
    std::vector<TraceRow> runs;
    u64 dispatchErrors = 0;
    u64 liveTasks = 0;
    u64 logRefusals = 0; // lines about refused messages
    u64 logOthers = 0;   // all other lines
    Holdings left = {};
};

// Prints the table on standard output, then each account that does not close. True: all close.
bool PrintReport(const Report& report);

#endif // SERVICE_PLATFORM_REPORT_H
