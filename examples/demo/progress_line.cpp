#include "progress_line.h"

#include <algorithm>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace demo {
namespace {

constexpr int WIDTH = 40;

std::string Bar(int percent) {
    return std::string(static_cast<size_t>(std::clamp(percent, 0, 100) * WIDTH / 100), '#');
}

}  // namespace

ProgressLine::ProgressLine() : on_terminal_(isatty(STDOUT_FILENO) != 0) {
    if (on_terminal_) return;
    const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    std::FILE* out = kept >= 0 ? fdopen(kept, "w") : nullptr;
    // Without the descriptors the marks are shown after all.
    if (out != nullptr && nowhere >= 0) {
        std::fflush(stdout);
        dup2(nowhere, STDOUT_FILENO);
        out_ = out;
    }
    if (nowhere >= 0) close(nowhere);
}

ProgressLine::~ProgressLine() {
    std::fflush(stdout);
    if (on_terminal_) std::printf("\n");
    if (out_ == stdout) return;
    std::fflush(out_);
    dup2(fileno(out_), STDOUT_FILENO);
    std::fclose(out_);
}

void ProgressLine::Show(int percent, double seconds) {
    if (on_terminal_) {
        ShowOver(percent, seconds);
    } else {
        ShowLine(percent, seconds);
    }
}

void ProgressLine::ShowOver(int percent, double seconds) const {
    std::fprintf(out_, "\r\033[15C[%-*s] %3d %%  %4.1f s", WIDTH, Bar(percent).c_str(), percent,
                 seconds);
    std::fflush(out_);
}

void ProgressLine::ShowLine(int percent, double seconds) {
    if (seconds < next_line_ && percent < 100) return;
    next_line_ = seconds + 0.5;
    std::fprintf(out_, "  [%-*s] %3d %%  %4.1f s\n", WIDTH, Bar(percent).c_str(), percent, seconds);
    std::fflush(out_);
}

}  // namespace demo
