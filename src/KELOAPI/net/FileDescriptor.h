#pragma once

#include <utility>

#include <unistd.h>

// Owns one file descriptor; -1 when it has none.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() { Reset(); }
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) Reset(std::exchange(other.fd_, -1));
        return *this;
    }

    int Get() const { return fd_; }
    bool IsOpen() const { return fd_ >= 0; }
    // Gives the descriptor away without closing it.
    int Release() { return std::exchange(fd_, -1); }
    void Reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};
