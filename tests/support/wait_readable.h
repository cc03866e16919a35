#pragma once

#include <poll.h>

namespace kelo::test {

// Waits until the socket, of whatever class, has something to receive. 1: yes, 0: time is over, -1:
// the wait failed.
template <typename Socket>
int WaitReadable(const Socket& socket, int timeout_ms) {
    pollfd wanted{.fd = socket.getNativeHandle(), .events = POLLIN, .revents = 0};
    return poll(&wanted, 1, timeout_ms);
}

}  // namespace kelo::test
