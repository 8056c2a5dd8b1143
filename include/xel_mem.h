/*
 * xel_mem.h - tracked memory (libxelbase.so): every block is counted, so that a leak shows.
 */
#ifndef XEL_MEM_H
#define XEL_MEM_H

#include "xel_types.h"

XEL_EXTERN_C_BEGIN

/*
 * Allocates size bytes, aligned for any type. The block is not cleared.
 * file, line: the caller's source position, for a platform allocator that reports by place; this
 * default does not keep them. flags: 0.
 * Threads: any. Owner: the caller, until XEL_MemFreeF.
 * Returns: the block, or null when there is no memory (errno ENOMEM) or size is 0.
 */
XEL_API void* XEL_MemAllocF(size_t size, const char* file, uint32_t line, uint32_t flags);

/* Frees a block of XEL_MemAllocF; null is allowed and does nothing. Threads: any. */
XEL_API void XEL_MemFreeF(void* ptr, const char* file, uint32_t line, uint32_t flags);

/* What XEL_MemAllocF has handed out and not got back. */
typedef struct XelMemUsage {
    uint64_t blocks;      /* live blocks */
    uint64_t bytes;       /* bytes in them, as the C library rounds them up */
    uint64_t totalBlocks; /* blocks ever handed out */
} XelMemUsage;

/*
 * Reads the counters. Each is exact when no other thread allocates or frees at the same moment.
 * Threads: any. Blocks: no.
 */
XEL_API void XEL_MemGetUsage(XelMemUsage* usage);

XEL_EXTERN_C_END

#endif /* XEL_MEM_H */
