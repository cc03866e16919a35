#include "bench_camera.h"

#include <cerrno>
#include <cstring>
#include <system_error>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "big_endian.h"
#include "kelo_registers.h"

namespace kelo::bench {
namespace {

constexpr uint16_t CONTROL_PORT = 6061;
constexpr std::byte MAGIC{0xAB};
constexpr size_t HEADER_SIZE = 14;
constexpr size_t REGISTER_PACKET_SIZE = 22;
constexpr size_t DISCOVERY_REPLY_SIZE = 78;
constexpr uint32_t MAX_REGISTERS = 128;
constexpr uint32_t SUCCESS = 1;
constexpr uint32_t OUT_OF_RANGE = 3;
constexpr uint32_t LARGEST_PACKET = 9000;

int OpenControlSocket() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(CONTROL_PORT);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throw std::system_error(errno, std::generic_category(), "camera's control port 6061");
    }
    return fd;
}

}  // namespace

BenchCamera::BenchCamera(uint32_t frame_size)
    : socket_(OpenControlSocket()),
      registers_{{REG_WIDTH, 1024},
                 {REG_HEIGHT, frame_size / 1024},
                 {REG_ACQUISITIONSTART, 0},
                 {REG_ACQUISITIONSTOP, 0},
                 {REG_HEARTBEAT_TIMEOUT, 0},
                 {REG_STREAMPORT, 0},
                 {REG_MAX_STREAMS_MASK, 1},
                 {REG_USED_STREAMS_MASK, 1},
                 {REG_TCP_STREAMPORT, 0},
                 {REG_STREAM0_FORMAT, 0},
                 {REG_STREAM0_FRAME_SIZE, frame_size},
                 {REG_STREAM0_HEADER_FORMAT, 0},
                 {REG_STREAM0_HEADER_SIZE, 0},
                 {REG_STREAM0_OPTIONS, 0},
                 {REG_MTU, 1500},
                 {REG_CAMERA_USED, 0}},
      request_{},
      reply_{} {}

BenchCamera::~BenchCamera() {
    close(socket_);
}

uint32_t BenchCamera::Register(uint32_t number) const {
    const auto found = registers_.find(number);
    return found == registers_.end() ? 0 : found->second;
}

void BenchCamera::AnswerOne() {
    sockaddr_in client{};
    socklen_t client_size = sizeof client;
    auto* client_address = reinterpret_cast<sockaddr*>(&client);
    const ssize_t size =
        recvfrom(socket_, request_, sizeof request_, 0, client_address, &client_size);
    if (size < static_cast<ssize_t>(HEADER_SIZE) || request_[0] != MAGIC) return;
    const size_t reply_size = BuildReply(static_cast<size_t>(size));
    if (reply_size == 0) return;
    // A reply that is lost is the client's to ask for again, as with any camera.
    sendto(socket_, reply_, reply_size, 0, client_address, client_size);
}

size_t BenchCamera::BuildReply(size_t size) {
    const uint32_t command = Get32(request_ + 2);
    if (command == 1) return DiscoveryReply();
    if (size < REGISTER_PACKET_SIZE) return 0;
    switch (command) {
        case 4:
            return RegisterReply(false);
        case 6:
            return RegisterReply(true);
        case 8:
            return MemoryReply(false, size);
        case 10:
            return MemoryReply(true, size);
        default:
            return 0;
    }
}

void BenchCamera::FinishHeader(uint32_t command, uint32_t status) {
    reply_[0] = MAGIC;
    reply_[1] = std::byte{0};
    Put32(reply_ + 2, command);
    std::memcpy(reply_ + 6, request_ + 6, 4);
    Put32(reply_ + 10, status);
}

size_t BenchCamera::DiscoveryReply() {
    std::memset(reply_, 0, DISCOVERY_REPLY_SIZE);
    FinishHeader(2, SUCCESS);
    std::memcpy(reply_ + 22, "Benchmark camera", 16);
    Put32(reply_ + 54, INADDR_LOOPBACK);
    Put32(reply_ + 58, 0xFF000000);
    reply_[67] = std::byte{1};
    return DISCOVERY_REPLY_SIZE;
}

size_t BenchCamera::RegisterReply(bool write) {
    const uint32_t number = Get32(request_ + 14) / 4;
    const uint32_t value = Get32(request_ + 18);
    const auto found = registers_.find(number);
    if (write && number == REG_MTU && value > 0xFFFF) {
        SendTestDatagram(static_cast<uint16_t>(value >> 16), value & 0xFFFF);
    } else if (write && found != registers_.end()) {
        found->second = value;
    }
    std::memcpy(reply_ + 14, request_ + 14, 4);
    Put32(reply_ + 18, Register(number));
    FinishHeader(write ? 7 : 5, found == registers_.end() ? OUT_OF_RANGE : SUCCESS);
    return REGISTER_PACKET_SIZE;
}

// Written memory is thrown away and reads as zero: only the exchange is of interest.
size_t BenchCamera::MemoryReply(bool write, size_t size) {
    const uint32_t count = Get32(request_ + 18);
    const bool fits =
        count <= MAX_REGISTERS && (!write || size >= REGISTER_PACKET_SIZE + size_t{4} * count);
    std::memset(reply_, 0, sizeof reply_);
    std::memcpy(reply_ + 14, request_ + 14, 8);
    FinishHeader(write ? 11 : 9, fits ? SUCCESS : OUT_OF_RANGE);
    return write || !fits ? REGISTER_PACKET_SIZE : REGISTER_PACKET_SIZE + size_t{4} * count;
}

void BenchCamera::SendTestDatagram(uint16_t port, uint32_t packet_size) const {
    constexpr uint32_t IP_AND_UDP_HEADERS = 28;
    if (packet_size < IP_AND_UDP_HEADERS || packet_size > LARGEST_PACKET) return;
    const std::vector<std::byte> datagram(packet_size - IP_AND_UDP_HEADERS);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(socket_, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&to),
           sizeof to);
}

}  // namespace kelo::bench
