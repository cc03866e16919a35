#include "progress_bar.h"

#include <algorithm>
#include <string>

#include <unistd.h>

#include "text.h"

namespace kelotool {
namespace {

constexpr int WIDTH = 40;
constexpr int TENTH = 10;
// What so little says about the pace is nothing.
constexpr int PERCENT_MIN = 2;

std::string LeftText(int percent, double elapsed_s) {
    if (percent >= 100) return Format("%.0f s", elapsed_s);
    if (percent < PERCENT_MIN) return "";
    const int left = static_cast<int>(elapsed_s * (100 - percent) / percent + 0.5);
    return Format("about %d:%02d left", left / 60, left % 60);
}

}  // namespace

ProgressBar::ProgressBar(std::FILE* out) : out_(out), on_terminal_(isatty(fileno(out)) != 0) {}

ProgressBar::~ProgressBar() {
    if (on_terminal_ && shown_ >= 0) std::fprintf(out_, "\n");
}

void ProgressBar::Show(int percent) {
    const auto now = std::chrono::steady_clock::now();
    const int step = on_terminal_ ? 1 : TENTH;
    const bool further = shown_ < 0 || percent / step > shown_ / step;
    // The time left changes, too.
    const bool refresh = on_terminal_ && now - shown_at_ >= std::chrono::seconds(1);
    if (!further && !refresh) return;
    shown_ = percent;
    shown_at_ = now;
    const std::string left = LeftText(percent, std::chrono::duration<double>(now - start_).count());
    if (on_terminal_) {
        const std::string bar(static_cast<size_t>(std::clamp(percent, 0, 100) * WIDTH / 100), '#');
        std::fprintf(out_, "\r\033[K[%-*s] %3d %%  %s", WIDTH, bar.c_str(), percent, left.c_str());
    } else {
        std::fprintf(out_, "%3d %%  %s\n", percent, left.c_str());
    }
    std::fflush(out_);
}

void ProgressBar::Say(const char* text) {
    std::fprintf(out_, "%s%s\n", on_terminal_ && shown_ >= 0 ? "\r\033[K" : "", text);
    shown_ = -1;
    std::fflush(out_);
}

}  // namespace kelotool
