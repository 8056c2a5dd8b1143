/*
 * xel_log.h - the log service (libxelbase.so).
 *
 * LOG_InnerPrint is an ordinary dynamic symbol: a platform that has a log of its own puts its own
 * definition in front. This default writes whole lines to standard error.
 */
#ifndef XEL_LOG_H
#define XEL_LOG_H

#include "xel_types.h"

XEL_EXTERN_C_BEGIN

/*
 * Writes one log line: time in UTC with microseconds, severity name, caller's file, file number and
 * source line, process and thread id, then the formatted message:
 *   2026-11-21T09:04:05.123456Z ERROR scheduler/xel_sch_task(80):123 [411:415] message
 * Newlines at the end of the message are dropped, those inside it become blanks. The line leaves in
 * one write call; messages of any length are allowed. Nothing is taken from the heap, and errno is
 * kept (%m prints the caller's). When a line above 1 KiB finds no memory it is cut.
 *
 * file: at most 256 characters are printed; null prints "?". A null format, or one that cannot be
 * formatted, prints "(no message)" or the format as it stands, and the result tells.
 * logId, func and component are accepted and not printed (the library passes 0, "<unknown>" and 9).
 * level: XEL_LOG_ERROR, XEL_LOG_WARN or XEL_LOG_INFO; other values are printed as numbers.
 * Threads: any; lines of several threads never mix, also in a pipe. Not from signal handlers.
 * Blocks: as long as the destination does, also when that is non-blocking and full. The calling
 * thread is not cancelled inside.
 * Returns: 0 written; 0xFFFFFFFF the destination or the format refused it.
 */
XEL_API uint32_t LOG_InnerPrint(uint32_t logId, const char* file, uint32_t fileNo, const char* func,
                                uint32_t component, uint32_t line, uint32_t level,
                                const char* format, ...) __attribute__((format(printf, 8, 9)));

/*
 * Receives one finished line. line holds length bytes, ends with a newline inside that length, and
 * is followed by a terminating NUL; it is the sink's for the duration of the call only. The sink
 * runs on the logging thread, several threads at a time. It may log itself (that line goes to the
 * sink again) but must not wait for another thread that logs.
 */
typedef void (*LogSink)(void* context, uint32_t level, const char* line, size_t length);

/*
 * Replaces the destination of all further lines; a null sink means standard error again.
 * When the call returns no thread is inside the old sink any more.
 * Threads: any; inside a sink it does nothing. Blocks: until running sinks have returned.
 * Owner: context stays the caller's and must live until the sink is replaced.
 */
XEL_API void LOG_SetSink(LogSink sink, void* context);

XEL_EXTERN_C_END

#endif /* XEL_LOG_H */
