#include "crc32.h"

#include <array>

namespace {

// The table of the reflected CRC-32 polynomial 0xEDB88320 (IEEE 802.3, least significant bit
// first).
constexpr std::array<uint32_t, 256> MakeCrc32Table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t index = 0; index < table.size(); ++index) {
        uint32_t value = index;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1) != 0 ? (value >> 1) ^ 0xEDB88320u : value >> 1;
        table[index] = value;
    }
    return table;
}

constexpr std::array<uint32_t, 256> kCrc32Table = MakeCrc32Table();
static_assert(kCrc32Table[1] == 0x77073096u);

constexpr uint16_t kCrc16Polynomial = 0x8005;

}  // namespace

uint32_t kelo_crc32(uint32_t crc, const uint8_t* buf, uint32_t len) {
    for (uint32_t i = 0; i < len; ++i)
        crc = kCrc32Table[(crc ^ buf[i]) & 0xFF] ^ (crc >> 8);
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
