// The log: formats one line on the caller's stack (or in a mapping of its own when it is long,
// never on the heap) and hands it to the sink, or writes it to standard error in one call. Called
// from any thread. Lock order: the sink's lock, then the stream's.
#include "xel_log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include "common/xel_int.h"
#include "foundation/xel_base_lock.h"
#include "foundation/xel_log_time.h"

namespace
{

constexpr size_t kStackLine = 1024;
constexpr size_t kLineEnd = 2; // newline and terminator
constexpr size_t kLevelName = 12;
constexpr u64 kNanoPerMicro = 1000;

struct Sink {
    LogSink function;
    void* context;
};

// Guarded by g_xelLogSinkLock: read side while a line goes out, write side while it is replaced.
constinit Sink g_xelLogSink{nullptr, nullptr};

// Writers go first: a steady stream of lines must not keep a replacement of the sink waiting for
// ever. Nobody holds it twice: a thread inside a sink logs under the hold that it has.
pthread_rwlock_t g_xelLogSinkLock = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;

// One line at a time to standard error. The kernel alone would mix lines above PIPE_BUF bytes in a
// pipe, and lose lines of any length in a memory file, whose position it does not lock.
constinit BaseLock g_xelLogStreamLock{};

// Set while this thread is inside the sink.
constinit thread_local bool g_xelLogInSink = false;

// Holds the sink's lock for a scope. A lock that cannot be had does not silence the log.
class SinkGuard
{
public:
    explicit SinkGuard(int (*take)(pthread_rwlock_t*)) : held_(take(&g_xelLogSinkLock) == 0) {}
    ~SinkGuard()
    {
        if (held_) {
            pthread_rwlock_unlock(&g_xelLogSinkLock);
        }
    }
    SinkGuard(const SinkGuard&) = delete;
    SinkGuard& operator=(const SinkGuard&) = delete;

private:
    const bool held_;
};

// A thread that is cancelled in write() or in a sink would leave the locks taken.
class NoCancelGuard
{
public:
    NoCancelGuard() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~NoCancelGuard() { pthread_setcancelstate(before_, nullptr); }
    NoCancelGuard(const NoCancelGuard&) = delete;
    NoCancelGuard& operator=(const NoCancelGuard&) = delete;

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

// What a line is made of.
struct LineParts {
    const char* file;
    u32 fileNo;
    u32 line;
    u32 level;
    const char* format;
    int entryErrno; // for %m
};

// One write call, continued only after a short write, a signal, or a full non-blocking stream.
u32 WriteWhole(const char* text, size_t length)
{
    while (length > 0) {
        const ssize_t written = write(STDERR_FILENO, text, length);
        if (written > 0) {
            text += written;
            length -= static_cast<size_t>(written);
            continue;
        }
        if (written == 0 || (errno != EINTR && errno != EAGAIN)) {
            return XEL_FAIL;
        }
        if (errno == EAGAIN) {
            pollfd stream{STDERR_FILENO, POLLOUT, 0};
            (void)poll(&stream, 1, -1);
        }
    }
    return XEL_OK;
}

u32 Emit(u32 level, const char* text, size_t length)
{
    if (g_xelLogInSink) {
        g_xelLogSink.function(g_xelLogSink.context, level, text, length);
        return XEL_OK;
    }
    const NoCancelGuard noCancel;
    const SinkGuard hold(pthread_rwlock_rdlock);
    if (g_xelLogSink.function != nullptr) {
        g_xelLogInSink = true;
        g_xelLogSink.function(g_xelLogSink.context, level, text, length);
        g_xelLogInSink = false;
        return XEL_OK;
    }
    const BaseGuard guard(g_xelLogStreamLock);
    return WriteWhole(text, length);
}

const char* NameLevel(u32 level, char (&number)[kLevelName])
{
    switch (level) {
    case XEL_LOG_ERROR:
        return "ERROR";
    case XEL_LOG_WARN:
        return "WARN";
    case XEL_LOG_INFO:
        return "INFO";
    default:
        (void)snprintf(number, sizeof(number), "%u", level);
        return number;
    }
}

// Writes what stands before the message and returns its length; it always fits.
size_t FormatHead(char (&text)[kStackLine], const LineParts& parts)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const UtcTime utc = UtcOf(static_cast<u64>(now.tv_sec));
    char number[kLevelName];
    const int length = snprintf(
        text, sizeof(text), "%04u-%02u-%02uT%02u:%02u:%02u.%06uZ %s %.256s(%u):%u [%d:%d] ",
        utc.year, utc.month, utc.day, utc.hour, utc.minute, utc.second,
        static_cast<u32>(static_cast<u64>(now.tv_nsec) / kNanoPerMicro),
        NameLevel(parts.level, number), parts.file != nullptr ? parts.file : "?", parts.fileNo,
        parts.line, getpid(), gettid());
    return length > 0 ? static_cast<size_t>(length) : 0;
}

bool IsNewline(char c)
{
    return c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// Drops newlines at the end of the message, turns the others into blanks (one line per call) and
// ends the line. Returns its length.
size_t FinishLine(char* text, size_t head, size_t length)
{
    while (length > head && IsNewline(text[length - 1])) {
        length--;
    }
    for (size_t i = 0; i < length; i++) {
        if (IsNewline(text[i])) {
            text[i] = ' ';
        }
    }
    text[length] = '\n';
    text[length + 1] = '\0';
    return length + 1;
}

// The format itself stands for a message that cannot be formatted.
u32 EmitRaw(char (&text)[kStackLine], size_t head, const LineParts& parts)
{
    const char* message = parts.format != nullptr ? parts.format : "(no message)";
    const size_t length = strnlen(message, kStackLine - kLineEnd - head);
    memcpy(text + head, message, length);
    (void)Emit(parts.level, text, FinishLine(text, head, head + length));
    return XEL_FAIL;
}

// Memory of a line that does not fit on the stack, or null.
char* MapLine(size_t size)
{
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return memory != MAP_FAILED ? static_cast<char*>(memory) : nullptr;
}

// args and again are the same arguments: a long line is formatted twice, the second time into a
// mapping of the needed size. Without memory for that it is cut to what the stack holds.
u32 PrintLine(const LineParts& parts, va_list args, va_list again)
{
    char text[kStackLine];
    const size_t head = FormatHead(text, parts);
    if (parts.format == nullptr) {
        return EmitRaw(text, head, parts);
    }
    errno = parts.entryErrno;
    const int wanted = vsnprintf(text + head, kStackLine - 1 - head, parts.format, args);
    if (wanted < 0) {
        return EmitRaw(text, head, parts);
    }
    const size_t message = static_cast<size_t>(wanted);
    const size_t size = head + message + kLineEnd;
    if (size <= kStackLine) {
        return Emit(parts.level, text, FinishLine(text, head, head + message));
    }
    char* mapped = MapLine(size);
    if (mapped == nullptr) {
        return Emit(parts.level, text, FinishLine(text, head, kStackLine - kLineEnd));
    }
    memcpy(mapped, text, head);
    errno = parts.entryErrno;
    (void)vsnprintf(mapped + head, message + 1, parts.format, again);
    // Strings that another thread changes meanwhile may have become shorter.
    const size_t length = head + strnlen(mapped + head, message);
    const u32 result = Emit(parts.level, mapped, FinishLine(mapped, head, length));
    munmap(mapped, size);
    return result;
}

} // namespace

uint32_t LOG_InnerPrint(uint32_t, const char* file, uint32_t fileNo, const char*, uint32_t,
                        uint32_t line, uint32_t level, const char* format, ...)
{
    const int entryErrno = errno;
    va_list args;
    va_list again;
    va_start(args, format);
    va_copy(again, args);
    const LineParts parts{file, fileNo, line, level, format, entryErrno};
    const u32 result = PrintLine(parts, args, again);
    va_end(again);
    va_end(args);
    errno = entryErrno;
    return result;
}

void LOG_SetSink(LogSink sink, void* context)
{
    if (g_xelLogInSink) {
        return;
    }
    const SinkGuard hold(pthread_rwlock_wrlock);
    g_xelLogSink = Sink{sink, context};
}
