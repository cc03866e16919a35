#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>

namespace kelo::bench {

// The least that the library takes for a camera: a register file behind the control protocol, and
// answers to discovery. It does no more work per request than that, so that a measured round trip
// is the client's, and it runs on the thread of its caller. One stream, 8-bit, no header; a
// heartbeat timeout of 0, so that no keep-alive falls into a measurement. Lives at 127.0.0.1.
class BenchCamera {
public:
    // Takes the control port, 6061, and throws std::system_error if that fails.
    explicit BenchCamera(uint32_t frame_size);
    ~BenchCamera();
    BenchCamera(const BenchCamera&) = delete;
    BenchCamera& operator=(const BenchCamera&) = delete;

    int Socket() const { return socket_; }

    // Answers one datagram of the socket; waits for it.
    void AnswerOne();

    uint32_t Register(uint32_t number) const;

private:
    // Builds the answer to request (size bytes) in reply_; its length, or 0 for none.
    size_t BuildReply(size_t size);
    size_t DiscoveryReply();
    size_t RegisterReply(bool write);
    size_t MemoryReply(bool write, size_t size);
    void SendTestDatagram(uint16_t port, uint32_t packet_size) const;
    void FinishHeader(uint32_t command, uint32_t status);

    int socket_;
    std::unordered_map<uint32_t, uint32_t> registers_;
    std::byte request_[1024];
    std::byte reply_[1024];
};

}  // namespace kelo::bench
