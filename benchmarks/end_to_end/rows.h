#pragma once

#include <string>
#include <vector>

#include "network_path.h"
#include "run.h"

namespace kelo::bench {

// One kind of traffic, and the ways of receiving it that are compared.
struct Row {
    enum class Kind {
        STREAM,    // rounds of one run per variant
        MAX_RATE,  // the highest rate without a lost packet
    };

    std::string name;
    std::string title;
    Way way = Way::LOOPBACK;
    Traffic traffic{};
    std::vector<std::string> variants{};
    Kind kind = Kind::STREAM;
    int rounds = 0;          // 0: as many as are asked for
    double seconds_min = 0;  // of a run
    uint32_t images = 0;     // of a run, of each camera; 0: as many as the time holds
    bool merging = true;     // false: the receivers are told that the system knows no merging
    bool restart = false;    // each run starts the acquisition, which starts the sender
    double stall_ms = 0;     // the receiver's core is taken away for that long, again and again
    bool first_run_counts = false;
};

std::vector<Row> AllRows();

}  // namespace kelo::bench
