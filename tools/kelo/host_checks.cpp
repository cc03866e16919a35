#include "host_checks.h"

#include <algorithm>
#include <map>

#include "library_session.h"
#include "text.h"

namespace kelotool {
namespace {

// What the library asks for, and below which it warns itself.
constexpr int64_t BUFFER_WANTED = 32 << 20;
constexpr int64_t BUFFER_NEEDED = 4 << 20;
constexpr double GIGABIT_BYTES_PER_MS = 125000;

std::string Mebibytes(int64_t bytes) {
    return Format("%.4g MiB", static_cast<double>(bytes) / (1 << 20));
}

}  // namespace

Finding CheckMtu(const Card& card) {
    Finding finding{.check = "mtu", .subject = card.name, .measured = Format("%d bytes", card.mtu)};
    if (card.mtu >= 9000) return finding;
    finding.verdict = card.mtu < 1500 ? Verdict::kBad : Verdict::kWarn;
    finding.meaning = card.mtu < 1500
                          ? "smaller than usual: images come in many small packets"
                          : "with jumbo frames an image takes a sixth of the packets; camera and "
                            "switch have to know them, too";
    finding.cure = Format("ip link set dev %s mtu 9000", card.name.c_str());
    return finding;
}

std::optional<Finding> CheckLink(const Card& card) {
    if (!card.speed_mbits) return std::nullopt;
    const bool half = card.half_duplex.value_or(false);
    Finding finding{
        .check = "link",
        .subject = card.name,
        .measured = Format("%u Mbit/s%s", *card.speed_mbits, half ? ", half duplex" : "")};
    if (*card.speed_mbits >= 1000 && !half) return finding;
    finding.verdict = half ? Verdict::kBad : Verdict::kWarn;
    finding.meaning =
        "slower than cameras usually need: a cable with a broken pair, or an old switch";
    finding.cure = Format("ethtool -s %s autoneg on", card.name.c_str());
    return finding;
}

std::optional<Finding> CheckRing(const Card& card) {
    if (!card.ring || !card.ring_max) return std::nullopt;
    Finding finding{.check = "ring",
                    .subject = card.name,
                    .measured = Format("%u of %u packets", *card.ring, *card.ring_max)};
    constexpr uint32_t ENOUGH = 2048;
    if (*card.ring >= std::min(*card.ring_max, ENOUGH)) return finding;
    finding.verdict = Verdict::kWarn;
    finding.meaning = "the card holds few packets while the processor is busy elsewhere";
    finding.cure = Format("ethtool -G %s rx %u", card.name.c_str(), *card.ring_max);
    return finding;
}

std::optional<Finding> CheckMerging(const Card& card) {
    if (!card.merges_packets) return std::nullopt;
    Finding finding{.check = "offload",
                    .subject = card.name,
                    .measured = *card.merges_packets ? "generic receive offload on"
                                                     : "generic receive offload off"};
    if (*card.merges_packets) return finding;
    finding.verdict = Verdict::kWarn;
    finding.meaning = "each packet costs a way of its own through the kernel";
    finding.cure = Format("ethtool -K %s gro on rx-udp-gro-forwarding on", card.name.c_str());
    return finding;
}

Finding CheckReceiveBuffer(int64_t limit, int64_t granted) {
    Finding finding{.check = "receive-buffer",
                    .measured = "net.core.rmem_max " + Mebibytes(limit) +
                                ", granted to this process " + Mebibytes(granted)};
    // Applications usually have fewer rights than whoever looks for the fault.
    if (limit >= BUFFER_WANTED) return finding;
    finding.verdict = limit >= BUFFER_NEEDED ? Verdict::kWarn : Verdict::kBad;
    finding.meaning = Format(
        "a process without privileges may stand still for %.0f ms at 1 Gbit/s "
        "before packets are lost",
        static_cast<double>(limit) / GIGABIT_BYTES_PER_MS);
    finding.cure =
        Format("sysctl -w net.core.rmem_max=%lld", static_cast<long long>(BUFFER_WANTED));
    return finding;
}

Finding CheckReversePathFilter(const std::string& card, int64_t own, int64_t all) {
    constexpr int64_t STRICT = 1;
    const int64_t effective = std::max(own, all);
    Finding finding{.check = "reverse-path-filter",
                    .subject = card,
                    .measured = effective == STRICT ? "strict"
                                : effective == 0    ? "off"
                                                    : "loose"};
    if (effective != STRICT) return finding;
    finding.verdict = Verdict::kWarn;
    finding.meaning = "answers of cameras on a foreign subnet are dropped without a word";
    finding.cure = Format("sysctl -w net.ipv4.conf.%s.rp_filter=2", card.c_str());
    return finding;
}

Finding CheckRealTime(bool may, int64_t limit) {
    Finding finding{.check = "real-time",
                    .measured = limit < 0
                                    ? "RLIMIT_RTPRIO unlimited"
                                    : Format("RLIMIT_RTPRIO %lld", static_cast<long long>(limit))};
    finding.measured += may ? ", priority granted" : ", priority refused";
    if (may) return finding;
    finding.verdict = Verdict::kWarn;
    finding.meaning = "on a busy machine the heartbeat may come late, and the camera is given up";
    finding.cure = "setcap cap_sys_nice+ep PROGRAM";
    return finding;
}

Findings CheckFirewall(const std::optional<std::vector<FilterChain>>& chains,
                       const std::string& old_tables, const std::string& card) {
    Findings findings;
    for (const FilterChain& chain : chains.value_or(std::vector<FilterChain>())) {
        if (!chain.drops_by_default && chain.dropping_rules == 0) continue;
        const std::string name = chain.family + " " + chain.table + " " + chain.chain;
        findings.push_back(
            {.check = "firewall",
             .subject = name,
             .measured = Format("%s, %d rule%s",
                                chain.drops_by_default ? "drops by default" : "accepts by default",
                                chain.dropping_rules,
                                chain.dropping_rules == 1 ? " that drops" : "s that drop"),
             .verdict = Verdict::kWarn,
             .meaning = "answers (UDP from port 6061) and images may be dropped",
             .cure =
                 "nft insert rule " + name + " iifname \"" + card + "\" meta l4proto udp accept"});
    }
    if (!old_tables.empty()) {
        findings.push_back({.check = "firewall",
                            .subject = "iptables",
                            .measured = "tables of the older filter are loaded",
                            .verdict = Verdict::kUnknown,
                            .meaning = "their rules are not read here",
                            .cure = "iptables-legacy -L INPUT -n -v"});
    }
    if (!findings.empty()) return findings;
    if (!chains) {
        return {{.check = "firewall",
                 .measured = "may not be read",
                 .verdict = Verdict::kUnknown,
                 .meaning = "its rules are for root's eyes",
                 .cure = "sudo kelo doctor"}};
    }
    return {{.check = "firewall", .measured = "nothing that drops"}};
}

Finding CheckAnswers(const SearchReading& search) {
    Finding finding{.check = "discovery",
                    .measured = Format("%zu camera%s answered within %u ms", search.cameras.size(),
                                       search.cameras.size() == 1 ? "" : "s", search.timeout_ms)};
    std::string dropped;
    for (const uint32_t address : search.heard) {
        const bool known =
            std::any_of(search.cameras.begin(), search.cameras.end(),
                        [&](const EXT_CAM_INFO& camera) { return camera.camera_ip == address; });
        if (!known) dropped += (dropped.empty() ? "" : ", ") + AddressText(address);
    }
    if (!dropped.empty()) {
        finding.verdict = Verdict::kBad;
        finding.measured += "; answers that reached the card only: " + dropped;
        const bool by_path = search.reverse_path_drops > 0;
        finding.meaning = by_path ? "the reverse-path filter drops them"
                                  : "this machine drops them: most likely its firewall";
        finding.cure = by_path ? "sysctl -w net.ipv4.conf.all.rp_filter=2"
                               : "nft list ruleset; iptables -L INPUT -n -v";
        return finding;
    }
    if (!search.cameras.empty()) return finding;
    finding.verdict = Verdict::kBad;
    finding.meaning =
        search.listened ? "none reached the card either: power, cable, switch, or a camera on "
                          "another network"
                        : "run as root to find out whether answers reach the card and are dropped";
    finding.cure = search.listened ? "kelo list --timeout 2000" : "sudo kelo doctor";
    return finding;
}

namespace {

void FindCameraClashes(const std::vector<EXT_CAM_INFO>& cameras, Findings& findings) {
    std::map<uint32_t, std::vector<const EXT_CAM_INFO*>> by_address;
    for (const EXT_CAM_INFO& camera : cameras) {
        // A copy: the record is packed, and a map takes keys by reference.
        const uint32_t address = camera.camera_ip;
        by_address[address].push_back(&camera);
    }
    for (const auto& [address, there] : by_address) {
        if (there.size() < 2) continue;
        std::string list;
        for (const EXT_CAM_INFO* camera : there)
            list += (list.empty() ? "" : ", ") + MacText(camera->camera_mac);
        findings.push_back(
            {.check = "addresses",
             .subject = AddressText(address),
             .measured = Format("%zu cameras: ", there.size()) + list,
             .verdict = Verdict::kBad,
             .meaning = "they cannot be told apart: answers and images get mixed up",
             .cure = "kelo set-ip " + HandleText(there.back()->camera_handle) + " ADDRESS MASK"});
    }
}

void FindHostClash(const EXT_CAM_INFO& camera, const std::vector<Interface>& interfaces,
                   Findings& findings) {
    for (const Interface& interface : interfaces) {
        if (interface.address != camera.camera_ip) continue;
        // On the loopback interface simulated cameras live on this machine's addresses.
        if (interface.address >> 24 == 127) continue;
        findings.push_back({.check = "addresses",
                            .subject = AddressText(camera.camera_ip),
                            .measured = "the camera has the address of " + interface.name,
                            .verdict = Verdict::kBad,
                            .meaning = "what is sent to the camera never leaves this machine",
                            .cure = "kelo set-ip " + HandleText(camera.camera_handle) +
                                    " ADDRESS " + AddressText(interface.mask)});
    }
}

void FindSubnetFault(const EXT_CAM_INFO& camera, const std::vector<Interface>& interfaces,
                     Findings& findings) {
    const std::string address = AddressText(camera.camera_ip);
    const std::string mask = AddressText(camera.camera_subnetmask);
    const Interface* reaching = FindReaching(interfaces, camera.camera_ip);
    if (reaching == nullptr) {
        const auto usable =
            std::find_if(interfaces.begin(), interfaces.end(),
                         [](const Interface& interface) { return interface.address >> 24 != 127; });
        const Interface* other = usable == interfaces.end() ? nullptr : &*usable;
        findings.push_back({.check = "addresses",
                            .subject = address,
                            .measured = "mask " + mask + ", on no subnet of this machine",
                            .verdict = Verdict::kBad,
                            .meaning = "the camera is heard, but cannot be opened",
                            .cure = "kelo set-ip " + HandleText(camera.camera_handle) +
                                    " ADDRESS " +
                                    (other != nullptr ? AddressText(other->mask) : "MASK")});
        return;
    }
    if (reaching->mask == camera.camera_subnetmask) return;
    findings.push_back({.check = "addresses",
                        .subject = address,
                        .measured = "mask " + mask + ", that of " + reaching->name + " is " +
                                    AddressText(reaching->mask),
                        .verdict = Verdict::kWarn,
                        .meaning = "one of them may not find its way back to the other",
                        .cure = "kelo set-ip " + HandleText(camera.camera_handle) + " " + address +
                                " " + AddressText(reaching->mask)});
}

void FindTwinInterfaces(const std::vector<Interface>& interfaces, Findings& findings) {
    for (size_t i = 0; i < interfaces.size(); ++i) {
        for (size_t j = i + 1; j < interfaces.size(); ++j) {
            const Interface& one = interfaces[i];
            const Interface& other = interfaces[j];
            if (one.name == other.name || !one.Reaches(other.address)) continue;
            findings.push_back(
                {.check = "addresses",
                 .subject = other.name,
                 .measured = AddressText(other.address) + ", on the subnet of " + one.name,
                 .verdict = Verdict::kWarn,
                 .meaning = "the system sends through one of them whichever the camera is at",
                 .cure = "ip address del " + AddressText(other.address) + "/" +
                         AddressText(other.mask) + " dev " + other.name});
        }
    }
}

}  // namespace

Findings CheckAddresses(const std::vector<EXT_CAM_INFO>& cameras,
                        const std::vector<Interface>& interfaces) {
    Findings findings;
    FindCameraClashes(cameras, findings);
    for (const EXT_CAM_INFO& camera : cameras) {
        FindHostClash(camera, interfaces, findings);
        FindSubnetFault(camera, interfaces, findings);
    }
    FindTwinInterfaces(interfaces, findings);
    if (findings.empty()) {
        findings.push_back(
            {.check = "addresses",
             .measured = Format("%zu camera%s, %zu interface%s, no clash", cameras.size(),
                                cameras.size() == 1 ? "" : "s", interfaces.size(),
                                interfaces.size() == 1 ? "" : "s")});
    }
    return findings;
}

}  // namespace kelotool
