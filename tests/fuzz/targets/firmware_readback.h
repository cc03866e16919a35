#pragma once

// What the inputs of the target firmware_readback consist of: steps of a read-back.

#include <cstdint>

namespace kelo::fuzz {

enum class ReadBackStep : uint8_t {
    Right,    // 16 bits: length; what the camera should hold next
    Wrong,    // 16 bits: length, 16 bits: where, 8 bits: what is wrong there
    Jump,     // 24 bits: a piece of this length that is not compared
    Stale,    // 16 bits: so many bytes and one behind; 8 bits: length
    Ahead,    // 16 bits: so many bytes and one ahead; 8 bits: length
    Lying,    // 32 bits: claimed length, 8 bits: length
    Raw,      // 8 bits: length; a reply of these bytes
    Payload,  // the next payload is asked for
    Count
};

}  // namespace kelo::fuzz
