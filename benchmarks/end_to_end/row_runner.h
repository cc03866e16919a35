#pragma once

#include <string>

#include "rows.h"
#include "stage.h"

namespace kelo::bench {

struct RunOptions {
    int rounds = 7;
    double seconds = 1;
    double hold_seconds = 10;
    Cores cores;
};

// Runs one row in this process, which must have no threads and must not run another afterwards;
// prints its table and returns its JSON. Throws std::exception when it cannot be run.
std::string RunRow(const Row& row, const RunOptions& options);

}  // namespace kelo::bench
