#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include <netinet/in.h>

namespace kelo::bench {

struct CameraSetup {
    uint32_t width = 1024;
    uint32_t height = 1024;
    uint32_t first_address = INADDR_LOOPBACK;  // host order; the others follow
    uint32_t cameras = 1;
    uint32_t largest_packet = 9000;
    uint16_t tcp_port = 0;  // of the image stream; 0: it comes as datagrams
};

// The least that the library takes for cameras: a register file each behind the control protocol,
// and answers to discovery. It does no more work per request than that, so that a measured round
// trip is the client's, and it runs on the thread of its caller. One stream, 8-bit, no header; a
// heartbeat timeout of 0, so that no keep-alive falls into a measurement.
class BenchCamera {
public:
    // Takes the control port, 6061, and throws std::system_error if that fails.
    explicit BenchCamera(const CameraSetup& setup);
    ~BenchCamera();
    BenchCamera(const BenchCamera&) = delete;
    BenchCamera& operator=(const BenchCamera&) = delete;

    int Socket() const { return socket_; }
    const CameraSetup& Setup() const { return setup_; }

    // Answers one datagram of the socket; waits for it.
    void AnswerOne();

    uint32_t Register(uint32_t number, size_t camera = 0) const;
    // Who wrote a register last; in host order, 0 for nobody.
    uint32_t ClientAddress() const { return client_address_; }
    // How often an acquisition was started so far, all cameras together.
    uint32_t Starts() const { return starts_; }

private:
    using Registers = std::unordered_map<uint32_t, uint32_t>;

    // Builds the answer to request (size bytes) in reply_; its length, or 0 for none.
    size_t BuildReply(size_t size, size_t camera);
    size_t DiscoveryReply(size_t camera);
    size_t RegisterReply(bool write, size_t camera);
    size_t MemoryReply(bool write, size_t size);
    void Write(uint32_t number, uint32_t value, size_t camera);
    void SendTestDatagram(uint16_t port, uint32_t packet_size, size_t camera);
    void FinishHeader(uint32_t command, uint32_t status);
    // The address that the datagram was sent to, in host order; 0 where there is none.
    uint32_t ReceiveRequest(size_t& size);
    void AnswerFrom(size_t camera, size_t size);
    void SendFrom(size_t camera, const sockaddr_in& to, const void* data, size_t size) const;

    CameraSetup setup_;
    int socket_;
    std::vector<Registers> registers_;  // by camera
    uint32_t client_address_ = 0;
    uint32_t starts_ = 0;
    sockaddr_in client_{};
    std::byte request_[1024]{};
    std::byte reply_[1024]{};
};

}  // namespace kelo::bench
