#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace kelosim {

// Values of a stream's format register.
inline constexpr uint8_t kFormatGrey8 = 0x08;
inline constexpr uint8_t kFormatGrey16 = 0x10;  // little-endian pixels, as they lie in memory
inline constexpr uint8_t kFormatRunLength = 0x24;

// What a sensor sees. An image is a pure function of its number, so that a test can ask for the
// exact bytes that a camera has sent. Implementations are immutable: any thread may call them.
class ImageSource {
public:
    virtual ~ImageSource() = default;

    virtual uint8_t Format() const = 0;
    virtual uint16_t Width() const = 0;
    virtual uint16_t Height() const = 0;
    // The most bytes that any image has.
    virtual uint32_t MaxSize() const = 0;
    // Appends the image's bytes.
    virtual void Render(uint32_t number, std::vector<uint8_t>& out) const = 0;
};

using ImageSourcePtr = std::shared_ptr<const ImageSource>;

// A moving test chart in grey, with the image number written into the picture. The first four bytes
// are the number itself, big-endian (images have at least four bytes). 16-bit pixels are
// little-endian.
ImageSourcePtr MakeTestChart8(uint16_t width, uint16_t height);
ImageSourcePtr MakeTestChart16(uint16_t width, uint16_t height);

// A laser line on a dark background, run-length coded and closed by the end marker 0x01. The first
// eight pixels of the decoded picture are 0x10 plus the number's hexadecimal digits, highest first
// (the code cannot carry every byte value).
ImageSourcePtr MakeLaserProfile(uint16_t width, uint16_t height);
// The picture that MakeLaserProfile codes.
std::vector<uint8_t> LaserProfilePixels(uint16_t width, uint16_t height, uint32_t number);

// The PNG files of a folder in the order of their names, again and again, as 8-bit grey; image n
// shows file (n modulo their count). All must have the size of the first. Throws
// std::runtime_error that says which file is wrong and why.
ImageSourcePtr MakePngFolder(const std::string& folder);

// size bytes that depend on the number only and begin with it, big-endian: for measurements and for
// images of odd sizes. The picture is width by height as told; nothing ties it to size.
ImageSourcePtr MakeBytes(uint32_t size, uint16_t width = 1, uint16_t height = 1,
                         uint8_t format = kFormatGrey8);

// The number that the sources above (the laser profile apart) write into the first four bytes.
// 0 when there are fewer.
uint32_t NumberInData(std::span<const uint8_t> data);

}  // namespace kelosim
