#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <vector>

#include <sys/socket.h>
#include <sys/uio.h>

#include "FaultPlan.h"
#include "Sockets.h"

namespace kelosim {

// What became of the packets of one image.
struct SendTally {
    uint64_t packets = 0;
    uint64_t bytes = 0;
    uint64_t dropped = 0;
    std::vector<std::vector<uint8_t>> datagrams;  // what left, if it is to be kept
};

// Cuts images into datagrams and sends them. Used by one thread.
//
// Datagrams leave in batches: many messages in one call, and where the kernel can segment
// (UDP_SEGMENT), many datagrams in one message. Where it cannot, that is noticed once and each
// message carries one datagram from then on. An image that faults touch goes out datagram by
// datagram, and so does one whose datagrams are to be kept.
class UdpImageSender {
public:
    struct Route {
        Endpoint to;
        uint32_t packet_size = 1500;       // of IP, headers included
        uint32_t path_packet_size = 9000;  // bigger packets get lost
    };
    // Called after every batch with the bytes of image data that left; false ends the image.
    using Pacer = std::function<bool(uint64_t bytes)>;

    // Binds to the address; throws std::runtime_error.
    explicit UdpImageSender(uint32_t address, bool keeps_sent = false);

    // header: of the first packet; its index and count are filled in here.
    SendTally Send(std::span<const uint8_t> image, ImageHeader header, const Route& route,
                   const Faults& faults, bool small_batches, const Pacer& pacer);
    // Sends what faults hold back.
    SendTally Flush(const Route& route);

    // Image bytes that fit into a packet of the size.
    static uint32_t PayloadSize(uint32_t packet_size);
    // Packets that an image needs; 0 when they cannot be counted in 16 bits.
    static uint32_t PacketCount(uint64_t image_size, uint32_t payload_size);

private:
    struct Held {
        std::vector<uint8_t> datagram;
        uint32_t packets_left;
    };

    SendTally SendTruly(std::span<const uint8_t> image, ImageHeader header, const Route& route,
                        bool small_batches, const Pacer& pacer);
    SendTally SendWithFaults(std::span<const uint8_t> image, ImageHeader header, const Route& route,
                             const Faults& faults, const Pacer& pacer);
    uint32_t DatagramsPerMessage(uint32_t datagram_size) const;
    void BuildBatch(std::span<const uint8_t> image, ImageHeader header, uint32_t payload,
                    uint32_t first, uint32_t end, const sockaddr_in& to);
    // Returns false when the kernel turned out not to segment: nothing more of the batch was sent.
    bool SendBatch(SendTally& tally);
    void CountMessage(const msghdr& message, bool sent, SendTally& tally) const;
    void SendDatagram(std::span<const uint8_t> datagram, const Route& route, SendTally& tally);
    void ReleaseHeld(const Route& route, size_t count, SendTally& tally);
    void WaitWritable() const;

    Fd socket_;
    const bool keeps_sent_;
    bool segmentation_ = true;
    std::deque<Held> held_;

    // The batch under construction; kept to save allocations.
    struct alignas(cmsghdr) SegmentControl {
        char bytes[CMSG_SPACE(sizeof(uint16_t))];
    };
    std::vector<std::array<uint8_t, kImageHeaderSize>> headers_;
    std::vector<iovec> slices_;
    std::vector<SegmentControl> controls_;
    std::vector<mmsghdr> messages_;
    sockaddr_in to_{};
    uint32_t first_unsent_ = 0;  // packet index, after a batch that failed
};

}  // namespace kelosim
