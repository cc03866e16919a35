#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>

#include <netinet/in.h>

namespace kelosim {

// Owns a descriptor.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { Reset(); }
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        Reset();
        fd_ = std::exchange(other.fd_, -1);
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void Reset();

private:
    int fd_ = -1;
};

// Wakes a thread that polls its descriptor.
class Waker {
public:
    Waker();
    int fd() const { return fd_.get(); }
    void Wake();
    void Clear();

private:
    Fd fd_;
};

// An address and a port, both in host order.
struct Endpoint {
    uint32_t address = 0;
    uint16_t port = 0;
    bool operator==(const Endpoint&) const = default;
};

sockaddr_in ToSockaddr(const Endpoint& endpoint);
Endpoint FromSockaddr(const sockaddr_in& address);

// Non-blocking UDP sockets. Throw std::runtime_error with address and reason.
Fd BindUdp(const Endpoint& local);
// For 255.255.255.255: several simulators on one host may each hear the broadcasts.
Fd BindBroadcast(uint16_t port);
// Datagrams of this socket are never fragmented.
Fd BindUnfragmented(uint32_t address);
// A non-blocking TCP socket bound to the address, not listening yet.
Fd BindTcp(const Endpoint& local);
Endpoint LocalEndpoint(int socket);

// Whether the whole datagram went out.
bool SendTo(int socket, std::span<const uint8_t> datagram, const Endpoint& to);

}  // namespace kelosim
