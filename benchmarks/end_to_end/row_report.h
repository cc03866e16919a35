#pragma once

#include <string>
#include <vector>

#include "columns.h"

namespace kelo::bench {

// What a row came to. Rounds that were disturbed are left out, unless all were.
struct RowOutcome {
    std::vector<Round> rounds;
    std::vector<std::string> notes;
};

void PrintRow(const Row& row, const RowOutcome& outcome);
std::string RowJson(const Row& row, const RowOutcome& outcome);
// Of a row that could not be run.
std::string SkippedRowJson(const Row& row, const std::string& why);

}  // namespace kelo::bench
