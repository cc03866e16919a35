#pragma once

// The records of the cameras' control protocol (UDP, camera port 6061) and the message header of
// the TCP image streams. Everything is packed; fields named NL_ (32 bits) and NS_ (16 bits) and the
// status are big-endian on the wire.

#include <array>
#include <cstddef>
#include <cstdint>

#include "kelo_common_defs.h"

// UDP port of a camera's control channel.
inline constexpr uint16_t CAMERA_CONTROL_PORT = 6061;
inline constexpr uint8_t CONTROL_MAGIC = 0xAB;
// Most registers in one memory transfer, either way.
inline constexpr uint32_t MAX_MEMORY_REGISTERS = 128;
// Largest control datagram: a memory transfer of 128 registers.
inline constexpr int MAX_CONTROL_PACKET_SIZE = 534;
// A register's byte address on the wire is its number times this.
inline constexpr uint32_t REGISTER_ADDRESS_FACTOR = 4;

enum VC_PROTOCOL_COMMANDS : uint32_t {
    VC_DISCOVER_COMMAND = 1,
    VC_DISCOVER_REPLY = 2,
    VC_SETIP_COMMAND = 3,
    VC_READREGISTER_COMMAND = 4,
    VC_READREGISTER_REPLY = 5,
    VC_WRITEREGISTER_COMMAND = 6,
    VC_WRITEREGISTER_REPLY = 7,
    VC_READMEMORY_COMMAND = 8,
    VC_READMEMORY_REPLY = 9,
    VC_WRITEMEMORY_COMMAND = 10,
    VC_WRITEMEMORY_REPLY = 11,
    VC_EVENT_REPLY = 12,  // defined, never acted on
};

enum VCNL_status_values : uint32_t {
    VCS_SUCCESS = 1,
    VCS_ERROR = 2,
    VCS_OUT_OF_RANGE = 3,
};

enum TCP_MESSAGE_TYPE : uint32_t {
    TCP_SYNC_MESSAGE = 0,
    TCP_IMAGE_MESSAGE = 1,
};

#pragma pack(push, 1)

// In front of every control datagram.
typedef struct vc_command_header {
    uint8_t magic_number;  // CONTROL_MAGIC
    uint8_t flags;         // 0; not looked at on receipt
    uint32_t NL_command_id;
    uint32_t NL_message_number;  // a reply carries its request's number
    uint32_t VCNL_status;        // VCS_SUCCESS in requests
} TKeloCommandHeader;

typedef struct vc_discovery_reply {
    TKeloCommandHeader header;
    uint32_t NL_self_test_result;
    uint16_t NS_firmware_version_major;
    uint16_t NS_firmware_version_minor;
    char hardware_description[32];  // not necessarily terminated
    uint32_t NL_camera_ip;
    uint32_t NL_camera_subnet;
    uint8_t camera_mac[6];
    uint16_t padding;
    uint32_t NL_link_speed_mbit;
    uint32_t NL_connection_status;
} TDiscoveryReply;

typedef struct vc_setip_command {
    TKeloCommandHeader header;
    uint8_t camera_mac[6];
    uint16_t padding;
    uint32_t NL_camera_current_ip;
    uint32_t NL_camera_new_ip;
    uint32_t NL_camera_new_subnet;
} TSetIPCommand;

typedef struct vc_readregister_packet {
    TKeloCommandHeader header;
    uint32_t NL_address;
    uint32_t NL_value;
} TRegReadPacket;

typedef struct vc_writeregister_packet {
    TKeloCommandHeader header;
    uint32_t NL_address;
    uint32_t NL_value;
} TRegWritePacket;

typedef struct vc_readmemory_command {
    TKeloCommandHeader header;
    uint32_t NL_address_0;
    uint32_t NL_number_of_registers;
} TMemReadCommand;

typedef struct vc_readmemory_reply_max {
    TKeloCommandHeader header;
    uint32_t NL_address_0;
    uint32_t NL_number_of_registers;
    uint32_t NL_register_values[MAX_MEMORY_REGISTERS];
} TMemReadReplyMax;

