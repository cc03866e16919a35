#pragma once

#include <memory>
#include <string>
#include <vector>

#include "grabber.h"

namespace demo {

// Shows how far the grabbers are, until all of them are done: lines that are written over on a
// terminal, and a block of lines twice a second elsewhere.
class LiveView {
public:
    struct Row {
        std::string name;
        const Grabber* grabber;
    };
    explicit LiveView(std::vector<Row> rows);

    void Print();

private:
    const std::vector<Row> rows_;
    const bool on_terminal_;
    bool printed_ = false;
};

}  // namespace demo
