// The functions that stand in front of the C library's, and the redirection of standard error.
#include "log_capture.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "sanitized.h"
#include "tests/support/next_symbol.h"

LogFakes g_fakes;

extern "C" ssize_t write(int fd, const void* bytes, size_t size)
{
    static const auto next = xeltest::NextSymbol<ssize_t (*)(int, const void*, size_t)>("write");
    if (fd != STDERR_FILENO) {
        return next(fd, bytes, size);
    }
    g_fakes.writes++;
    if (g_fakes.failures > 0) {
        g_fakes.failures--;
        errno = g_fakes.failureErrno;
        return -1;
    }
    const size_t most = g_fakes.shortWrite.exchange(0);
    return next(fd, bytes, most != 0 && most < size ? most : size);
}

#if !XEL_THREAD_SANITIZED
extern "C" void* mmap(void* hint, size_t size, int protection, int flags, int fd, off_t offset)
{
    static const auto next =
        xeltest::NextSymbol<void* (*)(void*, size_t, int, int, int, off_t)>("mmap");
    g_fakes.mmaps++;
    if (g_fakes.mmapFails) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    void* memory = next(hint, size, protection, flags, fd, offset);
    errno = memory != MAP_FAILED ? EXDEV : errno; // a call that succeeds may change it
    return memory;
}
#endif

extern "C" int clock_gettime(clockid_t clock, timespec* out) noexcept
{
    static const auto next = xeltest::NextSymbol<int (*)(clockid_t, timespec*)>("clock_gettime");
    if (clock == CLOCK_REALTIME && g_fakes.fixedSeconds >= 0) {
        out->tv_sec = g_fakes.fixedSeconds;
        out->tv_nsec = g_fakes.fixedNano;
        return 0;
    }
    return next(clock, out);
}

#if !XEL_SANITIZED
extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* block, size_t size);

extern "C" void* malloc(size_t size) noexcept
{
    g_fakes.allocations++;
    return __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size) noexcept
{
    g_fakes.allocations++;
    return __libc_calloc(count, size);
}

extern "C" void* realloc(void* block, size_t size) noexcept
{
    g_fakes.allocations++;
    return __libc_realloc(block, size);
}
#endif

// A memory file: the kernel does not keep concurrent writes to it apart, so that the log has to.
StderrFile::StderrFile() : file_(memfd_create("stderr", 0)), saved_(dup(STDERR_FILENO))
{
    dup2(file_, STDERR_FILENO);
}

StderrFile::~StderrFile()
{
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    close(file_);
}

std::string StderrFile::Text() const
{
    std::string text(static_cast<size_t>(lseek(file_, 0, SEEK_END)), '\0');
    const ssize_t got = pread(file_, text.data(), text.size(), 0);
    text.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return text;
}

StderrPipe::StderrPipe() : saved_(dup(STDERR_FILENO))
{
    int ends[2] = {-1, -1};
    if (pipe(ends) == 0) {
        readEnd_ = ends[0];
        dup2(ends[1], STDERR_FILENO);
        close(ends[1]);
    }
}

StderrPipe::~StderrPipe()
{
    CloseWriteEnd();
    close(readEnd_);
}

void StderrPipe::CloseWriteEnd()
{
    if (saved_ != -1) {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        saved_ = -1;
    }
}

std::string StderrPipe::ReadAll() const
{
    std::string text;
    char part[65536];
    for (ssize_t got = 0; (got = read(readEnd_, part, sizeof(part))) > 0;) {
        text.append(part, static_cast<size_t>(got));
    }
    return text;
}

std::vector<std::string> SplitLines(const std::string& text)
{
    std::vector<std::string> lines;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = text.find('\n', begin);
        if (end == std::string::npos) {
            lines.push_back(text.substr(begin) + "<no newline>");
            break;
        }
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

std::string MessageOf(const std::string& line)
{
    const size_t bracket = line.find("] ");
    return bracket != std::string::npos ? line.substr(bracket + 2) : "<no bracket>";
}
