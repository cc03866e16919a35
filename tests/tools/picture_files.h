#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelo::test {

// What a file shows. Pixels of 16 bits are numbers of this machine's byte order.
struct DecodedPicture {
    uint32_t width = 0;
    uint32_t height = 0;
    int bits = 0;
    std::vector<uint16_t> pixels;
};

std::vector<uint8_t> ReadFile(const std::string& path);
// All zeros when the file cannot be read; a reader of its own, no code shared with the command.
DecodedPicture ReadPng(const std::string& path);
DecodedPicture ReadPgm(const std::string& path);

// Pixels as they come from a camera.
std::vector<uint16_t> Pixels8(const std::vector<uint8_t>& data, size_t begin = 0);
std::vector<uint16_t> Pixels16(const std::vector<uint8_t>& data, size_t begin = 0);

// The names in a folder, in order.
std::vector<std::string> Names(const std::string& folder);

}  // namespace kelo::test
