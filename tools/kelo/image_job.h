#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "acquisition.h"
#include "image_writer.h"

namespace kelotool {

// Formats of image data, as the format registers of streams have them.
inline constexpr uint8_t FORMAT_GREY8 = 0x08;
inline constexpr uint8_t FORMAT_GREY16 = 0x10;
inline constexpr uint8_t FORMAT_RUN_LENGTH = 0x24;

// What an image can become, and what of its data that takes.
struct ImagePlan {
    FileFormat format = FileFormat::kRaw;
    int bits = 8;
    bool decode = false;  // run-length coded: the library decodes it
    size_t bytes = 0;     // of image data that go into the file, the header included
    size_t pixels_offset = 0;
    std::string note;  // why it is not what was wanted; else empty
};

// `wanted` is what the user asked for. Every field of the image is doubted: what does not fit
// together becomes a raw file.
ImagePlan PlanImage(const BufferInfo& image, FileFormat wanted);

// Fills the buffer as planned. False when run-length data was damaged; what could be decoded is
// there.
bool FillBuffer(const TakenImage& image, const ImagePlan& plan, CAM_HANDLE camera,
                std::vector<uint8_t>& buffer);
// How large a buffer that needs.
size_t BufferBytes(const ImagePlan& plan);

// File names. A number that came before, a short while ago, gets a suffix: when the rest of an
// image comes late, it is an image of its own with the same number.
class ImageNames {
public:
    explicit ImageNames(std::string prefix) : prefix_(std::move(prefix)) {}

    // "image-0000000042-incomplete.png"
    std::string Next(uint32_t number, bool incomplete, FileFormat format);

private:
    static constexpr size_t REMEMBERED = 256;

    std::string prefix_;
    std::deque<uint32_t> latest_;
};

}  // namespace kelotool
