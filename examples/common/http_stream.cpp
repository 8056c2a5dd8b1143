// The socket's side of a session. Called by the connections of the examples in the runs of their
// tasks, each call bounded.
#include "examples/common/http_stream.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace
{

constexpr size_t kReadPerRun = 16UL * 1024UL;
constexpr size_t kDiscardLimit = 1024UL * 1024UL;

// What a failed call means for the connection.
StreamStep AfterError(int error)
{
    const bool isTemporary = error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
    return isTemporary ? StreamStep::Idle : StreamStep::Broken;
}

} // namespace

StreamStep HttpStream::Receive()
{
    std::array<char, kReadPerRun> bytes;
    const ssize_t size = recv(Fd(), bytes.data(), bytes.size(), 0);
    if (size < 0) {
        return AfterError(errno);
    }
    if (size == 0) {
        session_.EndInput();
        return StreamStep::Idle;
    }
    session_.Receive({bytes.data(), static_cast<size_t>(size)});
    return StreamStep::Moved;
}

StreamStep HttpStream::Send(size_t& budget)
{
    StreamStep step = StreamStep::Idle;
    while (session_.Phase() == SessionPhase::Sending && budget > 0) {
        const std::string_view output = session_.Output();
        const ssize_t size =
            send(Fd(), output.data(), std::min(output.size(), budget), MSG_NOSIGNAL);
        if (size < 0) {
            return AfterError(errno) == StreamStep::Broken ? StreamStep::Broken : step;
        }
        session_.Sent(static_cast<size_t>(size));
        budget -= static_cast<size_t>(size);
        step = StreamStep::Moved;
    }
    return step;
}

bool HttpStream::StartLinger()
{
    if (session_.InputEnded()) {
        return false;
    }
    lingering_ = true;
    return shutdown(Fd(), SHUT_WR) == 0;
}

bool HttpStream::Discard()
{
    std::array<char, kReadPerRun> bytes;
    const ssize_t size = recv(Fd(), bytes.data(), bytes.size(), 0);
    if (size < 0) {
        return AfterError(errno) != StreamStep::Broken;
    }
    discarded_ += static_cast<size_t>(size);
    return size != 0 && discarded_ < kDiscardLimit;
}

void HttpStream::ResetOnClose() const
{
    const linger reset = {1, 0};
    setsockopt(Fd(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
}

void HttpStream::EndInput() const
{
    shutdown(Fd(), SHUT_RD);
}

void HttpStream::EndAll() const
{
    shutdown(Fd(), SHUT_RDWR);
}
