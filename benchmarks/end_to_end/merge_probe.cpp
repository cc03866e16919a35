#include "merge_probe.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bound_socket.h"

namespace kelo::bench {
namespace {

constexpr uint16_t DATAGRAM_SIZE = 1000;
constexpr size_t DATAGRAMS = 8;

bool SendTogether(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int size = DATAGRAM_SIZE;
    const std::byte message[DATAGRAM_SIZE * DATAGRAMS] = {};
    const bool sent = setsockopt(fd, IPPROTO_UDP, UDP_SEGMENT, &size, sizeof size) == 0 &&
                      sendto(fd, message, sizeof message, 0, reinterpret_cast<sockaddr*>(&to),
                             sizeof to) == static_cast<ssize_t>(sizeof message);
    close(fd);
    return sent;
}

}  // namespace

Merge ProbeLoopbackMerge() {
    const BoundSocket receiver;
    receiver.AllowMerging();
    receiver.SetReceiveTimeout();
    if (!SendTogether(receiver.Port())) return Merge::REFUSED;
    std::byte message[DATAGRAM_SIZE * DATAGRAMS];
    const ssize_t first = recv(receiver.Get(), message, sizeof message, 0);
    return first == static_cast<ssize_t>(sizeof message) ? Merge::MERGED : Merge::UNMERGED;
}

}  // namespace kelo::bench
