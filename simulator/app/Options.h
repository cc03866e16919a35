#pragma once

#include <optional>
#include <string>
#include <vector>

#include "kelosim/simulator.h"

// What the command line of kelo-sim asks for.
struct FirmwareOrder {
    std::string path;
    uint32_t size = 5000000;
    uint64_t seed = 1;
    kelosim::FirmwareSpoil spoil = kelosim::FirmwareSpoil::kNone;
};

struct Options {
    std::vector<kelosim::CameraConfig> cameras;
    double duration_s = 0;  // 0: until a signal
    bool quiet = false;
    std::optional<FirmwareOrder> firmware;
    // Set when there is nothing to run: the help was printed, or the command line is wrong.
    std::optional<int> exit_code;
};

// Prints the help or what is wrong, to standard output or standard error.
Options ParseOptions(int argc, char** argv);

// Faults from a line that is written as on the command line. Throws std::invalid_argument.
kelosim::Faults ParseFaults(const std::string& line);
