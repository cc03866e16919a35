#pragma once

#include <string>
#include <vector>

#include "rows.h"
#include "stage.h"

namespace kelo::bench {

// One round: each variant once.
struct Round {
    std::vector<Run> runs;  // by variant
    double probe_before_ns = 0;
    double probe_after_ns = 0;
    // Why it does not count; empty: it does.
    std::string dropped;
};

// What is told of a run. The value is not a number where it has none.
struct Column {
    const char* key;    // in JSON
    const char* title;  // in the table
    int digits;
    bool ratio;  // the ratio of two variants means something
    double (*value)(const Row& row, const Round& round, size_t variant);
};

const std::vector<Column>& Columns();

}  // namespace kelo::bench
