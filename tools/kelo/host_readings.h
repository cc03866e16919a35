#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelotool {

// What the kernel tells of this machine, read without a change to anything. What cannot be read is
// empty.

// A whole number in a file of /proc, for example a system setting.
std::optional<int64_t> ReadNumber(const std::string& path);

// A field of /proc/net/snmp or /proc/net/netstat: ("Udp", "RcvbufErrors"). 0 when it is not there.
uint64_t ProtocolCounter(const std::string& contents, const std::string& protocol,
                         const std::string& field);
std::string ReadText(const std::string& path);

// Datagrams that the kernel dropped because they found no room in a UDP socket of this process.
uint64_t OwnSocketDrops();
// The same from the contents of /proc/net/udp, for sockets of these inodes.
uint64_t SocketDrops(const std::string& udp_table, const std::vector<uint64_t>& inodes);
// Packets that found no room in the queue of a processor; from /proc/net/softnet_stat.
uint64_t BacklogDrops(const std::string& softnet_table);

// What a network card counted since it is up. 32 bits are what the system hands out here.
struct CardCounters {
    uint32_t packets = 0;
    uint32_t errors = 0;   // damaged on the cable
    uint32_t dropped = 0;  // no room or nobody interested
    uint32_t missed = 0;   // no room in the card's ring
    uint32_t fifo = 0;     // the same, as older drivers count it
};

struct Card {
    std::string name;
    bool up = false;
    bool running = false;  // a cable with somebody at its end
    bool loopback = false;
    int mtu = 0;
    CardCounters counters;
    // As far as the driver tells.
    std::optional<uint32_t> ring;
    std::optional<uint32_t> ring_max;
    std::optional<bool> merges_packets;  // generic receive offload
    std::optional<uint32_t> speed_mbits;
    std::optional<bool> half_duplex;
};

std::optional<Card> ReadCard(const std::string& name);

// The largest receive buffer in bytes that a socket of this process gets, of at most so many.
int64_t GrantedReceiveBuffer(int wanted);
// Whether a thread of this process may have real-time round-robin priority, the highest there is.
bool MayRunInRealTime();
int64_t RealTimePriorityLimit();

}  // namespace kelotool
