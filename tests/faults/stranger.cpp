#include "stranger.h"

#include <algorithm>
#include <array>
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

struct Stranger::Batch {
    static constexpr size_t kSize = 64;

    explicit Batch(const sockaddr_in& receiver) : to(receiver) {}

    void Add(const uint8_t* data, size_t length) {
        places[count] = {const_cast<uint8_t*>(data), length};
        msghdr& header = messages[count].msg_hdr;
        header = {};
        header.msg_name = &to;
        header.msg_namelen = sizeof(to);
        header.msg_iov = &places[count];
        header.msg_iovlen = 1;
        ++count;
    }
    bool IsFull() const { return count == kSize; }
    // Returns how many datagrams left.
    size_t Send(int fd) {
        const int sent = sendmmsg(fd, messages.data(), static_cast<unsigned>(count), 0);
        count = 0;
        return static_cast<size_t>(std::max(sent, 0));
    }

    sockaddr_in to;
    size_t count = 0;
    std::array<iovec, kSize> places{};
    std::array<mmsghdr, kSize> messages{};
};

void Stranger::SendAll(const std::vector<Datagram>& datagrams, uint32_t address, uint16_t port) {
    Batch batch(ToSockaddr(address, port));
    for (const Datagram& datagram : datagrams) {
        batch.Add(datagram.data(), datagram.size());
        if (batch.IsFull()) batch.Send(fd_);
    }
    if (batch.count > 0) batch.Send(fd_);
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
    Batch batch(to);
    const auto begin = Clock::now();
    while (!flood_ends_) {
        const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
        if (static_cast<double>(flooded_) > seconds * per_second) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            continue;
        }
        while (!batch.IsFull()) {
            const uint64_t word = chance_();
            const size_t length = word % kFloodBytesMax;
            batch.Add(supply_.data() + (word >> 16) % (kSupply - length), length);
        }
        flooded_ += batch.Send(fd_);
    }
}

}  // namespace kelo::test
