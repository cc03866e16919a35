#include "loss_cause.h"

#include <algorithm>

#include "text.h"

namespace kelotool {
namespace {

// Where the kernel merges packets, what it drops at once may have been so many.
constexpr uint64_t PACKETS_PER_MERGED = 64;

struct Suspect {
    LossCause cause;
    uint64_t packets_max;  // how many lost packets it may explain
};

void AddHost(const LossCounters& counted, std::vector<Suspect>& suspects) {
    const auto add = [&](const char* place, uint64_t events, uint64_t merged, const char* meaning,
                         const char* cure) {
        if (events != 0) suspects.push_back({{place, events, meaning, cure}, events * merged});
    };
    add("socket", counted.socket_drops, PACKETS_PER_MERGED,
        "the receive buffer was full: the process did not get the processor in time",
        "sysctl -w net.core.rmem_max=33554432");
    add("backlog", counted.backlog_drops, PACKETS_PER_MERGED,
        "a processor's queue of packets was full", "sysctl -w net.core.netdev_max_backlog=10000");
    add("checksum", counted.udp_checksum_errors, 1,
        "packets came with wrong checksums: a faulty switch or card", "");
    add("fragments", counted.fragments_lost, 1,
        "packets came in fragments, and some fragments did not come: the packets are larger than a "
        "link on the way carries",
        "");
}

void AddCard(const CardCounters& counted, const Card& card, std::vector<Suspect>& suspects) {
    const uint64_t overruns = uint64_t{counted.missed} + counted.fifo;
    if (overruns != 0) {
        const uint32_t ring = card.ring_max.value_or(4096);
        suspects.push_back(
            {{"ring", overruns, "the card's ring was full: the processor did not empty it in time",
              Format("ethtool -G %s rx %u", card.name.c_str(), ring)},
             overruns});
    }
    if (counted.errors != 0) {
        suspects.push_back({{"cable", counted.errors,
                             "packets came damaged: cable, plug or a neighbouring source of noise",
                             Format("ethtool -S %s", card.name.c_str())},
                            counted.errors});
    }
    if (counted.dropped != 0) {
        suspects.push_back({{"card", counted.dropped, "the card or its driver dropped packets",
                             Format("ethtool -S %s", card.name.c_str())},
                            counted.dropped});
    }
}

}  // namespace

LossCounters ReadLossCounters(const std::string& card) {
    const std::string snmp = ReadText("/proc/net/snmp");
    LossCounters counters{.socket_drops = OwnSocketDrops(),
                          .udp_buffer_errors = ProtocolCounter(snmp, "Udp", "RcvbufErrors"),
                          .udp_checksum_errors = ProtocolCounter(snmp, "Udp", "InCsumErrors"),
                          .fragments_lost = ProtocolCounter(snmp, "Ip", "ReasmFails"),
                          .backlog_drops = BacklogDrops(ReadText("/proc/net/softnet_stat"))};
    if (const auto read = ReadCard(card)) counters.card = read->counters;
    return counters;
}

LossCounters Between(const LossCounters& before, const LossCounters& after) {
    const CardCounters& from = before.card;
    const CardCounters& to = after.card;
    // Sockets of other threads may have been closed in between.
    const auto grown = [](uint64_t b, uint64_t a) { return a > b ? a - b : 0; };
    return {.socket_drops = grown(before.socket_drops, after.socket_drops),
            .udp_buffer_errors = grown(before.udp_buffer_errors, after.udp_buffer_errors),
            .udp_checksum_errors = grown(before.udp_checksum_errors, after.udp_checksum_errors),
            .fragments_lost = grown(before.fragments_lost, after.fragments_lost),
            .backlog_drops = grown(before.backlog_drops, after.backlog_drops),
            // These wrap.
            .card = {.packets = to.packets - from.packets,
                     .errors = to.errors - from.errors,
                     .dropped = to.dropped - from.dropped,
                     .missed = to.missed - from.missed,
                     .fifo = to.fifo - from.fifo}};
}

std::vector<LossCause> FindLossCauses(const LossCounters& counted, uint64_t packets_lost,
                                      const Card& card) {
    if (packets_lost == 0) return {};
    std::vector<Suspect> suspects;
    AddHost(counted, suspects);
    AddCard(counted.card, card, suspects);
    uint64_t explained = 0;
    for (const Suspect& suspect : suspects)
        explained += suspect.packets_max;
    if (explained < packets_lost) {
        const uint64_t rest = packets_lost - explained;
        suspects.push_back(
            {{"network", rest,
              "lost before they reached this machine: the camera, a cable or a switch. A switch "
              "without flow control drops when the camera sends faster than the next link carries",
              card.loopback ? "" : Format("ethtool -A %s rx on", card.name.c_str())},
             rest});
    }
    std::stable_sort(suspects.begin(), suspects.end(), [](const Suspect& a, const Suspect& b) {
        return a.packets_max > b.packets_max;
    });
    std::vector<LossCause> causes;
    for (const Suspect& suspect : suspects)
        causes.push_back(suspect.cause);
    return causes;
}

}  // namespace kelotool
