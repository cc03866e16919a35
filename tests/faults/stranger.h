#pragma once

#include <atomic>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>

namespace kelo::test {

// Somebody on the network who sends whatever he likes to a UDP port of this host, from an address
// of his choice. The same seed sends the same.
class Stranger {
public:
    using Datagram = std::vector<uint8_t>;

    Stranger(uint32_t own_address, uint64_t seed);
    ~Stranger();
    Stranger(const Stranger&) = delete;
    Stranger& operator=(const Stranger&) = delete;

    void Send(const Datagram& datagram, uint32_t address, uint16_t port) {
        SendAll({datagram}, address, port);
    }
    void SendAll(const std::vector<Datagram>& datagrams, uint32_t address, uint16_t port);

    // Bytes of chance, min to max of them; a piece, somewhere, of a supply that is made once.
    Datagram Noise(size_t min, size_t max);
    uint32_t Number() { return static_cast<uint32_t>(chance_()); }

    // Sends noise at that rate, on a thread of its own, until EndFlood or the end of this object.
    void BeginFlood(uint32_t address, uint16_t port, double per_second);
    // Returns how many datagrams it was.
    uint64_t EndFlood();

private:
    static constexpr size_t kSupply = 1 << 20;

    // Pieces of the supply, or of datagrams, on their way to one receiver.
    struct Batch;

    void Flood(sockaddr_in to, double per_second);

    const int fd_;
    std::mt19937_64 chance_;
    Datagram supply_;
    std::atomic<bool> flood_ends_{false};
    uint64_t flooded_ = 0;  // written by the flood's thread
    std::thread flood_;
};

}  // namespace kelo::test
