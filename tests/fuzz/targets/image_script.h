#pragma once

// The language of the scripts that the target image_script plays. An operation is a byte, with its
// arguments behind it; what cameras send depends on what was said before, as one camera's packets
// follow each other.

#include <cstdint>

namespace kelo::fuzz {

enum class ScriptOp : uint8_t {
    Select,           // camera and stream: bits 0 and 1
    Image,            // 32 bits: number of the image that is sent next
    SkipImages,       // 8 bits, signed: to the image so much later
    Shape,            // 16 bits: packets of an image; 8 bits each: bytes of a packet, of the last
    Seek,             // 16 bits: number of the packet that is sent next
    SkipPackets,      // 8 bits: so many packets and one more are lost
    Send,             // 8 bits: so many packets and one more, one after the other
    SendLong,         // 16 bits: the same
    Repeat,           // 8 bits: the next packet so many times and once more
    Hold,             // 8 bits: so many packets and one more are late
    Release,          // what is late arrives
    ReleaseReversed,  // in reverse order
    Odd,              // 16 bits each: number and count; 8 bits: bytes; one packet of its own
    Garbage,          // 8 bits: a datagram that is no packet
    BatchSize,        // 8 bits: how many datagrams are taken together
    Flush,            // what has arrived is taken
    Tick,             // time passes
    InitStream,       // 8 bits: the frame size
    Pop,              // the application takes an image
    Clear,            // the application drops them all
    ResetStatistics,
    ExitCamera,
    Count
};

}  // namespace kelo::fuzz
