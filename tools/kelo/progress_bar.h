#pragma once

#include <chrono>
#include <cstdio>

namespace kelotool {

// How far something is, with the time that is left at the pace so far. On a terminal a bar that is
// written over; elsewhere a line for every tenth.
class ProgressBar {
public:
    explicit ProgressBar(std::FILE* out);
    // Ends the line.
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void Show(int percent);
    // A line of its own between the bars.
    void Say(const char* text);

private:
    std::FILE* const out_;
    const bool on_terminal_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    int shown_ = -1;  // percent
    std::chrono::steady_clock::time_point shown_at_{};
};

}  // namespace kelotool
