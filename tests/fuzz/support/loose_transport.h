#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "TPacketCommunicatorUDPSocket.h"

namespace kelo::fuzz {

// The host's two interfaces, as the library is told.
inline constexpr uint32_t kInterfaces[] = {0xC0A80101, 0x0A000001};  // 192.168.1.1, 10.0.0.1
inline constexpr uint32_t kInterfaceMasks[] = {0xFFFFFF00, 0xFF000000};

// The transport that is bound to the address, 0 for the any-address; null if there is none.
TPacketCommunicator* FindTransport(uint32_t ip);

// Called for every datagram that the library sends.
void OnSend(std::function<void(std::span<const uint8_t> datagram)> call);

}  // namespace kelo::fuzz
