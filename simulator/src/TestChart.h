#pragma once

#include <cstdint>

namespace kelosim {

// The largest whole factor by which a ten-digit number fits well into a picture.
inline uint32_t DigitScale(uint32_t width, uint32_t height) {
    const uint32_t scale = width / 80 < height / 40 ? width / 80 : height / 40;
    return scale == 0 ? 1 : scale;
}

// Whether a cell of a decimal digit's 3 by 5 picture is lit.
bool DigitCell(uint32_t digit, uint32_t column, uint32_t row);

// Draws the number, ten digits and a frame of one cell around them, near the upper left corner:
// calls set(x, y, lit) for every pixel of that box that lies inside the picture.
template <typename Set>
void DrawNumber(uint32_t number, uint32_t width, uint32_t height, const Set& set) {
    constexpr uint32_t kDigits = 10;
    const uint32_t scale = DigitScale(width, height);
    uint32_t digits[kDigits];
    for (uint32_t i = kDigits; i-- > 0; number /= 10)
        digits[i] = number % 10;
    const uint32_t columns = kDigits * 4 + 1;
    const uint32_t rows = 7;
    for (uint32_t y = 0; y < rows * scale && y + scale < height; ++y) {
        for (uint32_t x = 0; x < columns * scale && x + scale < width; ++x) {
            const uint32_t column = x / scale;
            const uint32_t row = y / scale;
            const bool inside = column % 4 != 0 && row >= 1 && row <= 5;
            set(x + scale, y + scale,
                inside && DigitCell(digits[column / 4], column % 4 - 1, row - 1));
        }
    }
}

}  // namespace kelosim
