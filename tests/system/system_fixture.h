#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "in_time.h"
#include "kelo_api.h"
#include "kelosim/simulator.h"
#include "log_capture.h"
#include "network_namespace.h"
#include "wait_for.h"

namespace kelo::test {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// What the last close callback said, and how many there were.
struct CloseEvents {
    static std::atomic<int> count;
    static std::atomic<CAM_HANDLE> last;
    static KELO_API_STATUS OnClosed(CAM_HANDLE handle) {
        last = handle;
        ++count;
        return KELO_STATUS_SUCCESS;
    }
    static void Reset() {
        count = 0;
        last = 0;
    }
};
inline std::atomic<int> CloseEvents::count{0};
inline std::atomic<CAM_HANDLE> CloseEvents::last{0};

inline std::string Dotted(uint32_t ip) {
    return kelosim::Ipv4Text(ip);
}

// The library, initialised, and simulated cameras at 127.0.0.11 and on.
class SystemTest : public testing::Test {
protected:
    static constexpr uint32_t kListenMs = 150;
    // For longer than any machine stands still.
    static constexpr uint32_t kListenLongMs = 4000;

    SystemTest() {
        CloseEvents::Reset();
        EXPECT_EQ(keloInit(), KELO_STATUS_SUCCESS);
    }
    // The library goes first: it says goodbye to cameras that still answer.
    ~SystemTest() override {
        keloRelease();
        simulator.Stop();
    }

    // The time-outs of the watchdogs on both sides, where a test is not about them: no machine
    // stands still for so long.
    static kelosim::CameraConfig Patient(kelosim::CameraConfig config = {}) {
        if (config.heartbeat_timeout_ms == kelosim::CameraConfig{}.heartbeat_timeout_ms) {
            config.heartbeat_timeout_ms = 100000;
        }
        return config;
    }
    kelosim::Camera& AddCamera(const kelosim::CameraConfig& config = {}) {
        return simulator.Add(Patient(config));
    }
    void AddCameras(int count, const kelosim::CameraConfig& base = {}) {
        simulator.AddMany(count, Patient(base));
    }
    kelosim::Camera& StartOne(const kelosim::CameraConfig& config = {}) {
        kelosim::Camera& camera = AddCamera(config);
        simulator.Start();
        return camera;
    }
    static std::vector<CAM_HANDLE> Discover(uint32_t max_count = 1024,
                                            uint32_t listen_ms = kListenMs) {
        std::vector<CAM_HANDLE> handles(max_count);
        const int count = keloDiscover(handles.data(), max_count, listen_ms);
        handles.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return handles;
    }
    // For what goes by the answers that come within a discovery's time. Judges by a short time
    // first; when that does not hold, by one that an answer cannot miss: holds(listen_ms).
    template <typename Holds>
    static bool HoldsForADiscovery(const Holds& holds) {
        return holds(kListenMs) || holds(kListenLongMs);
    }
    // The handles of all cameras, as many as there are.
    static std::vector<CAM_HANDLE> DiscoverAll(size_t count) {
        std::vector<CAM_HANDLE> handles;
        EXPECT_TRUE(HoldsForADiscovery([&](uint32_t listen_ms) {
            handles = Discover(1024, listen_ms);
            return handles.size() == count;
        })) << handles.size()
            << " cameras";
        return handles;
    }
    // The handle of the camera at an address, among those that are known; 0 if it is not.
    static CAM_HANDLE Among(const std::vector<CAM_HANDLE>& handles, uint32_t address) {
        for (const CAM_HANDLE handle : handles) {
            EXT_CAM_INFO info{};
            if (keloGetCameraInfo(handle, &info) == KELO_STATUS_SUCCESS &&
                info.camera_ip == address) {
                return handle;
            }
        }
        return 0;
    }
    // The handle of the only camera, discovered until it is there; 0 if it is not.
    static CAM_HANDLE Find(uint32_t address) {
        CAM_HANDLE found = 0;
        WaitFor([&] {
            found = Among(Discover(), address);
            return found != 0;
        });
        return found;
    }
    static CAM_HANDLE Find(const kelosim::Camera& camera) { return Find(camera.address()); }
    static void Open(CAM_HANDLE handle) {
        EXPECT_EQ(keloOpenCamera(handle, &CloseEvents::OnClosed), KELO_STATUS_SUCCESS);
    }
    static CAM_HANDLE Open(const kelosim::Camera& camera) {
        const CAM_HANDLE handle = Find(camera);
        Open(handle);
        return handle;
    }
    static void OpenAndStart(CAM_HANDLE handle) {
        Open(handle);
        EXPECT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
    }
    static CAM_HANDLE OpenAndStart(const kelosim::Camera& camera) {
        const CAM_HANDLE handle = Find(camera);
        OpenAndStart(handle);
        return handle;
    }
    // How often the camera was told to start since its requests were cleared. A start whose answer
    // comes too late is sent again, and starts anew a camera whose few images have all been sent.
    static int CountStarts(const kelosim::Camera& camera) {
        int count = 0;
        for (const auto& request : camera.Requests())
            count += request.register_number == REG_ACQUISITIONSTART ? 1 : 0;
        return count;
    }
    // Whether an image was cut short since the log was this long: when the camera or the receive
    // thread is held up within an image, the timer rightly completes what there is of it, and what
    // comes later counts for an image of its own.
    bool AnImageWasCutShort(size_t since = 0) const {
        return log.Text().find("completed (forcefully by timer", since) != std::string::npos;
    }
    static uint32_t Get(CAM_HANDLE handle, uint32_t reg) {
        uint32_t value = 0;
        EXPECT_EQ(keloGetRegisterInt(handle, reg, &value), KELO_STATUS_SUCCESS);
        return value;
    }
    static KELO_API_STATUS Set(CAM_HANDLE handle, uint32_t reg, uint32_t value) {
        return keloSetRegisterInt(handle, reg, &value);
    }

