// A connection's runs: read a little, ask or answer, send a little, then let the scheduler choose
// again. A connection is closed in its own run only: readiness of it that is queued at another
// time would be dropped with a log line.
#include "examples/service_platform/connection.h"

#include "examples/service_platform/front.h"

namespace
{

constexpr size_t kOutputPerRun = 16UL * 1024UL;
constexpr u32 kRequestsPerRun = 8;

} // namespace

Connection::Connection(Front& front, UniqueFd socket)
    : front_(front), stream_(std::move(socket)), session_(stream_.Session())
{
    ExtendDeadline();
}

bool Connection::Start()
{
    return front_.TaskList().Add(Fd(), place_, Proc, this);
}

// Nothing may be thrown through the library's frames: a failure in here costs the client its
// connection and is counted by the scheduler as a failed run.
u32 Connection::Proc(struct epoll_event* event, u64 data)
{
    auto* self = reinterpret_cast<Connection*>(data);
    u32 result = XEL_OK;
    bool isAlive = false;
    try {
        isAlive = self->Run(*event);
    } catch (...) {
        result = XEL_FAIL;
    }
    if (!isAlive) {
        self->front_.Close(*self);
    }
    return result;
}

// False: the connection is over.
bool Connection::Run(const struct epoll_event& event)
{
    task_ = event.data.ptr;
    if (stream_.IsLingering()) {
        return stream_.Discard();
    }
    if (request_ != 0) {
        return (event.events & (EPOLLHUP | EPOLLERR)) == 0;
    }
    if (session_.Phase() == SessionPhase::Receiving && !Receive()) {
        return false;
    }
    if (!Serve()) {
        return false;
    }
    if (session_.Phase() == SessionPhase::Ended) {
        ExtendDeadline();
        return stream_.StartLinger() && WatchFor(EPOLLIN);
    }
    return WatchForNext();
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
                return MoveTo(place); // the request belongs to a run in its own place
            }
            AnswerOrAsk();
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

TaskPlace Connection::Place() const
{
    const bool isAdmin = session_.Refusal() == 0 && Front::IsAdmin(session_.Target());
    return isAdmin ? TaskPlace::Admin : TaskPlace::Http;
}

bool Connection::MoveTo(TaskPlace place)
{
    place_ = place;
    return front_.TaskList().Move(Fd(), place, Proc, this);
}

void Connection::AnswerOrAsk()
{
    const u32 refusal = session_.Refusal();
    if (refusal != 0) {
        session_.Answer(front_.RefuseMalformed(refusal));
        return;
    }
    const Front::Reaction reaction = front_.Ask(*this, session_.Target());
    request_ = reaction.request;
    if (request_ == 0) {
        session_.Answer(reaction.page);
    }
}

// The run that follows sends in the connection's place in the schedule, and closes it if need be.
void Connection::Deliver(const Page& page)
{
    request_ = 0;
    session_.Answer(page);
    ExtendDeadline();
    if (!WatchFor(EPOLLOUT)) {
        stream_.EndAll();
    }
}

bool Connection::Send(size_t& budget)
{
    const StreamStep step = stream_.Send(budget);
    if (step == StreamStep::Moved) {
        ExtendDeadline();
    }
    return step != StreamStep::Broken;
}

bool Connection::WatchForNext()
{
    if (request_ != 0) {
        return WatchFor(0);
    }
    return WatchFor(session_.Phase() == SessionPhase::Receiving ? EPOLLIN : EPOLLOUT);
}

bool Connection::WatchFor(u32 events)
{
    if (events == watched_) {
        return true;
    }
    watched_ = events;
    return front_.TaskList().Watch(Fd(), events, task_);
}

void Connection::ExtendDeadline()
{
    deadlineMs_ = Front::NowMs() + front_.IdleMs();
}

void Connection::EndAll() const
{
    stream_.ResetOnClose();
    stream_.EndAll();
}
