// Counts what the whole process takes from the heap.
#ifndef XEL_BENCH_ALLOC_COUNTER_H
#define XEL_BENCH_ALLOC_COUNTER_H

#include <cstdint>

// Calls of malloc, calloc, realloc and the aligned variants so far.
std::uint64_t AllocationCount();

#endif // XEL_BENCH_ALLOC_COUNTER_H
