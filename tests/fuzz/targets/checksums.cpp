// The checksums against their definitions, bit by bit, and in pieces of any size.
// Input: start value, size of the pieces, offset in memory, bytes.

#include <memory>

#include "crc32.h"
#include "fuzz.h"
#include "input.h"

using kelo::fuzz::Input;
using kelo::fuzz::RequireEqual;

namespace {

uint32_t Crc32BitByBit(uint32_t crc, std::span<const uint8_t> bytes) {
    for (const uint8_t byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? crc >> 1 ^ 0xEDB88320u : crc >> 1;
    }
    return crc;
}

// The same the other way round: the polynomial 0x8005 reflected.
uint16_t Crc16BitByBit(std::span<const uint8_t> bytes) {
    uint32_t crc = 0;
    for (const uint8_t byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? crc >> 1 ^ 0xA001u : crc >> 1;
    }
    return static_cast<uint16_t>(crc);
}

uint32_t ReflectBitByBit(uint32_t value, int bits) {
    uint32_t result = 0;
    for (int bit = 0; bit < bits; ++bit) {
        if ((value >> bit & 1) != 0) result |= 1u << (bits - 1 - bit);
    }
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const uint32_t start = input.U32();
    const uint32_t piece = input.U8() + 1u;
    const size_t offset = input.U8() % 16;
    const auto content = input.Rest();
    // Reading in steps of eight must neither want an alignment nor go beyond the end.
    const auto memory = std::make_unique<uint8_t[]>(offset + content.size());
    std::copy(content.begin(), content.end(), memory.get() + offset);
    const std::span<const uint8_t> bytes(memory.get() + offset, content.size());

    const uint32_t expected = Crc32BitByBit(start, bytes);
    RequireEqual(kelo_crc32(start, bytes.data(), static_cast<uint32_t>(bytes.size())), expected,
                 "CRC-32 of the whole");
    uint32_t crc = start;
    for (auto rest = bytes; !rest.empty();
         rest = rest.subspan(std::min<size_t>(piece, rest.size())))
        crc = kelo_crc32(crc, rest.data(), std::min(piece, static_cast<uint32_t>(rest.size())));
    RequireEqual(crc, expected, "CRC-32 in pieces");
    RequireEqual(kelo_crc16(bytes.data(), static_cast<int>(bytes.size())), Crc16BitByBit(bytes),
                 "CRC-16");
    const int bits = static_cast<int>(piece % 33);
    RequireEqual(reflect(start, bits), ReflectBitByBit(start, bits), "reflected bits");
    return 0;
}
