#include "frame_pair.h"

#include <cstring>
#include <stdexcept>

#include "../support/big_endian.h"
#include "frame_assembler.h"

namespace kelo::bench {

FramePair::FramePair(const ReceiverSetup& setup)
    : setup_(setup), payload_(setup.traffic.PayloadSize()), packets_(setup.traffic.Datagrams()) {
    for (auto& frame : frames_)
        frame.resize(packets_ * payload_);
}

void FramePair::Begin(Latencies& latencies) {
    latencies_ = &latencies;
    counts_ = {};
    counts_.images_in_flight = 2;
    taken_ = 0;
}

Position FramePair::Advance(Position at, size_t packets) const {
    at.packet += packets;
    if (at.packet < packets_) return at;
    return {at.image + 1, 0};
}

void FramePair::Note(const std::byte* header, size_t length) {
    const uint32_t image = Get32(header + 2);
    if (image != image_) taken_ = 0;
    image_ = image;
    next_ = Advance({image, Get16(header + 6)}, 1);
    ++counts_.datagrams;
    counts_.bytes += length;
    if (++taken_ != packets_) return;
    CompleteImage(setup_.traffic, frames_[image % 2].data(), image, counts_, *latencies_);
}

void FramePair::Take(const std::byte* datagram, size_t size) {
    const Position at = {Get32(datagram + 2), Get16(datagram + 6)};
    const size_t length = size - IMAGE_HEADER_SIZE;
    if (at.packet >= packets_ || length > payload_) {
        throw std::runtime_error("a bare receiver got a datagram that was not sent to it");
    }
    std::memcpy(Place(at), datagram + IMAGE_HEADER_SIZE, length);
    Note(datagram, length);
}

}  // namespace kelo::bench
