#include "TcpConnection.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace {

// How soon a connection attempt that is no longer wanted is noticed.
constexpr int kWantedCheckMs = 10;
// What a peer may still have sent is taken, but one that never stops sending is not listened to for
// ever.
constexpr int kFinalReadsMax = 256;

// A connection attempt to a port of this very host where nobody listens can meet itself, when the
// system happens to choose that port for it.
bool isItsOwnPeer(int socket) {
    sockaddr_in local{};
    sockaddr_in peer{};
    socklen_t local_length = sizeof(local);
    socklen_t peer_length = sizeof(peer);
    void* untyped_local = &local;
    void* untyped_peer = &peer;
    return getsockname(socket, static_cast<sockaddr*>(untyped_local), &local_length) == 0 &&
           getpeername(socket, static_cast<sockaddr*>(untyped_peer), &peer_length) == 0 &&
           local.sin_port == peer.sin_port && local.sin_addr.s_addr == peer.sin_addr.s_addr;
}

// Whether the socket, whose connecting has ended, is connected.
bool isConnected(int socket) {
    int error = 0;
    socklen_t length = sizeof(error);
    return getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0 &&
           !isItsOwnPeer(socket);
}

}  // namespace

void gracefullyCloseTcpSocket(int socket) {
    const FileDescriptor owned(socket);
    if (!owned.IsOpen()) return;
    shutdown(socket, SHUT_RDWR);
    std::array<std::byte, 65536> scratch{};
    int reads = 0;
    while (reads < kFinalReadsMax &&
           recv(socket, scratch.data(), scratch.size(), MSG_DONTWAIT) >= 1) {
        ++reads;
    }
    if (reads == 0) return;
    // The peer may be waiting for room, and the system does not tell it that there is some again:
    // only a reset keeps it from waiting for minutes.
    const linger reset_on_close{.l_onoff = 1, .l_linger = 0};
    setsockopt(socket, SOL_SOCKET, SO_LINGER, &reset_on_close, sizeof(reset_on_close));
}

bool connectTcpSocket(const FileDescriptor& socket, uint32_t ip, uint16_t port, int limit_ms,
                      const std::function<bool()>& is_wanted) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(ip);
    address.sin_port = htons(port);
    // Through void*: the socket interface takes every kind of address by this pointer type.
    const void* untyped = &address;
    if (connect(socket.Get(), static_cast<const sockaddr*>(untyped), sizeof(address)) == 0) {
        return !isItsOwnPeer(socket.Get());
    }
    if (errno != EINPROGRESS && errno != EINTR) return false;

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
    // The socket is looked at once more behind the deadline: a thread that was held up must not
    // throw a connection away that stands.
    bool is_late = false;
    while (is_wanted() && !is_late) {
        is_late = std::chrono::steady_clock::now() >= deadline;
        pollfd waited{socket.Get(), POLLOUT, 0};
        const int ready = poll(&waited, 1, is_late ? 0 : std::min(limit_ms, kWantedCheckMs));
        if (ready > 0) return isConnected(socket.Get());
        if (ready < 0 && errno != EINTR) return false;
    }
    return false;
}

void makeTcpSocketWait(const FileDescriptor& socket, int timeout_ms) {
    const int flags = fcntl(socket.Get(), F_GETFL, 0);
    if (flags >= 0) fcntl(socket.Get(), F_SETFL, flags & ~O_NONBLOCK);
    const timeval timeout{.tv_sec = timeout_ms / 1000, .tv_usec = timeout_ms % 1000 * 1000};
    setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
}

std::string systemErrorText(int error) {
    std::array<char, 128> text{};
    return strerror_r(error, text.data(), text.size());
}

void TcpConnection::ShutDown() const {
    if (IsOpen()) shutdown(socket_.Get(), SHUT_RDWR);
}
