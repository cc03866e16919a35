#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "finding.h"
#include "host_readings.h"
#include "interfaces.h"
#include "kelo_api.h"
#include "packet_filter.h"

namespace kelotool {

// The judgements of `kelo doctor`: what a reading means for cameras. Functions of their arguments
// alone; the readings are made elsewhere.

Finding CheckMtu(const Card& card);
// The speed of the link, if the driver tells.
std::optional<Finding> CheckLink(const Card& card);
std::optional<Finding> CheckRing(const Card& card);
std::optional<Finding> CheckMerging(const Card& card);

// `limit` is net.core.rmem_max, `granted` what this process gets.
Finding CheckReceiveBuffer(int64_t limit, int64_t granted);
// The settings of the card and of all cards; the higher one counts.
Finding CheckReversePathFilter(const std::string& card, int64_t own, int64_t all);
Finding CheckRealTime(bool may, int64_t limit);
// `chains` is empty when they could not be read; `old_tables` when the older filter has none.
Findings CheckFirewall(const std::optional<std::vector<FilterChain>>& chains,
                       const std::string& old_tables, const std::string& card);

// What a search for cameras showed.
struct SearchReading {
    std::vector<EXT_CAM_INFO> cameras;
    bool listened = false;            // whether `heard` could be found out
    std::set<uint32_t> heard;         // addresses whose answers came to the card
    uint64_t reverse_path_drops = 0;  // packets that the reverse-path filter dropped meanwhile
    uint32_t timeout_ms = 0;
};
Finding CheckAnswers(const SearchReading& search);
// Clashes and foreign subnets.
Findings CheckAddresses(const std::vector<EXT_CAM_INFO>& cameras,
                        const std::vector<Interface>& interfaces);

}  // namespace kelotool
