#include "address_checks.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "camera_identity.h"
#include "library_session.h"
#include "text.h"

namespace kelotool {
namespace {

constexpr uint16_t DISCARD_PORT = 9;
// In /proc/net/arp: the entry is complete.
constexpr unsigned ARP_COMPLETE = 2;
constexpr auto ARP_POLL = std::chrono::milliseconds(20);

bool IsLoopback(uint32_t address) {
    return address >> 24 == 127;
}

// What no host may be called. Empty when the address is good.
std::string WhyNoHost(uint32_t address, uint32_t mask, bool camera_on_loopback) {
    const std::string text = AddressText(address);
    if (address >> 24 == 0) return text + " is no host's address (0.x)";
    if (address == 0xFFFFFFFF) return text + " is the broadcast address";
    if (address >> 28 == 0xE) return text + " is a multicast address";
    if (address >> 28 == 0xF) return text + " is reserved";
    if (IsLoopback(address) && !camera_on_loopback) {
        return text + " is a loopback address: only this machine itself is there";
    }
    if ((address & ~mask) == 0) return text + " is the network's own address under this mask";
    if ((address | mask) == 0xFFFFFFFF) return text + " is the broadcast address under this mask";
    return {};
}

void CheckMask(uint32_t mask, AddressJudgement& judgement) {
    const int ones = std::popcount(mask);
    if (ones < 1 || ones > 30) {
        judgement.errors.push_back("the mask " + AddressText(mask) +
                                   " leaves no room for hosts and a network");
    }
}

void CheckOthers(const EXT_CAM_INFO& camera, uint32_t address,
                 const std::vector<EXT_CAM_INFO>& others, AddressJudgement& judgement) {
    for (const EXT_CAM_INFO& other : others) {
        if (other.camera_ip != address || other.camera_handle == camera.camera_handle) continue;
        judgement.errors.push_back(
            "another camera has this address: " + Printable(Description(other)) + ", " +
            MacText(other.camera_mac));
    }
}

void CheckInterfaces(uint32_t address, uint32_t mask, const std::vector<Interface>& interfaces,
                     AddressJudgement& judgement) {
    for (const Interface& interface : interfaces) {
        if (interface.address != address) continue;
        judgement.errors.push_back("this machine has this address itself, on " + interface.name);
    }
    const Interface* reaching = FindReaching(interfaces, address);
    if (reaching == nullptr) {
        judgement.warnings.push_back(
            "no interface of this machine is in that subnet: the camera will be found, but not "
            "reached (interfaces: " +
            InterfacesText(interfaces) + ")");
        return;
    }
    const std::string why = WhyNoHost(address, reaching->mask, IsLoopback(reaching->address));
    if (reaching->mask != mask && !why.empty()) {
        judgement.errors.push_back("for " + reaching->name + ", whose mask is " +
                                   AddressText(reaching->mask) + ": " + why);
    } else if (reaching->mask != mask) {
        judgement.warnings.push_back("the mask of " + reaching->name + " is " +
                                     AddressText(reaching->mask) + ", another one");
    }
}

// Makes the kernel look for the address. What is sent is empty and for nobody.
void Touch(uint32_t address) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(DISCARD_PORT);
    to.sin_addr.s_addr = htonl(address);
    (void)!sendto(fd, "", 0, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    close(fd);
}

std::optional<std::string> ResolvedMac(uint32_t address) {
    std::ifstream table("/proc/net/arp");
    const std::string wanted = AddressText(address);
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string ip;
        std::string type;
        std::string flags;
        std::string mac;
        if (!(fields >> ip >> type >> flags >> mac) || ip != wanted) continue;
        if ((ParseNumber(flags).value_or(0) & ARP_COMPLETE) != 0) return LowerCase(mac);
    }
    return std::nullopt;
}

}  // namespace

std::optional<uint32_t> ParseMask(std::string_view text) {
    if (const auto mask = ParseAddress(text)) {
        const bool contiguous = std::countl_one(*mask) == std::popcount(*mask);
        return contiguous ? mask : std::nullopt;
    }
    if (text.starts_with('/')) text.remove_prefix(1);
    const auto length = ParseNumber(text);
    if (!length || *length > 32 || text.size() > 2) return std::nullopt;
    return *length == 0 ? 0 : ~0u << (32 - *length);
}

AddressJudgement JudgeAddress(const EXT_CAM_INFO& camera, uint32_t address, uint32_t mask,
                              const std::vector<Interface>& interfaces,
                              const std::vector<EXT_CAM_INFO>& others) {
    AddressJudgement judgement;
    CheckMask(mask, judgement);
    const std::string why = WhyNoHost(address, mask, IsLoopback(camera.camera_ip));
    if (!why.empty()) judgement.errors.push_back(why);
    CheckOthers(camera, address, others, judgement);
    if (judgement.errors.empty()) CheckInterfaces(address, mask, interfaces, judgement);
    return judgement;
}

std::optional<std::string> WhoAnswersAt(uint32_t address, int timeout_ms) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    Touch(address);
    while (true) {
        if (auto mac = ResolvedMac(address)) return mac;
        if (std::chrono::steady_clock::now() >= end) return std::nullopt;
        std::this_thread::sleep_for(ARP_POLL);
    }
}

}  // namespace kelotool
