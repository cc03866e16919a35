#pragma once

#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "camera_process.h"
#include "kelo_api.h"
#include "sampler.h"
#include "stall_watch.h"

namespace kelo::soak {

// The library, or a camera, did what it must not do.
struct Wrong : std::runtime_error {
    using runtime_error::runtime_error;
};
// What happened is right when the machine stood still for a while, and it did: the step tells
// nothing and is made again.
struct Disturbed : std::runtime_error {
    using runtime_error::runtime_error;
};

// Throws Wrong with the text.
inline void Check(bool holds, const std::string& text) {
    if (!holds) throw Wrong(text);
}

// What the steps share: the cameras, the seeded chance, the samples, and the evidence that tells a
// fault from a machine that stood still. Used by the thread that makes the steps, Sample() apart.
class Soak {
public:
    Soak(CameraProcess& cameras, Sampler& sampler, uint64_t seed, const std::string& folder);
    ~Soak();
    Soak(const Soak&) = delete;
    Soak& operator=(const Soak&) = delete;

    // A number from 0 to below - 1.
    uint32_t Chance(uint32_t below) { return static_cast<uint32_t>(random_() % below); }
    uint64_t Seed() { return random_(); }

    // Before each attempt of a step: evidence and the library's log begin anew.
    void BeginStep();
    std::string Log() const;

    // For what only a machine that stood still excuses. Throws Disturbed when there is evidence
    // that one did, else Wrong.
    [[noreturn]] void InTimeOrWrong(const std::string& text, int64_t stall_us_min = 50000);
    void ExpectInTime(bool holds, const std::string& text, int64_t stall_us_min = 50000) {
        if (!holds) InTimeOrWrong(text, stall_us_min);
    }
    // A request's status: an answer that did not come may be the machine's doing.
    void Expect(KELO_API_STATUS status, KELO_API_STATUS expected, const std::string& what);
    void Succeeds(KELO_API_STATUS status, const std::string& what) {
        Expect(status, KELO_STATUS_SUCCESS, what);
    }

    Answer Do(const Order& order);
    Answer Status(uint32_t camera) { return Do({.camera = camera}); }
    Sampler& Samples() { return sampler_; }
    const std::vector<kelosim::CameraConfig>& Configs() const { return configs_; }
    uint32_t CameraCount() const { return static_cast<uint32_t>(configs_.size()); }

    // The handle of the camera at an address: discovers until it is there.
    CAM_HANDLE Find(uint32_t address);
    CAM_HANDLE Find(const kelosim::CameraConfig& camera) { return Find(camera.address); }
    void Open(CAM_HANDLE handle);
    void Close(CAM_HANDLE handle) { Check(keloCloseCamera(handle) == 0, "closing fails"); }
    uint32_t Read(CAM_HANDLE handle, uint32_t number);
    std::string FirmwareFile() const { return folder_ + "/firmware.bin"; }

    // After an attempt that failed: library and cameras as at the beginning.
    void StartAfresh();

    static std::atomic<int> close_callbacks;
    static std::atomic<CAM_HANDLE> closed;

private:
    uint64_t ReceiveBufferErrors() const;
    // What speaks for a machine that stood still during the step; empty when nothing does.
    std::string Evidence(int64_t stall_us_min) const;

    CameraProcess& cameras_;
    Sampler& sampler_;
    std::mt19937_64 random_;
    const std::string folder_;
    const std::vector<kelosim::CameraConfig> configs_ = MakeCameras();
    int log_ = -1;
    uint64_t buffer_errors_before_ = 0;
    int64_t camera_stall_us_ = 0;
    StallWatch watch_;
};

// Polls until the condition holds; whether it did within a generous time.
template <typename Condition>
bool WaitFor(const Condition& condition, std::chrono::seconds limit = std::chrono::seconds(40)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

struct Step {
    const char* name;
    void (*make)(Soak&);
    uint32_t weight;
};
// The steps, by file.
std::vector<Step> ControlSteps();
std::vector<Step> ImageSteps();
std::vector<Step> TroubleSteps();

}  // namespace kelo::soak
