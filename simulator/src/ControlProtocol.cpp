#include "ControlProtocol.h"

#include "Wire.h"

namespace kelosim {
namespace {

void ReadSetIp(wire::Reader& reader, Request& request) {
    const auto mac = reader.Bytes(request.mac.size());
    std::copy(mac.begin(), mac.end(), request.mac.begin());
    reader.U16();  // padding
    reader.U32();  // the current address: the MAC is what counts
    request.new_address = reader.U32();
    request.new_subnet_mask = reader.U32();
}

// Returns false for a byte address that is no register's.
bool ReadRegisterFields(wire::Reader& reader, Request& request) {
    const uint32_t address = reader.U32();
    request.register_number = address / 4;
    request.count = 1;
    const uint32_t word = reader.U32();
    switch (request.command) {
        case kWriteRegister:
            request.values = {word};
            break;
        case kReadMemory:
            request.count = word;
            break;
        case kWriteMemory:
            request.count = word;
            while (request.values.size() < word && reader.Left() >= 4) {
                request.values.push_back(reader.U32());
            }
            break;
        default:
            break;
    }
    return address % 4 == 0;
}

std::vector<uint8_t> Header(uint32_t command, uint32_t message_number, uint32_t status) {
    std::vector<uint8_t> reply;
    reply.reserve(kControlHeaderSize + 8 + kMaxRegisters * 4);
    wire::Writer(reply).U8(kControlMagic).U8(0).U32(command).U32(message_number).U32(status);
    return reply;
}

// The head of every reply about registers: its command follows the request's.
std::vector<uint8_t> ReplyTo(const Request& request, uint32_t status, uint32_t second_word) {
    std::vector<uint8_t> reply = Header(request.command + 1, request.message_number, status);
    wire::Writer(reply).U32(request.register_number * 4).U32(second_word);
    return reply;
}

}  // namespace

std::optional<Request> ParseRequest(std::span<const uint8_t> datagram) {
    wire::Reader reader(datagram);
    if (reader.U8() != kControlMagic) return std::nullopt;
    reader.U8();  // flags
    Request request;
    request.command = reader.U32();
    request.message_number = reader.U32();
    reader.U32();  // status
    bool valid = true;
    switch (request.command) {
        case kDiscover:
            break;
        case kSetIp:
            ReadSetIp(reader, request);
            break;
        case kReadRegister:
        case kWriteRegister:
        case kReadMemory:
        case kWriteMemory:
            valid = ReadRegisterFields(reader, request);
            break;
        default:
            valid = false;
    }
    if (!valid || reader.Failed()) return std::nullopt;
    return request;
}

std::vector<uint8_t> DiscoveryReply(uint32_t message_number, const Identity& identity) {
    std::vector<uint8_t> reply = Header(kDiscoverReply, message_number, kSuccess);
    wire::Writer(reply)
        .U32(0)  // self-test: passed
        .U16(identity.firmware_major)
        .U16(identity.firmware_minor)
        .Text(identity.description, 32)
        .U32(identity.address)
        .U32(identity.subnet_mask)
        .Bytes(identity.mac)
        .U16(0)
        .U32(identity.link_speed_mbit)
        .U32(identity.connection_status);
    return reply;
}

std::vector<uint8_t> RegisterReply(const Request& request, uint32_t status, uint32_t value) {
    return ReplyTo(request, status, value);
}

std::vector<uint8_t> ReadMemoryReply(const Request& request, uint32_t status,
                                     std::span<const uint32_t> values) {
    std::vector<uint8_t> reply = ReplyTo(request, status, static_cast<uint32_t>(values.size()));
    wire::Writer writer(reply);
    for (const uint32_t value : values)
        writer.U32(value);
    return reply;
}

std::vector<uint8_t> WriteMemoryReply(const Request& request, uint32_t status, uint32_t count) {
    return ReplyTo(request, status, count);
}

}  // namespace kelosim
