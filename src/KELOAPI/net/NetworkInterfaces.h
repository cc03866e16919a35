#pragma once

#include <cstdint>
#include <string>
#include <vector>

// One IPv4 address of one of the host's network interfaces. Addresses in host order.
struct interface_description {
    interface_description(std::string name_, uint32_t addr_, uint32_t netmask_, uint32_t broadcast_,
                          uint32_t index_)
        : name(std::move(name_)),
          addr(addr_),
          netmask(netmask_),
          broadcast(broadcast_),
          index(index_) {}

    std::string name;
    uint32_t addr;
    uint32_t netmask;    // 0 if the system gives none
    uint32_t broadcast;  // 0 if there is none
    uint32_t index;
};

// Every IPv4 address of the host in the system's order, loopback and interfaces that are down
// included. Empty when the system cannot tell.
std::vector<interface_description> GetNetworkInterfaceInfos(bool log);
