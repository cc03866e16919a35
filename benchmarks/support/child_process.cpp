#include "child_process.h"

#include <cerrno>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <system_error>

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kelo::bench {
namespace {

int RunBody(const char* name, int fd, const std::function<void(Channel&)>& body) try {
    Channel channel(fd);
    body(channel);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", name, error.what());
    return 1;
}

}  // namespace

bool Channel::SendBytes(std::span<const std::byte> message) const {
    return send(fd_, message.data(), message.size(), MSG_NOSIGNAL) >= 0;
}

// A longer message is cut.
bool Channel::ReceiveBytes(std::span<std::byte> message) const {
    return recv(fd_, message.data(), message.size(), 0) > 0;
}

bool Channel::Ready() const {
    pollfd ready = {fd_, POLLIN, 0};
    return poll(&ready, 1, 0) == 1;
}

ChildProcess::ChildProcess(const char* name, const std::function<void(Channel&)>& body)
    : name_(name) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (pid_ == 0) {
        close(ends[0]);
        _exit(RunBody(name, ends[1], body));
    }
    close(ends[1]);
    channel_ = Channel(ends[0]);
}

ChildProcess::~ChildProcess() {
    close(channel_.Descriptor());
    waitpid(pid_, nullptr, 0);
}

void ChildProcess::SendBytes(std::span<const std::byte> message) {
    if (!channel_.SendBytes(message)) throw std::runtime_error(std::string(name_) + " is gone");
}

void ChildProcess::ReceiveBytes(std::span<std::byte> message, double seconds) {
    pollfd ready = {channel_.Descriptor(), POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(seconds * 1e3)) == 0) {
        throw std::runtime_error(std::string(name_) + " does not answer");
    }
    if (!channel_.ReceiveBytes(message)) throw std::runtime_error(std::string(name_) + " is gone");
}

}  // namespace kelo::bench
