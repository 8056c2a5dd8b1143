// A connection's runs: read a little, answer a little, send a little, then let the scheduler choose
// again. Called by the loop (through Proc) and by the server's sweep, on the loop's thread.
//
// Each run is bounded: one read, a few requests, so many bytes of output. Between runs the socket
// is watched for exactly one thing: EPOLLIN while only more input helps, EPOLLOUT while there is
// anything to send or to answer. So a client that does not read its responses is not read from
// either, and a run that stopped at its bound is reported ready again at once.
#include "examples/http_server/connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "examples/http_server/server.h"

namespace
{

constexpr size_t kReadPerRun = 16UL * 1024UL;
constexpr size_t kOutputPerRun = 16UL * 1024UL;
constexpr u32 kRequestsPerRun = 8;
constexpr size_t kDiscardLimit = 1024UL * 1024UL;

bool IsTemporary(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

} // namespace

Connection::Connection(Server& server, UniqueFd socket)
    : server_(server),
      socket_(std::move(socket)),
      session_(server.Pages(), server.Counters().requests)
{
    ExtendDeadline();
}

bool Connection::Start()
{
    return server_.TaskLoop().Add(Fd(), place_, Proc, this);
}

// Nothing may be thrown through the library's frames: a failure in here costs the client its
// connection and is counted by the scheduler as a failed run.
u32 Connection::Proc(struct epoll_event* event, u64 data)
{
    auto* self = reinterpret_cast<Connection*>(data);
    u32 result = XEL_OK;
    bool alive = false;
    try {
        alive = self->Run(*event);
    } catch (...) {
        result = XEL_FAIL;
    }
    if (!alive) {
        self->Owner().Close(*self);
    }
    return result;
}

bool Connection::Run(const struct epoll_event& event)
{
    if (lingering_) {
        return Discard();
    }
    if (session_.Phase() == SessionPhase::Receiving && !Receive()) {
        return false;
    }
    if (!Serve()) {
        return false;
    }
    if (session_.Phase() == SessionPhase::Ended) {
        return StartLinger(event);
    }
    return WatchFor(event, session_.Phase() == SessionPhase::Receiving ? EPOLLIN : EPOLLOUT);
}

bool Connection::Receive()
{
    std::array<char, kReadPerRun> bytes;
    const ssize_t size = recv(Fd(), bytes.data(), bytes.size(), 0);
    if (size < 0) {
        return IsTemporary(errno);
    }
    if (size == 0) {
        session_.EndInput();
        return true;
    }
    // The time limit counts from the first byte of a request: more bytes do not extend it.
    if (!session_.IsMidRequest()) {
        ExtendDeadline();
    }
    session_.Receive({bytes.data(), static_cast<size_t>(size)});
    return true;
}

bool Connection::Serve()
{
    size_t budget = kOutputPerRun;
    for (u32 i = 0; i < kRequestsPerRun; ++i) {
        session_.Parse();
        if (session_.Phase() == SessionPhase::Answering) {
            const TaskPlace place = session_.Place();
            if (place != place_) {
                return MoveTo(place); // the response belongs to a run in its own place
            }
            session_.Answer();
        }
        if (session_.Phase() != SessionPhase::Sending) {
            return true;
        }
        if (!Send(budget)) {
            return false;
        }
    }
    return true;
}

bool Connection::MoveTo(TaskPlace place)
{
    place_ = place;
    return server_.TaskLoop().Move(Fd(), place, Proc, this);
}

// False: the client is gone.
bool Connection::Send(size_t& budget)
{
    while (session_.Phase() == SessionPhase::Sending && budget > 0) {
        const std::string_view output = session_.Output();
        const ssize_t size =
            send(Fd(), output.data(), std::min(output.size(), budget), MSG_NOSIGNAL);
        if (size < 0) {
            return IsTemporary(errno);
        }
        session_.Sent(static_cast<size_t>(size));
        budget -= static_cast<size_t>(size);
        ExtendDeadline();
    }
    return true;
}

// Closing a socket with unread input resets it, and the reset may overtake the last response. So
// our side is shut first, and what still arrives is thrown away until the client closes.
bool Connection::StartLinger(const struct epoll_event& event)
{
    if (session_.InputEnded()) {
        return false;
    }
    lingering_ = true;
    ExtendDeadline();
    return shutdown(Fd(), SHUT_WR) == 0 && WatchFor(event, EPOLLIN);
}

bool Connection::Discard()
{
    std::array<char, kReadPerRun> bytes;
    const ssize_t size = recv(Fd(), bytes.data(), bytes.size(), 0);
    if (size < 0) {
        return IsTemporary(errno);
    }
    discarded_ += static_cast<size_t>(size);
    return size != 0 && discarded_ < kDiscardLimit;
}

bool Connection::WatchFor(const struct epoll_event& event, u32 events)
{
    if (events == watched_) {
        return true;
    }
    watched_ = events;
    return server_.TaskLoop().Watch(Fd(), events, event.data.ptr);
}

void Connection::ExtendDeadline()
{
    deadlineMs_ = NowMs() + server_.IdleMs();
}

void Connection::Expire()
{
    const SessionPhase phase = session_.Phase();
    if (phase == SessionPhase::Receiving && session_.IsMidRequest()) {
        session_.Refuse(408);
        session_.Answer();
        size_t budget = kOutputPerRun;
        Send(budget);
    } else if (phase == SessionPhase::Sending) {
        // What a client does not read would stay in the kernel after the close; a reset drops it.
        const linger reset = {1, 0};
        setsockopt(Fd(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    }
}
