#pragma once

#include <cstddef>
#include <cstdint>

namespace kelo::bench {

inline void Put16(std::byte* at, uint32_t value) {
    at[0] = static_cast<std::byte>(value >> 8);
    at[1] = static_cast<std::byte>(value);
}

inline void Put32(std::byte* at, uint32_t value) {
    Put16(at, value >> 16);
    Put16(at + 2, value);
}

inline uint32_t Get16(const std::byte* at) {
    return std::to_integer<uint32_t>(at[0]) << 8 | std::to_integer<uint32_t>(at[1]);
}

inline uint32_t Get32(const std::byte* at) {
    return Get16(at) << 16 | Get16(at + 2);
}

}  // namespace kelo::bench
