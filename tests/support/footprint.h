// What the process holds, to be compared before and after: of the library, and of the kernel.
#ifndef XEL_TESTS_SUPPORT_FOOTPRINT_H
#define XEL_TESTS_SUPPORT_FOOTPRINT_H

#include <cstddef>

#include "common/xel_int.h"

namespace xeltest
{

struct Footprint {
    size_t descriptors;
    size_t threads;
    u64 blocks; // of XEL_MemAllocF
    u64 units;  // of all pools
    u64 pools;
    bool operator==(const Footprint&) const = default;
};

// Ends the process when /proc cannot be read.
Footprint Measure();

} // namespace xeltest

#endif // XEL_TESTS_SUPPORT_FOOTPRINT_H
