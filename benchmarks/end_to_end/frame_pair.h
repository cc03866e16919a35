#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "receiver.h"

namespace kelo::bench {

// A place in the stream of one camera.
struct Position {
    uint32_t image = 0;
    size_t packet = 0;
};

// Two warm frames, for images in turn, so that an image's first packets may be written before the
// last ones of the image before it have been looked at.
class FramePair {
public:
    explicit FramePair(const ReceiverSetup& setup);

    void Begin(Latencies& latencies);

    size_t Packets() const { return packets_; }
    std::byte* Place(Position at) { return &frames_[at.image % 2][at.packet * payload_]; }
    Position Advance(Position at, size_t packets) const;
    // Behind the newest packet.
    Position Next() const { return next_; }

    // A payload that is at its place already.
    void Note(const std::byte* header, size_t length);
    // One that is not.
    void Take(const std::byte* datagram, size_t size);

    const Received& Counts() const { return counts_; }

private:
    const ReceiverSetup setup_;
    const size_t payload_;
    const size_t packets_;
    std::vector<std::byte> frames_[2];
    Received counts_;
    Latencies* latencies_ = nullptr;
    Position next_;
    uint32_t image_ = 0;
    size_t taken_ = 0;  // of image_
};

}  // namespace kelo::bench
