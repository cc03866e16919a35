#include "grabber.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <span>

#include "cameras.h"
#include "library.h"

namespace demo {
namespace {

// Much longer than any camera of the demo takes for an image.
constexpr int PATIENCE_MS = 3000;

double Seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::span<const uint8_t> DataOf(BufferInfo& image) {
    return {keloGetImageData(&image),
            std::min(image.bufferStatistics.bytesReceived, image.bufferLength)};
}

}  // namespace

Grabber::Grabber(CAM_HANDLE camera, const kelosim::CameraConfig& sent)
    : camera_(camera),
      sent_(sent.streams[0]),
      name_(AddressText(sent.address)),
      next_number_(sent_.first_image_number) {
    // One byte more than the picture has, as the decoder asks for.
    if (sent_.source->Format() == kelosim::kFormatRunLength) {
        decoded_.resize(size_t{sent_.source->Width()} * sent_.source->Height() + 1);
    }
}

const std::vector<uint32_t>& Grabber::SampleNumbers() {
    static const std::vector<uint32_t> numbers = {1, 34, 67, 100};
    return numbers;
}

Grabber::Progress Grabber::Now() const {
    const std::lock_guard lock(mutex_);
    return progress_;
}

void Grabber::Run() noexcept {
    try {
        GrabAll();
    } catch (const std::exception& error) {
        Fail(error.what());
    }
}

void Grabber::GrabAll() {
    Require(keloStartImageAcquisition(camera_), "keloStartImageAcquisition");
    const uint32_t end = sent_.first_image_number + sent_.image_count;
    while (next_number_ != end) {
        auto* image = static_cast<BufferInfo*>(keloGetNextImageTimeout(camera_, 0, PATIENCE_MS));
        if (image == nullptr) {
            lost_ += end - next_number_;
            Fail("image " + std::to_string(next_number_) + " and all after it did not come");
            return;
        }
        Take(*image);
        Report(*image);
        keloPopImage(camera_, 0, image);
    }
}

void Grabber::Take(BufferInfo& image) {
    if (image.imageNumber != next_number_) {
        Fail("image " + std::to_string(image.imageNumber) + " came in place of image " +
             std::to_string(next_number_));
        if (image.imageNumber > next_number_) lost_ += image.imageNumber - next_number_;
    }
    next_number_ = image.imageNumber + 1;
    if (image.bufferStatistics.errorFlag != 0) {
        ++lost_;
        Fail("image " + std::to_string(image.imageNumber) + " lacks " +
             std::to_string(image.bufferStatistics.missingPackets) + " packets");
        return;
    }
    if (Compare(image)) KeepSample(image);
}

bool Grabber::Compare(BufferInfo& image) {
    const std::string name = "image " + std::to_string(image.imageNumber);
    const std::vector<uint8_t> expected = sent_.Frame(image.imageNumber);
    const std::span<const uint8_t> data = DataOf(image);
    if (!std::equal(data.begin(), data.end(), expected.begin(), expected.end())) {
        Fail(name + " differs from what the camera sent");
        return false;
    }
    if (!decoded_.empty() && !DecodesRight(image.imageNumber)) {
        Fail(name + " was not decoded to what the camera saw");
        return false;
    }
    return true;
}

bool Grabber::DecodesRight(uint32_t number) {
    constexpr int WHOLE = 1;
    const auto size = static_cast<int>(decoded_.size() - 1);
    int status = 0;
    keloGetNextDecodedImage(camera_, 0, decoded_.data(), sent_.header_size, size, &status);
    const std::vector<uint8_t> expected =
        kelosim::LaserProfilePixels(sent_.source->Width(), sent_.source->Height(), number);
    return status == WHOLE &&
           std::equal(expected.begin(), expected.end(), decoded_.begin(), decoded_.begin() + size);
}

void Grabber::KeepSample(BufferInfo& image) {
    const auto& numbers = SampleNumbers();
    if (std::find(numbers.begin(), numbers.end(), image.imageNumber) == numbers.end()) return;
    Picture picture{sent_.source->Width(), sent_.source->Height(), {}};
    const size_t size = size_t{picture.width} * picture.height;
    const std::span<const uint8_t> data = DataOf(image).subspan(sent_.header_size);
    if (!decoded_.empty()) {
        picture.pixels.assign(decoded_.begin(), decoded_.end() - 1);
    } else if (sent_.source->Format() == kelosim::kFormatGrey16) {
        // The high bytes of little-endian pixels.
        for (size_t i = 1; i < data.size(); i += 2)
            picture.pixels.push_back(data[i]);
    } else {
        picture.pixels.assign(data.begin(), data.end());
    }
    picture.pixels.resize(size);
    samples_.push_back({image.imageNumber, std::move(picture)});
}

void Grabber::Fail(const std::string& what) {
    if (failure_.empty()) failure_ = name_ + ": " + what;
    const std::lock_guard lock(mutex_);
    progress_.images_lost = lost_;
}

void Grabber::Report(const BufferInfo& image) {
    const double now = Seconds();
    const std::lock_guard lock(mutex_);
    ++progress_.images;
    progress_.images_lost = lost_;
    // A rate needs two images: the first one only starts the clock.
    if (progress_.images == 1) {
        first_time_ = now;
        return;
    }
    bytes_ += image.bufferStatistics.bytesReceived;
    progress_.images_per_second = (progress_.images - 1) / (now - first_time_);
    progress_.megabytes_per_second = static_cast<double>(bytes_) / (now - first_time_) / 1e6;
}

}  // namespace demo
