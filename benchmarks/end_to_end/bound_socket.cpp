#include "bound_socket.h"

#include <cerrno>
#include <system_error>

#include <netinet/udp.h>
#include <sys/time.h>
#include <unistd.h>

namespace kelo::bench {
namespace {

// What the library asks of the kernel for its image socket.
constexpr int RECEIVE_BUFFER = 32 << 20;

}  // namespace

BoundSocket::BoundSocket() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in any{};
    any.sin_family = AF_INET;
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&any), sizeof any) != 0) {
        throw std::system_error(errno, std::generic_category(), "receiver's socket");
    }
    if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER) != 0) {
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER);
    }
}

BoundSocket::~BoundSocket() {
    close(fd_);
}

uint16_t BoundSocket::Port() const {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

void BoundSocket::SetReceiveTimeout() const {
    const timeval wait = {0, static_cast<suseconds_t>(QUIET_SECONDS * 1e6)};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
}

bool BoundSocket::AllowMerging() const {
    const int on = 1;
    return setsockopt(fd_, IPPROTO_UDP, UDP_GRO, &on, sizeof on) == 0;
}

}  // namespace kelo::bench
