#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelotool {

// An IPv4 address of this machine.
struct Interface {
    std::string name;
    uint32_t address = 0;
    uint32_t mask = 0;

    bool Reaches(uint32_t other) const { return (other & mask) == (address & mask); }
};

// All that are up, as a discovery asks them.
std::vector<Interface> Interfaces();
// "lo (127.0.0.1), eth0 (10.0.0.1)"
std::string InterfacesText(const std::vector<Interface>& interfaces);
// The interface whose subnet holds the address; null if none does.
const Interface* FindReaching(const std::vector<Interface>& interfaces, uint32_t address);

}  // namespace kelotool
