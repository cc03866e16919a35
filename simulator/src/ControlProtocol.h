#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

// The control protocol as a camera reads and writes it. Every datagram begins with
//   magic 0xAB, flags (8 bits each), command, message number, status (32 bits each).
namespace kelosim {

enum Command : uint32_t {
    kDiscover = 1,
    kDiscoverReply = 2,
    kSetIp = 3,
    kReadRegister = 4,
    kWriteRegister = 6,
    kReadMemory = 8,
    kWriteMemory = 10,
};

enum Status : uint32_t { kSuccess = 1, kError = 2, kOutOfRange = 3 };

inline constexpr uint8_t kControlMagic = 0xAB;
inline constexpr uint32_t kMaxRegisters = 128;
inline constexpr size_t kControlHeaderSize = 14;

struct Request {
    uint32_t command = 0;
    uint32_t message_number = 0;
    uint32_t register_number = 0;  // the wire's byte address divided by 4
    uint32_t count = 0;            // registers; 1 for register requests
    std::vector<uint32_t> values;  // of writes
    // Of set-IP:
    std::array<uint8_t, 6> mac{};
    uint32_t new_address = 0;
    uint32_t new_subnet_mask = 0;
};

// Nothing when the datagram is no request that a camera understands: wrong magic, unknown command,
// too short for its command, an address that is no register's.
std::optional<Request> ParseRequest(std::span<const uint8_t> datagram);

struct Identity {
    std::string description;
    uint32_t address = 0;
    uint32_t subnet_mask = 0;
    std::array<uint8_t, 6> mac{};
    uint16_t firmware_major = 0;
    uint16_t firmware_minor = 0;
    uint32_t link_speed_mbit = 1000;
    uint32_t connection_status = 0;
};

std::vector<uint8_t> DiscoveryReply(uint32_t message_number, const Identity& identity);
std::vector<uint8_t> RegisterReply(const Request& request, uint32_t status, uint32_t value);
std::vector<uint8_t> ReadMemoryReply(const Request& request, uint32_t status,
                                     std::span<const uint32_t> values);
std::vector<uint8_t> WriteMemoryReply(const Request& request, uint32_t status, uint32_t count);

}  // namespace kelosim
