// A descriptor with one owner, closed with it. Used by every object of the example that holds one;
// no locks, all of them live on the loop's thread.
#ifndef HTTP_SERVER_UNIQUE_FD_H
#define HTTP_SERVER_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

class UniqueFd
{
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~UniqueFd()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }

    int Get() const { return fd_; }
    bool IsOpen() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

#endif // HTTP_SERVER_UNIQUE_FD_H
