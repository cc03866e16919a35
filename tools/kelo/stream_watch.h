#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

#include "acquisition.h"
#include "interval_histogram.h"

namespace kelotool {

// Takes every image of one stream as soon as it is there, on a thread of its own, and counts. The
// camera outlives it. Any thread may ask.
class StreamWatch {
public:
    struct Reading {
        StreamTotals totals;
        IntervalHistogram intervals;  // from one image to the next
        int pending = 0;              // finished images that waited when the last one was taken
        int pending_max = 0;
    };

    StreamWatch(const OpenCamera& camera, uint8_t stream);
    ~StreamWatch();
    StreamWatch(const StreamWatch&) = delete;
    StreamWatch& operator=(const StreamWatch&) = delete;

    uint8_t stream() const { return stream_; }
    Reading Now() const;

private:
    void Run();
    void Count(const BufferInfo& image, int pending);

    const OpenCamera& camera_;
    const uint8_t stream_;
    std::atomic<bool> stop_{false};

    mutable std::mutex mutex_;
    Reading reading_;  // guarded by mutex_

    std::thread thread_;
};

}  // namespace kelotool
