#include "acquisition.h"

namespace kelotool {

std::vector<uint8_t> UsedStreams(CAM_HANDLE camera) {
    uint32_t mask = 0;
    Require(keloGetRegisterInt(camera, REG_USED_STREAMS_MASK, &mask),
            "reading REG_USED_STREAMS_MASK");
    std::vector<uint8_t> streams;
    for (uint8_t i = 0; i < STREAMS_MAX; ++i) {
        if ((mask >> i & 1) != 0) streams.push_back(i);
    }
    // A camera that says nothing of streams has one.
    if (streams.empty()) streams.push_back(0);
    return streams;
}

Acquisition::Acquisition(const OpenCamera& camera) : camera_(camera) {
    const KELO_API_STATUS status = keloStartImageAcquisition(camera.Handle());
    if (status == KELO_STATUS_SUCCESS) return;
    // What was set up until then is taken down.
    keloStopImageAcquisition(camera.Handle());
    Require(status, "starting the acquisition");
}

Acquisition::~Acquisition() {
    // One that is lost would only be waited for.
    if (!camera_.Lost()) keloStopImageAcquisition(camera_.Handle());
}

void StreamTotals::Add(const BufferInfo& image, Clock::time_point now) {
    last_ = image.streamStatistics;
    last_time_ = now;
    bytes_ += image.bufferStatistics.bytesReceived;
    if (images_ == 0) {
        first_time_ = now;
        first_bytes_ = image.bufferStatistics.bytesReceived;
    }
    ++images_;
    if (IsIncomplete(image)) ++incomplete_;
}

double StreamTotals::seconds() const {
    return std::chrono::duration<double>(last_time_ - first_time_).count();
}

double StreamTotals::images_per_second() const {
    return images_ < 2 || seconds() <= 0 ? 0 : static_cast<double>(images_ - 1) / seconds();
}

double StreamTotals::bytes_per_second() const {
    const auto bytes = static_cast<double>(bytes_ - first_bytes_);
    return images_ < 2 || seconds() <= 0 ? 0 : bytes / seconds();
}

double StreamTotals::loss() const {
    const auto lost = static_cast<double>(last_.bytesLost);
    const auto received = static_cast<double>(bytes_);
    return lost + received > 0 ? lost / (lost + received) : 0;
}

}  // namespace kelotool
