// Pages and routing. Called by the connections on the loop's thread; no state of its own.
#include "examples/http_server/pages.h"

#include <charconv>
#include <optional>

namespace
{

constexpr std::string_view kBulkPrefix = "/bulk/";
constexpr std::string_view kAdminPrefix = "/admin/";

struct Target {
    std::string_view path;
    std::string_view query;
};

Target Split(std::string_view target)
{
    const size_t mark = target.find('?');
    if (mark == std::string_view::npos) {
        return {target, {}};
    }
    return {target.substr(0, mark), target.substr(mark + 1)};
}

// N of /bulk/N, when it is a plain number within the limit.
std::optional<u32> BulkSizeOf(std::string_view path)
{
    if (!path.starts_with(kBulkPrefix)) {
        return std::nullopt;
    }
    path.remove_prefix(kBulkPrefix.size());
    u32 size = 0;
    const char* end = path.data() + path.size();
    const auto [stop, error] = std::from_chars(path.data(), end, size);
    if (error != std::errc() || stop != end || size > kBulkLimit) {
        return std::nullopt;
    }
    return size;
}

} // namespace

TaskPlace PlaceOf(std::string_view target)
{
    const std::string_view path = Split(target).path;
    if (path == "/stats" || path.starts_with(kAdminPrefix)) {
        return {TaskClass::Admin};
    }
    const std::optional<u32> size = BulkSizeOf(path);
    return size ? BulkPlace(*size) : TaskPlace{TaskClass::Http};
}

Page MakePage(std::string_view target, const PageContext& context)
{
    const auto [path, query] = Split(target);
    if (path == "/") {
        return {.text = "every request here is a run of a scheduled task\n"};
    }
    if (path == "/admin/health") {
        return {.text = "ok\n"};
    }
    if (path == "/stats" && query == "format=json") {
        return {.contentType = "application/json",
                .text = StatsAsJson(context.stats, context.counters)};
    }
    if (path == "/stats") {
        return {.text = StatsAsText(context.stats, context.counters)};
    }
    const std::optional<u32> size = BulkSizeOf(path);
    return size ? Page{.text = {}, .bulkSize = *size} : MakeRefusal(404);
}
