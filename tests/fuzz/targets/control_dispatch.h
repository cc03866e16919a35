#pragma once

// What the inputs of the target control_dispatch consist of: records of a byte that tells the kind,
// with its arguments behind it.

#include <cstdint>

namespace kelo::fuzz {

enum class ControlRecord : uint8_t {
    Datagram,   // a byte for the way (see below), 16 bits: length; bytes
    Camera,     // a way, 8 bits each: last byte of the address, mask, description, MAC; a reply
    CutCamera,  // the same, and 8 bits: so many bytes of the reply arrive
    Discover,   // a discovery; what was sent on a way with kInDiscovery arrives meanwhile
    Request,    // 8 bits each: which camera is asked for a register, number of answers; per answer
                // 8 bits each: flags (see below), command, status; 32 bits: value
    Count
};

namespace control_way {
inline constexpr uint8_t kTransport = 0x03;  // any-address, first, second interface, unknown
inline constexpr uint8_t kSource = 0x1C;     // last bits of the sender's address
inline constexpr uint8_t kInDiscovery = 0x20;
inline constexpr uint8_t kSecondNet = 0x40;  // the sender is in the second interface's subnet
}  // namespace control_way

namespace answer_flag {
inline constexpr uint8_t kWrongNumber = 0x01;
inline constexpr uint8_t kStranger = 0x02;  // from another address
}  // namespace answer_flag

}  // namespace kelo::fuzz
