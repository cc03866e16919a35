#include "bench_camera.h"

#include <algorithm>
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

int OpenControlSocket() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(CONTROL_PORT);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throw std::system_error(errno, std::generic_category(), "camera's control port 6061");
    }
    // Tells which of the cameras a request is for.
    const int on = 1;
    setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    return fd;
}

std::unordered_map<uint32_t, uint32_t> InitialRegisters(const CameraSetup& setup) {
    return {{REG_WIDTH, setup.width},
            {REG_HEIGHT, setup.height},
            {REG_ACQUISITIONSTART, 0},
            {REG_ACQUISITIONSTOP, 0},
            {REG_HEARTBEAT_TIMEOUT, 0},
            {REG_STREAMPORT, 0},
            {REG_MAX_STREAMS_MASK, 1},
            {REG_USED_STREAMS_MASK, 1},
            {REG_TCP_STREAMPORT, setup.tcp_port},
            {REG_STREAM0_FORMAT, 0},
            {REG_STREAM0_FRAME_SIZE, setup.width * setup.height},
            {REG_STREAM0_HEADER_FORMAT, 0},
            {REG_STREAM0_HEADER_SIZE, 0},
            {REG_STREAM0_OPTIONS, setup.tcp_port != 0 ? uint32_t{STREAM_OPTIONS_USE_TCP} : 0},
            {REG_MTU, 1500},
            {REG_CAMERA_USED, 0}};
}

}  // namespace

BenchCamera::BenchCamera(const CameraSetup& setup)
    : setup_(setup),
      socket_(OpenControlSocket()),
      registers_(setup.cameras, InitialRegisters(setup)) {}

BenchCamera::~BenchCamera() {
    close(socket_);
}

uint32_t BenchCamera::Register(uint32_t number, size_t camera) const {
    const auto found = registers_[camera].find(number);
    return found == registers_[camera].end() ? 0 : found->second;
}

// A broadcast is for every camera, anything else for the one that it was sent to.
void BenchCamera::AnswerOne() {
    size_t size = 0;
    const uint32_t address = ReceiveRequest(size);
    if (size < HEADER_SIZE || request_[0] != MAGIC) return;
    const uint32_t camera = address - setup_.first_address;
    if (camera < setup_.cameras) {
        AnswerFrom(camera, size);
    } else {
        for (size_t i = 0; i < setup_.cameras; ++i)
            AnswerFrom(i, size);
    }
}

uint32_t BenchCamera::ReceiveRequest(size_t& size) {
    alignas(cmsghdr) std::byte control[CMSG_SPACE(sizeof(in_pktinfo))];
    iovec place = {request_, sizeof request_};
    msghdr message{};
    message.msg_name = &client_;
    message.msg_namelen = sizeof client_;
    message.msg_iov = &place;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t received = recvmsg(socket_, &message, 0);
    size = static_cast<size_t>(std::max<ssize_t>(received, 0));
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (header == nullptr || header->cmsg_type != IP_PKTINFO) return 0;
    in_pktinfo info{};
    std::memcpy(&info, CMSG_DATA(header), sizeof info);
    return ntohl(info.ipi_addr.s_addr);
}

void BenchCamera::AnswerFrom(size_t camera, size_t size) {
    const size_t reply_size = BuildReply(size, camera);
    // A reply that is lost is the client's to ask for again, as with any camera.
    if (reply_size != 0) SendFrom(camera, client_, reply_, reply_size);
}

void BenchCamera::SendFrom(size_t camera, const sockaddr_in& to, const void* data,
                           size_t size) const {
    alignas(cmsghdr) std::byte control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    sockaddr_in name = to;
    iovec part = {const_cast<void*>(data), size};
    msghdr message{};
    message.msg_name = &name;
    message.msg_namelen = sizeof name;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo info{};
    info.ipi_spec_dst.s_addr = htonl(setup_.first_address + static_cast<uint32_t>(camera));
    std::memcpy(CMSG_DATA(header), &info, sizeof info);
    sendmsg(socket_, &message, 0);
}

size_t BenchCamera::BuildReply(size_t size, size_t camera) {
    const uint32_t command = Get32(request_ + 2);
    if (command == 1) return DiscoveryReply(camera);
    if (size < REGISTER_PACKET_SIZE) return 0;
    switch (command) {
        case 4:
            return RegisterReply(false, camera);
        case 6:
            return RegisterReply(true, camera);
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

size_t BenchCamera::DiscoveryReply(size_t camera) {
    std::memset(reply_, 0, DISCOVERY_REPLY_SIZE);
    FinishHeader(2, SUCCESS);
    std::memcpy(reply_ + 22, "Benchmark camera", 16);
    Put32(reply_ + 54, setup_.first_address + static_cast<uint32_t>(camera));
    Put32(reply_ + 58, 0xFF000000);
    reply_[67] = static_cast<std::byte>(camera + 1);
    return DISCOVERY_REPLY_SIZE;
}

size_t BenchCamera::RegisterReply(bool write, size_t camera) {
    const uint32_t number = Get32(request_ + 14) / 4;
    if (write) Write(number, Get32(request_ + 18), camera);
    std::memcpy(reply_ + 14, request_ + 14, 4);
    Put32(reply_ + 18, Register(number, camera));
    FinishHeader(write ? 7 : 5, registers_[camera].contains(number) ? SUCCESS : OUT_OF_RANGE);
    return REGISTER_PACKET_SIZE;
}

void BenchCamera::Write(uint32_t number, uint32_t value, size_t camera) {
    const auto found = registers_[camera].find(number);
    if (found == registers_[camera].end()) return;
    client_address_ = ntohl(client_.sin_addr.s_addr);
    if (number == REG_MTU && value > 0xFFFF) {
        SendTestDatagram(static_cast<uint16_t>(value >> 16), value & 0xFFFF, camera);
        return;
    }
    found->second = value;
    if (number == REG_ACQUISITIONSTART) ++starts_;
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

void BenchCamera::SendTestDatagram(uint16_t port, uint32_t packet_size, size_t camera) {
    constexpr uint32_t IP_AND_UDP_HEADERS = 28;
    if (packet_size < IP_AND_UDP_HEADERS || packet_size > setup_.largest_packet) return;
    const std::vector<std::byte> datagram(packet_size - IP_AND_UDP_HEADERS);
    sockaddr_in to = client_;
    to.sin_port = htons(port);
    SendFrom(camera, to, datagram.data(), datagram.size());
}

}  // namespace kelo::bench
