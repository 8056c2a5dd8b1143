// One client: its HTTP stream and its task. Owned by the front, lives on the front thread.
//
// What a connection waits for: input; or, with a request handed to the services, its answer, which
// Deliver brings; or room in the socket to send. While it waits for an answer it is not read from,
// so a client has one request inside at a time, and only its end is noticed.
#ifndef SERVICE_PLATFORM_CONNECTION_H
#define SERVICE_PLATFORM_CONNECTION_H

#include "examples/common/http_stream.h"
#include "examples/service_platform/tasks.h"

class Front;

class Connection
{
public:
    Connection(Front& front, UniqueFd socket);

    int Fd() const { return stream_.Fd(); }
    // The request that waits for its answer, 0 for none.
    u64 Request() const { return request_; }

    // Registers the task; without it the connection is of no use.
    bool Start();
    // The answer to the request that waits. It is sent in the connection's own next run.
    void Deliver(const Page& page);
    bool IsOverdue(u64 nowMs) const { return request_ == 0 && nowMs >= deadlineMs_; }
    // Lets what is under way come to its end; takes no further input.
    void EndInput() const { stream_.EndInput(); }
    // Makes the next run the last, and throws away what the client does not read.
    void EndAll() const;

private:
    static u32 Proc(struct epoll_event* event, u64 data);

    bool Run(const struct epoll_event& event);
    bool Receive();
    bool Serve();
    TaskPlace Place() const;
    bool MoveTo(TaskPlace place);
    void AnswerOrAsk();
    bool Send(size_t& budget);
    bool WatchForNext();
    bool WatchFor(u32 events);
    void ExtendDeadline();

    Front& front_;
    HttpStream stream_;
    HttpSession& session_; // of the stream
    TaskPlace place_ = TaskPlace::Http;
    void* task_ = nullptr; // the task's handle, from the first run on
    u32 watched_ = EPOLLIN;
    u64 request_ = 0;
    u64 deadlineMs_ = 0;
};

#endif // SERVICE_PLATFORM_CONNECTION_H
