#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "../support/bench_camera.h"
#include "run.h"

namespace kelo::bench {

// The camera's end of TCP image streams: a listening socket, and the connections that came in, told
// apart by the second of the two bytes that open them. Pieces of an image are sent one after the
// other, waiting for the clock in a loop where the stream is paced.
class TcpSender {
public:
    // Listens on the port that it chooses. Throws std::system_error.
    TcpSender();
    ~TcpSender();
    TcpSender(const TcpSender&) = delete;
    TcpSender& operator=(const TcpSender&) = delete;

    uint16_t Port() const;
    // Throws std::runtime_error when nobody opened the wanted connection.
    Sent Send(const Order& order);

private:
    int Connection(uint8_t tag);
    void AcceptOne();
    void SendImage(int fd, const Order& order);

    int listener_;
    std::map<uint8_t, int> connections_;
    std::vector<std::byte> message_;  // headers and image
    uint32_t number_ = 0;
    double due_ns_ = 0;
    int64_t work_ns_ = 0;
};

}  // namespace kelo::bench
