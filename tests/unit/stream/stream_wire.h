#pragma once

// Image streams as they stand on the wire, byte by byte.

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include "kelo_types.h"

namespace kelo::test {

// Appends big-endian numbers.
class Wire {
public:
    Wire& U8(uint32_t value) {
        bytes_.push_back(static_cast<char>(value));
        return *this;
    }
    Wire& U16(uint32_t value) { return U8(value >> 8).U8(value); }
    Wire& U32(uint32_t value) { return U16(value >> 16).U16(value); }
    Wire& Text(const std::string& text) {
        bytes_ += text;
        return *this;
    }
    operator std::string() const { return bytes_; }

private:
    std::string bytes_;
};

// One image packet, the whole of a UDP datagram.
struct ImagePacket {
    uint32_t image = 1;
    uint16_t number = 0;
    uint16_t count = 1;
    std::string payload = "payload";
    uint8_t stream = 3;
    uint16_t width = 640;
    uint16_t height = 480;
    uint8_t magic = 0xAC;

    std::string Bytes() const {
        return Wire()
            .U8(magic)
            .U8(stream)
            .U32(image)
            .U16(number)
            .U16(count)
            .U16(width)
            .U16(height)
            .Text(payload);
    }
};

// One message of a TCP stream.
struct TcpMessage {
    uint32_t type = 1;
    std::string body = "";
    std::optional<uint32_t> size = std::nullopt;  // claimed; the body's own if not given
    uint8_t stream = 3;
    uint8_t magic = 0xAC;

    std::string Bytes() const {
        const uint32_t claimed = size.value_or(static_cast<uint32_t>(body.size()));
        return Wire().U8(magic).U8(stream).U32(type).U32(claimed).Text(body);
    }
};

// The first length bytes of an image.
inline std::string Data(const BufferInfo& image, size_t length) {
    std::string data(length, '\0');
    std::memcpy(data.data(), reinterpret_cast<const void*>(static_cast<uintptr_t>(image.buffer)),
                length);
    return data;
}

inline std::string Data(const BufferInfo& image) {
    return Data(image, image.bufferLength);
}

}  // namespace kelo::test
