// The log recorder measures every line with vsnprintf; a function of our own stands in front of
// that (--wrap) and notes the formats.
#include "support/format_notes.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

#include "support/faults.h"

namespace
{

std::mutex g_mutex; // guards g_formats
std::vector<std::string> g_formats;

} // namespace

extern "C" int __real_vsnprintf(char* out, size_t size, const char* format, va_list arguments);
extern "C" int __wrap_vsnprintf(char* out, size_t size, const char* format, va_list arguments);

// Without a buffer it is the recorder that measures.
int __wrap_vsnprintf(char* out, size_t size, const char* format, va_list arguments)
{
    if (out == nullptr) {
        const std::lock_guard guard(g_mutex);
        g_formats.emplace_back(format);
    }
    return __real_vsnprintf(out, size, format, arguments);
}

namespace xeltest
{

std::vector<std::string> TakeFormats()
{
    const std::lock_guard guard(g_mutex);
    return std::exchange(g_formats, {});
}

std::vector<std::string> FormatsOf(const std::vector<LogSource>& sources,
                                   const std::function<void()>& body)
{
    ResetFaults();
    DropLog();
    (void)TakeFormats();
    body();
    ResetFaults();
    const std::vector<LogLine> lines = TakeLog();
    const std::vector<std::string> formats = TakeFormats();
    std::vector<std::string> own;
    EXPECT_EQ(lines.size(), formats.size());
    for (size_t i = 0; i < std::min(lines.size(), formats.size()); ++i) {
        if (std::any_of(sources.begin(), sources.end(), [&line = lines[i]](const auto& source) {
                return line.file == source.file;
            })) {
            own.push_back(formats[i]);
        }
    }
    return own;
}

} // namespace xeltest
