// The server: the loop, the listening socket, all connections and the sweep that finds slow
// clients. Lives on the thread that calls Run.
#ifndef HTTP_SERVER_SERVER_H
#define HTTP_SERVER_SERVER_H

#include <memory>
#include <vector>

#include "common/xel_int.h"
#include "examples/common/unique_fd.h"
#include "examples/http_server/connection.h"
#include "examples/http_server/loop.h"
#include "examples/http_server/pages.h"
#include "examples/http_server/signals.h"
#include "examples/http_server/stats.h"

struct ServerOptions {
    u32 port = 0; // 0: any free one
    u32 idleMs = 5000;
    u32 maxConnections = 1000;
};

// Milliseconds of a clock that does not jump.
u64 NowMs();

class Server
{
public:
    // Listens on the loopback address. Throws std::runtime_error or std::system_error.
    explicit Server(const ServerOptions& options);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    // Closes what is still open.
    ~Server();

    u32 Port() const;
    // Serves until SIGINT or SIGTERM, then closes every connection.
    void Run();

    // Ends a connection and its task; the object is gone after.
    void Close(const Connection& connection);

    Loop& TaskLoop() { return loop_; }
    const PageContext& Pages() const { return pages_; }
    ServerCounters& Counters() { return counters_; }
    u32 IdleMs() const { return options_.idleMs; }

private:
    static u32 ListenerProc(struct epoll_event* event, u64 data);
    static u32 SweepProc(struct epoll_event* event, u64 data);

    bool AcceptOne();
    void Open(UniqueFd socket);
    void PauseListener();
    void Sweep();
    void CloseAll();

    // In the order of construction: hooks first, so that they see every task; the loop outlives
    // the tasks.
    ServerOptions options_;
    TaskStats stats_;
    ServerCounters counters_;
    PageContext pages_ = {stats_, counters_};
    Loop loop_;
    SignalTask signals_;
    UniqueFd listener_;
    bool listening_ = false;
    UniqueFd timer_;
    std::vector<std::unique_ptr<Connection>> connections_; // by descriptor
};

#endif // HTTP_SERVER_SERVER_H
