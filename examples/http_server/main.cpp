// A small HTTP server on a loop of its own: options, the server, and the last line of counts. See
// loop.h for how its work is ordered.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string_view>

#include "examples/http_server/server.h"

namespace
{

constexpr const char* kUsage = "usage: http_server [--port N] [--idle-ms N] [--max-connections N]\n"
                               "  --port N             port on 127.0.0.1, 0 for any (0)\n"
                               "  --idle-ms N          time limit of a request (5000)\n"
                               "  --max-connections N  clients served at a time (1000)\n";

struct OptionRow {
    std::string_view name;
    u32 ServerOptions::*field;
    u32 least;
    u32 most;
};

constexpr std::array<OptionRow, 3> kOptions = {{
    {"--port", &ServerOptions::port, 0, 65535},
    {"--idle-ms", &ServerOptions::idleMs, 10, 3600000},
    {"--max-connections", &ServerOptions::maxConnections, 1, 100000},
}};

bool SetOption(ServerOptions& options, std::string_view name, std::string_view text)
{
    u32 value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end) {
        return false;
    }
    const auto* row = std::find_if(kOptions.begin(), kOptions.end(),
                                   [&](const OptionRow& each) { return each.name == name; });
    if (row == kOptions.end() || value < row->least || value > row->most) {
        return false;
    }
    options.*row->field = value;
    return true;
}

bool ParseOptions(int argc, char** argv, ServerOptions& options)
{
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 == argc || !SetOption(options, argv[i], argv[i + 1])) {
            return false;
        }
    }
    return true;
}

int Serve(const ServerOptions& options)
{
    Server server(options);
    printf("listening on 127.0.0.1:%u\n", server.Port());
    fflush(stdout);
    server.Run();
    const ServerCounters& counters = server.Counters();
    printf("served %lu requests on %lu connections, %lu left open\n", counters.requests,
           counters.opened, counters.Open());
    return counters.Open() == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && strcmp(argv[1], "--help") == 0) {
        fputs(kUsage, stdout);
        return 0;
    }
    ServerOptions options;
    if (!ParseOptions(argc, argv, options)) {
        fputs(kUsage, stderr);
        return 2;
    }
    try {
        return Serve(options);
    } catch (const std::exception& error) {
        fprintf(stderr, "http_server: %s\n", error.what());
        return 1;
    }
}
