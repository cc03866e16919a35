#pragma once

#include "fault_fixture.h"

namespace kelo::test {

// Judges the images of one acquisition of one stream, in the order in which they come: each one is
// either exactly what the camera sent, or marked as damaged; numbers rise; the counters that it
// carries are those that follow from it and the images before.
class AcquisitionJudge {
public:
    explicit AcquisitionJudge(kelosim::StreamConfig stream) : stream_(std::move(stream)) {}

    // Everything that is there now.
    void JudgeAll(CAM_HANDLE handle, uint8_t stream = 0) {
        while (keloGetPendingImageCount(handle, stream) > 0) {
            const Image image = Take(handle, stream, 0);
            if (!image.arrived) return;
            Judge(image);
        }
    }
    void Judge(const Image& image) {
        const bool marked = image.info.bufferStatistics.errorFlag != 0 ||
                            image.info.bufferStatistics.bytesReceived != image.data.size();
        // A receiver that is held up within an image makes two of it: the number comes again.
        if (judged_ > 0 && image.number == last_number_) {
            EXPECT_TRUE(marked);
            cut_in_two_ = true;
        }
        if (judged_ == 0) first_number_ = image.number;
        if (judged_ > 0 && !cut_in_two_) {
            EXPECT_GT(image.number, last_number_);
            skipped_ += image.number - last_number_ - 1;
        }
        last_number_ = image.number;
        ++judged_;
        ++(marked ? damaged_ : whole_);
        if (!marked) {
            EXPECT_EQ(image.data, stream_.Frame(image.number)) << image.number;
        }

        const StreamStatistics& counters = image.info.streamStatistics;
        EXPECT_EQ(counters.imagesReceived, judged_);
        if (!cut_in_two_) {
            EXPECT_EQ(counters.imagesSkipped, skipped_) << image.number;
        }
    }

    uint64_t whole() const { return whole_; }
    uint64_t damaged() const { return damaged_; }
    uint64_t skipped() const { return skipped_; }
    uint32_t first_number() const { return first_number_; }
    uint32_t last_number() const { return last_number_; }
    // Then gaps cannot be counted any more.
    bool cut_in_two() const { return cut_in_two_; }

private:
    const kelosim::StreamConfig stream_;
    uint64_t judged_ = 0;
    uint64_t whole_ = 0;
    uint64_t damaged_ = 0;
    uint64_t skipped_ = 0;
    uint32_t first_number_ = 0;
    uint32_t last_number_ = 0;
    bool cut_in_two_ = false;
};

// Faults of a camera, or of the way to it.
class CameraFaultTest : public FaultTest {
protected:
    static constexpr uint64_t kEnough = 5;

    // An endless stream of the usual pictures.
    static kelosim::CameraConfig Streaming() { return With({ChartStream(0, 200)}); }
    static kelosim::StreamConfig StreamOf(const kelosim::Camera& camera) {
        return camera.config().streams[0];
    }
    // Opens a session that gives the camera up after a short silence. The camera's own watchdog is
    // patient: a machine that stands still is not the fault in question.
    static void OpenWatchful(kelosim::Camera& camera, CAM_HANDLE handle) {
        camera.SetRegister(REG_HEARTBEAT_TIMEOUT, 300);
        Open(handle);
        camera.SetRegister(REG_HEARTBEAT_TIMEOUT, 100000);
    }
    static void Start(CAM_HANDLE handle) {
        EXPECT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
    }
    // Takes images until enough more have come whole.
    static void ExpectWhole(CAM_HANDLE handle, AcquisitionJudge& judge) {
        const uint64_t before = judge.whole();
        EXPECT_TRUE(WaitFor([&] {
            judge.JudgeAll(handle);
            return judge.whole() >= before + kEnough;
        }));
    }
    // The same of an acquisition that has just begun.
    static void ExpectWholeFromTheFirst(const kelosim::Camera& camera, CAM_HANDLE handle) {
        AcquisitionJudge judge(StreamOf(camera));
        ExpectWhole(handle, judge);
        EXPECT_EQ(judge.first_number(), 1u);
    }
    // The library has noticed by itself that the camera is gone.
    void WaitForLoss() {
        EXPECT_TRUE(WaitFor([&] { return log.Contains("KELOCamera::HeartbeatIsMissing()"); }));
    }
};

}  // namespace kelo::test
