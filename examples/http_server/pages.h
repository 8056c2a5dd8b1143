// What the server has to say: the pages, and which place in the schedule each target gets.
// Called by the connections on the loop's thread.
#ifndef HTTP_SERVER_PAGES_H
#define HTTP_SERVER_PAGES_H

#include <string_view>

#include "common/xel_int.h"
#include "examples/common/page.h"
#include "examples/http_server/loop.h"
#include "examples/http_server/stats_report.h"

constexpr u32 kBulkLimit = 1024U * 1024U;

// What the pages report on.
struct PageContext {
    const TaskStats& stats;
    const ServerCounters& counters;
};

// The place of a request once its target is known.
TaskPlace PlaceOf(std::string_view target);

// The page of a GET or HEAD request.
Page MakePage(std::string_view target, const PageContext& context);

#endif // HTTP_SERVER_PAGES_H
