#include "image_job.h"

#include <algorithm>
#include <cstring>

#include "text.h"

namespace kelotool {
namespace {

// All that the image consists of, what was lost included. Gaps are zeros.
size_t WholeBytes(const BufferInfo& image) {
    const BufferStatistics& statistics = image.bufferStatistics;
    const uint64_t lost = IsIncomplete(image) ? statistics.bytesLost : 0;
    return std::min<uint64_t>(statistics.bytesReceived + lost, image.bufferLength);
}

ImagePlan Raw(const BufferInfo& image, std::string note) {
    return {.bytes = WholeBytes(image), .note = std::move(note)};
}

}  // namespace

ImagePlan PlanImage(const BufferInfo& image, FileFormat wanted) {
    if (wanted == FileFormat::kRaw) return Raw(image, {});
    const uint64_t pixels = uint64_t{image.imageWidth} * image.imageHeight;
    if (pixels == 0) return Raw(image, "the camera gives no width and height");
    ImagePlan plan{.format = wanted};
    switch (image.streamFormat) {
        case FORMAT_RUN_LENGTH:
            plan.decode = true;
            plan.bytes = pixels;
            return plan;
        case FORMAT_GREY8:
            break;
        case FORMAT_GREY16:
            plan.bits = 16;
            break;
        default:
            return Raw(image, Format("pixel format 0x%02x is not known", image.streamFormat));
    }
    plan.pixels_offset = image.headerSize;
    plan.bytes = image.headerSize + pixels * (plan.bits == 16 ? 2 : 1);
    const bool too_short =
        !IsIncomplete(image) && image.bufferStatistics.bytesReceived < plan.bytes;
    if (too_short || image.bufferLength < plan.bytes) {
        return Raw(image,
                   Format("%zu bytes are too few for %u x %u pixels of %d bits", WholeBytes(image),
                          image.imageWidth, image.imageHeight, plan.bits));
    }
    return plan;
}

size_t BufferBytes(const ImagePlan& plan) {
    // The decoder may write one byte beyond the picture.
    return plan.bytes + (plan.decode ? 1 : 0);
}

bool FillBuffer(const TakenImage& image, const ImagePlan& plan, CAM_HANDLE camera,
                std::vector<uint8_t>& buffer) {
    if (!plan.decode) {
        if (plan.bytes != 0) std::memcpy(buffer.data(), image.Data(), plan.bytes);
        return true;
    }
    // Damaged data fills a part of the picture only; the buffer held another one before.
    std::fill(buffer.begin(), buffer.end(), uint8_t{0});
    int status = 0;
    const BufferInfo& info = image.Info();
    const auto* decoded =
        keloGetNextDecodedImage(camera, info.streamNumber, buffer.data(), info.headerSize,
                                static_cast<int>(plan.bytes), &status);
    return decoded != nullptr && (status == 1 || status == 2);
}

std::string ImageNames::Next(uint32_t number, bool incomplete, FileFormat format) {
    const auto before = std::count(latest_.begin(), latest_.end(), number);
    latest_.push_back(number);
    if (latest_.size() > REMEMBERED) latest_.pop_front();
    std::string name = Format("%s-%010u", prefix_.c_str(), number);
    if (incomplete) name += "-incomplete";
    if (before > 0) name += Format("-%d", static_cast<int>(before) + 1);
    return name + '.' + Extension(format);
}

}  // namespace kelotool
