#include "NetworkInterfaces.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include "utils.h"

namespace {

constexpr size_t kAddressTextSize = sizeof("255.255.255.255");

// Writes a host-order address, most significant byte first.
void Inet_NtoA(uint32_t addr, char* dst) {
    snprintf(dst, kAddressTextSize, "%u.%u.%u.%u", addr >> 24, (addr >> 16) & 0xFF,
             (addr >> 8) & 0xFF, addr & 0xFF);
}

uint32_t Ipv4InHostOrder(const sockaddr* address) {
    if (address == nullptr || address->sa_family != AF_INET) return 0;
    sockaddr_in ipv4{};
    std::memcpy(&ipv4, address, sizeof(ipv4));
    return ntohl(ipv4.sin_addr.s_addr);
}

void LogInterface(const interface_description& interface) {
    char addr[kAddressTextSize];
    char netmask[kAddressTextSize];
    char broadcast[kAddressTextSize];
    Inet_NtoA(interface.addr, addr);
    Inet_NtoA(interface.netmask, netmask);
    Inet_NtoA(interface.broadcast, broadcast);
    kelo::Log(
        "  Found interface: index=[%u] name=[%s] desc=[%s] address=[%s] netmask=[%s] "
        "broadcastAddr=[%s]\n",
        interface.index, interface.name.c_str(), "unavailable", addr, netmask, broadcast);
}

}  // namespace

std::vector<interface_description> GetNetworkInterfaceInfos(bool log) {
    ifaddrs* raw_list = nullptr;
    if (getifaddrs(&raw_list) != 0) return {};
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> list(raw_list, freeifaddrs);

    std::vector<interface_description> interfaces;
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        const uint32_t addr = Ipv4InHostOrder(entry->ifa_addr);
        if (addr == 0) continue;
        interfaces.emplace_back(entry->ifa_name, addr, Ipv4InHostOrder(entry->ifa_netmask),
                                Ipv4InHostOrder(entry->ifa_broadaddr),
                                if_nametoindex(entry->ifa_name));
        if (log) LogInterface(interfaces.back());
    }
    return interfaces;
}
