#pragma once

// What the inputs of the target control_replies consist of: exchanges, one after the other.
//
//   8 bits   request, by ReplyRequest, and how many datagrams arrive in the upper 4 bits
//   32 bits  register
//   8 bits   count of registers, or low byte of the value
//   then per datagram: 8 bits: 0 for a number that is not the request's; 16 bits: length; bytes

#include <cstdint>

namespace kelo::fuzz {

enum class ReplyRequest : uint8_t { ReadRegister, WriteRegister, ReadMemory, WriteMemory, Count };

}  // namespace kelo::fuzz
