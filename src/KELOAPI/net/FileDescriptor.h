#pragma once

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

// Moves a new descriptor away from the numbers of the standard streams, which an application may
// have closed: a socket in their place would send the log lines to a camera. -1 stays -1.
inline int AboveStandardStreams(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    ::close(fd);
    errno = error;
    return moved;
}

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
