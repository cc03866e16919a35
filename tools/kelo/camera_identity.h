#pragma once

#include <string>
#include <vector>

#include "interfaces.h"
#include "kelo_api.h"

namespace kelotool {

class JsonWriter;

// The members by which every JSON output describes a camera.
void WriteIdentity(JsonWriter& json, const EXT_CAM_INFO& camera,
                   const std::vector<Interface>& interfaces);

// The interface that reaches the camera, or "foreign subnet".
std::string NetworkText(const std::vector<Interface>& interfaces, const EXT_CAM_INFO& camera);

bool SameMac(const EXT_CAM_INFO& one, const EXT_CAM_INFO& other);

}  // namespace kelotool
