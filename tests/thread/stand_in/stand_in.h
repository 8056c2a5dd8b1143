// A stand-in for the alternative epoll implementation: the five functions over the kernel's epoll,
// with 32-byte records, operation numbers and error numbers of its own, and a control record
// through which a test lets calls fail and sees what arrived.
#ifndef XEL_TESTS_STAND_IN_H
#define XEL_TESTS_STAND_IN_H

#include <atomic>
#include <cstdint>

namespace standin
{

// The record exchanged with the library, byte by byte.
struct Record {
    uint8_t bytes[32];
};

enum Function : uint32_t { kCreate, kCtl, kWait, kErrorNoGet, kClose, kFunctionCount };

// Written by the test (failWith, answer, excess, onWait) or by the library (the rest). The last
// arguments are stored by the calling thread and read by the test once that thread is still.
struct Control {
    std::atomic<uint32_t> calls[kFunctionCount];
    std::atomic<int> failWith[kFunctionCount]; // error number; 0: works
    std::atomic<int> answer[kFunctionCount];   // result of a failing call; 0 counts as -1
    std::atomic<int> excess;                   // events returned beyond those asked for
    std::atomic<void (*)()> onWait;            // called on the waiting thread, before each wait

    int lastCtl[3]; // epoll descriptor, operation, descriptor
    bool lastCtlHadRecord;
    Record lastCtlRecord;
    int lastWait[3]; // epoll descriptor, room, time-out
    void* lastWaitBuffer;
    int lastClosed;
};

using ControlFunction = Control* (*)();

} // namespace standin

extern "C" {
standin::Control* StandIn_Control();
int MOX_EpollCreate();
int MOX_EpollCtl(int epFd, int op, int fd, standin::Record* record);
int MOX_EpollWait(int epFd, standin::Record* records, int room, int timeoutMs);
int MOX_EpollErrorNoGet();
int MOX_EpollClose(int fd);
}

#endif // XEL_TESTS_STAND_IN_H
