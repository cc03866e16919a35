#pragma once

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "in_time.h"
#include "kelo.hpp"
#include "kelosim/simulator.h"
#include "log_capture.h"
#include "wait_for.h"

namespace kelo::test {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Longer than any machine stands still.
constexpr seconds kPatience(20);

// Simulated cameras at 127.0.0.11 and on, and the library, which goes first: it says goodbye to
// cameras that still answer.
class CppTest : public testing::Test {
protected:
    static constexpr milliseconds kListen{150};

    // Watchdogs do not bite where a test is not about them.
    static kelosim::CameraConfig Config() { return Config(Chart(20)); }
    static kelosim::CameraConfig Config(kelosim::StreamConfig stream) {
        kelosim::CameraConfig config;
        config.heartbeat_timeout_ms = 100000;
        config.streams = {std::move(stream)};
        return config;
    }
    static kelosim::StreamConfig Chart(double rate, uint32_t images = 0) {
        kelosim::StreamConfig stream;
        stream.source = kelosim::MakeTestChart8(64, 48);
        stream.frame_rate = rate;
        stream.image_count = images;
        return stream;
    }
    kelosim::Camera& StartOne(const kelosim::CameraConfig& config = Config()) {
        kelosim::Camera& camera = simulator.Add(config);
        simulator.Start();
        return camera;
    }
    // Discovers until the camera is there.
    CameraInfo Find(const kelosim::Camera& camera) const {
        std::optional<CameraInfo> found;
        EXPECT_TRUE(WaitFor([&] {
            for (const CameraInfo& info : library.discover(kListen)) {
                if (info.address.value == camera.address()) found = info;
            }
            return found.has_value();
        }));
        return found.value_or(CameraInfo{});
    }
    Camera Open(const kelosim::Camera& camera,
                std::function<void(CAM_HANDLE)> on_close = {}) const {
        return library.open(Find(camera), std::move(on_close));
    }
    // Makes the library lose an open camera, which answers: by a discovery that it does not hear.
    void Lose(kelosim::Camera& camera, CAM_HANDLE handle) const {
        camera.UpdateFaults([](kelosim::Faults& faults) { faults.ignore_discovery = true; });
        EXPECT_TRUE(WaitFor([&] {
            library.discover(milliseconds(20));
            return !library.try_info(handle);
        }));
        camera.UpdateFaults([](kelosim::Faults& faults) { faults.ignore_discovery = false; });
    }
    static MacAddress MacOf(const kelosim::Camera& camera) {
        MacAddress mac;
        mac.bytes = camera.config().mac;
        return mac;
    }

    LogCapture log;
    kelosim::Simulator simulator;
    Library library;
};

inline std::vector<uint8_t> Copy(Bytes bytes) {
    return {bytes.begin(), bytes.end()};
}

}  // namespace kelo::test
