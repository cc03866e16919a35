#include "interfaces.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include "text.h"

namespace kelotool {
namespace {

uint32_t HostOrder(const sockaddr* address) {
    if (address == nullptr || address->sa_family != AF_INET) return 0;
    sockaddr_in ipv4{};
    std::memcpy(&ipv4, address, sizeof ipv4);
    return ntohl(ipv4.sin_addr.s_addr);
}

}  // namespace

std::vector<Interface> Interfaces() {
    ifaddrs* raw_list = nullptr;
    if (getifaddrs(&raw_list) != 0) return {};
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> list(raw_list, freeifaddrs);
    std::vector<Interface> interfaces;
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        const uint32_t address = HostOrder(entry->ifa_addr);
        if (address == 0 || (entry->ifa_flags & IFF_UP) == 0) continue;
        interfaces.push_back({entry->ifa_name, address, HostOrder(entry->ifa_netmask)});
    }
    return interfaces;
}

std::string InterfacesText(const std::vector<Interface>& interfaces) {
    std::string text;
    for (const Interface& interface : interfaces) {
        if (!text.empty()) text += ", ";
        text += interface.name + " (" + AddressText(interface.address) + ")";
    }
    return text.empty() ? "none" : text;
}

const Interface* FindReaching(const std::vector<Interface>& interfaces, uint32_t address) {
    const auto found =
        std::find_if(interfaces.begin(), interfaces.end(),
                     [&](const Interface& interface) { return interface.Reaches(address); });
    return found == interfaces.end() ? nullptr : &*found;
}

}  // namespace kelotool
