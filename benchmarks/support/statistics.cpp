#include "statistics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kelo::bench {

double Quantile(std::vector<double> values, double p) {
    if (values.empty()) return 0;
    const double rank = std::ceil(p * static_cast<double>(values.size()));
    const auto index = std::min(values.size() - 1, static_cast<size_t>(std::max(rank - 1, 0.0)));
    const auto place = values.begin() + static_cast<std::ptrdiff_t>(index);
    std::nth_element(values.begin(), place, values.end());
    return *place;
}

Spread SpreadOf(const std::vector<double>& values) {
    return {Quantile(values, 0), Quantile(values, 0.5), Quantile(values, 1)};
}

std::string Text(const Spread& spread, int digits) {
    char text[96];
    std::snprintf(text, sizeof text, "%.*f (%.*f to %.*f)", digits, spread.median, digits,
                  spread.lowest, digits, spread.highest);
    return text;
}

}  // namespace kelo::bench
