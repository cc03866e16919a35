#include "bare_client.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "../support/big_endian.h"

namespace kelo::bench {
namespace {

constexpr uint16_t CONTROL_PORT = 6061;
constexpr size_t REGISTER_PACKET_SIZE = 22;

}  // namespace

BareClient::BareClient() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(CONTROL_PORT);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (socket_ < 0 || connect(socket_, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
        throw std::system_error(errno, std::generic_category(), "bare client's socket");
    }
    const timeval wait = {1, 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
}

BareClient::~BareClient() {
    close(socket_);
}

void BareClient::ReadRegister(uint32_t number) {
    StartRequest(4, number, 0);
    Exchange(REGISTER_PACKET_SIZE, 5);
}

void BareClient::WriteMemory(uint32_t number, uint32_t count, const uint32_t* values) {
    StartRequest(10, number, count);
    for (uint32_t i = 0; i < count; ++i) {
        Put32(datagram_.data() + REGISTER_PACKET_SIZE + size_t{4} * i, values[i]);
    }
    Exchange(REGISTER_PACKET_SIZE + size_t{4} * count, 11);
}

void BareClient::StartRequest(uint32_t command, uint32_t number, uint32_t word) {
    datagram_[0] = std::byte{0xAB};
    datagram_[1] = std::byte{0};
    Put32(datagram_.data() + 2, command);
    Put32(datagram_.data() + 6, ++message_number_);
    Put32(datagram_.data() + 10, 1);
    Put32(datagram_.data() + 14, number * 4);
    Put32(datagram_.data() + 18, word);
}

void BareClient::Exchange(size_t size, uint32_t reply_command) {
    std::byte reply[534];
    if (send(socket_, datagram_.data(), size, 0) < 0 ||
        recv(socket_, reply, sizeof reply, 0) < static_cast<ssize_t>(REGISTER_PACKET_SIZE)) {
        throw std::runtime_error("no answer to the bare client");
    }
    if (Get32(reply + 2) != reply_command || Get32(reply + 6) != message_number_) {
        throw std::runtime_error("a wrong answer to the bare client");
    }
}

}  // namespace kelo::bench
