#include "wire_client.h"

#include <cerrno>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kelosim::test {
namespace {

sockaddr_in ToSockaddr(uint32_t address, uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(address);
    result.sin_port = htons(port);
    return result;
}

bool Readable(int fd, int timeout_ms) {
    pollfd readable{fd, POLLIN, 0};
    return poll(&readable, 1, timeout_ms) > 0;
}

}  // namespace

Bytes Be16(uint32_t value) {
    return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

Bytes Be32(uint32_t value) {
    return Be16(value >> 16) + Be16(value & 0xFFFF);
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

uint32_t Be16At(const Bytes& bytes, size_t offset) {
    if (bytes.size() < offset + 2) {
        ADD_FAILURE() << "no field at " << offset << " in " << bytes.size() << " bytes";
        return 0;
    }
    return uint32_t{bytes[offset]} << 8 | bytes[offset + 1];
}

uint32_t Be32At(const Bytes& bytes, size_t offset) {
    return Be16At(bytes, offset) << 16 | Be16At(bytes, offset + 2);
}

Bytes ControlHeader(uint32_t command, uint32_t number, uint32_t status) {
    return Bytes{0xAB, 0} + Be32(command) + Be32(number) + Be32(status);
}

Bytes ReadRegister(uint32_t number, uint32_t reg) {
    return ControlHeader(4, number) + Be32(reg * 4) + Be32(0);
}

Bytes WriteRegister(uint32_t number, uint32_t reg, uint32_t value) {
    return ControlHeader(6, number) + Be32(reg * 4) + Be32(value);
}

Bytes ReadMemory(uint32_t number, uint32_t reg, uint32_t count) {
    return ControlHeader(8, number) + Be32(reg * 4) + Be32(count);
}

Bytes WriteMemory(uint32_t number, uint32_t reg, const std::vector<uint32_t>& values) {
    Bytes request =
        ControlHeader(10, number) + Be32(reg * 4) + Be32(static_cast<uint32_t>(values.size()));
    for (const uint32_t value : values)
        request = std::move(request) + Be32(value);
    return request;
}

Bytes SetIp(const Bytes& mac, uint32_t current, uint32_t address, uint32_t mask) {
    return ControlHeader(3, 0) + mac + Be16(0) + Be32(current) + Be32(address) + Be32(mask);
}

UdpClient::UdpClient(uint32_t local) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    setsockopt(fd_, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
    const int buffer = 8 << 20;
    if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof(buffer)) != 0) {
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer));
    }
    sockaddr_in address = ToSockaddr(local, 0);
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    socklen_t length = sizeof(address);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
}

UdpClient::~UdpClient() {
    close(fd_);
}

void UdpClient::Send(const Bytes& datagram, uint32_t address, uint16_t port) {
    const sockaddr_in to = ToSockaddr(address, port);
    EXPECT_EQ(sendto(fd_, datagram.data(), datagram.size(), 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof(to)),
              static_cast<ssize_t>(datagram.size()));
}

Bytes UdpClient::Receive(int timeout_ms, uint32_t* from) {
    if (!Readable(fd_, timeout_ms)) return {};
    Bytes datagram(65536);
    sockaddr_in sender{};
    socklen_t length = sizeof(sender);
    const ssize_t size = recvfrom(fd_, datagram.data(), datagram.size(), 0,
                                  reinterpret_cast<sockaddr*>(&sender), &length);
    datagram.resize(size > 0 ? static_cast<size_t>(size) : 0);
    if (from != nullptr) *from = ntohl(sender.sin_addr.s_addr);
    return datagram;
}

Bytes UdpClient::Ask(const Bytes& request, uint32_t address) {
    Send(request, address);
    return Receive();
}

uint32_t UdpClient::Get(uint32_t address, uint32_t reg) {
    const Bytes reply = Ask(ReadRegister(++number_, reg), address);
    EXPECT_EQ(Be32At(reply, 10), 1u) << "reading register " << reg;
    return Be32At(reply, 18);
}

uint32_t UdpClient::Set(uint32_t address, uint32_t reg, uint32_t value) {
    const Bytes reply = Ask(WriteRegister(++number_, reg, value), address);
    EXPECT_EQ(Be32At(reply, 10), 1u) << "writing register " << reg;
    return Be32At(reply, 18);
}

Bytes Assembled::Data() const {
    Bytes data;
    for (const auto& [index, slice] : slices)
        data.insert(data.end(), slice.begin(), slice.end());
    return data;
}

std::map<uint32_t, Assembled> ReceiveImages(UdpClient& client, size_t count, int timeout_ms) {
    std::map<uint32_t, Assembled> images;
    size_t complete = 0;
    while (complete < count) {
        const Bytes datagram = client.Receive(timeout_ms);
        if (datagram.size() < 14) break;
        const uint32_t number = Be32At(datagram, 2);
        Assembled& image = images[number];
        image.number = number;
        image.packets = Be16At(datagram, 8);
        image.width = static_cast<uint16_t>(Be16At(datagram, 10));
        image.height = static_cast<uint16_t>(Be16At(datagram, 12));
        const uint32_t index = Be16At(datagram, 6);
        image.order.push_back(index);
        const bool fresh =
            image.slices.emplace(index, Bytes(datagram.begin() + 14, datagram.end())).second;
        if (fresh && image.Complete()) ++complete;
    }
    return images;
}

TcpClient::TcpClient(uint32_t address, uint16_t port, int timeout_ms)
    : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    const sockaddr_in to = ToSockaddr(address, port);
    if (connect(fd_, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) == 0) return;
    error_ = errno;
    if (error_ != EINPROGRESS) return;
    pollfd writable{fd_, POLLOUT, 0};
    error_ = ETIMEDOUT;
    if (poll(&writable, 1, timeout_ms) <= 0) return;
    socklen_t length = sizeof(error_);
    getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error_, &length);
}

TcpClient::~TcpClient() {
    close(fd_);
}

void TcpClient::Send(const Bytes& bytes) {
    EXPECT_EQ(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

Bytes TcpClient::Read(size_t size) {
    Bytes bytes;
    uint8_t piece[65536];
    while (bytes.size() < size && Readable(fd_, kReadTimeoutMs)) {
        const ssize_t got = recv(fd_, piece, std::min(sizeof(piece), size - bytes.size()), 0);
        if (got <= 0) break;
        bytes.insert(bytes.end(), piece, piece + got);
    }
    return bytes;
}

TcpMessage TcpClient::ReadMessage() {
    TcpMessage message;
    message.header = Read(10);
    if (message.header.size() == 10) message.body = Read(Be32At(message.header, 6));
    return message;
}

}  // namespace kelosim::test
