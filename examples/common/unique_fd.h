// A descriptor with one owner, closed with it. No locks: used by its owner's thread only.
#ifndef EXAMPLES_UNIQUE_FD_H
#define EXAMPLES_UNIQUE_FD_H

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

#endif // EXAMPLES_UNIQUE_FD_H
