#pragma once

#include <cstdint>

namespace kelo::soak {

// Sends count datagrams of random content, half of them behind a right beginning, from strangers'
// addresses to the two ports of this host: control and images.
void SendHostile(uint32_t count, uint64_t seed, uint16_t control_port, uint16_t image_port);

}  // namespace kelo::soak
