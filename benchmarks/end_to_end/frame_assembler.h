#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "receiver.h"

namespace kelo::bench {

// What the bare loops do with a datagram: its payload to its place in the one warm frame of its
// camera, and the count of what came. Nothing is zeroed, locked or handed to anybody.
class FrameAssembler {
public:
    explicit FrameAssembler(const ReceiverSetup& setup);

    void Begin(Latencies& latencies);
    // source: the sender's address in host order.
    void Take(uint32_t source, const std::byte* datagram, size_t size);
    const Received& Counts() const { return counts_; }

    // How far the newest image is: its packets, and how many of them have come.
    uint32_t PacketsOfImage() const { return packets_; }
    uint32_t PacketsTaken() const { return taken_; }

private:
    struct Frame {
        std::vector<std::byte> memory;
        uint32_t image = 0;
        uint32_t taken = 0;
    };

    const ReceiverSetup setup_;
    const size_t payload_;
    std::vector<Frame> frames_;  // by camera
    Received counts_;
    Latencies* latencies_ = nullptr;
    uint32_t packets_;
    uint32_t taken_ = 0;
};

// Counts an image whose packets have all come. Throws std::runtime_error when it is not the image
// that was sent.
void CompleteImage(const Traffic& traffic, const std::byte* frame, uint32_t image, Received& counts,
                   Latencies& latencies);

}  // namespace kelo::bench
