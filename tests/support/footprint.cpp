#include "support/footprint.h"

#include <cstdlib>
#include <dirent.h>

#include "xel_mem.h"
#include "xel_pool.h"

namespace xeltest
{

namespace
{

size_t CountEntries(const char* path)
{
    DIR* dir = opendir(path);
    if (dir == nullptr) {
        abort();
    }
    size_t count = 0;
    while (const struct dirent* entry = readdir(dir)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    closedir(dir);
    return count;
}

} // namespace

Footprint Measure()
{
    XelMemUsage memory{};
    XEL_MemGetUsage(&memory);
    FmmUsage pools{};
    FmmGetUsage(&pools);
    return {CountEntries("/proc/self/fd"), CountEntries("/proc/self/task"), memory.blocks,
            pools.units, pools.pools};
}

} // namespace xeltest
