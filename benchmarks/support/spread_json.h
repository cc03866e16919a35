#pragma once

#include <string_view>
#include <vector>

#include "json_writer.h"

namespace kelo::bench {

// {"median", "lowest", "highest", "rounds": [one value per round]}, or nothing when no round has a
// value. A round without one is null.
void WriteSpread(JsonWriter& json, std::string_view key, const std::vector<double>& rounds);

}  // namespace kelo::bench
