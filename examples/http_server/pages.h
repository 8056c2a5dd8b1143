// What the server has to say: the pages, and which place in the schedule each target gets.
// Called by the sessions on the loop's thread.
#ifndef HTTP_SERVER_PAGES_H
#define HTTP_SERVER_PAGES_H

#include <string>
#include <string_view>

#include "common/xel_int.h"
#include "examples/http_server/loop.h"
#include "examples/http_server/stats_report.h"

constexpr u32 kBulkLimit = 1024U * 1024U;

struct Page {
    u32 status = 200;
    const char* contentType = "text/plain";
    std::string text;
    u32 bulkSize = 0; // a computed body of that size instead of the text
};

// What the pages report on.
struct PageContext {
    const TaskStats& stats;
    const ServerCounters& counters;
};

// The place of a request once its target is known.
TaskPlace PlaceOf(std::string_view target);

// The page of a GET or HEAD request.
Page MakePage(std::string_view target, const PageContext& context);

// A page that says why a request was refused.
Page MakeRefusal(u32 status);

// The computed body of /bulk/N: every N starts with the same letters.
class BulkBody
{
public:
    // Appends the next size letters.
    void Append(std::string& out, size_t size);

private:
    u64 state_ = 0;
};

#endif // HTTP_SERVER_PAGES_H
