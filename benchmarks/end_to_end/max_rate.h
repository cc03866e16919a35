#pragma once

#include <string>

#include "row_runner.h"

namespace kelo::bench {

// Looks for the highest rate at which each variant loses no packet for so long, by bisection from
// full blast down, the variants taking turns at each step. Prints and returns JSON as RunRow does.
std::string RunMaxRate(const Row& row, const RunOptions& options);

}  // namespace kelo::bench
