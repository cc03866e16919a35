#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kelosim/simulator.h"

// A client of the cameras that knows the wire only: plain sockets and bytes.
namespace kelosim::test {

using Bytes = std::vector<uint8_t>;

// Big-endian fields in a row: Be32(1) + Be16(2).
Bytes Be32(uint32_t value);
Bytes Be16(uint32_t value);
Bytes operator+(Bytes left, const Bytes& right);
uint32_t Be32At(const Bytes& bytes, size_t offset);
uint32_t Be16At(const Bytes& bytes, size_t offset);

// Blocking reads end after this long, so that a test fails instead of hanging. Far longer than any
// machine stands still.
inline constexpr int kReadTimeoutMs = 20000;

// Requests of the control channel.
Bytes ControlHeader(uint32_t command, uint32_t number, uint32_t status = 1);
Bytes ReadRegister(uint32_t number, uint32_t reg);
Bytes WriteRegister(uint32_t number, uint32_t reg, uint32_t value);
Bytes ReadMemory(uint32_t number, uint32_t reg, uint32_t count);
Bytes WriteMemory(uint32_t number, uint32_t reg, const std::vector<uint32_t>& values);
Bytes SetIp(const Bytes& mac, uint32_t current, uint32_t address, uint32_t mask);

class UdpClient {
public:
    explicit UdpClient(uint32_t local = Ipv4(127, 0, 0, 1));
    ~UdpClient();
    UdpClient(const UdpClient&) = delete;
    UdpClient& operator=(const UdpClient&) = delete;

    uint16_t port() const { return port_; }
    void Send(const Bytes& datagram, uint32_t address, uint16_t port = kControlPort);
    void Broadcast(const Bytes& datagram) { Send(datagram, 0xFFFFFFFF); }
    // The next datagram; empty when none arrives in time. from: the sender, if wanted.
    Bytes Receive(int timeout_ms = kReadTimeoutMs, uint32_t* from = nullptr);
    // Sends a request and returns its answer.
    Bytes Ask(const Bytes& request, uint32_t address);

    // Asks and returns the value, or fails the test when the status is not 1.
    uint32_t Get(uint32_t address, uint32_t reg);
    uint32_t Set(uint32_t address, uint32_t reg, uint32_t value);

private:
    int fd_;
    uint16_t port_ = 0;
    uint32_t number_ = 0;
};

// An image put together from datagrams by their packet index.
struct Assembled {
    uint32_t number = 0;
    uint16_t width = 0;
    uint16_t height = 0;
    uint32_t packets = 0;
    std::map<uint32_t, Bytes> slices;
    std::vector<uint32_t> order;  // packet indices as they arrived
    bool Complete() const { return slices.size() == packets; }
    Bytes Data() const;
};

// Receives until count images are complete; what arrived when nothing more does otherwise.
std::map<uint32_t, Assembled> ReceiveImages(UdpClient& client, size_t count,
                                            int timeout_ms = kReadTimeoutMs);

struct TcpMessage {
    Bytes header;
    Bytes body;
};

class TcpClient {
public:
    // Connects; see connected().
    TcpClient(uint32_t address, uint16_t port, int timeout_ms = kReadTimeoutMs);
    ~TcpClient();
    TcpClient(const TcpClient&) = delete;
    TcpClient& operator=(const TcpClient&) = delete;

    bool connected() const { return error_ == 0; }
    int error() const { return error_; }
    void Send(const Bytes& bytes);
    void Open(uint8_t stream) { Send({0xAC, stream}); }
    // Up to size bytes; fewer when the connection ends.
    Bytes Read(size_t size);
    TcpMessage ReadMessage();
    bool AtEnd() { return Read(1).empty(); }

private:
    int fd_;
    int error_ = 0;
};

}  // namespace kelosim::test