    // end(handle) makes a wait for an image, which would take 100 s, return null.
    template <typename End>
    static void ExpectToEndAWaitForAnImage(CAM_HANDLE handle, End end) {
        const auto begin = steady_clock::now();
        std::thread waiter([=] { EXPECT_EQ(keloGetNextImageTimeout(handle, 0, 100000), nullptr); });
        EXPECT_EQ(end(handle), KELO_STATUS_SUCCESS);
        waiter.join();
        EXPECT_LT(steady_clock::now() - begin, seconds(20));
    }

    LogCapture log;
    kelosim::Simulator simulator;
};

// A stream of so many images of a moving test chart.
inline kelosim::StreamConfig ChartStream(uint32_t images, double rate) {
    kelosim::StreamConfig stream;
    stream.source = kelosim::MakeTestChart8(320, 200);
    stream.frame_rate = rate;
    stream.image_count = images;
    return stream;
}

inline kelosim::CameraConfig With(std::vector<kelosim::StreamConfig> streams) {
    kelosim::CameraConfig config;
    config.streams = std::move(streams);
    return config;
}

// The bytes of an image, as the application sees them.
inline std::vector<uint8_t> DataOf(IMAGE_BUFFER_HANDLE image) {
    const unsigned char* data = keloGetImageData(image);
    // What came twice counts twice, so the size may be larger than the memory.
    const auto size = static_cast<uint32_t>(keloGetImageSize(image));
    return {data, data + std::min(size, static_cast<const BufferInfo*>(image)->bufferLength)};
}

// Takes the next image of a stream off the queue; empty data when none came.
struct Image {
    bool arrived = false;
    uint32_t number = 0;
    int bytes_lost = 0;
    std::vector<uint8_t> data;
    BufferInfo info{};
};

inline Image Take(CAM_HANDLE handle, uint8_t stream = 0, int timeout_ms = 20000) {
    IMAGE_BUFFER_HANDLE image = keloGetNextImageTimeout(handle, stream, timeout_ms);
    if (image == nullptr) return {};
    Image taken{.arrived = true,
                .number = keloGetImageNumber(image),
                .bytes_lost = keloGetImageBytesLost(image),
                .data = DataOf(image),
                .info = *static_cast<const BufferInfo*>(image)};
    keloPopImage(handle, stream, image);
    return taken;
}

}  // namespace kelo::test
