#pragma once

#include <vector>

#include "kelo_api.h"

namespace demo {

// Prints who answered the discovery.
void PrintCameraTable(const std::vector<EXT_CAM_INFO>& cameras);

// Prints what an open camera sends and how: picture size, format, the packet size that opening it
// has found to get through. Throws std::runtime_error if the camera does not tell.
void PrintOpenCamera(const EXT_CAM_INFO& camera);

}  // namespace demo
