// Short names of the fixed-width integers used throughout the sources.
#ifndef XEL_COMMON_INT_H
#define XEL_COMMON_INT_H

#include <cstddef>
#include <cstdint>

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using i32 = std::int32_t;
using u64 = std::uint64_t;

// The fixed log texts print u64 with %lu.
static_assert(sizeof(unsigned long) == sizeof(u64), "an LP64 system is required");

#endif // XEL_COMMON_INT_H
