#pragma once

#include <bit>
#include <cstdint>

// Streams that a camera's stream mask asks for: one more than the highest set bit among bits 1 to
// 7. There is always stream 0; the bits above 7 are not stream numbers.
constexpr uint8_t StreamCountOfMask(uint32_t mask) {
    const auto low_bits = static_cast<uint8_t>(mask | 1);
    return static_cast<uint8_t>(std::bit_width(low_bits));
}
static_assert(StreamCountOfMask(0) == 1 && StreamCountOfMask(1) == 1);
static_assert(StreamCountOfMask(0b101) == 3 && StreamCountOfMask(0x180) == 8);
