// What the log tests put between the log and the system: write(2) to standard error that is counted
// and can misbehave, mappings that can fail, a wall clock that can stand still, and a count of heap
// allocations. The definitions in front of the C library's are in log_capture.cpp.
#ifndef XEL_TESTS_FOUNDATION_LOG_CAPTURE_H
#define XEL_TESTS_FOUNDATION_LOG_CAPTURE_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "xel_log.h"

struct LogFakes {
    std::atomic<uint64_t> writes{0};       // calls of write for standard error
    std::atomic<size_t> shortWrite{0};     // the next write takes this many bytes only; 0: all
    std::atomic<int> failures{0};          // so many of the next writes fail
    std::atomic<int> failureErrno{0};      // with this error
    std::atomic<bool> mmapFails{false};    // mappings fail
    std::atomic<uint64_t> mmaps{0};        // calls of mmap
    std::atomic<int64_t> fixedSeconds{-1}; // the wall clock while 0 or more
    std::atomic<int64_t> fixedNano{0};
    std::atomic<uint64_t> allocations{0}; // calls of malloc, calloc and realloc
};

extern LogFakes g_fakes;

// Standard error goes to a file while this lives.
class StderrFile
{
public:
    StderrFile();
    ~StderrFile();
    StderrFile(const StderrFile&) = delete;
    StderrFile& operator=(const StderrFile&) = delete;

    // All that was written so far.
    std::string Text() const;

private:
    int file_;
    int saved_;
};

// Standard error goes to a pipe while this lives.
class StderrPipe
{
public:
    StderrPipe();
    ~StderrPipe();
    StderrPipe(const StderrPipe&) = delete;
    StderrPipe& operator=(const StderrPipe&) = delete;

    int ReadEnd() const { return readEnd_; }

    // Gives standard error back, so that the reader comes to the end.
    void CloseWriteEnd();

    // Reads until the end of the pipe.
    std::string ReadAll() const;

private:
    int readEnd_ = -1;
    int saved_ = -1;
};

std::vector<std::string> SplitLines(const std::string& text);

// What follows the bracket of process and thread.
std::string MessageOf(const std::string& line);

// A failure line of a test. A macro, so that the compiler checks the format.
#define PRINT(...)                                                                                 \
    LOG_InnerPrint(0, "foundation/test", 7, "<unknown>", 9, 42, XEL_LOG_ERROR, __VA_ARGS__)

#endif // XEL_TESTS_FOUNDATION_LOG_CAPTURE_H
