// The signal task: stops the loop. Made by the server before any other thread could exist; its
// callback runs on the loop's thread.
#include "examples/http_server/signals.h"

#include <sys/signalfd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

namespace
{

UniqueFd BlockAndOpen()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    const int error = pthread_sigmask(SIG_BLOCK, &set, nullptr);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "pthread_sigmask");
    }
    UniqueFd fd(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
    if (!fd.IsOpen()) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    return fd;
}

} // namespace

SignalTask::SignalTask(Loop& loop) : loop_(loop), fd_(BlockAndOpen())
{
    if (!loop_.Add(fd_.Get(), {TaskClass::Signals}, Proc, this)) {
        throw std::runtime_error("no task for the signals");
    }
}

SignalTask::~SignalTask()
{
    loop_.Remove(fd_.Get());
}

u32 SignalTask::Proc(struct epoll_event*, u64 data)
{
    auto* self = reinterpret_cast<SignalTask*>(data);
    signalfd_siginfo info = {};
    if (read(self->fd_.Get(), &info, sizeof(info)) != static_cast<ssize_t>(sizeof(info))) {
        return errno == EAGAIN ? XEL_OK : XEL_FAIL;
    }
    self->loop_.Stop();
    return XEL_OK;
}
