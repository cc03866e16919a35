#pragma once

#include <string>
#include <vector>

#include "command.h"
#include "kelo_api.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace kelotool {

// The text about CAMERA arguments in the helps.
inline constexpr const char* CAMERA_HELP =
    "Handle, address, MAC or a part of the description that only this camera has";
// The one CAMERA that most commands need.
void AddCameraArgument(CLI::App& command, std::string& camera);

// Those among the cameras that the text names. A handle (0x...), an address and a MAC name exactly
// one thing; any other text is a description, or part of one in any case. A whole description goes
// before parts.
std::vector<EXT_CAM_INFO> Matching(const std::vector<EXT_CAM_INFO>& cameras,
                                   const std::string& text);

// Searches for cameras and returns the one that the text names. Throws CommandError with the
// interfaces that were asked, or the candidates.
EXT_CAM_INFO SelectCamera(const Context& context, const std::string& text);
// The same for several, in the order of the texts; one that is named twice is an error.
std::vector<EXT_CAM_INFO> SelectCameras(const Context& context,
                                        const std::vector<std::string>& texts);

// What to say when a search found nothing at all.
CommandError NoCameraFound();

}  // namespace kelotool
