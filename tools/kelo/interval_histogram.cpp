#include "interval_histogram.h"

#include <algorithm>
#include <cmath>

#include "text.h"

namespace kelotool {
namespace {

constexpr int CLASSES_PER_OCTAVE = 64;
constexpr int OCTAVES = 32;
constexpr size_t CLASSES = size_t{CLASSES_PER_OCTAVE} * OCTAVES;

}  // namespace

IntervalHistogram::IntervalHistogram() : classes_(CLASSES) {}

size_t IntervalHistogram::ClassOf(double us) {
    if (us <= 1) return 0;
    const double index = std::floor(std::log2(us) * CLASSES_PER_OCTAVE);
    return std::min(static_cast<size_t>(index), CLASSES - 1);
}

double IntervalHistogram::LowerEdgeUs(size_t index) {
    return index == 0 ? 0 : std::exp2(static_cast<double>(index) / CLASSES_PER_OCTAVE);
}

void IntervalHistogram::Add(std::chrono::nanoseconds interval) {
    const double us = std::max(0.0, static_cast<double>(interval.count()) / 1000);
    ++classes_[ClassOf(us)];
    min_us_ = count_ == 0 ? us : std::min(min_us_, us);
    max_us_ = std::max(max_us_, us);
    sum_us_ += us;
    ++count_;
}

double IntervalHistogram::PercentileUs(double part) const {
    if (count_ == 0) return 0;
    const auto wanted = static_cast<uint64_t>(std::ceil(part * static_cast<double>(count_)));
    uint64_t seen = 0;
    for (size_t i = 0; i < CLASSES; ++i) {
        seen += classes_[i];
        if (seen >= std::max<uint64_t>(wanted, 1)) {
            return std::clamp(LowerEdgeUs(i + 1), min_us_, max_us_);
        }
    }
    return max_us_;
}

std::vector<IntervalHistogram::Row> IntervalHistogram::Rows(size_t rows_max) const {
    std::vector<Row> rows;
    if (count_ == 0 || rows_max == 0) return rows;
    const size_t first = ClassOf(min_us_);
    const size_t end = ClassOf(max_us_) + 1;
    const size_t width = (end - first + rows_max - 1) / rows_max;
    for (size_t begin = first; begin < end; begin += width) {
        Row row{.from_us = LowerEdgeUs(begin), .below_us = LowerEdgeUs(begin + width)};
        for (size_t i = begin; i < std::min(begin + width, end); ++i)
            row.count += classes_[i];
        rows.push_back(row);
    }
    return rows;
}

std::string IntervalHistogram::Text(size_t rows_max, size_t bar_width) const {
    const auto rows = Rows(rows_max);
    uint64_t most = 1;
    for (const Row& row : rows)
        most = std::max(most, row.count);
    std::string text;
    for (const Row& row : rows) {
        // Few among many still show.
        const uint64_t stars = (row.count * bar_width + most - 1) / most;
        std::string line = Format("%11.3f to %11.3f ms %9llu  ", row.from_us / 1000,
                                  row.below_us / 1000, static_cast<unsigned long long>(row.count));
        line.append(stars, '#');
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + '\n';
    }
    return text;
}

}  // namespace kelotool