typedef struct vc_writememory_command_max {
    TKeloCommandHeader header;
    uint32_t NL_address_0;
    uint32_t NL_number_of_registers;
    uint32_t NL_register_values[MAX_MEMORY_REGISTERS];
} TMemWriteCommandMax;

typedef struct vc_writememory_reply {
    TKeloCommandHeader header;
    uint32_t NL_address_0;
    uint32_t NL_number_of_registers;
} TMemWriteReply;

// In front of every message of a TCP image stream.
typedef struct kelo_tcp_stream_packet_header {
    uint8_t magicNumber;  // 0xAC
    uint8_t streamNumber;
    uint32_t type;  // TCP_MESSAGE_TYPE
    uint32_t size;  // bytes that follow this header
} TTcpStreamPacketHeader;

#pragma pack(pop)

static_assert(sizeof(TKeloCommandHeader) == 14);
static_assert(offsetof(TKeloCommandHeader, NL_command_id) == 2);
static_assert(offsetof(TKeloCommandHeader, NL_message_number) == 6);
static_assert(offsetof(TKeloCommandHeader, VCNL_status) == 10);
static_assert(sizeof(TDiscoveryReply) == 78);
static_assert(offsetof(TDiscoveryReply, NL_self_test_result) == 14);
static_assert(offsetof(TDiscoveryReply, NS_firmware_version_major) == 18);
static_assert(offsetof(TDiscoveryReply, NS_firmware_version_minor) == 20);
static_assert(offsetof(TDiscoveryReply, hardware_description) == 22);
static_assert(offsetof(TDiscoveryReply, NL_camera_ip) == 54);
static_assert(offsetof(TDiscoveryReply, NL_camera_subnet) == 58);
static_assert(offsetof(TDiscoveryReply, camera_mac) == 62);
static_assert(offsetof(TDiscoveryReply, NL_link_speed_mbit) == 70);
static_assert(offsetof(TDiscoveryReply, NL_connection_status) == 74);
static_assert(sizeof(TSetIPCommand) == 34);
static_assert(offsetof(TSetIPCommand, camera_mac) == 14);
static_assert(offsetof(TSetIPCommand, NL_camera_current_ip) == 22);
static_assert(offsetof(TSetIPCommand, NL_camera_new_ip) == 26);
static_assert(offsetof(TSetIPCommand, NL_camera_new_subnet) == 30);
static_assert(sizeof(TRegReadPacket) == 22 && sizeof(TRegWritePacket) == 22);
static_assert(offsetof(TRegReadPacket, NL_address) == 14 &&
              offsetof(TRegReadPacket, NL_value) == 18);
static_assert(offsetof(TRegWritePacket, NL_address) == 14);
static_assert(offsetof(TRegWritePacket, NL_value) == 18);
static_assert(sizeof(TMemReadCommand) == 22 && sizeof(TMemWriteReply) == 22);
static_assert(offsetof(TMemReadCommand, NL_address_0) == 14);
static_assert(offsetof(TMemReadCommand, NL_number_of_registers) == 18);
static_assert(offsetof(TMemWriteReply, NL_address_0) == 14);
static_assert(offsetof(TMemWriteReply, NL_number_of_registers) == 18);
static_assert(sizeof(TMemReadReplyMax) == MAX_CONTROL_PACKET_SIZE);
static_assert(sizeof(TMemWriteCommandMax) == MAX_CONTROL_PACKET_SIZE);
static_assert(offsetof(TMemReadReplyMax, NL_register_values) == 22);
static_assert(offsetof(TMemWriteCommandMax, NL_register_values) == 22);
static_assert(sizeof(kelo_tcp_stream_packet_header) == 10);
static_assert(offsetof(kelo_tcp_stream_packet_header, type) == 2);
static_assert(offsetof(kelo_tcp_stream_packet_header, size) == 6);

// The header of a command on its way to a camera: status success, flags 0, network order.
TKeloCommandHeader MakeCommandHeader(VC_PROTOCOL_COMMANDS command, uint32_t message_number);

// The result that a camera's answer stands for; status in host order.
KELO_API_STATUS StatusFromWire(uint32_t status);
