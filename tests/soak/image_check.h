#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <vector>

#include "soak.h"

namespace kelo::soak {

// Takes the images of one stream and compares each with what the camera sent. Throws Wrong at the
// first byte that the camera did not send.
class StreamReader {
public:
    StreamReader(Soak& soak, CAM_HANDLE handle, uint8_t stream, kelosim::StreamConfig config);

    // Waits for the next image, judges it and gives it back; false when none came.
    bool TakeOne(int timeout_ms);

    uint8_t Stream() const { return stream_; }
    const std::set<uint32_t>& Whole() const { return whole_; }  // numbers without a loss
    const std::set<uint32_t>& Seen() const { return seen_; }
    uint64_t Images() const { return images_; }
    uint64_t MissingPackets() const { return missing_packets_; }
    uint64_t Bytes() const { return bytes_; }
    bool InOrder() const { return in_order_; }

private:
    void Judge(IMAGE_BUFFER_HANDLE image);
    void JudgeWhole(IMAGE_BUFFER_HANDLE image, const BufferInfo& info,
                    const std::vector<uint8_t>& sent) const;
    void JudgeDamaged(const BufferInfo& info, const std::vector<uint8_t>& sent) const;
    void JudgeDecoded(IMAGE_BUFFER_HANDLE image, uint32_t number) const;

    Soak& soak_;
    const CAM_HANDLE handle_;
    const uint8_t stream_;
    const kelosim::StreamConfig config_;
    std::set<uint32_t> whole_;
    std::set<uint32_t> seen_;
    uint64_t images_ = 0;
    uint64_t missing_packets_ = 0;
    uint64_t bytes_ = 0;
    bool in_order_ = true;
};

// Runs an acquisition of so many images on each of the cameras at once and expects every image
// whole and in order. What order says is done to each; meanwhile(handle of the first) once all are
// started.
void ExpectEveryImage(Soak& soak, const std::vector<uint32_t>& cameras, Order order,
                      const std::function<void(CAM_HANDLE)>& meanwhile = {});

}  // namespace kelo::soak
