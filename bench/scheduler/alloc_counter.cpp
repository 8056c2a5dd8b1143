// The C library's allocation functions with a counter in front. They forward to the library's own
// entry points, which need no lookup and so may be called at any time.
#include "alloc_counter.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace
{

std::atomic<std::uint64_t> g_allocations{0};

void Count()
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

std::uint64_t AllocationCount()
{
    return g_allocations.load(std::memory_order_relaxed);
}

extern "C" {

void* malloc(std::size_t size)
{
    Count();
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size)
{
    Count();
    return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size)
{
    Count();
    return __libc_realloc(block, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size)
{
    Count();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** out, std::size_t alignment, std::size_t size)
{
    Count();
    void* block = __libc_memalign(alignment, size);
    if (block == nullptr) {
        return ENOMEM;
    }
    *out = block;
    return 0;
}

} // extern "C"
