// The sink runs on whichever thread logs, several at a time.
#include "examples/service_platform/log_watch.h"

#include <unistd.h>

#include <string_view>

#include "xel_log.h"

namespace
{

constexpr std::string_view kQueueFull = "Message queue write, enque unsuccessfully.";

} // namespace

LogWatch::LogWatch()
{
    LOG_SetSink(Take, this);
}

LogWatch::~LogWatch()
{
    LOG_SetSink(nullptr, nullptr);
}

void LogWatch::Take(void* context, u32, const char* line, size_t length)
{
    auto* self = static_cast<LogWatch*>(context);
    if (std::string_view(line, length).find(kQueueFull) != std::string_view::npos) {
        self->refusals_.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    self->others_.fetch_add(1, std::memory_order_relaxed);
    // A log that cannot be written has nobody to be reported to.
    (void)!write(STDERR_FILENO, line, length);
}
