#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kelosim {

// What a camera is to do wrong. A plain record: ToString prints it, and the same record on the same
// images does the same harm again, whatever the threads' timing, because chance is drawn from the
// seed, the stream, the image's number and the packet's index alone.

// One image packet to be treated wrongly. Without a stream or packet it is meant for every one.
struct PacketFault {
    enum class Kind {
        kDrop,       // never sent
        kDuplicate,  // sent twice
        kDelay,      // sent Faults::delay_packets packets later
        kReorder     // sent after the packet that follows it
    };
    Kind kind = Kind::kDrop;
    uint32_t image = 0;
    std::optional<uint16_t> packet;
    std::optional<uint8_t> stream;
    uint16_t count = 1;  // so many packets from that one on
};

// From this image on the camera's numbers are higher (modulo 2^32) by this much: the numbers in
// between are never sent. image counts as the camera counts without any jump.
struct NumberJump {
    uint32_t image = 0;
    uint32_t by = 0;
};

// Image headers that do not tell the truth; fields that are not set stay true.
struct HeaderLie {
    std::optional<uint32_t> image;   // of this image only
    std::optional<uint16_t> packet;  // of this packet only
    std::optional<uint8_t> stream;   // of this stream only

    std::optional<uint8_t> magic;
    std::optional<uint8_t> stream_number;
    std::optional<uint32_t> image_number;
    std::optional<uint16_t> current_packet;
    std::optional<uint16_t> all_packets;
    std::optional<uint16_t> width;
    std::optional<uint16_t> height;
    std::optional<uint32_t> truncate_to;  // bytes of the datagram, header included (UDP only)
};

// A control reply that does not tell the truth. Applied to the next `count` replies that match.
struct ReplyLie {
    uint32_t count = UINT32_MAX;
    std::optional<uint32_t> only_register;  // replies about this register only

    std::optional<uint8_t> magic;
    std::optional<uint32_t> command;
    uint32_t number_offset = 0;  // added to the request's message number
    std::optional<uint32_t> status;
    std::optional<uint32_t> value;        // of a register reply
    std::optional<uint32_t> registers;    // claimed by a memory reply, whatever it carries
    std::optional<uint32_t> truncate_to;  // bytes
    uint32_t extra_bytes = 0;             // appended
};

// Ends the connection of a stream after so many bytes of the message that carries the image:
// 0 between two messages, below 10 in the message header, below 24 in the image header.
struct TcpClose {
    uint32_t image = 0;
    uint64_t after_bytes = 0;
    std::optional<uint8_t> stream;
};

struct TcpFaults {
    // How new connections fare.
    enum class Accept {
        kNormal,
        kRefuse,  // nobody listens: a connection attempt is refused
        kHang     // a connection attempt gets no answer at all
    };
    Accept accept = Accept::kNormal;
    uint32_t reset_connections = 0;  // the next so many are accepted and reset at once

    uint32_t split_bytes = 0;     // at most so many bytes in one write; 0: no splitting
    uint32_t split_pause_us = 0;  // between the writes of a split message
    uint32_t oversize_bytes = 0;  // more image data than the image has, filled with 0xEE
    uint32_t garbage_bytes = 0;   // a message of an unknown type with this body before each image
    bool sync_messages = false;   // a sync message before each image
    uint32_t wrong_magic_bytes = 0;  // a message of wrong magic with this body before each image
    std::optional<uint32_t> claimed_size;  // put into the size field of image messages
    std::vector<TcpClose> closes;
};

struct Faults {
    uint64_t seed = 1;

    // Image packets over UDP, by rate (0 to 1) or by list.
    double drop_rate = 0;
    double duplicate_rate = 0;
    double delay_rate = 0;
    double reorder_rate = 0;
    uint32_t delay_packets = 8;
    std::vector<PacketFault> packets;

    // Image headers and numbers, over UDP and TCP.
    std::vector<NumberJump> jumps;
    std::vector<HeaderLie> headers;

    // Control replies.
    uint32_t drop_replies = 0;                      // the next so many are lost
    std::optional<uint32_t> drop_replies_register;  // count only replies about this register
    double drop_reply_rate = 0;
    uint32_t reply_delay_ms = 0;
    uint32_t delayed_replies = UINT32_MAX;  // the next so many are delayed
    std::vector<ReplyLie> replies;
    std::map<uint32_t, uint32_t> refused_registers;  // register, status of the answer
    uint32_t refused_starts = 0;  // writes of REG_ACQUISITIONSTART to be rejected
    bool ignore_discovery = false;
    bool silent = false;  // hears and sends nothing, but keeps its state

    TcpFaults tcp;
};

// One line that names every fault that is set; "none" when there is none.
std::string ToString(const Faults& faults);

}  // namespace kelosim
