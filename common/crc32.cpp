#include "crc32.h"

#include <array>
#include <cstddef>

namespace {

// Eight bytes are taken at a time ("slicing by eight"): table t holds what a byte becomes when t
// more zero bytes follow it. Table 0 is the usual one of the reflected polynomial 0xEDB88320 (IEEE
// 802.3, least significant bit first).
constexpr size_t kSlices = 8;
using Crc32Tables = std::array<std::array<uint32_t, 256>, kSlices>;

constexpr Crc32Tables MakeCrc32Tables() {
    Crc32Tables tables{};
    for (uint32_t index = 0; index < 256; ++index) {
        uint32_t value = index;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value & 1) != 0 ? (value >> 1) ^ 0xEDB88320u : value >> 1;
        }
        tables[0][index] = value;
    }
    for (uint32_t index = 0; index < 256; ++index) {
        for (size_t slice = 1; slice < kSlices; ++slice) {
            const uint32_t before = tables[slice - 1][index];
            tables[slice][index] = tables[0][before & 0xFF] ^ (before >> 8);
        }
    }
    return tables;
}

constexpr Crc32Tables kCrc32Tables = MakeCrc32Tables();
static_assert(kCrc32Tables[0][1] == 0x77073096u);

constexpr uint16_t kCrc16Polynomial = 0x8005;

uint32_t Crc32OfEight(uint32_t crc, const uint8_t* bytes) {
    const uint32_t first = crc ^ (bytes[0] | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 |
                                  uint32_t{bytes[3]} << 24);
    return kCrc32Tables[7][first & 0xFF] ^ kCrc32Tables[6][first >> 8 & 0xFF] ^
           kCrc32Tables[5][first >> 16 & 0xFF] ^ kCrc32Tables[4][first >> 24] ^
           kCrc32Tables[3][bytes[4]] ^ kCrc32Tables[2][bytes[5]] ^ kCrc32Tables[1][bytes[6]] ^
           kCrc32Tables[0][bytes[7]];
}

}  // namespace

uint32_t kelo_crc32(uint32_t crc, const uint8_t* buf, uint32_t len) {
    if (buf == nullptr) return crc;
    for (; len >= kSlices; len -= kSlices, buf += kSlices)
        crc = Crc32OfEight(crc, buf);
    for (uint32_t i = 0; i < len; ++i)
        crc = kCrc32Tables[0][(crc ^ buf[i]) & 0xFF] ^ (crc >> 8);
    return crc;
}

uint32_t reflect(uint32_t value, int bits) {
    uint32_t result = 0;
    for (int bit = 0; bit < bits; ++bit) {
        result = (result << 1) | (value & 1);
        value >>= 1;
    }
    return result;
}

uint16_t kelo_crc16(const uint8_t* buf, int len) {
    if (buf == nullptr) return 0;
    uint32_t crc = 0;
    for (int i = 0; i < len; ++i) {
        crc ^= reflect(buf[i], 8) << 8;
        for (int bit = 0; bit < 8; ++bit) {
            const bool carry = (crc & 0x8000) != 0;
            crc = (crc << 1) & 0xFFFF;
            if (carry) crc ^= kCrc16Polynomial;
        }
    }
    return static_cast<uint16_t>(reflect(crc, 16));
}
