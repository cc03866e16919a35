#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

#include "kelosim/camera.h"

namespace demo {

// Images that each camera sends, numbered from 1.
inline constexpr uint32_t IMAGES_PER_CAMERA = 100;

// Three cameras, one of each kind of picture: 8-bit grey, 16-bit grey, a run-length coded laser
// line.
std::vector<kelosim::CameraConfig> DemoCameras();

// The simulated cameras in a process of their own, so that pictures reach the library through real
// sockets from another process. The process ends with this object, or when this process does.
class CameraProcess {
public:
    // Forks, so make it before any thread exists. What happens to the cameras is written to
    // log_path. Throws std::runtime_error with the reason if they cannot be started.
    CameraProcess(const std::vector<kelosim::CameraConfig>& cameras, const std::string& log_path);
    ~CameraProcess();
    CameraProcess(const CameraProcess&) = delete;
    CameraProcess& operator=(const CameraProcess&) = delete;

private:
    int channel_;
    pid_t pid_;
};

}  // namespace demo
