#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "child_process.h"
#include "kelosim/camera.h"

namespace kelo::soak {

// The cameras of the run, as they are made in their process and expected in ours.
std::vector<kelosim::CameraConfig> MakeCameras();
inline constexpr uint32_t kWatchdogOffMs = 100000;  // for longer than any machine stands still
inline constexpr uint32_t kFirmwareSize = kelosim::kMinFirmwareSize + 1000;
inline constexpr uint64_t kFirmwareSeed = 11;

// What the cameras' process is to do with one of them.
struct Order {
    enum class Kind : uint32_t {
        kStatus,    // nothing
        kPrepare,   // these images and faults at the next start; counters and requests forgotten
        kSilence,   // hear and say nothing from now on, or (value 0) no longer
        kWatchdog,  // the heartbeat register is value
        kReboot,
        kHome,     // back to the configured address
        kFlash,    // compare the flash with the firmware file
        kHostile,  // value datagrams of strangers, to the two ports
    };
    Kind kind = Kind::kStatus;
    uint32_t camera = 0;
    uint32_t value = 0;
    uint64_t seed = 1;
    uint32_t images = 0;
    double rate = 0;
    double drop = 0;
    double duplicate = 0;
    double delay = 0;
    double reorder = 0;
    uint32_t lost_replies = 0;     // the next so many
    uint32_t tcp_close_image = 0;  // 0: none
    uint64_t tcp_close_after = 0;
    uint16_t ports[2] = {};
};

// How the camera stands after the order; counters since its last kPrepare.
struct Answer {
    bool acquiring = false;
    bool used = false;
    bool powered = false;
    bool flash_as_file = false;
    uint32_t starts = 0;       // writes of the start register
    uint16_t client_port = 0;  // from which the latest request came
    uint64_t watchdog_expired = 0;
    std::array<uint64_t, kelosim::kMaxStreams> images{};
    std::array<uint64_t, kelosim::kMaxStreams> bytes{};
    std::array<uint64_t, kelosim::kMaxStreams> packets_dropped{};
    int64_t stall_us = 0;  // the longest since the last kPrepare of any camera
};

// The simulated cameras, in a process of their own, so that memory, threads and descriptors of this
// one are the library's and the test's.
class CameraProcess {
public:
    // Forks, so call it before any thread exists.
    CameraProcess();

    Answer Do(const Order& order);
    pid_t Pid() const { return process_.Pid(); }

private:
    bench::ChildProcess process_;
};

}  // namespace kelo::soak
