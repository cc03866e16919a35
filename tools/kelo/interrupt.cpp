#include "interrupt.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace kelotool {
namespace {

constexpr int SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};

using Clock = std::chrono::steady_clock;

int Left(Clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    return static_cast<int>(std::max<decltype(left)>(left, 0));
}

}  // namespace

std::atomic<int> Interrupt::count_{0};
int Interrupt::write_end_ = -1;

Interrupt::Interrupt() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    read_end_ = ends[0];
    write_end_ = ends[1];
    struct sigaction action {};
    action.sa_handler = &Interrupt::OnSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (const int signal : SIGNALS)
        sigaction(signal, &action, nullptr);
    // Writing into a closed pipe is an error to be reported, not a silent end with a camera open.
    std::signal(SIGPIPE, SIG_IGN);
}

Interrupt::~Interrupt() {
    for (const int signal : SIGNALS)
        std::signal(signal, SIG_DFL);
    close(read_end_);
    close(write_end_);
}

void Interrupt::OnSignal(int /*signal*/) {
    const int kept = errno;
    count_.fetch_add(1);
    // A full pipe is as readable as it can be.
    (void)!write(write_end_, "", 1);
    errno = kept;
}

bool Interrupt::WaitFor(int timeout_ms, int seen) const {
    const auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    pollfd fd{read_end_, POLLIN, 0};
    while (Count() <= seen && Left(end) > 0) {
        if (poll(&fd, 1, Left(end)) > 0 && Count() <= seen) {
            // What was pressed before is known.
            char drained[16];
            (void)!read(read_end_, drained, sizeof drained);
        }
    }
    return Count() > seen;
}

bool Interrupt::WaitReadable(int fd, int timeout_ms) const {
    const auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    pollfd fds[] = {{fd, POLLIN, 0}, {read_end_, POLLIN, 0}};
    while (!Requested()) {
        if (poll(fds, 2, timeout_ms < 0 ? -1 : Left(end)) > 0 && fds[0].revents != 0) return true;
        if (timeout_ms >= 0 && Left(end) == 0) return false;
    }
    return false;
}

}  // namespace kelotool
