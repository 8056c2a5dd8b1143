// The bare queue. Its thread runs from construction to destruction; messages left then are lost.
#include "bench/service_msgque/bare_queue.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

BareQueue::BareQueue(std::uint32_t depth, XelServiceConsumer consumer, void* data)
    : consumer_(consumer),
      data_(data),
      epFd_(epoll_create1(EPOLL_CLOEXEC)),
      fd_(eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC)),
      stopFd_(eventfd(0, EFD_CLOEXEC)),
      ring_(depth)
{
    for (const int fd : {fd_, stopFd_}) {
        struct epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = fd;
        if (epoll_ctl(epFd_, EPOLL_CTL_ADD, fd, &event) != 0) {
            throw std::runtime_error("cannot watch a descriptor");
        }
    }
    thread_ = std::thread([this] { Run(); });
}

BareQueue::~BareQueue()
{
    eventfd_write(stopFd_, 1);
    thread_.join();
    close(stopFd_);
    close(fd_);
    close(epFd_);
}

bool BareQueue::Send(const XelServiceMsg& message)
{
    XelServiceMsg queued = message;
    queued.data = std::malloc(message.len);
    if (queued.data == nullptr) {
        return false;
    }
    std::memcpy(queued.data, message.data, message.len);
    const bool isQueued = Enqueue(queued);
    if (!isQueued) {
        std::free(queued.data);
    }
    return isQueued;
}

bool BareQueue::Enqueue(const XelServiceMsg& message)
{
    const std::lock_guard guard(mutex_);
    if (used_ == ring_.size()) {
        return false;
    }
    const std::size_t place = oldest_ + used_;
    ring_[place < ring_.size() ? place : place - ring_.size()] = message;
    used_ += 1;
    return eventfd_write(fd_, 1) == 0;
}

XelServiceMsg BareQueue::Take()
{
    const std::lock_guard guard(mutex_);
    const XelServiceMsg message = ring_[oldest_];
    oldest_ = oldest_ + 1 == ring_.size() ? 0 : oldest_ + 1;
    used_ -= 1;
    return message;
}

void BareQueue::Run()
{
    for (;;) {
        struct epoll_event event = {};
        const int ready = epoll_wait(epFd_, &event, 1, -1);
        if (ready < 0 && errno != EINTR) {
            return;
        }
        if (ready == 1 && event.data.fd == stopFd_) {
            return;
        }
        eventfd_t value = 0;
        if (ready == 1 && eventfd_read(fd_, &value) == 0) {
            XelServiceMsg message = Take();
            void* body = message.data;
            consumer_(&message, data_);
            std::free(body);
        }
    }
}
