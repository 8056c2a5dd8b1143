/*
 * xel_types.h - conventions shared by every public header of libxelsch.
 *
 *  1. Handles. Every object is an opaque pointer to a record whose first word is a 32-bit magic.
 *     A handle is good from the call that returned it until the call that destroys it; every
 *     operation compares the magic before it uses the record and refuses a wrong one with one log
 *     line and a result code. The magic is a safety net, not a licence: a destroyed handle must
 *     not be used on purpose.
 *  2. Results. uint32_t, 0 for success. XEL_FAIL (0xFFFFFFFF) is the general failure,
 *     XEL_EINVAL (22) and XEL_ENOMEM (12) carry the errno values of those names, XEL_EARG (2) is
 *     the bad-argument code of the event family and of task modification. Creators return a handle
 *     or null. Each function lists its own codes under "Returns:".
 *  3. Every failure writes exactly one line through LOG_InnerPrint, unless the function says that
 *     it stays silent. Severities: XEL_LOG_ERROR (100), XEL_LOG_WARN (80), XEL_LOG_INFO (20).
 *  4. Units stand in names and texts: milliseconds (..Ms, time-outs), microseconds (..Us, run
 *     times), bytes (..Size), elements (..Count).
 *  5. Ownership. What a creator returns belongs to the caller until the matching destroy call.
 *     Attribute objects are copied: they may be destroyed right after use. Descriptors that the
 *     caller hands in stay the caller's; the library closes only those that it opened.
 *  6. Threads. "Threads: any." means: may be called from any thread at any time, also from a
 *     callback. Everything else is said on the function. A callback runs on the thread that
 *     dispatches its scheduler; it may add, modify and delete tasks, and must neither destroy its
 *     own scheduler nor dispatch it again.
 *  7. Output parameters are written on success only, unless the function says otherwise.
 *  8. Nothing runs when the library is loaded; the first call that needs a table creates it.
 *  9. fork. A child of a process that uses this library may only call async-signal-safe functions
 *     and exec: the locks and tables of the parent are not repaired in the child.
 */
#ifndef XEL_TYPES_H
#define XEL_TYPES_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#define XEL_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define XEL_EXTERN_C_BEGIN extern "C" {
#define XEL_EXTERN_C_END }
#else
#define XEL_EXTERN_C_BEGIN
#define XEL_EXTERN_C_END
#endif

/* Result codes, see convention 2. */
#define XEL_OK 0U
#define XEL_EARG 2U
#define XEL_ENOMEM 12U
#define XEL_EINVAL 22U
#define XEL_FAIL 0xFFFFFFFFU

/* Log severities, see convention 3. */
#define XEL_LOG_ERROR 100U
#define XEL_LOG_WARN 80U
#define XEL_LOG_INFO 20U

/* Size of every name field, terminator included. */
#define XEL_NAME_SIZE 16U

#endif /* XEL_TYPES_H */
