#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kelotool {

enum class FileFormat { kPng, kPgm, kRaw };

// What a file name ends with, without the dot.
const char* Extension(FileFormat format);

// Grey pixels, row after row without gaps. Pixels of 16 bits are little-endian, as they come from
// the cameras.
struct Picture {
    uint32_t width = 0;
    uint32_t height = 0;
    int bits = 8;  // of a pixel: 8 or 16
    std::span<const uint8_t> pixels;

    uint64_t Bytes() const { return uint64_t{width} * height * (bits == 16 ? 2 : 1); }
};

// The whole file in memory. A picture's pixels are as many as it says. Throws std::runtime_error
// when the compressor gives up. `compression` is zlib's level, 0 to 9.
void EncodePng(const Picture& picture, int compression, std::vector<uint8_t>& file);
void EncodePgm(const Picture& picture, std::vector<uint8_t>& file);

}  // namespace kelotool
