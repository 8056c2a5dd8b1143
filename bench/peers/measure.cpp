#include "bench/peers/measure.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include <pthread.h>
#include <sched.h>

namespace
{

constexpr std::uint64_t kNsPerSecond = 1000000000;

std::uint64_t ReadClock(clockid_t clock)
{
    struct timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * kNsPerSecond +
           static_cast<std::uint64_t>(now.tv_nsec);
}

} // namespace

std::uint64_t NowNs()
{
    return ReadClock(CLOCK_MONOTONIC);
}

std::uint64_t ProcessCpuNs()
{
    return ReadClock(CLOCK_PROCESS_CPUTIME_ID);
}

double Percentile(std::vector<double>& samples, double share)
{
    if (samples.empty()) {
        return 0;
    }
    std::sort(samples.begin(), samples.end());
    const auto last = static_cast<double>(samples.size() - 1);
    return samples[static_cast<std::size_t>(std::lround(share * last))];
}

int Checked(int result, const char* call)
{
    if (result < 0) {
        throw std::runtime_error(std::string(call) + ": " + std::strerror(errno));
    }
    return result;
}

TwoCores FindTwoCores()
{
    cpu_set_t cores;
    CPU_ZERO(&cores);
    Checked(sched_getaffinity(0, sizeof(cores), &cores), "sched_getaffinity");
    std::vector<int> found;
    for (int core = 0; core < CPU_SETSIZE; ++core) {
        if (CPU_ISSET(core, &cores)) {
            found.push_back(core);
        }
    }
    return {found.front(), found.size() > 1 ? found[1] : found.front()};
}

void PinThisThread(int core)
{
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(core, &cores);
    Checked(-pthread_setaffinity_np(pthread_self(), sizeof(cores), &cores),
            "pthread_setaffinity_np");
}

Arguments::Arguments(int argc, char** argv) : words_(argv, argv + argc) {}

double Arguments::Real(std::string_view name, double otherwise) const
{
    for (const std::string& word : words_) {
        if (word.size() > name.size() && word.starts_with(name) && word[name.size()] == '=') {
            return std::strtod(word.c_str() + name.size() + 1, nullptr);
        }
    }
    return otherwise;
}

int Arguments::Whole(std::string_view name, int otherwise) const
{
    return static_cast<int>(Real(name, otherwise));
}

void Line::Put(std::string_view name, double value)
{
    char digits[32];
    std::snprintf(digits, sizeof(digits), "%.6g", value);
    text_.append(text_.empty() ? "" : ", ").append("\"").append(name).append("\": ").append(digits);
}

void Line::Put(std::string_view name, std::string_view value)
{
    text_.append(text_.empty() ? "" : ", ").append("\"").append(name).append("\": \"");
    text_.append(value).append("\"");
}

void Line::Print() const
{
    std::printf("{%s}\n", text_.c_str());
    std::fflush(stdout);
}
