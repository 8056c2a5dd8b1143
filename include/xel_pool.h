/*
 * xel_pool.h - pools of equal-sized units (libxelbase.so).
 *
 * A pool grows in slabs and never moves a unit. The memory of a unit stays mapped for the life of
 * the process, and keeps its bytes after the unit is freed, so that a reader that still holds a
 * stale unit reads old bytes instead of faulting. Links of the free list stand outside the unit.
 * Slabs of destroyed pools serve later ones. A unit costs its size rounded up to 8, and 8 bytes; a
 * slab has 64 KiB, of which the header takes less than 2 percent. A unit that does not fit into a
 * slab takes a power of two of 64 KiB, of which only what is touched becomes memory.
 */
#ifndef XEL_POOL_H
#define XEL_POOL_H

#include "xel_types.h"

XEL_EXTERN_C_BEGIN

/*
 * Creates a pool of units of unitSize bytes with room for number units (address space that is kept
 * for the pool, not memory); it grows on demand without limit but memory. mode is accepted as it
 * stands (1, 2 and 6 are in use) and changes nothing. Threads: any. Owner: the caller, until
 * FmmCtrlDestroy. Returns: the pool, or null when unitSize is 0 or there is no memory (errno
 * ENOMEM).
 */
XEL_API void* FmmCtrlCreate(size_t unitSize, uint32_t number, uint32_t mode);

/*
 * Destroys the pool and every unit in it; the units are cleared to zero. Null does nothing.
 * A pool that was destroyed already, and whose memory serves no other yet, does nothing.
 * Threads: any; no other thread may allocate from the pool any more. FmmUnitFree and
 * FmmUnitIsValid on its units are harmless at any time.
 */
XEL_API void FmmCtrlDestroy(void* pool);

/*
 * Takes a unit, the one freed last if there is one. A unit that was never used before is all zero;
 * one that was keeps its bytes. Units are aligned to 8 bytes at least. Constant time, except when
 * the pool grows.
 * Threads: any.
 * Returns: the unit, or null when there is no memory or pool is null.
 */
XEL_API void* FmmUnitAlloc(void* pool);

/*
 * Gives a unit back; the unit alone identifies its pool. Null, a unit that is already free, a unit
 * of a destroyed pool and an address that is no unit do nothing. Constant time.
 * Threads: any.
 */
XEL_API void FmmUnitFree(void* unit);

/*
 * Tells whether unit is the address of an allocated unit of a live pool. Never faults, whatever the
 * address; constant time, no lock, no system call. mode is accepted as it stands (0 and 1 are in
 * use) and changes nothing.
 * Threads: any, beside allocation, free and destruction.
 */
XEL_API bool FmmUnitIsValid(const void* unit, uint32_t mode);

/* What pools hold, for leak checks. */
typedef struct FmmUsage {
    uint64_t pools; /* live pools */
    uint64_t units; /* allocated units in live pools */
    uint64_t bytes; /* bytes of address space held by slabs, spare ones included */
} FmmUsage;

/* Reads the counters; exact when no other thread uses pools at the same moment. Threads: any. */
XEL_API void FmmGetUsage(FmmUsage* usage);

XEL_EXTERN_C_END

#endif /* XEL_POOL_H */
