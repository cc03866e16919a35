#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host_readings.h"

namespace kelotool {

// The places of this machine where packets may get lost, counted.
struct LossCounters {
    uint64_t socket_drops = 0;       // of this process
    uint64_t udp_buffer_errors = 0;  // of all processes
    uint64_t udp_checksum_errors = 0;
    uint64_t fragments_lost = 0;
    uint64_t backlog_drops = 0;
    CardCounters card;
};

// Reads them all. The sockets of the library have to be open at both readings.
LossCounters ReadLossCounters(const std::string& card);
// What was counted in between.
LossCounters Between(const LossCounters& before, const LossCounters& after);

struct LossCause {
    std::string place;  // "socket", "backlog", "ring", "cable", "card", "checksum", "fragments",
                        // "network"
    uint64_t events = 0;
    std::string meaning;
    std::string cure;
};

// What the lost packets of a stream come from, likeliest first; empty when none was lost.
std::vector<LossCause> FindLossCauses(const LossCounters& counted, uint64_t packets_lost,
                                      const Card& card);

}  // namespace kelotool
