#pragma once

#include <csignal>

namespace kelo {

// For its own lifetime, the calling thread may write to a pipe that nobody reads any more: the
// write fails, and no signal ends the process. Whoever reads an application's output may go at any
// time, and a log line must not take the application with it.
class SigpipeBlock {
public:
    SigpipeBlock();
    ~SigpipeBlock();
    SigpipeBlock(const SigpipeBlock&) = delete;
    SigpipeBlock& operator=(const SigpipeBlock&) = delete;

private:
    sigset_t before_{};
    bool blocked_ = false;  // nothing to be done if the application had it blocked already
};

}  // namespace kelo
