#pragma once

#include <cstdint>

#include <netinet/in.h>
#include <sys/socket.h>

namespace kelo::bench {

// A UDP socket on a port of its own, with the receive buffer that the library asks for.
class BoundSocket {
public:
    BoundSocket();
    ~BoundSocket();
    BoundSocket(const BoundSocket&) = delete;
    BoundSocket& operator=(const BoundSocket&) = delete;

    int Get() const { return fd_; }
    uint16_t Port() const;
    void SetReceiveTimeout() const;  // of QUIET_SECONDS
    bool AllowMerging() const;

private:
    int fd_;
};

// How long a receiver waits until nothing comes any more.
inline constexpr double QUIET_SECONDS = 0.1;

}  // namespace kelo::bench
