#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelotool {

// A chain of the kernel's packet filter that every packet for this machine passes.
struct FilterChain {
    std::string family;  // "inet", "ip", ...
    std::string table;
    std::string chain;
    bool drops_by_default = false;
    int dropping_rules = 0;  // in its table
};

// None when this process may not read them.
std::optional<std::vector<FilterChain>> ReadPacketFilter();

}  // namespace kelotool
