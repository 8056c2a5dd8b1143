// What a service queue is measured against: the same steps with nothing around them. A sender
// copies the body into a block of the heap, queues the message under a mutex and writes an eventfd
// while it holds that; one thread waits on epoll, reads the eventfd, takes one message under the
// mutex, hands it to the consumer and frees the body.
#ifndef XEL_BENCH_BARE_QUEUE_H
#define XEL_BENCH_BARE_QUEUE_H

#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include <pthread.h>

#include "xel_service_mq.h"

class BareQueue
{
public:
    BareQueue(std::uint32_t depth, XelServiceConsumer consumer, void* data);
    ~BareQueue();
    BareQueue(const BareQueue&) = delete;
    BareQueue& operator=(const BareQueue&) = delete;

    pthread_t Id() { return thread_.native_handle(); }
    // Any thread. False when the queue is full or there is no memory.
    bool Send(const XelServiceMsg& message);

private:
    bool Enqueue(const XelServiceMsg& message);
    XelServiceMsg Take();
    void Run();

    const XelServiceConsumer consumer_;
    void* const data_;
    const int epFd_;
    const int fd_;
    const int stopFd_;
    std::mutex mutex_; // guards the ring
    std::vector<XelServiceMsg> ring_;
    std::size_t oldest_ = 0;
    std::size_t used_ = 0;
    std::thread thread_;
};

#endif // XEL_BENCH_BARE_QUEUE_H
