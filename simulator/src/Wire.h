#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

// Big-endian fields in byte sequences. Readers never read past the end: a field that is not there
// whole reads as 0 and marks the reader as failed.
namespace kelosim::wire {

class Reader {
public:
    explicit Reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    uint8_t U8() { return static_cast<uint8_t>(Number(1)); }
    uint16_t U16() { return static_cast<uint16_t>(Number(2)); }
    uint32_t U32() { return Number(4); }
    std::span<const uint8_t> Bytes(size_t count) {
        if (!Take(count)) return {};
        return bytes_.subspan(position_ - count, count);
    }
    size_t Left() const { return bytes_.size() - position_; }
    bool Failed() const { return failed_; }

private:
    bool Take(size_t count) {
        if (count > Left()) {
            failed_ = true;
            return false;
        }
        position_ += count;
        return true;
    }
    uint32_t Number(size_t count) {
        if (!Take(count)) return 0;
        uint32_t value = 0;
        for (size_t i = position_ - count; i < position_; ++i)
            value = value << 8 | bytes_[i];
        return value;
    }

    std::span<const uint8_t> bytes_;
    size_t position_ = 0;
    bool failed_ = false;
};

class Writer {
public:
    explicit Writer(std::vector<uint8_t>& out) : out_(out) {}

    Writer& U8(uint32_t value) { return Number(value, 1); }
    Writer& U16(uint32_t value) { return Number(value, 2); }
    Writer& U32(uint32_t value) { return Number(value, 4); }
    Writer& Bytes(std::span<const uint8_t> bytes) {
        out_.insert(out_.end(), bytes.begin(), bytes.end());
        return *this;
    }
    // The text cut off or filled with zeros to the size.
    Writer& Text(std::string_view text, size_t size) {
        for (size_t i = 0; i < size; ++i)
            U8(i < text.size() ? static_cast<uint8_t>(text[i]) : 0u);
        return *this;
    }

private:
    Writer& Number(uint32_t value, int bytes) {
        for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) {
            out_.push_back(static_cast<uint8_t>(value >> shift));
        }
        return *this;
    }

    std::vector<uint8_t>& out_;
};

}  // namespace kelosim::wire
