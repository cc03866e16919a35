#include "picture.h"

#include <algorithm>

namespace demo {
namespace {

uint8_t Mean(const Picture& picture, uint32_t left, uint32_t top, uint32_t right, uint32_t bottom) {
    uint32_t sum = 0;
    for (uint32_t y = top; y < bottom; ++y) {
        for (uint32_t x = left; x < right; ++x)
            sum += picture.pixels[y * picture.width + x];
    }
    return static_cast<uint8_t>(sum / std::max(1U, (right - left) * (bottom - top)));
}

void Paste(const Picture& picture, Picture& sheet, uint32_t left, uint32_t top) {
    for (uint32_t y = 0; y < picture.height; ++y) {
        std::copy_n(picture.pixels.begin() + y * picture.width, picture.width,
                    sheet.pixels.begin() + (top + y) * sheet.width + left);
    }
}

}  // namespace

Picture ScaledDown(const Picture& picture, uint32_t width) {
    if (width >= picture.width) return picture;
    Picture small{width, std::max(1U, picture.height * width / picture.width), {}};
    small.pixels.reserve(small.width * small.height);
    for (uint32_t y = 0; y < small.height; ++y) {
        for (uint32_t x = 0; x < small.width; ++x) {
            small.pixels.push_back(Mean(
                picture, x * picture.width / small.width, y * picture.height / small.height,
                (x + 1) * picture.width / small.width, (y + 1) * picture.height / small.height));
        }
    }
    return small;
}

Picture ContactSheet(const std::vector<Picture>& pictures, uint32_t columns, uint32_t width) {
    constexpr uint32_t GAP = 8;
    constexpr uint8_t PAPER = 255;
    std::vector<Picture> small;
    small.reserve(pictures.size());
    for (const Picture& picture : pictures)
        small.push_back(ScaledDown(picture, width));
    uint32_t row_height = 0;
    for (const Picture& picture : small)
        row_height = std::max(row_height, picture.height);
    const uint32_t rows = (static_cast<uint32_t>(small.size()) + columns - 1) / columns;
    Picture sheet{GAP + columns * (width + GAP), GAP + rows * (row_height + GAP), {}};
    sheet.pixels.assign(size_t{sheet.width} * sheet.height, PAPER);
    for (uint32_t i = 0; i < small.size(); ++i) {
        Paste(small[i], sheet, GAP + i % columns * (width + GAP),
              GAP + i / columns * (row_height + GAP));
    }
    return sheet;
}

}  // namespace demo
