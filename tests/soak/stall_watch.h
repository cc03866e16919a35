#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace kelo::soak {

// Notices when this process was not given the processor: what goes by time may then have gone
// another way that is just as right.
class StallWatch {
public:
    StallWatch() : thread_([this] { Run(); }) {}
    ~StallWatch() {
        stop_ = true;
        thread_.join();
    }
    StallWatch(const StallWatch&) = delete;
    StallWatch& operator=(const StallWatch&) = delete;

    void Forget() { longest_us_ = 0; }
    int64_t LongestUs() const { return longest_us_; }

private:
    void Run() {
        using std::chrono::steady_clock;
        constexpr std::chrono::milliseconds kNap(10);
        while (!stop_) {
            const auto begin = steady_clock::now();
            std::this_thread::sleep_for(kNap);
            const auto late = steady_clock::now() - begin - kNap;
            const int64_t us = std::chrono::duration_cast<std::chrono::microseconds>(late).count();
            longest_us_ = std::max(longest_us_.load(), us);
        }
    }

    std::atomic<bool> stop_{false};
    std::atomic<int64_t> longest_us_{0};
    std::thread thread_;  // last: it uses the others
};

}  // namespace kelo::soak
