#include "hostile.h"

#include <chrono>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kelo::soak {
namespace {

constexpr uint8_t kImageMagic = 0xAC;
constexpr uint8_t kControlMagic = 0xAB;
constexpr uint32_t kStranger = 0x7F0000C8;  // 127.0.0.200
constexpr uint32_t kHome = 0x7F000001;

sockaddr_in At(uint32_t address, uint16_t port) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(address);
    at.sin_port = htons(port);
    return at;
}

std::vector<uint8_t> MakeDatagram(std::mt19937_64& random, uint8_t magic) {
    std::vector<uint8_t> bytes(random() % 1473);
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(random());
    if (!bytes.empty() && random() % 2 == 0) bytes[0] = magic;
    return bytes;
}

}  // namespace

void SendHostile(uint32_t count, uint64_t seed, uint16_t control_port, uint16_t image_port) {
    std::mt19937_64 random(seed);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in from = At(kStranger, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&from), sizeof(from)) != 0) {
        throw std::runtime_error("no socket for hostile datagrams");
    }
    for (uint32_t i = 0; i < count; ++i) {
        const bool control = random() % 2 == 0;
        const sockaddr_in to = At(kHome, control ? control_port : image_port);
        const auto bytes = MakeDatagram(random, control ? kControlMagic : kImageMagic);
        sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to),
               sizeof(to));
        // What the socket buffer cannot hold would cost images.
        if (i % 8 == 7) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    close(fd);
}

}  // namespace kelo::soak
