// Clients and requests on the front thread, without locks; what other threads wait for is counted
// in the two gauges.
#include "examples/service_platform/front.h"

#include <sys/socket.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <optional>
#include <stdexcept>

#include "examples/common/listener.h"
#include "examples/service_platform/run_on.h"

namespace
{

constexpr u32 kAcceptsPerRun = 16;
constexpr u32 kSweepMs = 100; // how much later than its time an idle client is found
constexpr auto kLongestEnd = std::chrono::seconds(5);
constexpr std::string_view kCallPrefix = "/call/";
constexpr std::string_view kSlowPrefix = "/slow/";
constexpr std::string_view kAdminTarget = "/admin/status";

// The session of /call/N or /slow/N. The request's number is filled in later.
std::optional<CallBody> CallOf(std::string_view target)
{
    const bool isSlow = target.starts_with(kSlowPrefix);
    if (!isSlow && !target.starts_with(kCallPrefix)) {
        return std::nullopt;
    }
    static_assert(kCallPrefix.size() == kSlowPrefix.size());
    target.remove_prefix(kCallPrefix.size());
    CallBody call = {0, 0, isSlow ? 1U : 0U};
    const char* end = target.data() + target.size();
    const auto [stop, error] = std::from_chars(target.data(), end, call.session);
    if (error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return call;
}

} // namespace

u64 Front::NowMs()
{
    const auto now = Clock::now().time_since_epoch();
    return static_cast<u64>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

bool Front::IsAdmin(std::string_view target)
{
    return target == kAdminTarget;
}

Front::Front(const Worker& worker, const Options& options, Timers& timers)
    : worker_(worker),
      options_(options),
      timers_(timers),
      listener_(ListenOnLoopback(options.port)),
      port_(PortOf(listener_)),
      tasks_(worker)
{
    timers.Declare(TimerKind::Request, worker, options.timeoutMs, *this);
    timers.Declare(TimerKind::Sweep, worker, kSweepMs, *this);
}

Front::~Front() = default;

void Front::Start(Sessions& sessions)
{
    sessions_ = &sessions;
    RunOn(worker_, [this] {
        ResumeListener();
        if (!isListening_) {
            throw std::runtime_error("no task for the listener");
        }
    });
}

// Clients

// Nothing may be thrown through the library's frames; a client that memory refuses is dropped by
// the owner of its descriptor.
u32 Front::ListenerProc(struct epoll_event*, u64 data)
{
    auto* self = reinterpret_cast<Front*>(data);
    try {
        for (u32 i = 0; i < kAcceptsPerRun && self->AcceptOne(); ++i) {
        }
    } catch (...) {
        return XEL_FAIL;
    }
    return XEL_OK;
}

// False: nobody waits, or nobody can be let in.
bool Front::AcceptOne()
{
    if (isStopping_) {
        CloseListener();
        return false;
    }
    UniqueFd socket = AcceptClient(listener_);
    if (socket.IsOpen()) {
        if (openConnections_ < options_.mostConnections) {
            Open(std::move(socket));
        } else if (TurnAway(socket)) {
            ++account_.turnedAway;
        }
        return true;
    }
    if (errno == EINTR || errno == ECONNABORTED) {
        return true;
    }
    // Without descriptors or memory the listener would stay ready and be run for nothing.
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
        PauseListener();
    }
    return false;
}

void Front::Open(UniqueFd socket)
{
    const auto index = static_cast<size_t>(socket.Get());
    if (index >= connections_.size()) {
        connections_.resize(index + 1);
    }
    auto connection = std::make_unique<Connection>(*this, std::move(socket));
    if (connection->Start()) {
        connections_[index] = std::move(connection);
        ++openConnections_;
        ++account_.opened;
        sockets_.Add();
    }
}

void Front::Close(const Connection& connection)
{
    const auto found = pending_.find(connection.Request());
    if (found != pending_.end()) {
        timers_.Cancel(found->second.timeout);
        pending_.erase(found);
        ++account_.gone;
        inside_.Done();
    }
    const int fd = connection.Fd();
    tasks_.Remove(fd);
    connections_[static_cast<size_t>(fd)].reset();
    --openConnections_;
    sockets_.Done();
}

// Clients wait in the backlog until the next sweep.
void Front::PauseListener()
{
    tasks_.Remove(listener_.Get());
    isListening_ = false;
    isPaused_ = true;
    sockets_.Done();
}

void Front::ResumeListener()
{
    isListening_ = tasks_.Add(listener_.Get(), TaskPlace::Listener, ListenerProc, this);
    if (isListening_) {
        isPaused_ = false;
        sockets_.Add();
    }
}

void Front::CloseListener()
{
    if (isListening_) {
        PauseListener();
    }
    listener_ = UniqueFd();
}

void Front::Sweep()
{
    const u64 nowMs = NowMs();
    for (const auto& connection : connections_) {
        if (connection && connection->IsOverdue(nowMs)) {
            connection->EndAll();
        }
    }
    if (isPaused_ && !isStopping_) {
        ResumeListener();
    }
}

// Requests

Page Front::RefuseMalformed(u32 status)
{
    ++account_.malformed;
    return MakeRefusal(status);
}

// The time-out runs before the request is handed over: its answer finds everything in place.
Front::Reaction Front::Ask(Connection& connection, std::string_view target)
{
    std::optional<CallBody> call = CallOf(target);
    if (!call && !IsAdmin(target)) {
        return {0, RefuseMalformed(404)};
    }
    ++account_.requests;
    if (isStopping_) {
        return RefuseAtOnce();
    }
    const u64 request = ++lastRequest_;
    const Timer timeout = timers_.Start(TimerKind::Request, request);
    if (timeout.node == nullptr) {
        return RefuseAtOnce();
    }
    pending_.emplace(request, Pending{&connection, timeout});
    inside_.Add();
    if (!HandOver(request, call ? &*call : nullptr)) {
        timers_.Cancel(timeout);
        pending_.erase(request);
        inside_.Done();
        ++account_.refused;
        return {0, MakeRefusal(503)};
    }
    return {request, {}};
}

Front::Reaction Front::RefuseAtOnce()
{
    ++account_.refused;
    ++account_.refusedAtOnce;
    return {0, MakeRefusal(503)};
}

// Without a call the request is for the desk. False: refused.
bool Front::HandOver(u64 request, const CallBody* call)
{
    if (call != nullptr) {
        CallBody numbered = *call;
        numbered.request = request;
        return sessions_->AskCall(numbered);
    }
    ++account_.admin;
    const bool isTaken = sessions_->AskAdmin(request);
    account_.adminRefused += isTaken ? 0 : 1;
    return isTaken;
}

void Front::OnAnswer(const Answer& answer)
{
    const auto found = pending_.find(answer.request);
    if (found == pending_.end()) {
        ++account_.unused;
        return;
    }
    ++account_.used;
    timers_.Cancel(found->second.timeout);
    Finish(answer.request, answer.status, answer.text);
}

// A request's timer is let go of by the library once it has fired.
void Front::OnTimer(TimerKind kind, u64 id)
{
    if (kind == TimerKind::Sweep) {
        Sweep();
    } else if (pending_.contains(id)) {
        Finish(id, 504, "no answer in time\n");
    }
}

void Front::Finish(u64 request, u32 status, const std::string& text)
{
    const auto found = pending_.find(request);
    Connection* connection = found->second.connection;
    pending_.erase(found);
    CountStatus(status);
    connection->Deliver({.status = status, .text = text});
    inside_.Done();
}

void Front::CountStatus(u32 status)
{
    u64& count = status == 200   ? account_.answered
                 : status == 504 ? account_.timedOut
                                 : account_.refused;
    ++count;
}

// The end

// The shut listener becomes ready, and closes itself in its own run.
void Front::StopIntake()
{
    RunOn(worker_, [this] {
        isStopping_ = true;
        if (isListening_) {
            shutdown(listener_.Get(), SHUT_RDWR);
        } else {
            CloseListener();
        }
    });
}

bool Front::WaitForAnswers(Clock::time_point deadline)
{
    return inside_.WaitForZero(deadline);
}

void Front::RefusePending()
{
    while (!pending_.empty()) {
        const auto [request, pending] = *pending_.begin();
        timers_.Cancel(pending.timeout);
        ++account_.refusedLast;
        Finish(request, 503, "stopping\n");
    }
}

// First every connection sends what it has and meets the end of its input; who does not read until
// the deadline is cut off.
void Front::EndConnections(Clock::time_point deadline)
{
    RunOn(worker_, [this] {
        RefusePending();
        for (const auto& connection : connections_) {
            if (connection) {
                connection->EndInput();
            }
        }
    });
    if (sockets_.WaitForZero(deadline)) {
        return;
    }
    RunOn(worker_, [this] {
        for (const auto& connection : connections_) {
            if (connection) {
                connection->EndAll();
            }
        }
    });
    if (!sockets_.WaitForZero(Clock::now() + kLongestEnd)) {
        fprintf(stderr, "service_platform: some connections do not end\n");
    }
}
