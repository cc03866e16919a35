#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace demo {

// Pixels as people look at them: 8-bit grey, row by row from the top.
struct Picture {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint8_t> pixels;
};

// The same picture, width pixels wide: each pixel is the mean of those that it covers.
Picture ScaledDown(const Picture& picture, uint32_t width);

// Throws std::runtime_error with the path and the reason.
void WritePng(const std::string& path, const Picture& picture);

// All pictures on one sheet, so many in a row, each scaled to the width.
Picture ContactSheet(const std::vector<Picture>& pictures, uint32_t columns, uint32_t width);

}  // namespace demo
