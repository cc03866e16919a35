#pragma once

#include <cstdint>
#include <string>

namespace kelotool {

// Looks at a firmware file before any camera is bothered; returns its size. Throws CommandError
// that says what is wrong with it. (The library checks again what it sends.)
uint64_t CheckFirmwareFile(const std::string& path);

}  // namespace kelotool
