#pragma once

// How a camera is told from others, written down a second time.

#include <array>
#include <cstdint>
#include <span>
#include <string>

namespace kelo::fuzz {

struct IdentityModel {
    std::string description;  // up to the first zero, at most 32 characters
    uint32_t ip = 0;
    uint32_t mask = 0;
    std::array<uint8_t, 6> mac{};

    bool operator==(const IdentityModel&) const = default;

    uint32_t Handle() const {
        uint64_t hash = 0;
        for (const char character : description) {
            const int value = static_cast<unsigned char>(character);
            hash = hash * 31 + static_cast<uint64_t>(value < 128 ? value : value - 256);
        }
        hash *= 16;
        const uint64_t mac_begin = mac[0] + uint64_t{256} * mac[1];
        uint64_t mac_end = 0;
        for (size_t i = 6; i-- > 2;)
            mac_end = mac_end * 256 + mac[i];
        hash ^= uint64_t{mask} * 2 ^ ip ^ mac_end * 4 ^ mac_begin * 8;
        return static_cast<uint32_t>(hash) ^ static_cast<uint32_t>(hash >> 32);
    }
};

// The identity in a discovery reply; what the datagram does not reach is zero.
inline IdentityModel IdentityOfReply(std::span<const uint8_t> reply) {
    const auto at = [&](size_t offset) {
        return offset < reply.size() ? reply[offset] : uint8_t{0};
    };
    const auto word = [&](size_t offset) {
        return uint32_t{at(offset)} << 24 | uint32_t{at(offset + 1)} << 16 |
               uint32_t{at(offset + 2)} << 8 | at(offset + 3);
    };
    IdentityModel identity;
    for (size_t i = 0; i < 32 && at(22 + i) != 0; ++i)
        identity.description.push_back(static_cast<char>(at(22 + i)));
    identity.ip = word(54);
    identity.mask = word(58);
    for (size_t i = 0; i < 6; ++i)
        identity.mac[i] = at(62 + i);
    return identity;
}

}  // namespace kelo::fuzz
