#pragma once

#include <cstddef>
#include <functional>
#include <span>

#include <sys/types.h>

namespace kelo::bench {

// The child's end of the channel to its parent. Messages are plain records of at most
// MESSAGE_SIZE bytes.
class Channel {
public:
    static constexpr size_t MESSAGE_SIZE = 1024;

    explicit Channel(int fd) : fd_(fd) {}

    int Descriptor() const { return fd_; }
    // False when the other side is gone.
    bool SendBytes(std::span<const std::byte> message) const;
    bool ReceiveBytes(std::span<std::byte> message) const;
    // Whether a message is there, without waiting.
    bool Ready() const;

private:
    int fd_;
};

// A process of our own that does what it is told over a channel, and ends when this object does.
// Children that were forked later hold the channels of earlier ones: end them first.
class ChildProcess {
public:
    // Forks, so call it before any thread exists. body runs in the child; an exception that leaves
    // it is printed.
    ChildProcess(const char* name, const std::function<void(Channel&)>& body);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Pid() const { return pid_; }

    // These throw std::runtime_error when the child is gone, and Receive also when it has not
    // answered within so many seconds.
    template <typename Message>
    void Send(const Message& message) {
        SendBytes(std::as_bytes(std::span(&message, 1)));
    }
    template <typename Message>
    Message Receive(double seconds) {
        Message message{};
        ReceiveBytes(std::as_writable_bytes(std::span(&message, 1)), seconds);
        return message;
    }
    bool Ready() const { return channel_.Ready(); }

private:
    void SendBytes(std::span<const std::byte> message);
    void ReceiveBytes(std::span<std::byte> message, double seconds);

    const char* name_;
    pid_t pid_ = -1;
    Channel channel_{-1};
};

}  // namespace kelo::bench
