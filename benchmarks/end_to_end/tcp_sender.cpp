#include "tcp_sender.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "../support/big_endian.h"
#include "../support/cpu.h"

namespace kelo::bench {
namespace {

constexpr size_t MESSAGE_HEADER_SIZE = 10;
constexpr size_t HEADERS_SIZE = MESSAGE_HEADER_SIZE + IMAGE_HEADER_SIZE;
constexpr int CONNECTION_WAIT_MS = 2000;

void WriteHeaders(std::byte* at, const Traffic& traffic) {
    at[0] = std::byte{0xAC};
    Put32(at + 2, 1);
    Put32(at + 6, traffic.ImageSize() + uint32_t{IMAGE_HEADER_SIZE});
    std::byte* image_header = at + MESSAGE_HEADER_SIZE;
    image_header[0] = std::byte{0xAC};
    Put16(image_header + 8, 1);
    Put16(image_header + 10, traffic.width);
    Put16(image_header + 12, traffic.height);
}

void SendAll(int fd, const std::byte* bytes, size_t size) {
    while (size > 0) {
        const ssize_t sent = send(fd, bytes, size, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0) throw std::system_error(errno, std::generic_category(), "sending over TCP");
        bytes += sent;
        size -= static_cast<size_t>(sent);
    }
}

}  // namespace

TcpSender::TcpSender() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in any{};
    any.sin_family = AF_INET;
    if (listener_ < 0 || bind(listener_, reinterpret_cast<sockaddr*>(&any), sizeof any) != 0 ||
        listen(listener_, 16) != 0) {
        throw std::system_error(errno, std::generic_category(), "port of TCP streams");
    }
}

TcpSender::~TcpSender() {
    for (const auto& [tag, fd] : connections_)
        close(fd);
    close(listener_);
}

uint16_t TcpSender::Port() const {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

void TcpSender::AcceptOne() {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const timeval wait = {5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
    std::byte opening[2] = {};
    if (recv(fd, opening, sizeof opening, MSG_WAITALL) != sizeof opening) {
        close(fd);
        return;
    }
    int& place = connections_.try_emplace(std::to_integer<uint8_t>(opening[1]), -1).first->second;
    if (place >= 0) close(place);
    place = fd;
}

int TcpSender::Connection(uint8_t tag) {
    pollfd waiting = {listener_, POLLIN, 0};
    while (poll(&waiting, 1, connections_.contains(tag) ? 0 : CONNECTION_WAIT_MS) == 1)
        AcceptOne();
    const auto found = connections_.find(tag);
    if (found == connections_.end()) throw std::runtime_error("nobody opened the TCP stream");
    return found->second;
}

void TcpSender::SendImage(int fd, const Order& order) {
    const size_t stamp = HEADERS_SIZE + order.traffic.StampOffset();
    const double rate = order.traffic.bytes_per_second;
    const double piece_ns = rate > 0 ? TCP_PIECE / rate * 1e9 : 0;
    Put32(message_.data() + MESSAGE_HEADER_SIZE + 2, number_);
    Put32(message_.data() + HEADERS_SIZE, number_++);
    for (size_t at = 0; at < message_.size();) {
        // The headers go with the first piece.
        const size_t end = at == 0 ? HEADERS_SIZE + TCP_PIECE : at + TCP_PIECE;
        while (rate > 0 && static_cast<double>(NowNs()) < due_ns_) {
        }
        const int64_t begin = NowNs();
        if (at == stamp) std::memcpy(&message_[stamp], &begin, sizeof begin);
        SendAll(fd, &message_[at], std::min(end, message_.size()) - at);
        work_ns_ += NowNs() - begin;
        due_ns_ = std::max(due_ns_ + piece_ns, static_cast<double>(begin));
        at = end;
    }
}

Sent TcpSender::Send(const Order& order) {
    const int fd = Connection(order.tcp_tag);
    message_.resize(HEADERS_SIZE + order.traffic.ImageSize());
    WriteHeaders(message_.data(), order.traffic);
    Sent sent{};
    const double cpu_start = CpuSeconds();
    const int64_t start = NowNs();
    due_ns_ = static_cast<double>(start);
    work_ns_ = 0;
    const int64_t end = start + static_cast<int64_t>(order.seconds * 1e9);
    while (NowNs() < end) {
        SendImage(fd, order);
        ++sent.images;
    }
    sent.bytes = sent.images * order.traffic.ImageSize();
    sent.datagrams = sent.images;
    sent.seconds = static_cast<double>(NowNs() - start) / 1e9;
    sent.cpu_seconds = CpuSeconds() - cpu_start;
    const bool paced = order.traffic.bytes_per_second > 0;
    sent.work_seconds = paced ? static_cast<double>(work_ns_) / 1e9 : sent.cpu_seconds;
    return sent;
}

}  // namespace kelo::bench
