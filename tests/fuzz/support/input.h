#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kelo::fuzz {

// Takes numbers, big-endian, and pieces from the front of an input. Behind its end there are zeros.
class Input {
public:
    Input(const uint8_t* data, size_t size) : rest_(data, size) {}

    bool IsEmpty() const { return rest_.empty(); }
    std::span<const uint8_t> Rest() const { return rest_; }

    uint8_t U8() {
        const auto byte = Bytes(1);
        return byte.empty() ? uint8_t{0} : byte[0];
    }
    uint16_t U16() {
        const uint32_t high = U8();
        return static_cast<uint16_t>(high << 8 | U8());
    }
    uint32_t U32() {
        const uint32_t high = U16();
        return high << 16 | U16();
    }
    // count bytes, or as many as there are.
    std::span<const uint8_t> Bytes(size_t count) {
        const auto taken = rest_.first(std::min(count, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }

private:
    std::span<const uint8_t> rest_;
};

}  // namespace kelo::fuzz
