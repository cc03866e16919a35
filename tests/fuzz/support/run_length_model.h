#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace kelo::fuzz {

// Run-length decoding as its format is described: one token after the other, one byte at a time.
// output holds size + 1 bytes.
class RunLengthModel {
public:
    RunLengthModel(std::vector<uint8_t>& output, uint32_t size) : output_(output), size_(size) {}

    int Decode(std::span<const uint8_t> input) {
        if (input.empty()) return size_ == 0 ? 0 : FillWithZeros();
        size_t at = 0;
        while (true) {
            const uint8_t value = input[at];
            const size_t left = input.size() - at;
            if (value == 1 || value == 2) return value;
            output_.at(written_) = value;
            const bool has_room = written_ < size_;
            if (value == 0) {
                if (!has_room) return 3;
                if (left < 2) return 4;
                if (left < 3) return 5;
                if (left < 4) return 6;
                if (!Put(value, input[at + 1] + 256 * input[at + 2] + 1)) return 7;
                at += 3;
            } else if (value == 0xFF) {
                if (!has_room) return 8;
                if (left < 2) return 9;
                if (left < 3) return 10;
                if (!Put(value, input[at + 1] + 1)) return 11;
                at += 2;
            } else {
                if (!has_room) return 12;
                if (left < 2) return 13;
                written_ += 1;
                at += 1;
            }
        }
    }

private:
    int FillWithZeros() {
        for (uint32_t i = 0; i < size_; ++i)
            output_.at(i) = 0;
        return 14;
    }

    // A run that does not fit leaves only its first byte.
    bool Put(uint8_t value, int count) {
        if (written_ + static_cast<uint32_t>(count) > size_) return false;
        for (int i = 0; i < count; ++i)
            output_.at(written_++) = value;
        return true;
    }

    std::vector<uint8_t>& output_;
    const uint32_t size_;
    uint32_t written_ = 0;
};

}  // namespace kelo::fuzz
