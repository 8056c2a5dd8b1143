// A connection's runs: read a little, answer a little, send a little, then let the scheduler choose
// again. Called by the loop (through Proc) and by the server's sweep, on the loop's thread. A
// connection is closed in its own run only: readiness of it that is queued at another time would
// be dropped with a log line.
//
// Each run is bounded: one read, a few requests, so many bytes of output. Between runs the socket
// is watched for exactly one thing: EPOLLIN while only more input helps, EPOLLOUT while there is
// anything to send or to answer. So a client that does not read its responses is not read from
// either, and a run that stopped at its bound is reported ready again at once.
#include "examples/http_server/connection.h"

#include "examples/http_server/server.h"

namespace
{

constexpr size_t kOutputPerRun = 16UL * 1024UL;
constexpr u32 kRequestsPerRun = 8;

} // namespace

Connection::Connection(Server& server, UniqueFd socket)
    : server_(server), stream_(std::move(socket)), session_(stream_.Session())
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
    task_ = event.data.ptr;
    if (isEnding_) {
        return false;
    }
    if (stream_.IsLingering()) {
        return stream_.Discard();
    }
    if (session_.Phase() == SessionPhase::Receiving && !Receive()) {
        return false;
    }
    if (!Serve()) {
        return false;
    }
    if (session_.Phase() == SessionPhase::Ended) {
        return StartLinger();
    }
    return WatchFor(session_.Phase() == SessionPhase::Receiving ? EPOLLIN : EPOLLOUT);
}

bool Connection::Receive()
{
    // The time limit counts from the first byte of a request: more bytes do not extend it.
    const bool isMidRequest = session_.IsMidRequest();
    const StreamStep step = stream_.Receive();
    if (step == StreamStep::Moved && !isMidRequest) {
        ExtendDeadline();
    }
    return step != StreamStep::Broken;
}

bool Connection::Serve()
{
    size_t budget = kOutputPerRun;
    for (u32 i = 0; i < kRequestsPerRun; ++i) {
        session_.Parse();
        if (session_.Phase() == SessionPhase::Answering) {
            const TaskPlace place = Place();
            if (place != place_) {
                return MoveTo(place); // the response belongs to a run in its own place
            }
            Answer();
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

// Where the response wants to be scheduled.
TaskPlace Connection::Place() const
{
    return session_.Refusal() != 0 ? TaskPlace{TaskClass::Http} : PlaceOf(session_.Target());
}

void Connection::Answer()
{
    const u32 refusal = session_.Refusal();
    session_.Answer(refusal != 0 ? MakeRefusal(refusal)
                                 : MakePage(session_.Target(), server_.Pages()));
}

bool Connection::MoveTo(TaskPlace place)
{
    place_ = place;
    return server_.TaskLoop().Move(Fd(), place, Proc, this);
}

// False: the client is gone.
bool Connection::Send(size_t& budget)
{
    const u64 before = session_.Answered();
    const StreamStep step = stream_.Send(budget);
    server_.Counters().requests += session_.Answered() - before;
    if (step == StreamStep::Moved) {
        ExtendDeadline();
    }
    return step != StreamStep::Broken;
}

bool Connection::StartLinger()
{
    if (!stream_.StartLinger()) {
        return false;
    }
    ExtendDeadline();
    return WatchFor(EPOLLIN);
}

bool Connection::WatchFor(u32 events)
{
    if (events == watched_) {
        return true;
    }
    watched_ = events;
    return server_.TaskLoop().Watch(Fd(), events, task_);
}

void Connection::ExtendDeadline()
{
    deadlineMs_ = NowMs() + server_.IdleMs();
}

bool Connection::Expire()
{
    const bool isFirst = !isLate_;
    isLate_ = true;
    const SessionPhase phase = session_.Phase();
    if (phase == SessionPhase::Receiving && session_.IsMidRequest()) {
        session_.Refuse(408);
        ExtendDeadline();
        if (WatchFor(EPOLLOUT)) {
            return isFirst;
        }
    }
    if (phase == SessionPhase::Sending) {
        stream_.ResetOnClose();
    }
    isEnding_ = true;
    stream_.EndAll();
    return isFirst;
}
