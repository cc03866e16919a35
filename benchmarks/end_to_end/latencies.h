#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "../support/statistics.h"

namespace kelo::bench {

// Times from the end of an image being sent to the image being delivered. All room is made and
// touched at once, so that counting faults no page in; what comes when it is full is left out.
class Latencies {
public:
    Latencies() : values_us_(CAPACITY) {}

    void Clear() { count_ = 0; }
    void Add(int64_t sent_ns, int64_t delivered_ns) {
        const std::lock_guard lock(mutex_);
        if (count_ == CAPACITY) return;
        values_us_[count_++] = static_cast<double>(delivered_ns - sent_ns) / 1e3;
    }
    bool Empty() const { return count_ == 0; }
    double QuantileUs(double p) const {
        return Quantile(
            {values_us_.begin(), values_us_.begin() + static_cast<std::ptrdiff_t>(count_)}, p);
    }

private:
    static constexpr size_t CAPACITY = 1 << 17;

    std::mutex mutex_;
    std::vector<double> values_us_;
    size_t count_ = 0;
};

}  // namespace kelo::bench
