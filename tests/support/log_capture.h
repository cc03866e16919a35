#pragma once

#include <string>
#include <vector>

namespace kelo::test {

// Takes what is written to a standard stream's descriptor, for its own lifetime. The text stays
// readable while it grows.
class StreamCapture {
public:
    explicit StreamCapture(int fd);
    ~StreamCapture();
    StreamCapture(const StreamCapture&) = delete;
    StreamCapture& operator=(const StreamCapture&) = delete;

    // Everything written so far.
    std::string Text() const;

private:
    int fd_;
    int saved_;
    int file_;
};

// Takes standard output: the library's log.
class LogCapture : public StreamCapture {
public:
    LogCapture();

    // The lines so far, each without its running number ("17: ") and without its newline.
    std::vector<std::string> Lines() const;
    size_t Count(const std::string& line) const;
    bool Contains(const std::string& line) const { return Count(line) > 0; }
    // Whether some line begins with the text.
    bool ContainsPrefix(const std::string& prefix) const;
};

}  // namespace kelo::test
