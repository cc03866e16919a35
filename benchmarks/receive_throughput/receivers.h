#pragma once

#include <cstdint>
#include <memory>

#include "../support/peer.h"
#include "image_sender.h"

namespace kelo::bench {

inline constexpr size_t IMAGE_SIZE = size_t{1} << 20;

// One run, seen from the receiving side. Times and processor time end with the last image or
// datagram that arrived, so that waiting for lost ones does not count.
struct RunResult {
    double seconds = 0;
    double cpu_seconds = 0;  // of the receiving process
    uint64_t bytes = 0;      // of image data that arrived
    uint64_t datagrams = 0;  // that arrived
    uint32_t whole_images = 0;
    uint32_t images_sent = 0;
};

// A way to receive what the peer sends.
class Receiver {
public:
    virtual ~Receiver() = default;
    virtual const char* Name() const = 0;
    // Has the peer send images, receives them, and throws std::runtime_error if the data of a whole
    // image is not what was sent.
    virtual RunResult Run(Peer& peer, uint32_t images, double bytes_per_second) = 0;
};

// Through the exported functions of the shared library.
std::unique_ptr<Receiver> MakeLibraryReceiver();

// One recvmsg per datagram, which puts the payload straight to its place in one frame: what the
// kernel alone costs.
std::unique_ptr<Receiver> MakeBareReceiver();

}  // namespace kelo::bench
