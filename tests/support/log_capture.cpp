#include "log_capture.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kelo::test {

StreamCapture::StreamCapture(int fd)
    : fd_(fd), saved_(dup(fd)), file_(memfd_create("captured-output", MFD_CLOEXEC)) {
    fflush(nullptr);
    if (saved_ < 0 || file_ < 0 || dup2(file_, fd_) < 0) {
        throw std::runtime_error("the output cannot be captured");
    }
}

StreamCapture::~StreamCapture() {
    const std::string text = Text();
    dup2(saved_, fd_);
    // GoogleTest's own words about a failure were taken as well.
    if (testing::Test::HasFailure()) fputs(text.c_str(), stderr);
    close(saved_);
    close(file_);
}

std::string StreamCapture::Text() const {
    fflush(nullptr);
    struct stat status {};
    fstat(file_, &status);
    std::string text(static_cast<size_t>(status.st_size), '\0');
    const ssize_t count = pread(file_, text.data(), text.size(), 0);
    text.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return text;
}

LogCapture::LogCapture() : StreamCapture(STDOUT_FILENO) {}

std::vector<std::string> LogCapture::Lines() const {
    std::vector<std::string> lines;
    std::istringstream text(Text());
    for (std::string line; std::getline(text, line);) {
        const size_t digits = line.find_first_not_of("0123456789");
        const bool numbered =
            digits != std::string::npos && digits > 0 && line.compare(digits, 2, ": ") == 0;
        lines.push_back(numbered ? line.substr(digits + 2) : line);
    }
    return lines;
}

size_t LogCapture::Count(const std::string& line) const {
    const auto lines = Lines();
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

bool LogCapture::ContainsPrefix(const std::string& prefix) const {
    const auto lines = Lines();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.rfind(prefix, 0) == 0; });
}

}  // namespace kelo::test
