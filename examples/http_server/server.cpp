// Accepting, the table of connections and the sweep. Its callbacks are called by the loop, Close
// also by a connection at the end of its run; all on the loop's thread.
#include "examples/http_server/server.h"

#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>

#include "examples/common/listener.h"

namespace
{

constexpr u32 kAcceptsPerRun = 16;
constexpr u32 kOwnDescriptors = 64; // room in the statistics for descriptors besides connections
constexpr u32 kShortestSweepMs = 10;
constexpr u32 kLongestSweepMs = 250;

UniqueFd Checked(int fd, const char* what)
{
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return UniqueFd(fd);
}

// Overdue connections are found at most a quarter of the idle limit late.
UniqueFd SweepTimer(u32 idleMs)
{
    UniqueFd fd =
        Checked(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "timerfd_create");
    const u32 periodMs = std::clamp(idleMs / 4, kShortestSweepMs, kLongestSweepMs);
    itimerspec period = {};
    period.it_interval.tv_nsec = static_cast<long>(periodMs) * 1000000L;
    period.it_value = period.it_interval;
    if (timerfd_settime(fd.Get(), 0, &period, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), "timerfd_settime");
    }
    return fd;
}

} // namespace

u64 NowMs()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<u64>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

Server::Server(const ServerOptions& options)
    : options_(options),
      stats_(options.maxConnections + kOwnDescriptors),
      signals_(loop_),
      listener_(ListenOnLoopback(options.port)),
      timer_(SweepTimer(options.idleMs))
{
    if (!loop_.Add(timer_.Get(), {TaskClass::Sweep}, SweepProc, this)) {
        throw std::runtime_error("no task for the sweep");
    }
    listening_ = loop_.Add(listener_.Get(), {TaskClass::Listener}, ListenerProc, this);
    if (!listening_) {
        loop_.Remove(timer_.Get());
        throw std::runtime_error("no task for the listener");
    }
}

Server::~Server()
{
    CloseAll();
    PauseListener();
    loop_.Remove(timer_.Get());
}

u32 Server::Port() const
{
    return PortOf(listener_);
}

void Server::Run()
{
    loop_.Run();
    CloseAll();
}

// Nothing may be thrown through the library's frames; a client that memory refuses is dropped by
// the owner of its descriptor.
u32 Server::ListenerProc(struct epoll_event*, u64 data)
{
    auto* self = reinterpret_cast<Server*>(data);
    try {
        for (u32 i = 0; i < kAcceptsPerRun; ++i) {
            if (!self->AcceptOne()) {
                break;
            }
        }
    } catch (...) {
        return XEL_FAIL;
    }
    return XEL_OK;
}

// False: nobody waits, or nobody can be let in.
bool Server::AcceptOne()
{
    UniqueFd socket = AcceptClient(listener_);
    if (socket.IsOpen()) {
        if (counters_.Open() < options_.maxConnections) {
            Open(std::move(socket));
        } else if (TurnAway(socket)) {
            ++counters_.refused;
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

void Server::Open(UniqueFd socket)
{
    const auto index = static_cast<size_t>(socket.Get());
    if (index >= connections_.size()) {
        connections_.resize(index + 1);
    }
    auto connection = std::make_unique<Connection>(*this, std::move(socket));
    if (connection->Start()) {
        connections_[index] = std::move(connection);
        ++counters_.opened;
    }
}

// Clients wait in the backlog until the next sweep puts the listener back.
void Server::PauseListener()
{
    if (listening_) {
        loop_.Remove(listener_.Get());
        listening_ = false;
    }
}

u32 Server::SweepProc(struct epoll_event*, u64 data)
{
    auto* self = reinterpret_cast<Server*>(data);
    u64 expirations = 0;
    if (read(self->timer_.Get(), &expirations, sizeof(expirations)) < 0) {
        return errno == EAGAIN ? XEL_OK : XEL_FAIL;
    }
    try {
        self->Sweep();
    } catch (...) {
        return XEL_FAIL;
    }
    return XEL_OK;
}

void Server::Sweep()
{
    const u64 nowMs = NowMs();
    for (const auto& connection : connections_) {
        if (connection && connection->IsOverdue(nowMs) && connection->Expire()) {
            ++counters_.timedOut;
        }
    }
    if (!listening_) {
        listening_ = loop_.Add(listener_.Get(), {TaskClass::Listener}, ListenerProc, this);
    }
}

void Server::Close(const Connection& connection)
{
    const int fd = connection.Fd();
    loop_.Remove(fd);
    connections_[static_cast<size_t>(fd)].reset();
    ++counters_.closed;
}

void Server::CloseAll()
{
    for (const auto& connection : connections_) {
        if (connection) {
            Close(*connection);
        }
    }
}
