#pragma once

#include <atomic>

namespace kelotool {

// Ctrl-C, SIGTERM and SIGHUP as something to ask for and to wait on. One per process; any thread
// may ask. While it lives these signals no longer end the process: whoever runs long asks.
class Interrupt {
public:
    // Throws std::system_error when the system has no pipe left.
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    bool Requested() const { return Count() > 0; }
    // How often; somebody who is impatient presses again.
    int Count() const { return count_.load(); }

    // Waits so long, or until the count exceeds `seen`. True when it does.
    bool WaitFor(int timeout_ms, int seen = 0) const;
    // Waits until `fd` can be read; false when an interruption came first. A negative timeout has
    // no end; the time being over is reported like an interruption that did not come: Requested()
    // tells.
    bool WaitReadable(int fd, int timeout_ms = -1) const;

private:
    static void OnSignal(int signal);

    static std::atomic<int> count_;
    static int write_end_;
    int read_end_ = -1;
};

}  // namespace kelotool
