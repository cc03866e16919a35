#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "kelo_api.h"
#include "library_session.h"

namespace kelotool {

inline constexpr uint8_t STREAMS_MAX = 32;

// The streams that a camera sends, from its registers: at least one.
std::vector<uint8_t> UsedStreams(CAM_HANDLE camera);

// A running acquisition of a camera, which outlives it; stopped at the end. Throws CommandError
// when the camera does not start.
class Acquisition {
public:
    explicit Acquisition(const OpenCamera& camera);
    ~Acquisition();
    Acquisition(const Acquisition&) = delete;
    Acquisition& operator=(const Acquisition&) = delete;

private:
    const OpenCamera& camera_;
};

// The oldest finished image of a stream, given back at the end.
class TakenImage {
public:
    TakenImage(CAM_HANDLE camera, uint8_t stream, int timeout_ms)
        : camera_(camera),
          stream_(stream),
          image_(keloGetNextImageTimeout(camera, stream, timeout_ms)) {}
    ~TakenImage() {
        if (image_ != nullptr) keloPopImage(camera_, stream_, image_);
    }
    TakenImage(const TakenImage&) = delete;
    TakenImage& operator=(const TakenImage&) = delete;

    explicit operator bool() const { return image_ != nullptr; }
    const BufferInfo& Info() const { return *static_cast<const BufferInfo*>(image_); }
    const uint8_t* Data() const { return keloGetImageData(image_); }

private:
    CAM_HANDLE camera_;
    uint8_t stream_;
    IMAGE_BUFFER_HANDLE image_;
};

inline bool IsIncomplete(const BufferInfo& image) {
    return image.bufferStatistics.errorFlag != 0;
}

// What came over one stream, told by the images that were taken. The counters of loss are the
// library's own; bytes are those of the images, because it counts none of TCP streams. Rates are
// between the first image and the last.
class StreamTotals {
public:
    using Clock = std::chrono::steady_clock;

    void Add(const BufferInfo& image, Clock::time_point now);

    uint64_t images() const { return images_; }
    uint64_t bytes() const { return bytes_; }
    uint64_t incomplete() const { return incomplete_; }
    const StreamStatistics& last() const { return last_; }
    Clock::time_point last_time() const { return last_time_; }
    double seconds() const;            // between the first image and the last
    double images_per_second() const;  // 0 when there are fewer than two images
    double bytes_per_second() const;   // the same
    double loss() const;               // the part of the bytes that was lost, 0 to 1

private:
    uint64_t images_ = 0;
    uint64_t incomplete_ = 0;
    uint64_t bytes_ = 0;
    uint64_t first_bytes_ = 0;
    StreamStatistics last_{};
    Clock::time_point first_time_;
    Clock::time_point last_time_;
};

}  // namespace kelotool
