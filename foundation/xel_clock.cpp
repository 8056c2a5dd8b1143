// The clock: CLOCK_MONOTONIC in whole micro- and milliseconds. Owns nothing, called from any
// thread.
#include "xel_clock.h"

#include <ctime>

#include "common/xel_int.h"

namespace
{

constexpr u64 kMicroPerSecond = 1000000;
constexpr u64 kMilliPerSecond = 1000;
constexpr u64 kNanoPerMicro = 1000;
constexpr u64 kNanoPerMilli = 1000000;

u32 ReadClock(u64* out, u64 perSecond, u64 nanoPerTick)
{
    timespec now{};
    if (out == nullptr || clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        return XEL_FAIL;
    }
    *out = static_cast<u64>(now.tv_sec) * perSecond + static_cast<u64>(now.tv_nsec) / nanoPerTick;
    return XEL_OK;
}

} // namespace

uint32_t SystimeGetMicroSec(uint64_t* out)
{
    return ReadClock(out, kMicroPerSecond, kNanoPerMicro);
}

uint32_t SystimeGetMilliSec(uint64_t* out)
{
    return ReadClock(out, kMilliPerSecond, kNanoPerMilli);
}
