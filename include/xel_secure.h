/*
 * xel_secure.h - bounds-checked memory and string functions (libxelbase.so), in the manner of
 * C11 Annex K. None writes past destSize bytes. Threads: any, on memory that the caller owns.
 *
 * Returns, all four: 0; EINVAL (22) for a null pointer or destSize 0; ERANGE (34) when the result
 * does not fit.
 */
#ifndef XEL_SECURE_H
#define XEL_SECURE_H

#include "xel_types.h"

XEL_EXTERN_C_BEGIN

/* Sets count bytes to value. When count is above destSize it fills the destSize bytes: ERANGE. */
XEL_API int memset_s(void* dest, size_t destSize, int value, size_t count);

/* Copies count bytes. On failure with a usable dest all destSize bytes are cleared. */
XEL_API int memcpy_s(void* dest, size_t destSize, const void* src, size_t count);

/* Copies a string with its terminator. On failure with a usable dest it becomes empty. */
XEL_API int strcpy_s(char* dest, size_t destSize, const char* src);

/*
 * Copies at most count characters of src and a terminator. On failure with a usable dest it
 * becomes empty.
 */
XEL_API int strncpy_s(char* dest, size_t destSize, const char* src, size_t count);

XEL_EXTERN_C_END

#endif /* XEL_SECURE_H */
