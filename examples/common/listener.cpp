// Listening, accepting and turning away. Called by the servers of the examples on their threads.
#include "examples/common/listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>

namespace
{

constexpr int kBacklog = 1024;

constexpr std::string_view kBusyAnswer = "HTTP/1.1 503 Service Unavailable\r\n"
                                         "Content-Type: text/plain\r\n"
                                         "Content-Length: 21\r\n"
                                         "Connection: close\r\n"
                                         "\r\n"
                                         "too many connections\n";

[[noreturn]] void Fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

UniqueFd ListenOnLoopback(u32 port)
{
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd.IsOpen()) {
        Fail("socket");
    }
    const int on = 1;
    setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<u16>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd.Get(), kBacklog) != 0) {
        Fail("listen");
    }
    return fd;
}

u32 PortOf(const UniqueFd& listener)
{
    sockaddr_in address = {};
    socklen_t size = sizeof(address);
    if (getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        Fail("getsockname");
    }
    return ntohs(address.sin_port);
}

UniqueFd AcceptClient(const UniqueFd& listener)
{
    UniqueFd fd(accept4(listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (fd.IsOpen()) {
        const int on = 1;
        setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    }
    return fd;
}

bool TurnAway(const UniqueFd& socket)
{
    std::array<char, 16384> ignored;
    if (recv(socket.Get(), ignored.data(), ignored.size(), 0) == 0) {
        return false;
    }
    send(socket.Get(), kBusyAnswer.data(), kBusyAnswer.size(), MSG_NOSIGNAL);
    shutdown(socket.Get(), SHUT_WR);
    return true;
}
