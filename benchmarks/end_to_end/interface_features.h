#pragma once

#include <string>

namespace kelo::bench {

// Switches one of an interface's offloads, named as the program ethtool names them ("rx-gro",
// "tx-udp-segmentation"), on or off in the network namespace of this process. False where the
// interface has no such offload, or the system refuses.
bool SetInterfaceFeature(const std::string& interface, const std::string& feature, bool on);

}  // namespace kelo::bench
