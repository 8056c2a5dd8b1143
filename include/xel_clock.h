/*
 * xel_clock.h - the clock (libxelbase.so): CLOCK_MONOTONIC of clock_gettime(2), which neither jumps
 * with the wall clock nor counts the time that the machine was suspended.
 */
#ifndef XEL_CLOCK_H
#define XEL_CLOCK_H

#include "xel_types.h"

XEL_EXTERN_C_BEGIN

/* Stores microseconds into *out. Threads: any. Returns: 0; 0xFFFFFFFF out is null. */
XEL_API uint32_t SystimeGetMicroSec(uint64_t* out);

/* Stores milliseconds into *out. Threads: any. Returns: 0; 0xFFFFFFFF out is null. */
XEL_API uint32_t SystimeGetMilliSec(uint64_t* out);

XEL_EXTERN_C_END

#endif /* XEL_CLOCK_H */
