// An owned file descriptor: closed exactly once when its owner goes away.
#pragma once

#include <unistd.h>

#include <utility>

class qfs_unique_fd {
public:
    qfs_unique_fd() = default;
    explicit qfs_unique_fd(int fd) : fd_(fd) {}
    ~qfs_unique_fd() { reset(); }
    qfs_unique_fd(qfs_unique_fd &&other) noexcept : fd_(other.release()) {}
    qfs_unique_fd &operator=(qfs_unique_fd &&other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    qfs_unique_fd(const qfs_unique_fd &) = delete;
    qfs_unique_fd &operator=(const qfs_unique_fd &) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    // Linux frees the descriptor even when close reports an error, so a
    // failed close is never retried.
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};
