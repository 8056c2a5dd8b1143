// A plain blocking HTTP client on one connection, for the built-in load. Used by one thread.
#ifndef SERVICE_PLATFORM_HTTP_CLIENT_H
#define SERVICE_PLATFORM_HTTP_CLIENT_H

#include <string>

#include "common/xel_int.h"
#include "examples/common/unique_fd.h"

class HttpClient
{
public:
    // Connects to the loopback address. Throws std::system_error.
    explicit HttpClient(u32 port);

    // Sends one GET request. Throws std::system_error.
    void Send(const std::string& target);
    // Reads the whole answer. Returns its status. Throws std::system_error when it is not one, or
    // does not come.
    u32 Receive();

private:
    void ReadMore(std::string& answer);

    UniqueFd socket_;
};

#endif // SERVICE_PLATFORM_HTTP_CLIENT_H
