#include "UDPSocket.h"

#include <cerrno>
#include <cstdio>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/time.h>

namespace {

sockaddr_in MakeAddress(uint32_t ip, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(ip);
    return address;
}

const sockaddr* Generic(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

sockaddr* Generic(sockaddr_in& address) {
    return reinterpret_cast<sockaddr*>(&address);
}

// A signal of the application must not lose a datagram: nobody would send a discovery again.
template <typename Call>
ssize_t UnlessInterrupted(Call call) {
    ssize_t result = 0;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}

}  // namespace

UDPSocket::UDPSocket(u16 port) : UDPSocket(INADDR_ANY, port) {}

UDPSocket::UDPSocket(uint32_t ip, u16 port)
    : fd(AboveStandardStreams(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))) {
    // A port that the system chooses must be this socket's alone: with address reuse allowed it may
    // choose one that another such socket has, and each would get half of the other's datagrams.
    // Once it is bound, reuse lets sockets on other addresses share the port on purpose.
    const bool system_chooses = port == 0;
    if (!system_chooses) setReusePort();
    setBroadcast();
    bind(ip, port);
    if (system_chooses) setReusePort();
}

void UDPSocket::setReusePort() {
    const int on = 1;
    setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof(on));
}

void UDPSocket::setBroadcast() {
    const int on = 1;
    setsockopt(fd.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
}

int UDPSocket::bind(uint32_t ip, u16 port) {
    const sockaddr_in address = MakeAddress(ip, port);
    return ::bind(fd.Get(), Generic(address), sizeof(address));
}

bool UDPSocket::setDestination(uint32_t ip, u16 port) {
    const sockaddr_in address = MakeAddress(ip, port);
    // A peer that cannot be reached now shows when something is sent.
    (void)::connect(fd.Get(), Generic(address), sizeof(address));
    return true;
}

bool UDPSocket::setDestination(const char* ip, u16 port) {
    in_addr address{};
    if (ip == nullptr || inet_pton(AF_INET, ip, &address) != 1) return false;
    return setDestination(ntohl(address.s_addr), port);
}

int UDPSocket::getBufferSize() {
    int size = 0;
    socklen_t length = sizeof(size);
    if (getsockopt(fd.Get(), SOL_SOCKET, SO_SNDBUF, &size, &length) != 0) {
        perror("getBufferSize:");
        return 0;
    }
    if (length != sizeof(size)) {
        printf("error - getsockopt returned %d bytes\n", static_cast<int>(length));
    }
    return size;
}

void UDPSocket::setBufferSize(int size) {
    if (setsockopt(fd.Get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) != 0) {
        perror("setBufferSize:");
    }
}

int UDPSocket::requestReceiveBuffer(int size) {
    if (setsockopt(fd.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) != 0) {
        setsockopt(fd.Get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    }
    int granted = 0;
    socklen_t length = sizeof(granted);
    return getsockopt(fd.Get(), SOL_SOCKET, SO_RCVBUF, &granted, &length) == 0 ? granted : 0;
}

void UDPSocket::setReceiveTimeout(int timeout_ms) {
    const timeval timeout{.tv_sec = timeout_ms / 1000, .tv_usec = timeout_ms % 1000 * 1000};
    setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
}

bool UDPSocket::allowMerging() {
    const int on = 1;
    return setsockopt(fd.Get(), IPPROTO_UDP, UDP_GRO, &on, sizeof(on)) == 0;
}

ssize_t UDPSocket::send(const void* data, size_t length) {
    return UnlessInterrupted([&] { return ::send(fd.Get(), data, length, 0); });
}

ssize_t UDPSocket::sendto(const void* data, size_t length, uint32_t ip, uint16_t port) {
    const sockaddr_in address = MakeAddress(ip, port);
    return UnlessInterrupted(
        [&] { return ::sendto(fd.Get(), data, length, 0, Generic(address), sizeof(address)); });
}

ssize_t UDPSocket::sendBroadcast(const void* data, size_t length, uint16_t port) {
    return sendto(data, length, INADDR_BROADCAST, port);
}

ssize_t UDPSocket::sendmsg(const msghdr* message) {
    return UnlessInterrupted([&] { return ::sendmsg(fd.Get(), message, 0); });
}

ssize_t UDPSocket::receive(void* buf, size_t len, uint32_t* ip, uint16_t* port) {
    if (ip == nullptr) return ::recv(fd.Get(), buf, len, 0);
    sockaddr_in sender{};
    socklen_t length = sizeof(sender);
    const ssize_t count = ::recvfrom(fd.Get(), buf, len, 0, Generic(sender), &length);
    if (count >= 0) {
        *ip = ntohl(sender.sin_addr.s_addr);
        if (port != nullptr) *port = ntohs(sender.sin_port);
    }
    return count;
}

void UDPSocket::setNonBlocking(bool non_blocking) {
    const int flags = fcntl(fd.Get(), F_GETFL, 0);
    if (flags < 0) return;
    fcntl(fd.Get(), F_SETFL, non_blocking ? flags | O_NONBLOCK : flags & ~O_NONBLOCK);
}

uint16_t UDPSocket::getPort() {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    if (getsockname(fd.Get(), Generic(address), &length) != 0 || length != sizeof(address) ||
        address.sin_family != AF_INET) {
        return 0;
    }
    return ntohs(address.sin_port);
}
