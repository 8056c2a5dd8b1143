// Which epoll implementation a scheduler thread runs on: the switch by type, and the kernel's own.
// Called by the thread that creates or frees a scheduler thread; owns nothing.
#include <cerrno>
#include <sys/epoll.h>
#include <unistd.h>

#include "scheduler/xel_scheduler_inner.h"
#include "thread/xel_sch_thread_inner.h"

namespace
{

constexpr LogSite kEpollLog{"thread/xel_sch_thread_epoll", 85};

struct EpollType {
    u32 (*init)(u32 epSize, i32* epFd, SchEpollOps* ops);
    int (*closeFd)(int fd);
};

constexpr EpollType kTypes[kEpollTypeCount] = {
    {ThreadLinuxEpollInit, close},
    {nullptr, nullptr}, // mesh
    {ThreadMoxEpollInit, THREAD_MoxEpollCloseAdapt},
};

} // namespace

uint32_t THREAD_EpollInit(uint32_t epollType, uint32_t epSize, int32_t* epFd, SchEpollOps* ops)
{
    if (epollType == XEL_EPOLL_TYPE_MESH) {
        XEL_LOG_FAIL(kEpollLog, "Thread epoll init, mesh type is not support.");
        return XEL_EINVAL;
    }
    return epollType < kEpollTypeCount ? kTypes[epollType].init(epSize, epFd, ops) : XEL_EINVAL;
}

uint32_t THREAD_EpollCloseFd(uint32_t epollType, int32_t fd)
{
    if (epollType == XEL_EPOLL_TYPE_MESH) {
        XEL_LOG_FAIL(kEpollLog, "Thread epoll close, mesh type is not support.");
        return XEL_EINVAL;
    }
    return epollType < kEpollTypeCount ? static_cast<u32>(kTypes[epollType].closeFd(fd))
                                       : XEL_EINVAL;
}

u32 ThreadLinuxEpollInit(u32 epSize, i32* epFd, SchEpollOps* ops)
{
    const i32 fd = epoll_create(static_cast<int>(epSize));
    if (fd < 0) {
        XEL_LOG_FAIL(kEpollLog, "Thread create ctrl, epoll create unsuccessfully. (errno = %d)",
                     errno);
        return XEL_FAIL;
    }
    *epFd = fd;
    ops->wait = epoll_wait;
    ops->ctl = SchLinuxEpollCtlAdapt;
    ops->getErrNo = SchLinuxEpollGetErrNoAdapt;
    return XEL_OK;
}
