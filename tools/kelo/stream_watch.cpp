#include "stream_watch.h"

#include <algorithm>

#include <pthread.h>

namespace kelotool {

StreamWatch::StreamWatch(const OpenCamera& camera, uint8_t stream)
    : camera_(camera), stream_(stream), thread_([this] { Run(); }) {
    pthread_setname_np(thread_.native_handle(), "kelo-watch");
}

StreamWatch::~StreamWatch() {
    stop_ = true;
    thread_.join();
}

StreamWatch::Reading StreamWatch::Now() const {
    const std::lock_guard lock(mutex_);
    return reading_;
}

void StreamWatch::Run() {
    while (!stop_ && !camera_.Lost()) {
        constexpr int LOOK_AROUND_MS = 100;
        const TakenImage image(camera_.Handle(), stream_, LOOK_AROUND_MS);
        // This one does not wait any more.
        if (image) {
            Count(image.Info(), keloGetPendingImageCount(camera_.Handle(), stream_) - 1);
        } else if (keloGetPendingImageCount(camera_.Handle(), stream_) < 0) {
            // A closed camera is not waited for: do not spin until its loss is reported.
            std::this_thread::sleep_for(std::chrono::milliseconds(LOOK_AROUND_MS));
        }
    }
}

void StreamWatch::Count(const BufferInfo& image, int pending) {
    const auto now = StreamTotals::Clock::now();
    const std::lock_guard lock(mutex_);
    if (reading_.totals.images() > 0) reading_.intervals.Add(now - reading_.totals.last_time());
    reading_.totals.Add(image, now);
    reading_.pending = std::max(pending, 0);
    reading_.pending_max = std::max(reading_.pending_max, reading_.pending);
}

}  // namespace kelotool
