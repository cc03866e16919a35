#pragma once

#include <cstdint>
#include <optional>

#include "kelosim/faults.h"

namespace kelosim {

inline constexpr size_t kImageHeaderSize = 14;
inline constexpr uint8_t kImageMagic = 0xAC;

// The header in front of every image packet.
struct ImageHeader {
    uint8_t magic = kImageMagic;
    uint8_t stream = 0;
    uint32_t image_number = 0;
    uint16_t current_packet = 0;
    uint16_t all_packets = 1;
    uint16_t width = 0;
    uint16_t height = 0;

    // Writes kImageHeaderSize bytes.
    void Store(uint8_t* out) const;
};

// What the record of faults says about one image packet.

// Whether anything at all may happen to packets of this image over UDP.
bool TouchesImage(const Faults& faults, uint8_t stream, uint32_t image);
bool PacketHit(const Faults& faults, PacketFault::Kind kind, const ImageHeader& packet);
// Makes the header lie; returns the size to which the datagram is to be cut, if so.
std::optional<uint32_t> ApplyLies(const Faults& faults, ImageHeader& header);
uint32_t JumpedNumber(const Faults& faults, uint32_t number);

// A number in [0, 1) that depends on its arguments only.
double Chance(uint64_t seed, uint64_t salt, uint64_t a, uint64_t b);

}  // namespace kelosim
