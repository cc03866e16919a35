#pragma once

#include <functional>
#include <string>

#include "kelosim/simulator.h"
#include "network_namespace.h"

namespace kelo::test {

// Simulated cameras in a network namespace of their own, at the far end of a virtual cable, but in
// this process: a test sees what they see. Only inside a private network; one at a time.
class FarNetwork {
public:
    static constexpr uint32_t kHost = Address(10, 9, 0, 1);
    static constexpr uint32_t kCamera = Address(10, 9, 0, 2);

    // The end of the cable that is pulled: at the host its interface is down, and sending fails; at
    // the far end the host's interface is up and has no carrier.
    enum class End { kHost, kFar };

    // Lays the cable.
    FarNetwork();
    ~FarNetwork();
    FarNetwork(const FarNetwork&) = delete;
    FarNetwork& operator=(const FarNetwork&) = delete;

    // Starts the only camera, at kCamera.
    kelosim::Camera& StartCamera(kelosim::CameraConfig config);
    // Before the cable goes for good.
    void StopCamera() { simulator_.Stop(); }

    // The interface appears and vanishes.
    void LayCable();
    void RemoveCable();
    void Pull(End end) { SetCable(end, false); }
    void PutBack(End end) { SetCable(end, true); }

private:
    // Runs on a thread that is in there.
    void Inside(const std::function<void()>& run) const;
    void SetCable(End end, bool up) const;

    int namespace_fd_ = -1;
    kelosim::Simulator simulator_;
};

}  // namespace kelo::test
