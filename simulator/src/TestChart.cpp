#include "TestChart.h"

#include <algorithm>
#include <stdexcept>

#include "Wire.h"
#include "kelosim/image_source.h"

namespace kelosim {
namespace {

// The chart moves to the left and is the same again after so many pixels.
constexpr uint32_t kPeriod = 256;
constexpr uint32_t kStep = 4;
constexpr uint32_t kBands = 8;

// Brightness (0 to 255) of the resting chart: bands of different patterns, one below the other.
uint32_t Brightness(uint32_t x, uint32_t y, uint32_t band) {
    x %= kPeriod;
    switch (band) {
        case 1:
            return (x / 16 + y / 16) % 2 == 0 ? 220 : 30;
        case 3:
            return x / 2 % 2 == 0 ? 255 : 0;
        case 5:
            return x / 32 * 32;
        case 7:
            return x < kPeriod / 2 ? 2 * x : 2 * (kPeriod - 1 - x);
        default:
            return x;
    }
}

// Rows lie in memory with a period's length to spare, so that a moved row is one copy.
template <typename Pixel>
class TestChart : public ImageSource {
public:
    TestChart(uint16_t width, uint16_t height)
        : width_(width), height_(height), chart_(size_t{height} * RowLength()) {
        if (size_t{width} * height * sizeof(Pixel) < 4) {
            throw std::invalid_argument("a test chart has at least four bytes");
        }
        for (uint32_t y = 0; y < height_; ++y) {
            for (uint32_t x = 0; x < RowLength(); ++x) {
                chart_[y * RowLength() + x] = ToPixel(Brightness(x, y, y * kBands / height_));
            }
        }
    }

    uint8_t Format() const override { return sizeof(Pixel) == 1 ? kFormatGrey8 : kFormatGrey16; }
    uint16_t Width() const override { return width_; }
    uint16_t Height() const override { return height_; }
    uint32_t MaxSize() const override {
        return uint32_t{width_} * height_ * uint32_t{sizeof(Pixel)};
    }

    void Render(uint32_t number, std::vector<uint8_t>& out) const override {
        const size_t begin = out.size();
        out.reserve(begin + MaxSize());
        const size_t shift = number % (kPeriod / kStep) * kStep;
        for (size_t y = 0; y < height_; ++y) {
            const uint8_t* row = Bytes(&chart_[y * RowLength() + shift]);
            out.insert(out.end(), row, row + width_ * sizeof(Pixel));
        }
        uint8_t* picture = out.data() + begin;
        DrawNumber(number, width_, height_, [&](uint32_t x, uint32_t y, bool lit) {
            const Pixel pixel = ToPixel(lit ? 255 : 0);
            std::copy_n(Bytes(&pixel), sizeof(Pixel),
                        picture + (size_t{y} * width_ + x) * sizeof(Pixel));
        });
        for (int i = 0; i < 4; ++i)
            picture[i] = static_cast<uint8_t>(number >> (24 - 8 * i));
    }

private:
    // Full scale of a 16-bit pixel is 0xFFFF; the byte order is the camera's, little-endian.
    static Pixel ToPixel(uint32_t brightness) {
        return static_cast<Pixel>(sizeof(Pixel) == 1 ? brightness : brightness * 257);
    }
    static const uint8_t* Bytes(const Pixel* pixels) {
        return reinterpret_cast<const uint8_t*>(pixels);
    }
    size_t RowLength() const { return size_t{width_} + kPeriod; }

    uint16_t width_;
    uint16_t height_;
    std::vector<Pixel> chart_;
};

}  // namespace

bool DigitCell(uint32_t digit, uint32_t column, uint32_t row) {
    // Five rows of three bits, the top row first.
    static constexpr uint16_t kDigits[10] = {
        0b111'101'101'101'111, 0b010'110'010'010'111, 0b111'001'111'100'111, 0b111'001'111'001'111,
        0b101'101'111'001'001, 0b111'100'111'001'111, 0b111'100'111'101'111, 0b111'001'010'010'010,
        0b111'101'111'101'111, 0b111'101'111'001'111};
    return (kDigits[digit] >> ((4 - row) * 3 + (2 - column)) & 1) != 0;
}

ImageSourcePtr MakeTestChart8(uint16_t width, uint16_t height) {
    return std::make_shared<TestChart<uint8_t>>(width, height);
}

ImageSourcePtr MakeTestChart16(uint16_t width, uint16_t height) {
    return std::make_shared<TestChart<uint16_t>>(width, height);
}

}  // namespace kelosim
