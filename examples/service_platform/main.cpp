// A small service platform in one process: options, the runs, and the table at the end. See
// platform.h for what it is made of.
#include <algorithm>
#include <array>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string_view>
#include <system_error>

#include "examples/service_platform/load.h"
#include "examples/service_platform/log_watch.h"
#include "examples/service_platform/platform.h"
#include "examples/service_platform/report.h"
#include "examples/service_platform/trace.h"

namespace
{

constexpr const char* kUsage =
    "usage: service_platform [--demo | --overload] [--seconds N] [--port N] [--timeout-ms N]\n"
    "                        [--depth N] [--work-us N] [--expiry-ms N] [--patience-ms N]\n"
    "                        [--idle-ms N]\n"
    "  --demo           serve the built-in load, stop, and tell; otherwise until SIGTERM\n"
    "  --overload       the same with a small queue and slow work: --depth 16 --work-us 2000\n"
    "  --seconds N      how long the load lasts, 0.1 at least (2.5)\n"
    "  --port N         port on 127.0.0.1, 0 for any (0)\n"
    "  --timeout-ms N   time limit of a request (150)\n"
    "  --depth N        messages that may wait for the session service (256)\n"
    "  --work-us N      time that a call takes in the session service (0)\n"
    "  --expiry-ms N    life of a session that nobody calls (300)\n"
    "  --patience-ms N  how long a stop waits for open requests (1000)\n"
    "  --idle-ms N      time limit of a client that sends or reads nothing (5000)\n";

struct Options {
    PlatformOptions platform;
    bool hasLoad = false;
    u32 loadMs = 2500;
};

struct OptionRow {
    std::string_view name;
    u32 PlatformOptions::*field;
    u32 least;
    u32 most;
};

constexpr std::array<OptionRow, 7> kRows = {{
    {"--port", &PlatformOptions::port, 0, 65535},
    {"--timeout-ms", &PlatformOptions::timeoutMs, 10, 60000},
    {"--depth", &PlatformOptions::depth, 1, 100000},
    {"--work-us", &PlatformOptions::workUs, 0, 100000},
    {"--expiry-ms", &PlatformOptions::expiryMs, 10, 3600000},
    {"--patience-ms", &PlatformOptions::patienceMs, 0, 60000},
    {"--idle-ms", &PlatformOptions::idleMs, 10, 3600000},
}};

template <typename Number>
bool ParseNumber(std::string_view text, Number& value)
{
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && stop == end;
}

bool SetSeconds(Options& options, std::string_view text)
{
    double seconds = 0;
    if (!ParseNumber(text, seconds) || !(seconds >= 0.1 && seconds <= 3600)) {
        return false;
    }
    options.loadMs = static_cast<u32>(seconds * 1000);
    return true;
}

bool SetOption(Options& options, std::string_view name, std::string_view text)
{
    if (name == "--seconds") {
        return SetSeconds(options, text);
    }
    const auto* row = std::find_if(kRows.begin(), kRows.end(),
                                   [&](const OptionRow& each) { return each.name == name; });
    u32 value = 0;
    if (row == kRows.end() || !ParseNumber(text, value) || value < row->least ||
        value > row->most) {
        return false;
    }
    options.platform.*row->field = value;
    return true;
}

bool ParseOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string_view name = argv[i];
        if (name == "--demo" || name == "--overload") {
            options.hasLoad = true;
            if (name == "--overload") {
                options.platform.depth = 16;
                options.platform.workUs = 2000;
            }
        } else if (++i == argc || !SetOption(options, name, argv[i])) {
            return false;
        }
    }
    return true;
}

// SIGINT and SIGTERM, blocked before any thread exists, so that they wait for the main thread.
class StopSignals
{
public:
    StopSignals()
    {
        sigemptyset(&set_);
        sigaddset(&set_, SIGINT);
        sigaddset(&set_, SIGTERM);
        const int error = pthread_sigmask(SIG_BLOCK, &set_, nullptr);
        if (error != 0) {
            throw std::system_error(error, std::generic_category(), "pthread_sigmask");
        }
    }
    void Wait() const
    {
        int number = 0;
        (void)sigwait(&set_, &number);
    }

private:
    sigset_t set_;
};

void IgnoreMessage(XelServiceMsg*, void*) {}

// Against what is there after a first thread and service have come and gone: the tables that they
// made stay for the life of the process.
Holdings HoldingsAfterFirstService()
{
    const long threads = CountThreadsAtRest();
    {
        const Worker first("first");
        const XelServiceMqConfig config = {1, first.Handle(), IgnoreMessage, nullptr};
        if (XEL_ServiceMqCreate("first", &config, nullptr) == XEL_OK) {
            XEL_ServiceMqDestroy("first");
        }
    }
    return CountHoldingsWithThreads(threads);
}

Holdings LeftSince(const Holdings& before)
{
    const Holdings now = CountHoldingsWithThreads(before.threads);
    return {now.blocks - before.blocks, now.descriptors - before.descriptors,
            now.threads - before.threads};
}

void ServePlatform(const Options& options, const StopSignals& signals, Report& report)
{
    Platform platform(options.platform);
    printf("listening on 127.0.0.1:%u\n", platform.Port());
    report.hasLoad = options.hasLoad;
    if (options.hasLoad) {
        report.load = RunLoad(platform.Port(), std::chrono::milliseconds(options.loadMs));
    } else {
        signals.Wait();
    }
    platform.Stop();
    report.platform = platform.Account();
}

int Run(const Options& options)
{
    const StopSignals signals;
    const Holdings before = HoldingsAfterFirstService();
    const LogWatch log;
    Trace trace;
    Report report;
    ServePlatform(options, signals, report);
    report.left = LeftSince(before);
    report.runs = trace.Rows();
    report.dispatchErrors = trace.Errors();
    report.liveTasks = trace.LiveTasks();
    report.logRefusals = log.Refusals();
    report.logOthers = log.Others();
    return PrintReport(report) ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && strcmp(argv[1], "--help") == 0) {
        fputs(kUsage, stdout);
        return 0;
    }
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        fputs(kUsage, stderr);
        return 2;
    }
    // Whole lines at once: a reader of the first one need not wait for the end.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    try {
        return Run(options);
    } catch (const std::exception& error) {
        fprintf(stderr, "service_platform: %s\n", error.what());
        return 1;
    }
}
