#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "interfaces.h"
#include "kelo_api.h"

namespace kelotool {

// 255.255.255.0, 24 or /24; null for anything that is not ones followed by zeros.
std::optional<uint32_t> ParseMask(std::string_view text);

// What speaks against giving a camera an address, or for thinking again. Texts for people.
struct AddressJudgement {
    std::vector<std::string> errors;
    std::vector<std::string> warnings;
};

// From what is known without asking anybody. `others` are the cameras that answered.
AddressJudgement JudgeAddress(const EXT_CAM_INFO& camera, uint32_t address, uint32_t mask,
                              const std::vector<Interface>& interfaces,
                              const std::vector<EXT_CAM_INFO>& others);

// The MAC of whoever answers at an address of an interface's subnet, by the kernel's address
// resolution; null when nobody does within the time. "02:..." in lower case.
std::optional<std::string> WhoAnswersAt(uint32_t address, int timeout_ms);

}  // namespace kelotool
