#pragma once

#include <cstdint>

#include <sys/types.h>

#include "kelosim/camera.h"

namespace kelo::test {

// A simulated camera in a process and network namespace of its own, at the far end of a virtual
// cable. Only inside a private network; one at a time.
class RemoteCamera {
public:
    static constexpr uint32_t kAddress = 0x0A090002;  // 10.9.0.2
    static constexpr const char* kCable = "kelo-cable";

    // mtu of both ends of the cable.
    explicit RemoteCamera(uint32_t mtu);
    ~RemoteCamera();
    RemoteCamera(const RemoteCamera&) = delete;
    RemoteCamera& operator=(const RemoteCamera&) = delete;

    // What the camera's only stream sends.
    static kelosim::StreamConfig Stream();

    // Pulls the cable, or puts it back.
    static void SetCable(bool up);

private:
    pid_t child_ = -1;
};

}  // namespace kelo::test
