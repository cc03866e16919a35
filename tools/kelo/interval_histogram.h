#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace kelotool {

// How long it took from one image to the next, from 1 us to more than an hour, in classes that are
// each 1.1 % wide: memory does not grow with the number of images.
class IntervalHistogram {
public:
    // Neighbouring classes together; `from` and `below` in microseconds.
    struct Row {
        double from_us = 0;
        double below_us = 0;
        uint64_t count = 0;
    };

    IntervalHistogram();

    void Add(std::chrono::nanoseconds interval);
    uint64_t count() const { return count_; }
    // Exact; 0 when there is none.
    double min_us() const { return count_ == 0 ? 0 : min_us_; }
    double max_us() const { return max_us_; }
    double mean_us() const { return count_ == 0 ? 0 : sum_us_ / static_cast<double>(count_); }
    // The interval that so large a part (0 to 1) of all does not exceed, to 1.1 %.
    double PercentileUs(double part) const;

    // From the shortest to the longest, with the empty rows between them; at most rows_max.
    std::vector<Row> Rows(size_t rows_max) const;
    // The rows with bars, times in milliseconds.
    std::string Text(size_t rows_max, size_t bar_width) const;

private:
    static size_t ClassOf(double us);
    static double LowerEdgeUs(size_t index);

    std::vector<uint64_t> classes_;
    uint64_t count_ = 0;
    double min_us_ = 0;
    double max_us_ = 0;
    double sum_us_ = 0;
};

}  // namespace kelotool
