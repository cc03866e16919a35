#pragma once

#include <string>

#include "kelo_api.h"

namespace demo {

// Programs the camera with a firmware image of 5 MB, with a line that tells how far it is, and
// finds the camera again after its reboot. file_name is where the image is written to in between.
// Throws std::runtime_error if anything fails.
void ProgramFirmware(const EXT_CAM_INFO& camera, const std::string& file_name);

}  // namespace demo
