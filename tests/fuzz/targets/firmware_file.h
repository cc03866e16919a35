#pragma once

// What the inputs of the target firmware_file begin with; the file's content follows.
//
//   16 bits  largest payload and kSmallestPayload, modulo
//   32 bits  offset of the emblem
//   8 bits   flags
//   8 bits   the file is changed before this payload
//   16 bits  where it is changed
//   8 bits   to what; also a byte of the emblem is changed by it when it is sealed

#include <cstdint>

namespace kelo::fuzz {

inline constexpr int kSmallestPayload = -10;
inline constexpr int kPayloadKinds = 2100;

namespace firmware_flag {
inline constexpr uint8_t kSealed = 0x01;      // the emblem is put in
inline constexpr uint8_t kBrokenSeal = 0x02;  // and a byte of it changed
inline constexpr uint8_t kChanged = 0x04;     // a byte of the file changes while it is sent
inline constexpr uint8_t kTruncated = 0x08;   // the file becomes shorter while it is sent
}  // namespace firmware_flag

}  // namespace kelo::fuzz
