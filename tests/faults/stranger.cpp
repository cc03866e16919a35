#include "stranger.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include <unistd.h>

namespace kelo::test {
namespace {

// The longest datagrams of a flood: somewhat beyond the longest of the protocol.
constexpr size_t kFloodBytesMax = 600;

sockaddr_in ToSockaddr(uint32_t address, uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(address);
    result.sin_port = htons(port);
    return result;
}

}  // namespace

Stranger::Stranger(uint32_t own_address, uint64_t seed)
    : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), chance_(seed), supply_(kSupply) {
    for (size_t i = 0; i < kSupply; i += sizeof(uint64_t)) {
        const uint64_t word = chance_();
        std::memcpy(supply_.data() + i, &word, sizeof(word));
    }
    const sockaddr_in own = ToSockaddr(own_address, 0);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<const sockaddr*>(&own), sizeof(own)) != 0) {
        throw std::runtime_error("no socket for a stranger");
    }
}

Stranger::~Stranger() {
    EndFlood();
    close(fd_);
}

void Stranger::Send(const Datagram& datagram, uint32_t address, uint16_t port) {
    const sockaddr_in to = ToSockaddr(address, port);
    (void)sendto(fd_, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                 sizeof(to));
}

Stranger::Datagram Stranger::Noise(size_t min, size_t max) {
    const uint64_t word = chance_();
    const size_t length = min + (word & 0xFFFF) % (max - min + 1);
    const auto* piece = supply_.data() + (word >> 16) % (kSupply - length);
    return {piece, piece + length};
}

void Stranger::BeginFlood(uint32_t address, uint16_t port, double per_second) {
    flood_ends_ = false;
    flooded_ = 0;
    flood_ = std::thread([=, this] { Flood(ToSockaddr(address, port), per_second); });
}

uint64_t Stranger::EndFlood() {
    flood_ends_ = true;
    if (flood_.joinable()) flood_.join();
    return flooded_;
}

// In batches, so that the rate can be kept up.
void Stranger::Flood(sockaddr_in to, double per_second) {
    using Clock = std::chrono::steady_clock;
    std::array<iovec, kBatch> places{};
    std::array<mmsghdr, kBatch> messages{};
    const auto begin = Clock::now();
    while (!flood_ends_) {
        const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
        if (static_cast<double>(flooded_) > seconds * per_second) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            continue;
        }
        for (size_t i = 0; i < kBatch; ++i) {
            const uint64_t word = chance_();
            const size_t length = word % kFloodBytesMax;
            const size_t offset = (word >> 16) % (kSupply - length);
            places[i] = {supply_.data() + offset, length};
            messages[i].msg_hdr = {};
            messages[i].msg_hdr.msg_name = &to;
            messages[i].msg_hdr.msg_namelen = sizeof(to);
            messages[i].msg_hdr.msg_iov = &places[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        const int sent = sendmmsg(fd_, messages.data(), kBatch, 0);
        if (sent > 0) flooded_ += static_cast<uint64_t>(sent);
    }
}

}  // namespace kelo::test
