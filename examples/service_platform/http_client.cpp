// Blocking sockets with a time limit, and as much of HTTP as the platform's own answers need: a
// status line, a Content-Length, a body of that size. Called by the threads of the load.
#include "examples/service_platform/http_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <string_view>
#include <system_error>

namespace
{

constexpr time_t kLongestWaitSeconds = 20;
constexpr std::string_view kStatusLine = "HTTP/1.1 ";
constexpr std::string_view kLengthField = "\r\nContent-Length: ";
constexpr std::string_view kHeadEnd = "\r\n\r\n";

[[noreturn]] void Fail(int error, const char* what)
{
    throw std::system_error(error, std::generic_category(), what);
}

// The number that follows the mark in an answer's head.
size_t NumberAfter(std::string_view head, std::string_view mark)
{
    const size_t at = head.find(mark);
    size_t number = 0;
    if (at == std::string_view::npos ||
        std::from_chars(head.data() + at + mark.size(), head.data() + head.size(), number).ec !=
            std::errc()) {
        Fail(EPROTO, "answer");
    }
    return number;
}

} // namespace

HttpClient::HttpClient(u32 port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    const int on = 1;
    const timeval limit = {kLongestWaitSeconds, 0};
    setsockopt(socket_.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<u16>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        Fail(errno, "connect");
    }
}

void HttpClient::Send(const std::string& target)
{
    const std::string request = "GET " + target + " HTTP/1.1\r\nHost: localhost\r\n\r\n";
    const ssize_t size = send(socket_.Get(), request.data(), request.size(), MSG_NOSIGNAL);
    if (size != static_cast<ssize_t>(request.size())) {
        Fail(size < 0 ? errno : EIO, "send");
    }
}

// One answer at a time is asked for, so nothing can follow it in what is read.
u32 HttpClient::Receive()
{
    std::string answer;
    size_t headSize = std::string::npos;
    while (headSize == std::string::npos) {
        ReadMore(answer);
        headSize = answer.find(kHeadEnd);
    }
    const std::string head = answer.substr(0, headSize);
    const size_t whole = headSize + kHeadEnd.size() + NumberAfter(head, kLengthField);
    while (answer.size() < whole) {
        ReadMore(answer);
    }
    return static_cast<u32>(NumberAfter(head, kStatusLine));
}

void HttpClient::ReadMore(std::string& answer)
{
    std::array<char, 4096> bytes;
    const ssize_t size = recv(socket_.Get(), bytes.data(), bytes.size(), 0);
    if (size <= 0) {
        Fail(size < 0 ? errno : ECONNRESET, "recv");
    }
    answer.append(bytes.data(), static_cast<size_t>(size));
}
