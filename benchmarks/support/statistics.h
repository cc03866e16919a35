#pragma once

#include <string>
#include <vector>

namespace kelo::bench {

// The p-quantile, p from 0 to 1, by nearest rank; 0 for no values.
double Quantile(std::vector<double> values, double p);

struct Spread {
    double lowest;
    double median;
    double highest;
};

Spread SpreadOf(const std::vector<double>& values);

// "median (lowest to highest)" with that many digits behind the point.
std::string Text(const Spread& spread, int digits);

}  // namespace kelo::bench
