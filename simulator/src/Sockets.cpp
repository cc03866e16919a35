#include "Sockets.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include <arpa/inet.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kelosim/camera.h"

namespace kelosim {
namespace {

std::string Reason(int error) {
    switch (error) {
        case EADDRINUSE:
            return "the address is in use (is another simulator running?)";
        case EADDRNOTAVAIL:
            return "this host does not have the address";
        case EACCES:
        case EPERM:
            return "no permission";
        default:
            return std::generic_category().message(error);
    }
}

[[noreturn]] void Throw(const char* what, const Endpoint& local) {
    const int error = errno;
    throw std::runtime_error(std::string("cannot ") + what + " " + Ipv4Text(local.address) + ":" +
                             std::to_string(local.port) + ": " + Reason(error));
}

Fd OpenSocket(int type, const Endpoint& local) {
    Fd fd(socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) Throw("open a socket for", local);
    return fd;
}

void Bind(const Fd& fd, const Endpoint& local) {
    const sockaddr_in address = ToSockaddr(local);
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        Throw("take", local);
    }
}

void SetOption(const Fd& fd, int level, int option, int value) {
    setsockopt(fd.get(), level, option, &value, sizeof(value));
}

}  // namespace

void Fd::Reset() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
}

Waker::Waker() : fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (!fd_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void Waker::Wake() {
    const uint64_t one = 1;
    // Fails only when the counter is full, which wakes as well.
    [[maybe_unused]] const ssize_t written = write(fd_.get(), &one, sizeof(one));
}

void Waker::Clear() {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = read(fd_.get(), &count, sizeof(count));
}

sockaddr_in ToSockaddr(const Endpoint& endpoint) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(endpoint.port);
    address.sin_addr.s_addr = htonl(endpoint.address);
    return address;
}

Endpoint FromSockaddr(const sockaddr_in& address) {
    return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

Fd BindUdp(const Endpoint& local) {
    Fd fd = OpenSocket(SOCK_DGRAM, local);
    Bind(fd, local);
    return fd;
}

Fd BindBroadcast(uint16_t port) {
    const Endpoint local{INADDR_BROADCAST, port};
    Fd fd = OpenSocket(SOCK_DGRAM, local);
    SetOption(fd, SOL_SOCKET, SO_REUSEADDR, 1);
    SetOption(fd, SOL_SOCKET, SO_BROADCAST, 1);
    Bind(fd, local);
    return fd;
}

Fd BindUnfragmented(uint32_t address) {
    Fd fd = BindUdp({address, 0});
    SetOption(fd, IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_DO);
    return fd;
}

Fd BindTcp(const Endpoint& local) {
    Fd fd = OpenSocket(SOCK_STREAM, local);
    // A camera that comes back after a reboot takes its old port at once.
    SetOption(fd, SOL_SOCKET, SO_REUSEADDR, 1);
    Bind(fd, local);
    return fd;
}

Endpoint LocalEndpoint(int socket) {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    return FromSockaddr(address);
}

bool SendTo(int socket, std::span<const uint8_t> datagram, const Endpoint& to) {
    const sockaddr_in address = ToSockaddr(to);
    const ssize_t sent = sendto(socket, datagram.data(), datagram.size(), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    return sent == static_cast<ssize_t>(datagram.size());
}

std::string Ipv4Text(uint32_t address) {
    char text[16];
    std::snprintf(text, sizeof(text), "%u.%u.%u.%u", address >> 24, address >> 16 & 0xFF,
                  address >> 8 & 0xFF, address & 0xFF);
    return text;
}

uint32_t ParseIpv4(const std::string& text) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1) {
        throw std::invalid_argument("\"" + text + "\" is no IPv4 address");
    }
    return ntohl(address.s_addr);
}

}  // namespace kelosim
