#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

    SystemTest() {
        CloseEvents::Reset();
        EXPECT_EQ(keloInit(), KELO_STATUS_SUCCESS);
    }
    // The library goes first: it says goodbye to cameras that still answer.
    ~SystemTest() override {
        keloRelease();
        simulator.Stop();
    }

    kelosim::Camera& AddCamera(const kelosim::CameraConfig& config = {}) {
        return simulator.Add(config);
    }
    kelosim::Camera& StartOne(const kelosim::CameraConfig& config = {}) {
        kelosim::Camera& camera = AddCamera(config);
        simulator.Start();
        return camera;
    }
    static std::vector<CAM_HANDLE> Discover(uint32_t max_count = 1024) {
        std::vector<CAM_HANDLE> handles(max_count);
        const int count = keloDiscover(handles.data(), max_count, kListenMs);
        handles.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return handles;
    }
    // The handle of the camera at an address, discovered until it is there; 0 if it is not.
    static CAM_HANDLE Find(uint32_t address) {
        CAM_HANDLE found = 0;
        WaitFor([&] {
            for (const CAM_HANDLE handle : Discover()) {
                EXT_CAM_INFO info{};
                if (keloGetCameraInfo(handle, &info) == KELO_STATUS_SUCCESS &&
                    info.camera_ip == address) {
                    found = handle;
                }
            }
            return found != 0;
        });
        return found;
    }
    static CAM_HANDLE Find(const kelosim::Camera& camera) { return Find(camera.address()); }
    static CAM_HANDLE Open(const kelosim::Camera& camera) {
        const CAM_HANDLE handle = Find(camera);
        EXPECT_EQ(keloOpenCamera(handle, &CloseEvents::OnClosed), KELO_STATUS_SUCCESS);
        return handle;
    }
    static CAM_HANDLE OpenAndStart(const kelosim::Camera& camera) {
        const CAM_HANDLE handle = Open(camera);
        EXPECT_EQ(keloStartImageAcquisition(handle), KELO_STATUS_SUCCESS);
        return handle;
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
    return {data, data + keloGetImageSize(image)};
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
