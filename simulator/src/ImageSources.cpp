// The laser profile and the plain bytes.

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "TestChart.h"
#include "Wire.h"
#include "kelosim/image_source.h"

namespace kelosim {
namespace {

constexpr uint32_t kNumberPixels = 8;

// How the run-length code writes pixels. The bytes 0x00 and 0xFF begin runs, 0x01 and 0x02 would
// end the picture; all others stand for themselves.
class RunLengthWriter {
public:
    explicit RunLengthWriter(std::vector<uint8_t>& out) : out_(out) {}

    void Write(std::span<const uint8_t> pixels) {
        for (size_t i = 0; i < pixels.size();) {
            const uint8_t value = pixels[i];
            const size_t run = value == 0x00   ? Run(pixels, i, 0x10000)
                               : value == 0xFF ? Run(pixels, i, 0x100)
                                               : 1;
            out_.push_back(value);
            if (value == 0x00) out_.push_back(static_cast<uint8_t>(run - 1));
            if (value == 0x00) out_.push_back(static_cast<uint8_t>((run - 1) >> 8));
            if (value == 0xFF) out_.push_back(static_cast<uint8_t>(run - 1));
            i += run;
        }
        out_.push_back(0x01);
    }

private:
    static size_t Run(std::span<const uint8_t> pixels, size_t begin, size_t limit) {
        size_t end = begin + 1;
        while (end < pixels.size() && end - begin < limit && pixels[end] == pixels[begin])
            ++end;
        return end - begin;
    }

    std::vector<uint8_t>& out_;
};

class LaserProfile : public ImageSource {
public:
    LaserProfile(uint16_t width, uint16_t height) : width_(width), height_(height) {
        if (uint32_t{width} * height < kNumberPixels) {
            throw std::invalid_argument("a laser profile has at least eight pixels");
        }
    }

    uint8_t Format() const override { return kFormatRunLength; }
    uint16_t Width() const override { return width_; }
    uint16_t Height() const override { return height_; }

    // Lit pixels cost up to 2 bytes and the dark run behind them 3: three lit pixels in every
    // column, at most 20 lit runs in every row of the digits; then the number's pixels, the end
    // marker and what long dark runs need.
    uint32_t MaxSize() const override {
        const uint32_t digit_rows = 5 * DigitScale(width_, height_);
        const uint32_t pixels = uint32_t{width_} * height_;
        const uint32_t digits = digit_rows * 20 * (5 + DigitScale(width_, height_) / 64);
        return 15u * width_ + digits + kNumberPixels + 3 * (pixels / 0x10000 + 2) + 1;
    }

    void Render(uint32_t number, std::vector<uint8_t>& out) const override {
        const std::vector<uint8_t> pixels = LaserProfilePixels(width_, height_, number);
        RunLengthWriter(out).Write(pixels);
    }

private:
    uint16_t width_;
    uint16_t height_;
};

class PlainBytes : public ImageSource {
public:
    PlainBytes(uint32_t size, uint16_t width, uint16_t height, uint8_t format)
        : size_(size),
          width_(width),
          height_(height),
          format_(format),
          bytes_(size_t{size} + kPeriod) {
        for (size_t i = 0; i < bytes_.size(); ++i)
            bytes_[i] = static_cast<uint8_t>(i * 7 + i / kPeriod);
    }

    uint8_t Format() const override { return format_; }
    uint16_t Width() const override { return width_; }
    uint16_t Height() const override { return height_; }
    uint32_t MaxSize() const override { return size_; }

    void Render(uint32_t number, std::vector<uint8_t>& out) const override {
        const uint8_t* first = bytes_.data() + number % kPeriod;
        const size_t begin = out.size();
        out.insert(out.end(), first, first + size_);
        for (size_t i = 0; i < std::min<size_t>(4, size_); ++i) {
            out[begin + i] = static_cast<uint8_t>(number >> (24 - 8 * i));
        }
    }

private:
    static constexpr uint32_t kPeriod = 251;

    uint32_t size_;
    uint16_t width_;
    uint16_t height_;
    uint8_t format_;
    std::vector<uint8_t> bytes_;
};

}  // namespace

std::vector<uint8_t> LaserProfilePixels(uint16_t width, uint16_t height, uint32_t number) {
    std::vector<uint8_t> pixels(size_t{width} * height);
    const auto set = [&](uint32_t x, int y, uint8_t value) {
        if (y >= 0 && y < height) pixels[static_cast<size_t>(y) * width + x] = value;
    };
    for (uint32_t x = 0; x < width; ++x) {
        const double phase = 6.283185307179586 * (2.0 * x + number % 512 * 4.0) / width;
        const int y = static_cast<int>(height * (0.55 + 0.2 * std::sin(phase)));
        set(x, y - 1, 0x78);
        set(x, y, 0xFF);
        set(x, y + 1, 0x78);
    }
    DrawNumber(number, width, height, [&](uint32_t x, uint32_t y, bool lit) {
        if (lit) pixels[size_t{y} * width + x] = 0xFF;
    });
    for (uint32_t i = 0; i < kNumberPixels; ++i) {
        pixels[i] = static_cast<uint8_t>(0x10 + (number >> (28 - 4 * i) & 0xF));
    }
    return pixels;
}

ImageSourcePtr MakeLaserProfile(uint16_t width, uint16_t height) {
    return std::make_shared<LaserProfile>(width, height);
}

ImageSourcePtr MakeBytes(uint32_t size, uint16_t width, uint16_t height, uint8_t format) {
    return std::make_shared<PlainBytes>(size, width, height, format);
}

uint32_t NumberInData(std::span<const uint8_t> data) {
    return wire::Reader(data).U32();
}

}  // namespace kelosim
