#include "frame_assembler.h"

#include <cstring>
#include <stdexcept>

#include "../support/big_endian.h"
#include "../support/cpu.h"

namespace kelo::bench {

FrameAssembler::FrameAssembler(const ReceiverSetup& setup)
    : setup_(setup),
      payload_(setup.traffic.PayloadSize()),
      frames_(setup.traffic.cameras),
      packets_(setup.traffic.Datagrams()) {
    for (Frame& frame : frames_)
        frame.memory.resize(packets_ * payload_);
}

void FrameAssembler::Begin(Latencies& latencies) {
    latencies_ = &latencies;
    counts_ = {};
    counts_.images_in_flight = static_cast<uint32_t>(frames_.size());
    for (Frame& frame : frames_)
        frame.taken = 0;
}

void FrameAssembler::Take(uint32_t source, const std::byte* datagram, size_t size) {
    const uint32_t camera = source - setup_.first_camera;
    const uint32_t packet = Get16(datagram + 6);
    const size_t length = size - IMAGE_HEADER_SIZE;
    if (camera >= frames_.size() || packet >= packets_ || length > payload_) {
        throw std::runtime_error("a bare receiver got a datagram that was not sent to it");
    }
    Frame& frame = frames_[camera];
    std::memcpy(&frame.memory[packet * payload_], datagram + IMAGE_HEADER_SIZE, length);
    const uint32_t image = Get32(datagram + 2);
    if (image != frame.image) {
        frame.image = image;
        frame.taken = 0;
    }
    ++counts_.datagrams;
    counts_.bytes += length;
    taken_ = ++frame.taken;
    if (taken_ != packets_) return;
    CompleteImage(setup_.traffic, frame.memory.data(), image, counts_, *latencies_);
}

void CompleteImage(const Traffic& traffic, const std::byte* frame, uint32_t image, Received& counts,
                   Latencies& latencies) {
    const int64_t now = NowNs();
    int64_t sent = 0;
    std::memcpy(&sent, frame + traffic.StampOffset(), sizeof sent);
    latencies.Add(sent, now);
    ++counts.whole_images;
    if (Get32(frame) != image) {
        throw std::runtime_error("a bare receiver put together a wrong image");
    }
}

}  // namespace kelo::bench
