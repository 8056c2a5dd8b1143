// SIGINT and SIGTERM as input of a task: they are blocked in the whole process and read from a
// signalfd, so that they are handled between callbacks like everything else.
#ifndef HTTP_SERVER_SIGNALS_H
#define HTTP_SERVER_SIGNALS_H

#include "common/xel_int.h"
#include "examples/common/unique_fd.h"
#include "examples/http_server/loop.h"

class SignalTask
{
public:
    // Blocks both signals in the calling thread, and so in every thread that it starts later; they
    // stay blocked. Throws std::system_error or std::runtime_error.
    explicit SignalTask(Loop& loop);
    SignalTask(const SignalTask&) = delete;
    SignalTask& operator=(const SignalTask&) = delete;
    ~SignalTask();

private:
    static u32 Proc(struct epoll_event* event, u64 data);

    Loop& loop_;
    UniqueFd fd_;
};

#endif // HTTP_SERVER_SIGNALS_H
