// The stand-in library. Registered records, and the arguments of the last calls, are remembered
// under a mutex; everything else is atomic or belongs to the calling thread. Plain arrays, since
// the containers would bring symbols that keep the library from being unloaded.
#include "stand_in.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <sys/epoll.h>
#include <unistd.h>

using standin::Control;
using standin::Record;

namespace
{

Control g_control;
thread_local int t_errorNo;

constexpr int kDescriptors = 4096;
constexpr int kMostEvents = 4096;
std::mutex g_mutex;
Record g_records[kDescriptors]; // guarded by g_mutex, as are the last arguments in g_control

// The library's own operation numbers.
constexpr int kOps[] = {EPOLL_CTL_ADD, EPOLL_CTL_MOD, EPOLL_CTL_DEL};

// Counts a call; true when it must fail, with the result stored. errno is left misleading.
bool Fails(standin::Function function, int* result)
{
    g_control.calls[function].fetch_add(1);
    const int error = g_control.failWith[function].load();
    if (error == 0) {
        return false;
    }
    const int answer = g_control.answer[function].load();
    t_errorNo = error;
    errno = EDOM;
    *result = answer == 0 ? -1 : answer;
    return true;
}

int Answer(int result)
{
    t_errorNo = result < 0 ? errno : 0;
    return result;
}

void Fill(Record* record, uint32_t events, const Record& registered)
{
    memset(record->bytes, 0xEE, sizeof(record->bytes)); // all but mask and data is of no meaning
    memcpy(record->bytes, &events, sizeof(events));
    memcpy(record->bytes + 24, registered.bytes + 24, 8);
}

void NoteCtl(int epFd, int op, int fd, const Record* record)
{
    const std::lock_guard<std::mutex> guard(g_mutex);
    g_control.lastCtl[0] = epFd;
    g_control.lastCtl[1] = op;
    g_control.lastCtl[2] = fd;
    g_control.lastCtlHadRecord = record != nullptr;
    if (record != nullptr) {
        g_control.lastCtlRecord = *record;
    }
}

} // namespace

Control* StandIn_Control()
{
    return &g_control;
}

int MOX_EpollCreate()
{
    int result = 0;
    return Fails(standin::kCreate, &result) ? result : Answer(epoll_create1(EPOLL_CLOEXEC));
}

int MOX_EpollCtl(int epFd, int op, int fd, Record* record)
{
    NoteCtl(epFd, op, fd, record);
    int result = 0;
    if (Fails(standin::kCtl, &result)) {
        return result;
    }
    if (op < 0 || op > 2 || fd < 0 || fd >= kDescriptors) {
        errno = EINVAL;
        return Answer(-1);
    }
    struct epoll_event event = {};
    if (record != nullptr) {
        memcpy(&event.events, record->bytes, sizeof(uint32_t));
        const std::lock_guard<std::mutex> guard(g_mutex);
        g_records[fd] = *record;
    }
    event.data.fd = fd;
    return Answer(epoll_ctl(epFd, kOps[op], fd, &event));
}

int MOX_EpollWait(int epFd, Record* records, int room, int timeoutMs)
{
    if (auto* hook = g_control.onWait.load()) {
        hook();
    }
    int result = 0;
    if (Fails(standin::kWait, &result)) {
        return result;
    }
    struct epoll_event events[kMostEvents];
    const int ready = epoll_wait(epFd, events, room < kMostEvents ? room : kMostEvents, timeoutMs);
    const std::lock_guard<std::mutex> guard(g_mutex);
    g_control.lastWait[0] = epFd;
    g_control.lastWait[1] = room;
    g_control.lastWait[2] = timeoutMs;
    g_control.lastWaitBuffer = records;
    for (int i = 0; i < ready; ++i) {
        Fill(&records[i], events[i].events, g_records[events[i].data.fd]);
    }
    return Answer(ready) + (ready > 0 ? g_control.excess.load() : 0);
}

#ifndef STAND_IN_WITHOUT_ERROR_NUMBER
int MOX_EpollErrorNoGet()
{
    g_control.calls[standin::kErrorNoGet].fetch_add(1);
    const int forced = g_control.failWith[standin::kErrorNoGet].load();
    return forced != 0 ? forced : t_errorNo;
}
#endif

int MOX_EpollClose(int fd)
{
    {
        const std::lock_guard<std::mutex> guard(g_mutex);
        g_control.lastClosed = fd;
    }
    int result = 0;
    return Fails(standin::kClose, &result) ? result : Answer(close(fd));
}
