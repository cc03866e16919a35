#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "kelo_api.h"
#include "kelosim/camera.h"
#include "picture.h"

namespace demo {

// Takes a camera's images, one thread per camera, and compares each byte for byte with what the
// camera sent under that number: the simulated cameras' pictures follow from the number alone.
class Grabber {
public:
    // Both must outlive this object.
    Grabber(CAM_HANDLE camera, const kelosim::CameraConfig& sent);

    // Starts the camera, grabs every image that it is to send, or gives up when none comes any
    // more. Throws nothing: what went wrong is in Failure.
    void Run() noexcept;

    // How far it is; from any thread.
    struct Progress {
        uint32_t images = 0;       // taken, good or bad
        uint32_t images_lost = 0;  // numbers that never came, and images with packets missing
        double images_per_second = 0;
        double megabytes_per_second = 0;
    };
    Progress Now() const;

    // After Run. What went wrong first; empty if every image came and was as sent.
    const std::string& Failure() const { return failure_; }
    struct Sample {
        uint32_t number;
        Picture picture;
    };
    // After Run. The images of SampleNumbers, made visible; without those that did not come.
    const std::vector<Sample>& Samples() const { return samples_; }
    static const std::vector<uint32_t>& SampleNumbers();

private:
    void GrabAll();
    void Take(BufferInfo& image);
    // Whether the image is what the camera sent.
    bool Compare(BufferInfo& image);
    bool DecodesRight(uint32_t number);
    void KeepSample(BufferInfo& image);
    void Fail(const std::string& what);
    void Report(const BufferInfo& image);

    const CAM_HANDLE camera_;
    const kelosim::StreamConfig& sent_;
    const std::string name_;

    // Of the thread that runs.
    uint32_t next_number_;
    uint32_t lost_ = 0;
    uint64_t bytes_ = 0;
    double first_time_ = 0;
    std::vector<uint8_t> decoded_;
    std::string failure_;
    std::vector<Sample> samples_;

    mutable std::mutex mutex_;
    Progress progress_;  // guarded by mutex_
};

}  // namespace demo
