// The /stats page. Called by the pages on the loop's thread.
#include "examples/http_server/stats_report.h"

#include <array>
#include <cstdarg>
#include <cstdio>

namespace
{

// Rows of the descriptor table that the text shows: with thousands of connections the names are
// what one reads.
constexpr u32 kShownDescriptors = 32;

__attribute__((format(printf, 2, 3))) void Append(std::string& text, const char* format, ...)
{
    std::array<char, 256> line; // every line below is shorter
    va_list args;
    va_start(args, format);
    vsnprintf(line.data(), line.size(), format, args);
    va_end(args);
    text += line.data();
}

void AppendTotals(std::string& text, const RunTotals& totals)
{
    Append(text, "%10lu %12lu %9lu %9lu\n", totals.runs, totals.totalUs, totals.maxUs,
           totals.lastUs);
}

void AppendDescriptors(std::string& text, const std::vector<FdRow>& rows)
{
    Append(text, "\n%4s %-15s %10s %12s %9s %9s\n", "fd", "name", "runs", "total us", "max us",
           "last us");
    u32 live = 0;
    for (size_t fd = 0; fd < rows.size(); ++fd) {
        if (!rows[fd].live || ++live > kShownDescriptors) {
            continue;
        }
        Append(text, "%4zu %-15s ", fd, rows[fd].name);
        AppendTotals(text, rows[fd].totals);
    }
    if (live > kShownDescriptors) {
        Append(text, "     and %u more\n", live - kShownDescriptors);
    }
}

void AppendErrors(std::string& text, const ErrorRow& row)
{
    Append(text, "errors of scheduler %u:", row.epFd);
    for (size_t code = 0; code < row.byCode.size(); ++code) {
        if (row.byCode[code] != 0) {
            Append(text, " code %zu: %lu", code, row.byCode[code]);
        }
    }
    text += '\n';
}

const char* Separator(bool& first)
{
    const char* separator = first ? "" : ",";
    first = false;
    return separator;
}

void AppendJsonErrors(std::string& text, const TaskStats& stats)
{
    bool first = true;
    for (const ErrorRow& row : stats.Errors()) {
        for (size_t code = 0; code < row.byCode.size(); ++code) {
            if (row.byCode[code] != 0) {
                Append(text, "%s{\"scheduler\":%u,\"code\":%zu,\"count\":%lu}", Separator(first),
                       row.epFd, code, row.byCode[code]);
            }
        }
    }
}

} // namespace

std::string StatsAsText(const TaskStats& stats, const ServerCounters& counters)
{
    std::string text;
    Append(text, "connections: %lu open, %lu accepted, %lu refused, %lu timed out\n",
           counters.Open(), counters.opened, counters.refused, counters.timedOut);
    Append(text, "requests: %lu\n", counters.requests);
    Append(text, "live tasks: %lu\n", stats.LiveTasks());
    if (stats.Errors().empty()) {
        text += "errors: none\n";
    }
    for (const ErrorRow& row : stats.Errors()) {
        AppendErrors(text, row);
    }
    Append(text, "\n%-15s %10s %12s %9s %9s\n", "name", "runs", "total us", "max us", "last us");
    for (const NameRow& row : stats.Names()) {
        Append(text, "%-15s ", row.name);
        AppendTotals(text, row.totals);
    }
    AppendDescriptors(text, stats.Descriptors());
    return text;
}

// Task names are the literals of this program and need no escapes.
std::string StatsAsJson(const TaskStats& stats, const ServerCounters& counters)
{
    std::string text;
    Append(text, "{\"open\":%lu,\"accepted\":%lu,\"refused\":%lu,\"timedOut\":%lu,",
           counters.Open(), counters.opened, counters.refused, counters.timedOut);
    Append(text, "\"requests\":%lu,\"liveTasks\":%lu,\"tasks\":[", counters.requests,
           stats.LiveTasks());
    bool first = true;
    for (const NameRow& row : stats.Names()) {
        Append(text,
               "%s{\"name\":\"%s\",\"runs\":%lu,\"totalUs\":%lu,\"maxUs\":%lu,\"lastUs\":%lu}",
               Separator(first), row.name, row.totals.runs, row.totals.totalUs, row.totals.maxUs,
               row.totals.lastUs);
    }
    text += "],\"errors\":[";
    AppendJsonErrors(text, stats);
    text += "]}\n";
    return text;
}
