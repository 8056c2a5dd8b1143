// One client: a non-blocking socket, the HTTP session on it, and its task. Owned by the server,
// lives on the loop's thread.
#ifndef HTTP_SERVER_CONNECTION_H
#define HTTP_SERVER_CONNECTION_H

#include "common/xel_int.h"
#include "examples/common/http_stream.h"
#include "examples/common/unique_fd.h"
#include "examples/http_server/loop.h"

class Server;

class Connection
{
public:
    Connection(Server& server, UniqueFd socket);

    int Fd() const { return stream_.Fd(); }
    Server& Owner() const { return server_; }

    // Registers the task; without it the connection is of no use.
    bool Start();
    // One run of the task. False: the connection is over and is to be closed.
    bool Run(const struct epoll_event& event);
    bool IsOverdue(u64 nowMs) const { return !isEnding_ && nowMs >= deadlineMs_; }
    // A client that stopped in the midst of a request is told so by the next run, and has another
    // time limit to read it; any other one is closed by the next run. False: it was late before.
    bool Expire();

    // The task callback of all connections; closes the connection when its run says so.
    static u32 Proc(struct epoll_event* event, u64 data);

private:
    bool Receive();
    bool Serve();
    TaskPlace Place() const;
    void Answer();
    bool MoveTo(TaskPlace place);
    bool Send(size_t& budget);
    bool StartLinger();
    bool WatchFor(u32 events);
    void ExtendDeadline();

    Server& server_;
    HttpStream stream_;
    HttpSession& session_; // of the stream
    TaskPlace place_ = {TaskClass::Http};
    void* task_ = nullptr; // the library's handle, as each event of it says
    u32 watched_ = EPOLLIN;
    bool isLate_ = false;
    bool isEnding_ = false; // the next run is the last
    u64 deadlineMs_ = 0;
};

#endif // HTTP_SERVER_CONNECTION_H
