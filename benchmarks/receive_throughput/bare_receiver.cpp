#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "../support/big_endian.h"
#include "../support/cpu.h"
#include "receivers.h"

namespace kelo::bench {
namespace {

// What the library asks of the kernel for its image socket.
constexpr int RECEIVE_BUFFER = 32 << 20;

class BareSocket {
public:
    BareSocket();
    ~BareSocket() { close(fd_); }
    BareSocket(const BareSocket&) = delete;
    BareSocket& operator=(const BareSocket&) = delete;

    uint16_t Port() const;
    // Header and payload apart; the payload's length, or -1 after 100 ms without a datagram.
    ssize_t Receive(std::byte* header, std::byte* payload) const;

private:
    int fd_;
};

BareSocket::BareSocket() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throw std::system_error(errno, std::generic_category(), "bare receiver's socket");
    }
    const timeval wait = {0, 100'000};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER) != 0) {
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER);
    }
}

uint16_t BareSocket::Port() const {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

ssize_t BareSocket::Receive(std::byte* header, std::byte* payload) const {
    iovec parts[] = {{header, IMAGE_HEADER_SIZE}, {payload, PAYLOAD_SIZE}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    const ssize_t size = recvmsg(fd_, &message, 0);
    return size < 0 ? -1 : size - static_cast<ssize_t>(IMAGE_HEADER_SIZE);
}

class BareReceiver final : public Receiver {
public:
    const char* Name() const override { return "bare"; }
    RunResult Run(Peer& peer, uint32_t images, double bytes_per_second) override;

private:
    // Takes in what was received to the place of packet `expected`; the packet that came.
    uint32_t Place(const std::byte* header, size_t size, uint32_t expected, RunResult& result);

    // Room behind the last packet, because every packet is received in full.
    std::vector<std::byte> frame_ = std::vector<std::byte>(IMAGE_SIZE + PAYLOAD_SIZE);
    uint32_t image_ = 0;
    uint32_t packets_of_image_ = 0;
};

RunResult BareReceiver::Run(Peer& peer, uint32_t images, double bytes_per_second) {
    const BareSocket from;
    constexpr uint32_t PACKETS = DatagramsPerImage(IMAGE_SIZE);
    RunResult result;
    result.images_sent = images;
    image_ = 0;
    packets_of_image_ = 0;
    const double start = Now();
    const double cpu_start = CpuSeconds();
    peer.Begin(SendOrder{from.Port(), 0, images, bytes_per_second});
    uint32_t expected = 0;
    bool sent = false;
    while (true) {
        std::byte header[IMAGE_HEADER_SIZE];
        const ssize_t size = from.Receive(header, frame_.data() + expected * PAYLOAD_SIZE);
        if (size < 0) {
            // Nothing came since the sender was done: what is missing is lost.
            if (sent) break;
            sent = peer.Done();
            continue;
        }
        const uint32_t packet = Place(header, static_cast<size_t>(size), expected, result);
        expected = (packet + 1) % PACKETS;
        if (packet + 1 != PACKETS) continue;
        result.seconds = Now() - start;
        result.cpu_seconds = CpuSeconds() - cpu_start;
        if (image_ + 1 == images) break;
    }
    peer.Wait<double>();
    return result;
}

uint32_t BareReceiver::Place(const std::byte* header, size_t size, uint32_t expected,
                             RunResult& result) {
    const uint32_t packet = Get16(header + 6);
    const uint32_t packets = Get16(header + 8);
    if (packet >= packets || (packet + 1) * PAYLOAD_SIZE > frame_.size()) {
        throw std::runtime_error("the bare receiver got a datagram that was not sent to it");
    }
    if (packet != expected) {
        std::memmove(frame_.data() + packet * PAYLOAD_SIZE, frame_.data() + expected * PAYLOAD_SIZE,
                     size);
    }
    if (Get32(header + 2) != image_) {
        image_ = Get32(header + 2);
        packets_of_image_ = 0;
    }
    ++result.datagrams;
    result.bytes += size;
    if (++packets_of_image_ != packets) return packet;
    ++result.whole_images;
    if (Get32(frame_.data()) != image_) {
        throw std::runtime_error("the bare receiver put together a wrong image");
    }
    return packet;
}

}  // namespace

std::unique_ptr<Receiver> MakeBareReceiver() {
    return std::make_unique<BareReceiver>();
}

}  // namespace kelo::bench
