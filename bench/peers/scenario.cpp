#include "bench/peers/scenario.h"

#include <cstdio>
#include <cstring>
#include <exception>

#include <sys/resource.h>

#include "bench/peers/loop.h"

namespace
{

void AllowManyDescriptors()
{
    struct rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    Checked(setrlimit(RLIMIT_NOFILE, &limit), "setrlimit");
}

} // namespace

int RunScenario(const Scenario* scenarios, std::size_t count, int argc, char** argv)
{
    Line line;
    line.Put("peer", PeerName());
    line.Put("version", PeerVersion());
    if (argc < 2) {
        line.Print();
        return 0;
    }
    for (std::size_t i = 0; i < count; ++i) {
        if (std::strcmp(scenarios[i].name, argv[1]) != 0) {
            continue;
        }
        try {
            AllowManyDescriptors();
            scenarios[i].run(Arguments(argc - 2, argv + 2), line);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s %s: %s\n", PeerName(), argv[1], error.what());
            return 1;
        }
        line.Print();
        return 0;
    }
    std::fprintf(stderr, "%s has no scenario %s\n", PeerName(), argv[1]);
    return 2;
}
