#include "spread_json.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "statistics.h"

namespace kelo::bench {

void WriteSpread(JsonWriter& json, std::string_view key, const std::vector<double>& rounds) {
    std::vector<double> values;
    std::copy_if(rounds.begin(), rounds.end(), std::back_inserter(values),
                 [](double value) { return std::isfinite(value); });
    if (values.empty()) return;
    const Spread spread = SpreadOf(values);
    json.BeginObject(key)
        .Number("median", spread.median)
        .Number("lowest", spread.lowest)
        .Number("highest", spread.highest)
        .BeginArray("rounds");
    for (const double value : rounds)
        json.Number({}, value);
    json.EndArray().EndObject();
}

}  // namespace kelo::bench
