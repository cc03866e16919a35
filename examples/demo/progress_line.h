#pragma once

#include <cstdio>

namespace demo {

// How far the firmware is. On a terminal, one line that is written over, to the right of the marks
// with which the library itself tells what it reads back ("FW:0x..."). Elsewhere a line twice a
// second; there the library's marks, ten thousand of them, would bury everything else, so standard
// output goes nowhere while this object lives.
class ProgressLine {
public:
    ProgressLine();
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void Show(int percent, double seconds);

private:
    void ShowOver(int percent, double seconds) const;
    void ShowLine(int percent, double seconds);

    const bool on_terminal_;
    std::FILE* out_ = stdout;  // where standard output went before
    double next_line_ = 0;
};

}  // namespace demo
