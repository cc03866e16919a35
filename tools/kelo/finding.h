#pragma once

#include <string>
#include <vector>

namespace kelotool {

enum class Verdict { kOk, kUnknown, kWarn, kBad };

inline const char* VerdictText(Verdict verdict) {
    switch (verdict) {
        case Verdict::kOk:
            return "ok";
        case Verdict::kWarn:
            return "warn";
        case Verdict::kBad:
            return "bad";
        default:
            return "unknown";
    }
}

// One thing that was looked at.
struct Finding {
    std::string check;     // "mtu"
    std::string subject;   // "eth1", or empty for the whole machine
    std::string measured;  // "1500 bytes"
    Verdict verdict = Verdict::kOk;
    std::string meaning;  // what follows from it; empty when it is as it should be
    std::string cure;     // the command that mends it
};

using Findings = std::vector<Finding>;

}  // namespace kelotool
